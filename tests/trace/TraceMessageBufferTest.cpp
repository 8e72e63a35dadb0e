// Reading trace messages from a descriptor: partial input, end of file, failures, refusal and
// resynchronisation after bad bytes, the invalid-message modes and the optional mutex.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>
#include <algorithm>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/Pipe.h"
#include "common/Wait.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/RawTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"
#include "trace/TraceTestSupport.h"

namespace {

using qbtest::InvalidHandlingGuard;
using qbtest::Pipe;

// Raw message, identifier 2, time stamp 0, body "xy" (CRC 0x4D2C5730 by zlib).
const std::vector<uint8_t> rawXy = {0xc0, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                    0x00, 0x00, 0x78, 0x79, 0x30, 0x57, 0x2c, 0x4d, 0xc1};

// MSGID_CAN_EXT whose body has frame kind 7 (CRC 0xD02A8052): whole, invalid body.
const std::vector<uint8_t> canKind7 = {0xc0, 0x02, 0x0b, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                       0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0xe0, 0x07,
                                       0x00, 0x00, 0x00, 0x52, 0x80, 0x2a, 0xd0, 0xc1};

// Version 1 inside a frame with a correct CRC (0xF0E63BFE).
const std::vector<uint8_t> version1Frame = {0xc0, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00,
                                            0x00, 0x00, 0x00, 0x00, 0x00, 0x78, 0x79,
                                            0xfe, 0x3b, 0xe6, 0xf0, 0xc1};

// Identifier 0xC1C0, time stamp 0x0807060504F5C0C1, empty body: every reserved byte of the
// header is escaped (CRC 0x5CEF75BA).
const std::vector<uint8_t> escapedHeader = {0xc0, 0x02, 0xf5, 0xe0, 0xf5, 0xe1, 0xf5, 0xe1,
                                            0xf5, 0xe0, 0xf5, 0xd5, 0x04, 0x05, 0x06, 0x07,
                                            0x08, 0xba, 0x75, 0xef, 0x5c, 0xc1};

std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> all;
    for (const auto& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

std::vector<uint8_t> serialise(const MessageBase& msg) {
    byteVec_t out;
    msg.createByteArray(out, true, false);
    return out;
}

CANTransportTraceMessage transport(uint32_t id, size_t payloadSize, uint8_t fill = 0x5A) {
    const std::vector<uint8_t> payload(payloadSize, fill);
    return CANTransportTraceMessage(id, id, payload.begin(), payload.end(), CT_STANDARD);
}

// The text of the QBException that getNextMessage() throws; "" if it returns instead.
std::string nextMessageError(TraceMessageBuffer& buffer) {
    try {
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        ADD_FAILURE() << "expected an exception, got " << msg.get();
    } catch (const QBException& e) {
        return e.text();
    }
    return "";
}

void expectRawXy(const MessageBase* msg) {
    ASSERT_NE(nullptr, msg);
    auto* raw = dynamic_cast<const RawTraceMessage*>(msg);
    ASSERT_NE(nullptr, raw);
    EXPECT_EQ(2, raw->getMessageId());
    EXPECT_EQ((byteVec_t{'x', 'y'}), raw->getBody());
    EXPECT_TRUE(raw->isValid());
    EXPECT_EQ(rawXy, raw->getRawBytes());
}

}  // namespace

TEST(TraceMessageBufferRead, EmptyPipeReturnsZeroNotFailure) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    EXPECT_EQ(0, buffer.read());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    EXPECT_FALSE(buffer.atEndOfInput());
    EXPECT_EQ(0u, buffer.bufferedBytes());
}

TEST(TraceMessageBufferRead, HalfAMessageWaitsForTheRest) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    const std::vector<uint8_t> bytes = serialise(transport(0x7E8, 100));
    const size_t half = bytes.size() / 2;
    ASSERT_TRUE(pipe.writeAll(std::vector<uint8_t>(bytes.begin(), bytes.begin() + half)));
    EXPECT_EQ(static_cast<int>(half), buffer.read());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    EXPECT_EQ(half, buffer.bufferedBytes());

    ASSERT_TRUE(pipe.writeAll(std::vector<uint8_t>(bytes.begin() + half, bytes.end())));
    EXPECT_EQ(static_cast<int>(bytes.size() - half), buffer.read());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    ASSERT_NE(nullptr, msg);
    qbtest::expectSameMessage(transport(0x7E8, 100), *msg);
    EXPECT_EQ(bytes, msg->getRawBytes());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_EQ(0u, buffer.bufferedBytes());
}

TEST(TraceMessageBufferRead, MessageFedOneBytePerReadComesOutOnceAndWhole) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    const CANTransportTraceMessage sent = transport(0x123, 300, 0xA5);
    const std::vector<uint8_t> bytes = serialise(sent);
    int messages = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        ASSERT_TRUE(pipe.writeAll({bytes[i]}));
        ASSERT_EQ(1, buffer.read());
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        if (msg) {
            ++messages;
            EXPECT_EQ(bytes.size() - 1, i);
            qbtest::expectSameMessage(sent, *msg);
            EXPECT_EQ(bytes, msg->getRawBytes());
        }
    }
    EXPECT_EQ(1, messages);
    EXPECT_EQ(nullptr, buffer.getNextMessage());
}

TEST(TraceMessageBufferRead, ClosedWriterGivesEndOfInput) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    pipe.closeWrite();
    EXPECT_EQ(TraceMessageBuffer::END_OF_INPUT, buffer.read());
    EXPECT_TRUE(buffer.atEndOfInput());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_EQ(TraceMessageBuffer::END_OF_INPUT, buffer.read());
}

TEST(TraceMessageBufferRead, BytesBeforeEndOfFileAreReturnedFirst) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    ASSERT_TRUE(pipe.writeAll(rawXy));
    pipe.closeWrite();
    EXPECT_EQ(19, buffer.read());
    EXPECT_TRUE(buffer.atEndOfInput());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
    EXPECT_EQ(TraceMessageBuffer::END_OF_INPUT, buffer.read());
    EXPECT_TRUE(buffer.atEndOfInput());
}

TEST(TraceMessageBufferRead, FailureReturnsMinusOneWithErrnoAndBufferStaysUsable) {
    TraceMessageBuffer buffer(-1, nullptr);
    errno = 0;
    EXPECT_EQ(-1, buffer.read());
    EXPECT_EQ(EBADF, errno);
    EXPECT_FALSE(buffer.atEndOfInput());
    buffer.feed(rawXy.data(), rawXy.size());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferRead, ReadOnAPipeReadEndThatIsWriteOnlyFails) {
    Pipe pipe(true);
    // The write end cannot be read: read() reports the failure instead of pretending no data.
    TraceMessageBuffer buffer(pipe.writeEnd(), nullptr);
    errno = 0;
    EXPECT_EQ(-1, buffer.read());
    EXPECT_EQ(EBADF, errno);
}

TEST(TraceMessageBufferRead, BlockingDescriptorReadsWhatIsThereWithOneCall) {
    Pipe pipe(false);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    ASSERT_TRUE(pipe.writeAll(rawXy));
    EXPECT_EQ(19, buffer.read());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
    pipe.closeWrite();
    EXPECT_EQ(TraceMessageBuffer::END_OF_INPUT, buffer.read());
    EXPECT_TRUE(buffer.atEndOfInput());
}

TEST(TraceMessageBufferRead, OneCallTakesAtMostTheChunkLimitAndNoneWhileAChunkWaits) {
    Pipe pipe(true);
    const int capacity = ::fcntl(pipe.writeEnd(), F_SETPIPE_SZ, 256 * 1024);
    ASSERT_GE(capacity, 256 * 1024) << "cannot enlarge the pipe, errno " << errno;
    std::vector<uint8_t> stream;
    size_t largest = 0;
    for (uint32_t i = 0; i < 30; ++i) {
        const std::vector<uint8_t> one = serialise(transport(i, 5000, static_cast<uint8_t>(i)));
        stream.insert(stream.end(), one.begin(), one.end());
        largest = std::max(largest, one.size());
    }
    ASSERT_TRUE(pipe.writeAll(stream));

    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    EXPECT_EQ(65536, buffer.read());
    // Less than a chunk of whole messages waits: the next call reads another chunk; after
    // that, a whole chunk waits and the rest stays in the pipe, where a faster writer would
    // have to wait.
    EXPECT_EQ(65536, buffer.read());
    EXPECT_EQ(0, buffer.read());
    EXPECT_LE(buffer.bufferedBytes(), 2u * 65536u);
    EXPECT_FALSE(buffer.atEndOfInput());

    // Reading and parsing in turn takes the whole stream; the buffer never holds more than two
    // chunks and one message.
    size_t taken = 2 * 65536;
    size_t mostBuffered = buffer.bufferedBytes();
    for (uint32_t i = 0; i < 30; ++i) {
        const int n = buffer.read();
        ASSERT_GE(n, 0);
        taken += static_cast<size_t>(n);
        mostBuffered = std::max(mostBuffered, buffer.bufferedBytes());
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        ASSERT_NE(nullptr, msg) << "message " << i;
        qbtest::expectSameMessage(transport(i, 5000, static_cast<uint8_t>(i)), *msg);
    }
    EXPECT_EQ(stream.size(), taken);
    EXPECT_LE(mostBuffered, 2u * 65536u + largest);
    EXPECT_EQ(0, buffer.read());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_EQ(0u, buffer.bufferedBytes());
}

namespace {
void ignoreSignal(int) {}
}  // namespace

TEST(TraceMessageBufferRead, InterruptedBlockingReadIsResumed) {
    struct sigaction action {};
    action.sa_handler = ignoreSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the blocked read() fails with EINTR
    struct sigaction saved {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &saved));

    Pipe pipe(false);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    std::atomic<bool> started{false};
    std::atomic<int> result{-100};
    std::thread reader([&] {
        started = true;
        result = buffer.read();
    });
    ASSERT_TRUE(qbtest::waitUntil([&] { return started.load(); }, std::chrono::seconds(5)));
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        pthread_kill(reader.native_handle(), SIGUSR1);
    }
    EXPECT_EQ(-100, result.load()) << "read() returned before any data was written";
    ASSERT_TRUE(pipe.writeAll(rawXy));
    reader.join();
    sigaction(SIGUSR1, &saved, nullptr);
    EXPECT_EQ(19, result.load());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

namespace {

// Collects what getNextMessage() gives until it returns null: the messages and the texts of
// the exceptions, in order ("!" before each exception text).
std::vector<std::string> drainAll(TraceMessageBuffer& buffer,
                                  std::vector<std::unique_ptr<MessageBase>>* messages = nullptr) {
    std::vector<std::string> events;
    for (int guard = 0; guard < 100000; ++guard) {
        try {
            std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
            if (!msg) {
                break;
            }
            std::ostringstream text;
            text << *msg;
            events.push_back(text.str());
            if (messages != nullptr) {
                messages->push_back(std::move(msg));
            }
        } catch (const QBException& e) {
            events.push_back("!" + e.text());
        }
    }
    return events;
}

}  // namespace

TEST(TraceMessageBufferFraming, GarbageThenValidMessageGivesOneErrorThenTheMessage) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    const std::vector<uint8_t> garbage = {'h', 'e', 'l', 'l', 'o', ' ', 'w'};
    ASSERT_TRUE(pipe.writeAll(concat({garbage, rawXy})));
    EXPECT_EQ(26, buffer.read());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ("trace message stream: dropped 7 bytes: no message start", nextMessageError(buffer));
    EXPECT_EQ(19u, buffer.bufferedBytes());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
}

TEST(TraceMessageBufferFraming, EscapedHeaderBytesAreRestored) {
    TraceMessageBuffer buffer(-1, nullptr);
    buffer.feed(escapedHeader.data(), escapedHeader.size());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    ASSERT_NE(nullptr, msg);
    auto* raw = dynamic_cast<RawTraceMessage*>(msg.get());
    ASSERT_NE(nullptr, raw);
    EXPECT_EQ(0xC1C0, raw->getMessageId());
    EXPECT_EQ(0x0807060504F5C0C1u, raw->getTimeStamp());
    EXPECT_TRUE(raw->getBody().empty());
    EXPECT_EQ(escapedHeader, raw->getRawBytes());
    EXPECT_EQ(escapedHeader, serialise(RawTraceMessage(static_cast<msgid_t>(0xC1C0),
                                                       0x0807060504F5C0C1u, byteVec_t())));
}

TEST(TraceMessageBufferFraming, AFloodOfFrameStartsCostsOneException) {
    // 64 KiB of frame-start bytes, fed in pieces of 100 bytes, then a whole message.
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> flood(65536, MessageBase::FRAME_START);
    for (size_t i = 0; i < flood.size(); i += 100) {
        buffer.feed(flood.data() + i, std::min<size_t>(100, flood.size() - i));
        EXPECT_FALSE(buffer.hasUnparsedInput());
    }
    buffer.feed(rawXy.data(), rawXy.size());
    std::vector<std::unique_ptr<MessageBase>> messages;
    const std::vector<std::string> events = drainAll(buffer, &messages);
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(
        "!trace message stream: dropped 65536 bytes: message cut short by the start of another "
        "(and 65535 more damaged pieces)",
        events[0]);
    ASSERT_EQ(1u, messages.size());
    expectRawXy(messages[0].get());
}

TEST(TraceMessageBufferFraming, AnEndlessFloodIsReportedOncePerMebibyte) {
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> chunk(65536, 0x55);
    for (int i = 0; i < 48; ++i) {  // 3 MiB
        buffer.feed(chunk.data(), chunk.size());
    }
    EXPECT_EQ(0u, buffer.bufferedBytes());
    const std::vector<std::string> events = drainAll(buffer);
    ASSERT_EQ(3u, events.size());
    for (const std::string& e : events) {
        EXPECT_EQ("!trace message stream: dropped 1048576 bytes: no message start", e);
    }
}

TEST(TraceMessageBufferFraming, APayloadHoldingAWholeMessageIsNeverTakenForOne) {
    // A payload from the bus that holds the serialised bytes of a message, read from every
    // possible point of entry (a reader out of step by k bytes): the inner message never comes
    // out; the damaged part costs one exception and the next whole message is returned.
    const std::vector<uint8_t> inner = serialise(transport(0x7E0, 7, 0x11));
    std::vector<uint8_t> payload = concat({{0x00, 0x01}, inner, inner, {0x02}});
    const CANTransportTraceMessage outer(0, 0x7E8, payload.begin(), payload.end(), CT_STANDARD);
    const std::vector<uint8_t> outerBytes = serialise(outer);
    for (size_t k = 0; k < outerBytes.size(); ++k) {
        TraceMessageBuffer buffer(-1, nullptr);
        buffer.feed(outerBytes.data() + k, outerBytes.size() - k);
        buffer.feed(rawXy.data(), rawXy.size());
        std::vector<std::unique_ptr<MessageBase>> messages;
        const std::vector<std::string> events = drainAll(buffer, &messages);
        if (k == 0) {
            ASSERT_EQ(2u, messages.size());
            qbtest::expectSameMessage(outer, *messages[0]);
            expectRawXy(messages[1].get());
            EXPECT_EQ(2u, events.size());
            continue;
        }
        ASSERT_EQ(2u, events.size()) << "entry at byte " << k;
        EXPECT_EQ(0u, events[0].find("!trace message stream: dropped " +
                                     std::to_string(outerBytes.size() - k) + " bytes: "))
            << "entry at byte " << k << ": " << events[0];
        ASSERT_EQ(1u, messages.size()) << "entry at byte " << k;
        expectRawXy(messages[0].get());
    }
}

TEST(TraceMessageBufferFraming, ATruncatedMessageCostsOnlyItself) {
    // The message is cut after every possible number of bytes and followed by three whole
    // ones: one exception, then the three.
    const std::vector<uint8_t> cut = serialise(transport(0x7E8, 100, 0x33));
    const std::vector<uint8_t> a = serialise(transport(1, 3, 0xA1));
    const std::vector<uint8_t> b = serialise(transport(2, 0, 0));
    const std::vector<uint8_t> c = serialise(transport(3, 200, 0xC0));
    for (size_t n = 1; n < cut.size(); ++n) {
        TraceMessageBuffer buffer(-1, nullptr);
        const std::vector<uint8_t> stream =
            concat({std::vector<uint8_t>(cut.begin(), cut.begin() + n), a, b, c});
        buffer.feed(stream.data(), stream.size());
        std::vector<std::unique_ptr<MessageBase>> messages;
        const std::vector<std::string> events = drainAll(buffer, &messages);
        ASSERT_EQ(4u, events.size()) << "cut after " << n;
        EXPECT_EQ("!trace message stream: dropped " + std::to_string(n) +
                      " bytes: message cut short by the start of another",
                  events[0]);
        ASSERT_EQ(3u, messages.size());
        qbtest::expectSameMessage(transport(1, 3, 0xA1), *messages[0]);
        qbtest::expectSameMessage(transport(2, 0, 0), *messages[1]);
        qbtest::expectSameMessage(transport(3, 200, 0xC0), *messages[2]);
    }
}

TEST(TraceMessageBufferFraming, TruncatedPayloadThroughAPipeThenThreeMessagesGivesTheThree) {
    // The probe of a review: a 100-byte payload message cut in the middle, then three valid
    // messages, through a real pipe.
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    const std::vector<uint8_t> cut = serialise(transport(0x7E8, 100, 0x33));
    const std::vector<uint8_t> half(cut.begin(), cut.begin() + 60);
    ASSERT_TRUE(pipe.writeAll(half));
    for (uint32_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(pipe.writeAll(serialise(transport(i, 10 * i, static_cast<uint8_t>(i)))));
    }
    pipe.closeWrite();
    std::vector<std::unique_ptr<MessageBase>> messages;
    std::vector<std::string> events;
    for (;;) {
        const int n = buffer.read();
        const std::vector<std::string> more = drainAll(buffer, &messages);
        events.insert(events.end(), more.begin(), more.end());
        if (n == TraceMessageBuffer::END_OF_INPUT) {
            break;
        }
        ASSERT_GE(n, 0);
    }
    ASSERT_EQ(4u, events.size());
    EXPECT_EQ("!trace message stream: dropped 60 bytes: message cut short by the start of another",
              events[0]);
    ASSERT_EQ(3u, messages.size());
    for (uint32_t i = 1; i <= 3; ++i) {
        qbtest::expectSameMessage(transport(i, 10 * i, static_cast<uint8_t>(i)), *messages[i - 1]);
    }
}

TEST(TraceMessageBufferFraming, AnyChangedByteCostsOnlyItsMessage) {
    const std::vector<uint8_t> good = serialise(transport(0x7E8, 20, 0x5A));
    const uint8_t changes[] = {0x01,
                               0x80,
                               0xFF,
                               MessageBase::FRAME_START,
                               MessageBase::FRAME_END,
                               MessageBase::FRAME_ESCAPE};
    for (size_t i = 0; i < good.size(); ++i) {
        for (uint8_t change : changes) {
            std::vector<uint8_t> damaged = good;
            damaged[i] = change == MessageBase::FRAME_START || change == MessageBase::FRAME_END ||
                                 change == MessageBase::FRAME_ESCAPE
                             ? change
                             : static_cast<uint8_t>(damaged[i] ^ change);
            if (damaged == good) {
                continue;
            }
            TraceMessageBuffer buffer(-1, nullptr);
            const std::vector<uint8_t> stream = concat({damaged, rawXy});
            buffer.feed(stream.data(), stream.size());
            std::vector<std::unique_ptr<MessageBase>> messages;
            const std::vector<std::string> events = drainAll(buffer, &messages);
            ASSERT_EQ(2u, events.size())
                << "byte " << i << " changed to " << static_cast<int>(damaged[i]);
            EXPECT_EQ('!', events[0][0]) << events[0];
            ASSERT_EQ(1u, messages.size());
            expectRawXy(messages[0].get());
        }
    }
}

TEST(TraceMessageBufferFraming, EachFrameProblemIsNamed) {
    struct Case {
        std::vector<uint8_t> bytes;
        std::string text;
    };
    std::vector<uint8_t> badCrc = rawXy;
    badCrc[14] ^= 0x01;
    std::vector<uint8_t> badEscape = rawXy;
    badEscape[12] = MessageBase::FRAME_ESCAPE;  // followed by 'y', which is no escaped byte
    const std::vector<Case> cases = {
        {badCrc, "trace message stream: dropped 19 bytes: checksum mismatch"},
        {version1Frame, "trace message stream: dropped 19 bytes: unsupported format version 1"},
        {{0xc0, 0x02, 0x02, 0x00, 0xc1},
         "trace message stream: dropped 5 bytes: message of 3 bytes is shorter than the 15 of "
         "header and CRC"},
        {{0xc0, 0xc1},
         "trace message stream: dropped 2 bytes: message of 0 bytes is shorter "
         "than the 15 of header and CRC"},
        {badEscape, "trace message stream: dropped 19 bytes: bad escape sequence"},
        {{0xc0, 0x02, 0xf5, 0xc1}, "trace message stream: dropped 4 bytes: bad escape sequence"},
        {{0xc1, 0xf5, 0xe0}, "trace message stream: dropped 3 bytes: no message start"},
    };
    for (const Case& c : cases) {
        TraceMessageBuffer buffer(-1, nullptr);
        const std::vector<uint8_t> stream = concat({c.bytes, rawXy});
        buffer.feed(stream.data(), stream.size());
        EXPECT_EQ(c.text, nextMessageError(buffer));
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        expectRawXy(msg.get());
        EXPECT_EQ(nullptr, buffer.getNextMessage());
    }
}

TEST(TraceMessageBufferFraming, TooLongAFrameIsDroppedWithoutBeingBufferedWhole) {
    TraceMessageBuffer buffer(-1, nullptr);
    const uint8_t start = MessageBase::FRAME_START;
    buffer.feed(&start, 1);
    const std::vector<uint8_t> chunk(65536, 0x42);
    size_t fed = 1;
    size_t mostBuffered = 0;
    for (int i = 0; i < 20; ++i) {  // 1.25 MiB of content
        buffer.feed(chunk.data(), chunk.size());
        fed += chunk.size();
        mostBuffered = std::max(mostBuffered, buffer.bufferedBytes());
    }
    EXPECT_LE(mostBuffered, MessageBase::MAX_CONTENT_SIZE + 1);
    EXPECT_EQ(0u, buffer.bufferedBytes());
    const uint8_t end = MessageBase::FRAME_END;
    buffer.feed(&end, 1);
    ++fed;
    buffer.feed(rawXy.data(), rawXy.size());
    // The frame is dropped when it grows too long (1 + 17 pieces of 64 KiB: that run reaches the
    // 1 MiB report limit at once); the rest of it is a run of its own.
    std::vector<std::unique_ptr<MessageBase>> messages;
    const std::vector<std::string> events = drainAll(buffer, &messages);
    ASSERT_EQ(3u, events.size());
    EXPECT_EQ("!trace message stream: dropped 1114113 bytes: message longer than the maximum",
              events[0]);
    EXPECT_EQ("!trace message stream: dropped " + std::to_string(fed - 1114113) +
                  " bytes: rest of a dropped message",
              events[1]);
    ASSERT_EQ(1u, messages.size());
    expectRawXy(messages[0].get());
}

TEST(TraceMessageBufferFraming, BodyOfExactlyTheMaximumIsAccepted) {
    TraceMessageBuffer buffer(-1, nullptr);
    const RawTraceMessage big(static_cast<msgid_t>(2), 0, byteVec_t(MessageBase::MAX_BODY_SIZE, 7));
    const std::vector<uint8_t> bytes = serialise(big);
    buffer.feed(bytes.data(), bytes.size());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    ASSERT_NE(nullptr, msg);
    auto* raw = dynamic_cast<RawTraceMessage*>(msg.get());
    ASSERT_NE(nullptr, raw);
    EXPECT_EQ(MessageBase::MAX_BODY_SIZE, raw->getBody().size());
    EXPECT_EQ(bytes, raw->getRawBytes());
}

TEST(TraceMessageBufferFraming, EndOfInputDropsAndReportsAMessageCutShort) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    ASSERT_TRUE(
        pipe.writeAll(concat({rawXy, std::vector<uint8_t>(rawXy.begin(), rawXy.begin() + 9)})));
    pipe.closeWrite();
    EXPECT_EQ(28, buffer.read());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
    EXPECT_EQ(TraceMessageBuffer::END_OF_INPUT, buffer.read());
    EXPECT_EQ("trace message stream: dropped 9 bytes: message cut short by the end of input",
              nextMessageError(buffer));
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_EQ(0u, buffer.bufferedBytes());
}

TEST(TraceMessageBufferFraming, InterleavedWritersLoseOnlyTheSplitMessage) {
    // Writer X's message is split by writer Y's whole message: Y comes out; X's head is dropped
    // when Y starts, and X's tail (which has no frame start) is dropped as stray bytes.
    const std::vector<uint8_t> x = serialise(transport(0x100, 50, 0x77));
    const std::vector<uint8_t> xHead(x.begin(), x.begin() + 30);
    const std::vector<uint8_t> xTail(x.begin() + 30, x.end());
    const std::vector<uint8_t> stream = concat({xHead, rawXy, xTail, rawXy});
    TraceMessageBuffer buffer(-1, nullptr);
    buffer.feed(stream.data(), stream.size());
    std::vector<std::unique_ptr<MessageBase>> messages;
    const std::vector<std::string> events = drainAll(buffer, &messages);
    ASSERT_EQ(4u, events.size());
    EXPECT_EQ("!trace message stream: dropped 30 bytes: message cut short by the start of another",
              events[0]);
    EXPECT_EQ("!trace message stream: dropped " + std::to_string(xTail.size()) +
                  " bytes: no message start",
              events[2]);
    ASSERT_EQ(2u, messages.size());
    expectRawXy(messages[0].get());
    expectRawXy(messages[1].get());
}

TEST(TraceMessageBufferFraming, RandomGarbageBetweenMessagesIsDroppedOnceAndEveryMessageFound) {
    std::mt19937 rng(20240611);
    const uint8_t alphabet[] = {MessageBase::FRAME_START,
                                MessageBase::FRAME_END,
                                MessageBase::FRAME_ESCAPE,
                                0x00,
                                0x02,
                                0xE0,
                                0xE1,
                                0xD5};
    std::vector<uint8_t> stream;
    std::vector<std::unique_ptr<MessageBase>> sent;
    size_t garbageRuns = 0;
    size_t garbageBytes = 0;
    for (int i = 0; i < 300; ++i) {
        if (rng() % 2 == 0) {
            const size_t n = 1 + rng() % 40;
            for (size_t k = 0; k < n; ++k) {
                stream.push_back(rng() % 2 ? alphabet[rng() % sizeof alphabet]
                                           : static_cast<uint8_t>(rng()));
            }
            ++garbageRuns;
            garbageBytes += n;
        }
        const std::vector<uint8_t> payload(rng() % 50, static_cast<uint8_t>(rng()));
        sent.emplace_back(new CANTransportTraceMessage(
            static_cast<timeStamp_t>(i), rng(), payload.begin(), payload.end(), CT_FD_EXTENDED));
        const std::vector<uint8_t> bytes = serialise(*sent.back());
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    }

    TraceMessageBuffer buffer(-1, nullptr);
    buffer.feed(stream.data(), stream.size());
    size_t errors = 0;
    size_t dropped = 0;
    size_t received = 0;
    for (int guard = 0; guard < 10000; ++guard) {
        try {
            std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
            if (!msg) {
                break;
            }
            ASSERT_LT(received, sent.size());
            qbtest::expectSameMessage(*sent[received], *msg);
            ++received;
        } catch (const QBException& e) {
            ++errors;
            const std::string prefix = "trace message stream: dropped ";
            const std::string text = e.text();
            ASSERT_EQ(0u, text.find(prefix)) << text;
            dropped += std::stoul(text.substr(prefix.size()));
        }
    }
    EXPECT_EQ(sent.size(), received);
    EXPECT_EQ(garbageRuns, errors);
    EXPECT_EQ(garbageBytes, dropped);
    EXPECT_EQ(0u, buffer.bufferedBytes());
}

TEST(TraceMessageBufferInvalid, ReturnNullModeDropsTheMessageAndThrows) {
    InvalidHandlingGuard mode(MessageBase::IMH_RETURN_NULL);
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> all = concat({canKind7, rawXy});
    buffer.feed(all.data(), all.size());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ(
        "trace message stream: dropped 26 bytes: invalid message id 0xb: unknown CAN frame "
        "kind 7",
        nextMessageError(buffer));
    EXPECT_EQ(19u, buffer.bufferedBytes());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferInvalid, ReturnInvalidModeGivesARawMessageWithTheReason) {
    InvalidHandlingGuard mode(MessageBase::IMH_RETURN_INVALID_MESSAGE);
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> all = concat({canKind7, rawXy});
    buffer.feed(all.data(), all.size());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    ASSERT_NE(nullptr, msg);
    auto* raw = dynamic_cast<RawTraceMessage*>(msg.get());
    ASSERT_NE(nullptr, raw);
    EXPECT_EQ(MSGID_CAN_EXT, raw->getMessageId());
    EXPECT_EQ(0u, raw->getTimeStamp());
    EXPECT_FALSE(raw->isValid());
    EXPECT_EQ("unknown CAN frame kind 7", raw->getInvalidReason());
    EXPECT_EQ((byteVec_t{0x00, 0x07, 0x00, 0x00, 0xe0, 0x07, 0x00, 0x00, 0x00}), raw->getBody());
    EXPECT_EQ(canKind7, raw->getRawBytes());
    std::ostringstream os;
    os << *raw;
    EXPECT_EQ("trace message id 0xb len 9 invalid: unknown CAN frame kind 7", os.str());
    std::unique_ptr<MessageBase> next(buffer.getNextMessage());
    expectRawXy(next.get());
}

TEST(TraceMessageBufferInvalid, DefaultModeIsReturnNull) {
    EXPECT_EQ(MessageBase::IMH_RETURN_NULL, MessageBase::invalidHandling);
}

TEST(TraceMessageBufferInvalid, EachBodyProblemIsNamed) {
    InvalidHandlingGuard mode(MessageBase::IMH_RETURN_INVALID_MESSAGE);
    struct Case {
        msgid_t id;
        byteVec_t body;
        const char* reason;
    };
    const Case cases[] = {
        {MSGID_CAN, {0, 0, 0, 0, 1}, "CAN frame body of 5 bytes is shorter than 9"},
        {MSGID_CAN_EXT, {0, 0, 0, 0, 1, 0, 0, 0, 65}, "CAN frame with 65 data bytes, more than 64"},
        {MSGID_CAN_PROXY,
         {0, 0, 0, 0, 1, 0, 0, 0, 2, 1, 2, 3},
         "CAN frame body of 12 bytes does not match its 2 data bytes"},
        {MSGID_CAN,
         {0, 0, 0, 0, 1, 0, 0, 0, 1},
         "CAN frame body of 9 bytes does not match its 1 data bytes"},
        {MSGID_CAN, {0, 4, 0, 0, 1, 0, 0, 0, 0}, "unknown CAN frame kind 4"},
        {MSGID_CAN, {0, 0, 0x10, 0, 1, 0, 0, 0, 0}, "CAN status byte 0x10 has reserved bits set"},
        {MSGID_CAN, {0, 0, 0x28, 0, 1, 0, 0, 0, 0}, "CAN status byte 0x28 has reserved bits set"},
        {MSGID_CAN, {0, 0, 0x08, 0, 1, 0, 0, 0, 0}, "unknown CAN error state 8"},
        {MSGID_CAN, {0, 0, 0, 4, 1, 0, 0, 0, 0}, "unknown CAN type 4"},
        {MSGID_CAN, {0, 0, 0, 0, 0, 8, 0, 0, 0}, "CAN identifier 0x800 too wide for CAN type 0"},
        {MSGID_CAN_EXT,
         {0, 0, 0, 1, 0, 0, 0, 0x20, 0},
         "CAN identifier 0x20000000 too wide for CAN type 1"},
        {MSGID_CAN_TRANSPORT, {1, 2, 3, 4}, "CAN transport body of 4 bytes is shorter than 5"},
        {MSGID_CAN_TRANSPORT, {1, 2, 3, 4, 9, 0xAA}, "unknown CAN type 9"},
    };
    for (const Case& c : cases) {
        const RawTraceMessage written(c.id, 3, c.body);
        const std::vector<uint8_t> bytes = serialise(written);
        TraceMessageBuffer buffer(-1, nullptr);
        buffer.feed(bytes.data(), bytes.size());
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        ASSERT_NE(nullptr, msg) << c.reason;
        auto* raw = dynamic_cast<RawTraceMessage*>(msg.get());
        ASSERT_NE(nullptr, raw) << c.reason;
        EXPECT_EQ(c.id, raw->getMessageId());
        EXPECT_EQ(3u, raw->getTimeStamp());
        EXPECT_EQ(c.body, raw->getBody());
        EXPECT_EQ(c.reason, raw->getInvalidReason());
        EXPECT_EQ(bytes, raw->getRawBytes());
    }
}

TEST(TraceMessageBufferInvalid, ValidBodiesAtTheLimitsAreAccepted) {
    // Reserved-bit and range checks must not refuse legal values.
    const struct {
        msgid_t id;
        byteVec_t body;
    } cases[] = {
        {MSGID_CAN, {0xFF, 3, 0xC7, 0, 0xFF, 0x07, 0, 0, 0}},
        {MSGID_CAN_EXT, {0, 0, 0x07, 3, 0xFF, 0xFF, 0xFF, 0x1F, 0}},
        {MSGID_CAN_TRANSPORT, {0xFF, 0xFF, 0xFF, 0xFF, 3}},
    };
    for (const auto& c : cases) {
        const RawTraceMessage written(c.id, 0, c.body);
        const std::vector<uint8_t> bytes = serialise(written);
        TraceMessageBuffer buffer(-1, nullptr);
        buffer.feed(bytes.data(), bytes.size());
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        ASSERT_NE(nullptr, msg);
        EXPECT_TRUE(msg->isValid()) << msg->getInvalidReason();
        EXPECT_EQ(nullptr, dynamic_cast<RawTraceMessage*>(msg.get()));
        byteVec_t body;
        msg->createByteArray(body, false, false);
        EXPECT_EQ(c.body, body);
    }
}

TEST(TraceMessageBufferState, BufferedBytesCountWaitingMessagesAndTheOneArriving) {
    TraceMessageBuffer buffer(-1, nullptr);
    std::vector<uint8_t> stream;
    for (int i = 0; i < 10; ++i) {
        stream.insert(stream.end(), rawXy.begin(), rawXy.end());
    }
    buffer.feed(stream.data(), stream.size());
    EXPECT_EQ(190u, buffer.bufferedBytes());
    for (int i = 0; i < 5; ++i) {
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        expectRawXy(msg.get());
    }
    EXPECT_EQ(95u, buffer.bufferedBytes());
    buffer.feed(rawXy.data(), 13);
    EXPECT_EQ(108u, buffer.bufferedBytes());
    for (int i = 0; i < 5; ++i) {
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        expectRawXy(msg.get());
    }
    EXPECT_EQ(13u, buffer.bufferedBytes());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    // Bytes outside a frame are dropped, not held.
    const uint8_t garbage[5] = {1, 2, 3, 4, 5};
    buffer.feed(rawXy.data() + 13, rawXy.size() - 13);
    buffer.feed(garbage, sizeof garbage);
    EXPECT_EQ(19u, buffer.bufferedBytes());
}

TEST(TraceMessageBufferState, LongStreamKeepsOnlyTheMessageArriving) {
    // Many messages through one buffer, split anywhere: what stays buffered is never more than
    // the part of a message that has not been completed.
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> one = serialise(transport(0x42, 1000));
    size_t received = 0;
    for (int i = 0; i < 2000; ++i) {
        const size_t split = static_cast<size_t>(i * 37) % one.size();
        buffer.feed(one.data(), split);
        EXPECT_EQ(nullptr, buffer.getNextMessage());
        EXPECT_EQ(split, buffer.bufferedBytes());
        buffer.feed(one.data() + split, one.size() - split);
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        ASSERT_NE(nullptr, msg);
        ++received;
        EXPECT_EQ(0u, buffer.bufferedBytes());
    }
    EXPECT_EQ(2000u, received);
}

TEST(TraceMessageBufferState, HasUnparsedInputTurnsTrueWithTheFrameEnd) {
    TraceMessageBuffer buffer(-1, nullptr);
    EXPECT_FALSE(buffer.hasUnparsedInput());
    for (size_t i = 0; i < rawXy.size() - 1; ++i) {
        buffer.feed(&rawXy[i], 1);
        EXPECT_FALSE(buffer.hasUnparsedInput()) << "after " << (i + 1) << " bytes";
    }
    buffer.feed(&rawXy.back(), 1);
    EXPECT_TRUE(buffer.hasUnparsedInput());
    // Asking twice changes nothing.
    EXPECT_TRUE(buffer.hasUnparsedInput());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    // Garbage is not reported on its own before its run ends; a whole message ends it.
    const uint8_t q[2] = {'Q', 'X'};
    buffer.feed(q, 2);
    EXPECT_FALSE(buffer.hasUnparsedInput());
    buffer.feed(rawXy.data(), rawXy.size());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ("trace message stream: dropped 2 bytes: no message start", nextMessageError(buffer));
    std::unique_ptr<MessageBase> next(buffer.getNextMessage());
    expectRawXy(next.get());
}

TEST(TraceMessageBufferThreads, OneThreadReadsWhileAnotherParsesUnderTheMutex) {
    constexpr uint32_t count = 200;
    std::mt19937 rng(77);
    std::vector<std::vector<uint8_t>> payloads;
    for (uint32_t i = 0; i < count; ++i) {
        std::vector<uint8_t> payload(rng() % 3000);
        for (auto& b : payload) {
            b = static_cast<uint8_t>(rng());
        }
        payloads.push_back(std::move(payload));
    }

    Pipe pipe(true);
    std::mutex mutex;
    TraceMessageBuffer buffer(pipe.readEnd(), &mutex);

    std::thread writer([&] {
        for (uint32_t i = 0; i < count; ++i) {
            const CANTransportTraceMessage msg(i, i, payloads[i].begin(), payloads[i].end(),
                                               CT_EXTENDED);
            byteVec_t bytes;
            msg.createByteArray(bytes, true, false);
            if (!pipe.writeAll(bytes)) {
                break;
            }
        }
        pipe.closeWrite();
    });
    std::atomic<bool> readFailed{false};
    std::thread reader([&] {
        for (;;) {
            pollfd p{pipe.readEnd(), POLLIN, 0};
            ::poll(&p, 1, 100);
            const int n = buffer.read();
            if (n == TraceMessageBuffer::END_OF_INPUT) {
                return;
            }
            if (n < 0) {
                readFailed = true;
                return;
            }
        }
    });

    std::vector<std::unique_ptr<MessageBase>> received;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (received.size() < count && std::chrono::steady_clock::now() < deadline) {
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        if (msg) {
            received.push_back(std::move(msg));
        } else if (buffer.atEndOfInput() && !buffer.hasUnparsedInput()) {
            break;
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
    writer.join();
    reader.join();
    EXPECT_FALSE(readFailed.load());
    ASSERT_EQ(count, received.size());
    for (uint32_t i = 0; i < count; ++i) {
        const CANTransportTraceMessage expected(i, i, payloads[i].begin(), payloads[i].end(),
                                                CT_EXTENDED);
        qbtest::expectSameMessage(expected, *received[i]);
    }
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_TRUE(buffer.atEndOfInput());
}
