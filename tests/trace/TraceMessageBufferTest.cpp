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

// Raw message, identifier 2, time stamp 0, body "xy", no trailer (CRC by zlib).
const std::vector<uint8_t> rawXy = {0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x02, 0x00, 0x00,
                                    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00,
                                    0x00, 0x00, 0x0e, 0xe1, 0x41, 0xb3, 0x78, 0x79};

// The same with FLAG_CHECKSUM and its trailer.
const std::vector<uint8_t> rawXyChecked = {
    0x51, 0x42, 0x54, 0x4d, 0x01, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x02, 0x00, 0x00, 0x00, 0xe6, 0x3a, 0xba, 0x0a, 0x78, 0x79, 0xc5, 0x9b, 0xfd, 0x7f};

// A correct header (identifier 2) announcing a body of 0xFFFFFFFF bytes.
const std::vector<uint8_t> hugeHeader = {0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x02, 0x00,
                                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                         0xff, 0xff, 0xff, 0xff, 0x66, 0x09, 0xf3, 0xc7};

// A correct header announcing MAX_BODY_SIZE + 1 bytes.
const std::vector<uint8_t> maxPlusOneHeader = {0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x02, 0x00,
                                               0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                               0x01, 0x00, 0x10, 0x00, 0xb1, 0x5c, 0x36, 0xeb};

// A correct header announcing exactly MAX_BODY_SIZE bytes.
const std::vector<uint8_t> maxHeader = {0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x02, 0x00,
                                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                        0x00, 0x00, 0x10, 0x00, 0xd4, 0x3b, 0x8a, 0x53};

// Version 2, empty body, correct header check.
const std::vector<uint8_t> version2Header = {0x51, 0x42, 0x54, 0x4d, 0x01 + 1, 0x00, 0x02, 0x00,
                                             0x00, 0x00, 0x00, 0x00, 0x00,     0x00, 0x00, 0x00,
                                             0x00, 0x00, 0x00, 0x00, 0x77,     0x9d, 0x80, 0x30};

// Flags 0x02, empty body, correct header check.
const std::vector<uint8_t> flags2Header = {0x51, 0x42, 0x54, 0x4d, 0x01, 0x02, 0x02, 0x00,
                                           0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                           0x00, 0x00, 0x00, 0x00, 0x14, 0x98, 0xce, 0xb1};

// MSGID_CAN_EXT whose body has frame kind 7: well framed, invalid body.
const std::vector<uint8_t> canKind7 = {0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x0b, 0x00, 0x00,
                                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x09, 0x00,
                                       0x00, 0x00, 0x4f, 0x99, 0x16, 0xca, 0x00, 0x07, 0x00,
                                       0x00, 0xe0, 0x07, 0x00, 0x00, 0x00};

std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> all;
    for (const auto& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

std::vector<uint8_t> serialise(const MessageBase& msg, bool withChecksum = false) {
    byteVec_t out;
    msg.createByteArray(out, true, withChecksum);
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
    const std::vector<uint8_t> bytes = serialise(sent, true);
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
    EXPECT_EQ(26, buffer.read());
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
    EXPECT_EQ(26, buffer.read());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
    pipe.closeWrite();
    EXPECT_EQ(TraceMessageBuffer::END_OF_INPUT, buffer.read());
    EXPECT_TRUE(buffer.atEndOfInput());
}

TEST(TraceMessageBufferRead, OneCallTakesAtMostTheChunkLimitAndNoneWhileAChunkIsBuffered) {
    Pipe pipe(true);
    const int capacity = ::fcntl(pipe.writeEnd(), F_SETPIPE_SZ, 256 * 1024);
    ASSERT_GE(capacity, 256 * 1024) << "cannot enlarge the pipe, errno " << errno;
    std::vector<uint8_t> stream;
    for (uint32_t i = 0; i < 30; ++i) {
        const std::vector<uint8_t> one = serialise(transport(i, 5000, static_cast<uint8_t>(i)));
        stream.insert(stream.end(), one.begin(), one.end());
    }
    ASSERT_EQ(30u * 5029u, stream.size());
    ASSERT_TRUE(pipe.writeAll(stream));

    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    EXPECT_EQ(65536, buffer.read());
    // A whole chunk, starting with whole messages, is waiting to be parsed: the rest stays in
    // the pipe, where a faster writer would have to wait.
    EXPECT_EQ(0, buffer.read());
    EXPECT_EQ(65536u, buffer.bufferedBytes());
    EXPECT_FALSE(buffer.atEndOfInput());

    // Reading and parsing in turn takes the whole stream; the buffer never holds more than two
    // chunks and one message.
    size_t taken = 65536;
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
    EXPECT_EQ(30u * 5029u, taken);
    EXPECT_LE(mostBuffered, 2u * 65536u + 5029u);
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
    EXPECT_EQ(26, result.load());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, GarbageThenValidMessageGivesOneErrorThenTheMessage) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    const std::vector<uint8_t> garbage = {'h', 'e', 'l', 'l', 'o', ' ', 'w'};
    ASSERT_TRUE(pipe.writeAll(concat({garbage, rawXy})));
    EXPECT_EQ(33, buffer.read());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ("trace message stream: dropped 7 bytes: no message header", nextMessageError(buffer));
    EXPECT_EQ(26u, buffer.bufferedBytes());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
}

TEST(TraceMessageBufferResync, FalseMagicPrefixesInsideGarbageAreSkippedInOneDrop) {
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> garbage = {'x', 'Q', 'B', 'x', 'Q', 'B', 'T'};
    const std::vector<uint8_t> all = concat({garbage, rawXy});
    buffer.feed(all.data(), all.size());
    EXPECT_EQ("trace message stream: dropped 7 bytes: no message header", nextMessageError(buffer));
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, MagicPrefixAtTheEndIsKeptForTheNextRead) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    // "abc" and the first two bytes of a message; the rest of the message comes later.
    ASSERT_TRUE(pipe.writeAll({'a', 'b', 'c', rawXy[0], rawXy[1]}));
    EXPECT_EQ(5, buffer.read());
    EXPECT_EQ("trace message stream: dropped 3 bytes: no message header", nextMessageError(buffer));
    EXPECT_EQ(2u, buffer.bufferedBytes());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    ASSERT_TRUE(pipe.writeAll(std::vector<uint8_t>(rawXy.begin() + 2, rawXy.end())));
    EXPECT_EQ(24, buffer.read());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, ASingleWrongByteIsRefusedAtOnce) {
    TraceMessageBuffer buffer(-1, nullptr);
    const uint8_t bad[1] = {'z'};
    buffer.feed(bad, 1);
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ("trace message stream: dropped 1 bytes: no message header", nextMessageError(buffer));
    EXPECT_EQ(0u, buffer.bufferedBytes());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
}

TEST(TraceMessageBufferResync, HugeBodyLengthIsRefusedWithoutAllocating) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    ASSERT_TRUE(pipe.writeAll(concat({hugeHeader, {1, 2, 3, 4}, rawXy})));
    EXPECT_EQ(24 + 4 + 26, buffer.read());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ(
        "trace message stream: dropped 28 bytes: body length 4294967295 exceeds the maximum "
        "of 1048576",
        nextMessageError(buffer));
    EXPECT_EQ(26u, buffer.bufferedBytes());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
    EXPECT_EQ(0u, buffer.bufferedBytes());
}

TEST(TraceMessageBufferResync, HugeBodyLengthIsRefusedBeforeTheHeaderIsComplete) {
    TraceMessageBuffer buffer(-1, nullptr);
    // Magic, version, flags, identifier, time stamp and length: 20 of the 24 header bytes.
    buffer.feed(hugeHeader.data(), 20);
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ(
        "trace message stream: dropped 20 bytes: body length 4294967295 exceeds the maximum "
        "of 1048576",
        nextMessageError(buffer));
    EXPECT_EQ(0u, buffer.bufferedBytes());
    // The rest of that header is garbage now; the message after it is found.
    const std::vector<uint8_t> rest = concat({{0x66, 0x09, 0xf3, 0xc7}, rawXy});
    buffer.feed(rest.data(), rest.size());
    EXPECT_EQ("trace message stream: dropped 4 bytes: no message header", nextMessageError(buffer));
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, BodyOneByteAboveTheMaximumIsRefused) {
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> all = concat({maxPlusOneHeader, rawXy});
    buffer.feed(all.data(), all.size());
    EXPECT_EQ(
        "trace message stream: dropped 24 bytes: body length 1048577 exceeds the maximum "
        "of 1048576",
        nextMessageError(buffer));
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, BodyOfExactlyTheMaximumIsAccepted) {
    TraceMessageBuffer buffer(-1, nullptr);
    buffer.feed(maxHeader.data(), maxHeader.size());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    const std::vector<uint8_t> body(MessageBase::MAX_BODY_SIZE, 0x42);
    buffer.feed(body.data(), body.size() - 1);
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    buffer.feed(body.data(), 1);
    EXPECT_TRUE(buffer.hasUnparsedInput());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    ASSERT_NE(nullptr, msg);
    auto* raw = dynamic_cast<RawTraceMessage*>(msg.get());
    ASSERT_NE(nullptr, raw);
    EXPECT_EQ(body, raw->getBody());
    EXPECT_EQ(24u + 1048576u, raw->getRawBytes().size());
    EXPECT_EQ(0u, buffer.bufferedBytes());
}

TEST(TraceMessageBufferResync, WrongHeaderCheckIsRefused) {
    TraceMessageBuffer buffer(-1, nullptr);
    std::vector<uint8_t> corrupt = rawXy;
    corrupt[10] = 0x01;  // time stamp changed, header check left as it was
    const std::vector<uint8_t> all = concat({corrupt, rawXy});
    buffer.feed(all.data(), all.size());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ("trace message stream: dropped 26 bytes: header check mismatch",
              nextMessageError(buffer));
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, UnsupportedVersionIsRefused) {
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> all = concat({version2Header, rawXy});
    buffer.feed(all.data(), all.size());
    EXPECT_EQ("trace message stream: dropped 24 bytes: unsupported format version 2",
              nextMessageError(buffer));
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, UnknownFlagsAreRefused) {
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> all = concat({flags2Header, rawXy});
    buffer.feed(all.data(), all.size());
    EXPECT_EQ("trace message stream: dropped 24 bytes: unknown header flags 0x2",
              nextMessageError(buffer));
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, WrongTrailerIsRefusedAndTheWholeMessageDropped) {
    Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    std::vector<uint8_t> corrupt = rawXyChecked;
    corrupt[25] = 'z';  // body "xz": the trailer no longer matches
    ASSERT_TRUE(pipe.writeAll(concat({corrupt, rawXy})));
    EXPECT_EQ(56, buffer.read());
    EXPECT_TRUE(buffer.hasUnparsedInput());
    EXPECT_EQ("trace message stream: dropped 30 bytes: checksum mismatch in message id 0x2",
              nextMessageError(buffer));
    EXPECT_EQ(26u, buffer.bufferedBytes());
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    expectRawXy(msg.get());
}

TEST(TraceMessageBufferResync, CorrectTrailerIsAccepted) {
    TraceMessageBuffer buffer(-1, nullptr);
    buffer.feed(rawXyChecked.data(), rawXyChecked.size() - 1);
    EXPECT_EQ(nullptr, buffer.getNextMessage());
    EXPECT_FALSE(buffer.hasUnparsedInput());
    buffer.feed(&rawXyChecked.back(), 1);
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(rawXyChecked, msg->getRawBytes());
    EXPECT_EQ((byteVec_t{'x', 'y'}), dynamic_cast<RawTraceMessage&>(*msg).getBody());
}

TEST(TraceMessageBufferResync, RandomGarbageBetweenMessagesIsDroppedOnceAndEveryMessageFound) {
    std::mt19937 rng(20240611);
    const uint8_t alphabet[] = {'Q', 'B', 'T', 'M', 0x00, 0x01, 0xFF, 0x51, 0x42};
    std::vector<uint8_t> stream;
    std::vector<std::unique_ptr<MessageBase>> sent;
    size_t garbageRuns = 0;
    size_t garbageBytes = 0;
    for (int i = 0; i < 300; ++i) {
        if (rng() % 2 == 0) {
            std::vector<uint8_t> garbage;
            const size_t n = 1 + rng() % 40;
            for (;;) {
                garbage.clear();
                for (size_t k = 0; k < n; ++k) {
                    garbage.push_back(rng() % 2 ? alphabet[rng() % sizeof alphabet]
                                                : static_cast<uint8_t>(rng()));
                }
                // A real magic inside the garbage would count as a second bad header.
                const std::string text(garbage.begin(), garbage.end());
                if (text.find("QBTM") == std::string::npos) {
                    break;
                }
            }
            stream.insert(stream.end(), garbage.begin(), garbage.end());
            ++garbageRuns;
            garbageBytes += garbage.size();
        }
        const std::vector<uint8_t> payload(rng() % 50, static_cast<uint8_t>(i));
        sent.emplace_back(new CANTransportTraceMessage(
            static_cast<timeStamp_t>(i), rng(), payload.begin(), payload.end(), CT_FD_EXTENDED));
        const std::vector<uint8_t> bytes = serialise(*sent.back(), rng() % 2 == 0);
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
            // The garbage never holds a whole magic, so it is refused for that alone.
            const std::string reason = " bytes: no message header";
            ASSERT_GE(text.size(), reason.size()) << text;
            EXPECT_EQ(reason, text.substr(text.size() - reason.size())) << text;
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
        "trace message stream: dropped 33 bytes: invalid message id 0xb: unknown CAN frame "
        "kind 7",
        nextMessageError(buffer));
    EXPECT_EQ(26u, buffer.bufferedBytes());
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

TEST(TraceMessageBufferState, BufferedBytesCountOnlyUnparsedBytes) {
    TraceMessageBuffer buffer(-1, nullptr);
    std::vector<uint8_t> stream;
    for (int i = 0; i < 10; ++i) {
        stream.insert(stream.end(), rawXy.begin(), rawXy.end());
    }
    buffer.feed(stream.data(), stream.size());
    EXPECT_EQ(260u, buffer.bufferedBytes());
    for (int i = 0; i < 5; ++i) {
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        expectRawXy(msg.get());
    }
    EXPECT_EQ(130u, buffer.bufferedBytes());
    buffer.feed(rawXy.data(), 13);
    EXPECT_EQ(143u, buffer.bufferedBytes());
    for (int i = 0; i < 5; ++i) {
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        expectRawXy(msg.get());
    }
    EXPECT_EQ(13u, buffer.bufferedBytes());
    EXPECT_FALSE(buffer.hasUnparsedInput());
}

TEST(TraceMessageBufferState, LongStreamKeepsOnlyUnparsedBytes) {
    // Many messages through one buffer, a few at a time: what stays buffered is never more than
    // the part of a message that has not been completed.
    TraceMessageBuffer buffer(-1, nullptr);
    const std::vector<uint8_t> one = serialise(transport(0x42, 1000));
    size_t received = 0;
    for (int i = 0; i < 2000; ++i) {
        const size_t split = static_cast<size_t>(i * 37) % one.size();
        buffer.feed(one.data(), split);
        EXPECT_EQ(nullptr, buffer.getNextMessage());
        buffer.feed(one.data() + split, one.size() - split);
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        ASSERT_NE(nullptr, msg);
        ++received;
        EXPECT_EQ(0u, buffer.bufferedBytes());
    }
    EXPECT_EQ(2000u, received);
}

TEST(TraceMessageBufferState, HasUnparsedInputFollowsTheHeaderPrefix) {
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
    const uint8_t q[2] = {'Q', 'X'};
    buffer.feed(q, 1);
    EXPECT_FALSE(buffer.hasUnparsedInput());
    buffer.feed(q + 1, 1);
    EXPECT_TRUE(buffer.hasUnparsedInput());
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
            msg.createByteArray(bytes, true, i % 2 == 0);
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
