// The one writer into an endpoint's input: whole messages from concurrent writers, short
// writes, interruptions, full non-blocking descriptors and a reader that has gone.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/Pipe.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/TraceMessageWriter.h"

namespace {

using qbtest::Pipe;

// Reads every message from `fd` (blocking) until end of file.
std::vector<std::unique_ptr<MessageBase>> readAll(int fd, size_t& unparsable) {
    std::vector<std::unique_ptr<MessageBase>> messages;
    TraceMessageBuffer buffer(fd, nullptr);
    unparsable = 0;
    for (;;) {
        const int n = buffer.read();
        for (;;) {
            try {
                std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
                if (!msg) {
                    break;
                }
                messages.push_back(std::move(msg));
            } catch (const std::exception&) {
                ++unparsable;
            }
        }
        if (n == TraceMessageBuffer::END_OF_INPUT || n == -1) {
            return messages;
        }
    }
}

// Payload of writer `w`, message `i`: its length and every byte derive from (w, i), so the
// reader can check each byte without knowing the order of arrival.
byteVec_t payloadOf(unsigned w, unsigned i, size_t size) {
    byteVec_t bytes(size);
    for (size_t k = 0; k < size; ++k) {
        bytes[k] = static_cast<uint8_t>(w * 31 + i * 7 + k);
    }
    return bytes;
}

TEST(TraceMessageWriter, ConcurrentPayloadsAndFramesArriveIntact) {
    // Two threads write payload messages of 3000 to 3999 bytes (far above PIPE_BUF), two
    // threads write CAN frames, all into one pipe through one writer; a reader drains it.
    Pipe pipe;
    TraceMessageWriter writer(pipe.writeEnd());
    constexpr unsigned PAYLOADS_PER_THREAD = 150;
    constexpr unsigned FRAMES_PER_THREAD = 2000;

    size_t unparsable = 0;
    std::vector<std::unique_ptr<MessageBase>> received;
    std::thread reader([&] { received = readAll(pipe.readEnd(), unparsable); });

    std::atomic<int> failures{0};
    std::vector<std::thread> writers;
    for (unsigned w = 0; w < 2; ++w) {
        writers.emplace_back([&, w] {
            for (unsigned i = 0; i < PAYLOADS_PER_THREAD; ++i) {
                const byteVec_t bytes = payloadOf(w, i, 3000 + (i * 37) % 1000);
                CANTransportTraceMessage msg(i, w, bytes.begin(), bytes.end(), CT_STANDARD);
                if (!writer.write(msg)) {
                    ++failures;
                }
            }
        });
    }
    for (unsigned w = 0; w < 2; ++w) {
        writers.emplace_back([&, w] {
            for (unsigned i = 0; i < FRAMES_PER_THREAD; ++i) {
                const uint8_t data[8] = {static_cast<uint8_t>(w),
                                         static_cast<uint8_t>(i),
                                         static_cast<uint8_t>(i >> 8),
                                         0xA5,
                                         0x5A,
                                         0x01,
                                         0x02,
                                         0x03};
                CANExtTraceMessage msg(i, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x100 + w, data);
                if (!writer.write(msg)) {
                    ++failures;
                }
            }
        });
    }
    for (auto& t : writers) {
        t.join();
    }
    pipe.closeWrite();
    reader.join();

    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(unparsable, 0u);
    ASSERT_EQ(received.size(), 2 * PAYLOADS_PER_THREAD + 2 * FRAMES_PER_THREAD);
    std::map<uint32_t, unsigned> nextPayload;  // per writer: the next index expected
    std::map<uint32_t, unsigned> nextFrame;
    for (const auto& msg : received) {
        if (msg->getMessageId() == MSGID_CAN_TRANSPORT) {
            const auto& p = dynamic_cast<const CANTransportTraceMessage&>(*msg);
            const uint32_t w = p.getCanId();
            const unsigned i = nextPayload[w]++;
            ASSERT_EQ(p.getTimeStamp(), i);
            EXPECT_EQ(p.getPayload(), payloadOf(w, i, 3000 + (i * 37) % 1000));
        } else {
            ASSERT_EQ(msg->getMessageId(), MSGID_CAN_EXT);
            const auto& f = dynamic_cast<const CANExtTraceMessage&>(*msg);
            const uint32_t w = f.getCanId() - 0x100;
            const unsigned i = nextFrame[w]++;
            ASSERT_EQ(f.getNumberOfDataBytes(), 8);
            const uint8_t expected[8] = {static_cast<uint8_t>(w),
                                         static_cast<uint8_t>(i),
                                         static_cast<uint8_t>(i >> 8),
                                         0xA5,
                                         0x5A,
                                         0x01,
                                         0x02,
                                         0x03};
            EXPECT_EQ(std::vector<uint8_t>(f.getData(), f.getData() + 8),
                      std::vector<uint8_t>(expected, expected + 8));
        }
    }
    EXPECT_EQ(nextPayload[0], PAYLOADS_PER_THREAD);
    EXPECT_EQ(nextPayload[1], PAYLOADS_PER_THREAD);
    EXPECT_EQ(nextFrame[0], FRAMES_PER_THREAD);
    EXPECT_EQ(nextFrame[1], FRAMES_PER_THREAD);
}

TEST(TraceMessageWriter, WaitsOnAFullNonBlockingDescriptorUntilTheReaderMakesRoom) {
    // A message of 200000 bytes cannot fit a 64 KiB pipe: the writer must wait for room
    // (EAGAIN, then poll) several times and still deliver it whole.
    Pipe pipe;
    ASSERT_EQ(::fcntl(pipe.writeEnd(), F_SETFL, ::fcntl(pipe.writeEnd(), F_GETFL) | O_NONBLOCK), 0);
    TraceMessageWriter writer(pipe.writeEnd());
    size_t unparsable = 0;
    std::vector<std::unique_ptr<MessageBase>> received;
    std::thread reader([&] { received = readAll(pipe.readEnd(), unparsable); });
    const byteVec_t bytes = payloadOf(3, 4, 200000);
    CANTransportTraceMessage msg(0, 0x7E8, bytes.begin(), bytes.end(), CT_STANDARD);
    EXPECT_TRUE(writer.write(msg));
    pipe.closeWrite();
    reader.join();
    EXPECT_EQ(unparsable, 0u);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(dynamic_cast<const CANTransportTraceMessage&>(*received[0]).getPayload(), bytes);
}

TEST(TraceMessageWriter, ReportsEpipeWithoutDyingOfSigpipe) {
    // Default SIGPIPE disposition, as in an application: the process would end if the signal
    // were delivered.
    struct sigaction dfl {};
    struct sigaction old {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    ASSERT_EQ(sigaction(SIGPIPE, &dfl, &old), 0);
    Pipe pipe;
    pipe.closeRead();
    TraceMessageWriter writer(pipe.writeEnd());
    const uint8_t data[8] = {0x02, 0x10, 0x03};
    CANExtTraceMessage msg(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7E0, data);
    errno = 0;
    EXPECT_FALSE(writer.write(msg));
    EXPECT_EQ(errno, EPIPE);
    // Nothing is left pending for the thread either.
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    sigaction(SIGPIPE, &old, nullptr);
}

TEST(TraceMessageWriter, WritingNothingSucceedsWithoutATouchOfTheDescriptor) {
    TraceMessageWriter writer(-1);  // a descriptor that would fail every call
    EXPECT_TRUE(writer.writeBytes(nullptr, 0));
    EXPECT_EQ(writer.fd(), -1);
}

TEST(TraceMessageWriter, ReportsTheErrorOfAFailedWrite) {
    TraceMessageWriter writer(-1);
    const uint8_t byte = 0;
    errno = 0;
    EXPECT_FALSE(writer.writeBytes(&byte, 1));
    EXPECT_EQ(errno, EBADF);
}

// A scripted descriptor for the system-call seam: each write() call takes the next step.
struct Step {
    ssize_t result;  // bytes taken, or -1
    int error;       // errno when result is -1
};
std::vector<Step> script;
size_t scriptIndex = 0;
std::vector<uint8_t> taken;
int waits = 0;
int waitError = 0;  // errno the first wait fails with, 0 for none

ssize_t scriptedWrite(int, const void* data, size_t size) {
    if (scriptIndex >= script.size()) {
        errno = EIO;
        return -1;
    }
    const Step step = script[scriptIndex++];
    if (step.result < 0) {
        errno = step.error;
        return -1;
    }
    const size_t n = std::min(size, static_cast<size_t>(step.result));
    const auto* bytes = static_cast<const uint8_t*>(data);
    taken.insert(taken.end(), bytes, bytes + n);
    return static_cast<ssize_t>(n);
}

int countedWait(int) {
    ++waits;
    if (waitError != 0) {
        errno = waitError;
        waitError = 0;
        return -1;
    }
    return 1;
}

const TraceMessageWriter::SystemCalls scripted{&scriptedWrite, &countedWait};

void resetScript(std::vector<Step> steps) {
    script = std::move(steps);
    scriptIndex = 0;
    taken.clear();
    waits = 0;
    waitError = 0;
}

TEST(TraceMessageWriter, ContinuesShortWritesAndResumesInterruptedOnes) {
    resetScript({{3, 0}, {-1, EINTR}, {1, 0}, {-1, EINTR}, {100, 0}});
    TraceMessageWriter writer(7);
    const std::vector<uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_TRUE(writer.writeBytes(bytes.data(), bytes.size(), scripted));
    EXPECT_EQ(taken, bytes);
    EXPECT_EQ(scriptIndex, 5u);
    EXPECT_EQ(waits, 0);
}

TEST(TraceMessageWriter, WaitsForRoomAfterEagainAndAgainAfterAnInterruptedWait) {
    resetScript({{2, 0}, {-1, EAGAIN}, {-1, EWOULDBLOCK}, {100, 0}});
    waitError = EINTR;
    TraceMessageWriter writer(7);
    const std::vector<uint8_t> bytes = {1, 2, 3, 4, 5};
    EXPECT_TRUE(writer.writeBytes(bytes.data(), bytes.size(), scripted));
    EXPECT_EQ(taken, bytes);
    // EAGAIN: a failed (EINTR) wait and a good one; EWOULDBLOCK: one more.
    EXPECT_EQ(waits, 3);
}

TEST(TraceMessageWriter, StopsAtAFailedWaitWithItsError) {
    resetScript({{-1, EAGAIN}});
    waitError = EBADF;
    TraceMessageWriter writer(7);
    const std::vector<uint8_t> bytes = {1, 2};
    errno = 0;
    EXPECT_FALSE(writer.writeBytes(bytes.data(), bytes.size(), scripted));
    EXPECT_EQ(errno, EBADF);
}

TEST(TraceMessageWriter, StopsAtAFailedWriteAfterPartOfTheBytes) {
    resetScript({{2, 0}, {-1, ENOSPC}});
    TraceMessageWriter writer(7);
    const std::vector<uint8_t> bytes = {1, 2, 3, 4};
    errno = 0;
    EXPECT_FALSE(writer.writeBytes(bytes.data(), bytes.size(), scripted));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(taken, (std::vector<uint8_t>{1, 2}));
}

TEST(TraceMessageWriter, WritesTheMessageAsCreateByteArraySerialisesIt) {
    resetScript({{1000, 0}});
    TraceMessageWriter writer(7);
    const uint8_t data[8] = {0x30, 0, 0, 0, 0, 0, 0, 0};
    CANExtTraceMessage msg(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7E8, data);
    byteVec_t expected;
    msg.createByteArray(expected, true, false);
    EXPECT_TRUE(writer.write(msg, scripted));
    EXPECT_EQ(taken, expected);
}

TEST(TraceMessageWriter, RefusesAMessageTooLargeToSerialiseWithEmsgsize) {
    resetScript({{1 << 30, 0}});
    TraceMessageWriter writer(7);
    const byteVec_t huge(MessageBase::MAX_BODY_SIZE + 1, 0x55);
    CANTransportTraceMessage msg(0, 0x7E0, huge.begin(), huge.end(), CT_STANDARD);
    errno = 0;
    EXPECT_FALSE(writer.write(msg, scripted));
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_TRUE(taken.empty());
}

}  // namespace
