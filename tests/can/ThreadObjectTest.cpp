// The endpoint as an object: state texts, status names, clear(), open() and its pipes,
// destruction, and the status callback setter.
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <vector>

#include "can/TransportHarness.h"
#include "common/Bytes.h"
#include "common/OutputCapture.h"
#include "common/Pipe.h"
#include "common/Wait.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbutil/QBException.h"

// Present only when the undefined-behaviour sanitizer's runtime is linked in.
extern "C" __attribute__((weak)) uintptr_t __ubsan_vptr_type_cache[];

using namespace qbtest;

namespace {

std::string statusText(CANTransportThread::statuschange_t st) {
    std::ostringstream os;
    os << st;
    return os.str();
}

// Lowers the descriptor limit and takes every free slot below it, then gives `freeSlots` of
// them back, so that the next pipe() calls find exactly that many free descriptors.
class DescriptorExhaustion {
  public:
    explicit DescriptorExhaustion(int freeSlots) {
        ::getrlimit(RLIMIT_NOFILE, &saved);
        rlimit low = saved;
        low.rlim_cur = kLimit;
        ok = ::setrlimit(RLIMIT_NOFILE, &low) == 0;
        for (;;) {
            const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (fd < 0) {
                break;
            }
            fillers.push_back(fd);
        }
        for (int i = 0; i < freeSlots && !fillers.empty(); ++i) {
            ::close(fillers.back());
            fillers.pop_back();
        }
    }
    ~DescriptorExhaustion() {
        for (int fd : fillers) {
            ::close(fd);
        }
        ::setrlimit(RLIMIT_NOFILE, &saved);
    }
    DescriptorExhaustion(const DescriptorExhaustion&) = delete;
    DescriptorExhaustion& operator=(const DescriptorExhaustion&) = delete;

    bool usable() const { return ok && !fillers.empty(); }

    /// The undefined-behaviour sanitizer probes memory through a pipe of its own when it checks
    /// a dynamic type, which fails while descriptors are exhausted and is then reported as a
    /// bad object: such a build cannot run code under exhaustion.
    static bool sanitizerProbesWithPipes() { return __ubsan_vptr_type_cache != nullptr; }

  private:
    static constexpr rlim_t kLimit = 256;
    rlimit saved{};
    bool ok = false;
    std::vector<int> fillers;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// printState

TEST(ThreadObject, PrintStateOfZeroIsIdle) {
    TestableTransport t(0);
    EXPECT_EQ(t.printState(0), "RCTS_IDLE");
}

TEST(ThreadObject, PrintStateNamesEachSetBitWithTrailingBlank) {
    TestableTransport t(0);
    EXPECT_EQ(t.printState(1), "RCTS_SENDING ");
    EXPECT_EQ(t.printState(2), "RCTS_RECEIVING ");
    EXPECT_EQ(t.printState(3), "RCTS_SENDING RCTS_RECEIVING ");
    EXPECT_EQ(t.printState(4), "RCTS_WAIT_FOR_FC ");
    EXPECT_EQ(t.printState(5), "RCTS_SENDING RCTS_WAIT_FOR_FC ");
    EXPECT_EQ(t.printState(6), "RCTS_RECEIVING RCTS_WAIT_FOR_FC ");
    EXPECT_EQ(t.printState(7), "RCTS_SENDING RCTS_RECEIVING RCTS_WAIT_FOR_FC ");
}

TEST(ThreadObject, PrintStateAboveSevenAddsMisspelledUnknownWithHexValue) {
    TestableTransport t(0);
    EXPECT_EQ(t.printState(8), "UNKNWON (0x8)");
    EXPECT_EQ(t.printState(9), "RCTS_SENDING UNKNWON (0x9)");
    EXPECT_EQ(t.printState(15), "RCTS_SENDING RCTS_RECEIVING RCTS_WAIT_FOR_FC UNKNWON (0xf)");
    EXPECT_EQ(t.printState(16), "UNKNWON (0x10)");
    EXPECT_EQ(t.printState(0x2a), "RCTS_RECEIVING UNKNWON (0x2a)");
}

TEST(ThreadObject, PrintStateOfNegativeValueNamesOnlyItsBits) {
    TestableTransport t(0);
    EXPECT_EQ(t.printState(-1), "RCTS_SENDING RCTS_RECEIVING RCTS_WAIT_FOR_FC ");
    EXPECT_EQ(t.printState(-8), "");
}

// ---------------------------------------------------------------------------------------------
// statuschange_t stream operator

TEST(ThreadObject, StatusStreamOperatorWritesEachName) {
    EXPECT_EQ(statusText(CANTransportThread::CTT_CONNECTED), "CTT_CONNECTED");
    EXPECT_EQ(statusText(CANTransportThread::CTT_DISCONNECTED), "CTT_DISCONNECTED");
    EXPECT_EQ(statusText(CANTransportThread::CTT_SEND_TIMEOUT), "CTT_SEND_TIMEOUT");
    EXPECT_EQ(statusText(CANTransportThread::CTT_RECEIVE_TIMEOUT), "CTT_RECEIVE_TIMEOUT");
    EXPECT_EQ(statusText(CANTransportThread::CTT_ACKNOWLEDGED), "CTT_ACKNOWLEDGED");
}

TEST(ThreadObject, StatusStreamOperatorWritesErrorForUnknownValue) {
    EXPECT_EQ(statusText(static_cast<CANTransportThread::statuschange_t>(7)), "ERROR");
    EXPECT_EQ(statusText(static_cast<CANTransportThread::statuschange_t>(5)), "ERROR");
}

TEST(ThreadObject, StatusStreamOperatorLeavesFillAndFlagsUnchanged) {
    std::ostringstream os;
    os << std::setfill('#') << std::hex;
    os << CANTransportThread::CTT_RECEIVE_TIMEOUT;
    EXPECT_EQ(os.fill(), '#');
    os << std::setw(4) << 26;
    EXPECT_EQ(os.str(), "CTT_RECEIVE_TIMEOUT##1a");
}

// ---------------------------------------------------------------------------------------------
// clear()

TEST(ThreadObject, ClearKeepingCurrentPayloadWhileSendingKeepsFrontAndState) {
    OutputCapture capture;
    TestableTransport t(0);
    auto* first = new Frames(1);
    t.sendQueue.push_back(first);
    t.sendQueue.push_back(new Frames(2));
    t.sendQueue.push_back(new Frames(3));
    t.state = t.RCTS_SENDING | t.RCTS_WAIT_FOR_FC | t.RCTS_RECEIVING;
    t.clear(false);
    ASSERT_EQ(t.sendQueue.size(), 1u);
    EXPECT_EQ(t.sendQueue.front(), first);
    EXPECT_EQ(t.state.load(), 7);
}

TEST(ThreadObject, ClearAllWhileSendingEmptiesQueueAndKeepsOnlyReceivingBit) {
    OutputCapture capture;
    TestableTransport t(0);
    t.sendQueue.push_back(new Frames(1));
    t.sendQueue.push_back(new Frames(2));
    t.state = t.RCTS_SENDING | t.RCTS_WAIT_FOR_FC | t.RCTS_RECEIVING;
    t.clear(true);
    EXPECT_TRUE(t.sendQueue.empty());
    EXPECT_EQ(t.state.load(), 2);
}

TEST(ThreadObject, ClearAllWhileSendingWithoutReceivingLeavesIdle) {
    OutputCapture capture;
    TestableTransport t(0);
    t.sendQueue.push_back(new Frames(1));
    t.state = t.RCTS_SENDING | t.RCTS_WAIT_FOR_FC;
    t.clear(true);
    EXPECT_TRUE(t.sendQueue.empty());
    EXPECT_EQ(t.state.load(), 0);
}

TEST(ThreadObject, ClearKeepingCurrentPayloadWhenNotSendingDropsAllAndClearsSenderBits) {
    OutputCapture capture;
    TestableTransport t(0);
    t.sendQueue.push_back(new Frames(1));
    t.sendQueue.push_back(new Frames(1));
    t.state = t.RCTS_WAIT_FOR_FC | t.RCTS_RECEIVING;
    t.clear(false);
    EXPECT_TRUE(t.sendQueue.empty());
    EXPECT_EQ(t.state.load(), 2);
}

TEST(ThreadObject, ClearOnEmptyQueueLeavesStateUnchangedEvenWaitForFlowControl) {
    OutputCapture capture;
    TestableTransport t(0);
    t.state = t.RCTS_WAIT_FOR_FC;
    t.clear(true);
    EXPECT_EQ(t.state.load(), 4);
    t.state = t.RCTS_SENDING | t.RCTS_WAIT_FOR_FC;
    t.clear(false);
    EXPECT_EQ(t.state.load(), 5);
    t.clear(true);
    EXPECT_EQ(t.state.load(), 5);
}

TEST(ThreadObject, ClearLeavesSendPointerRetriesAndReceiveSideAlone) {
    OutputCapture capture;
    TestableTransport t(0);
    auto* frames = new Frames(3);
    t.sendQueue.push_back(frames);
    t.curSendPtr = frames->begin() + 1;
    t.retryCount = 3;
    t.receiveBuffer = {1, 2, 3};
    t.bytesToReceive = 11;
    t.cfCounter = 4;
    t.nextFrame = CANTransportThread::CTF_CONSECUTIVE_FRAME;
    t.state = t.RCTS_SENDING | t.RCTS_RECEIVING;
    t.clear(false);
    EXPECT_EQ(t.curSendPtr, frames->begin() + 1);
    EXPECT_EQ(t.retryCount, 3);
    EXPECT_EQ(t.receiveBuffer, (Bytes{1, 2, 3}));
    EXPECT_EQ(t.bytesToReceive, 11);
    EXPECT_EQ(t.cfCounter, 4);
    EXPECT_EQ(t.nextFrame, CANTransportThread::CTF_CONSECUTIVE_FRAME);
}

TEST(ThreadObject, ClearLogsStateLineFromDebugLevelOne) {
    OutputCapture capture;
    {
        TestableTransport quiet(0);
        quiet.state = quiet.RCTS_RECEIVING;
        quiet.clear(true);
        quiet.state = quiet.RCTS_IDLE;
    }
    EXPECT_TRUE(capture.outLines().empty());
    TestableTransport t(1);
    t.sendQueue.push_back(new Frames(1));
    t.state = t.RCTS_SENDING | t.RCTS_RECEIVING;
    t.clear(true);
    EXPECT_EQ(capture.outLines(), (std::vector<std::string>{
                                      "[DEBUG] CANTransportThread::clear() state = RCTS_RECEIVING ",
                                  }));
    EXPECT_TRUE(capture.errLines().empty());
}

// ---------------------------------------------------------------------------------------------
// open(), the pipes and destruction

TEST(ThreadObject, GetFileDescriptorsReturnsThePairOpenReturned) {
    TestableTransport t(0);
    int r = -1;
    int w = -1;
    t.open(r, w);
    int a = -2;
    int b = -2;
    t.getFileDescriptors(a, b);
    EXPECT_EQ(a, r);
    EXPECT_EQ(b, w);
    EXPECT_EQ(r, t.writePipe[0]);
    EXPECT_EQ(w, t.readPipe[1]);
    EXPECT_NE(t.msgBuffer, nullptr);
}

TEST(ThreadObject, OpenMakesOnlyTheThreadsInputEndNonBlocking) {
    TestableTransport t(0);
    int r = -1;
    int w = -1;
    t.open(r, w);
    EXPECT_NE(::fcntl(t.readPipe[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(t.readPipe[1], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(t.writePipe[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(t.writePipe[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST(ThreadObject, BytesWrittenByApplicationReachThreadWithoutBlockingAndBack) {
    TestableTransport t(0);
    int r = -1;
    int w = -1;
    t.open(r, w);
    const uint8_t in[3] = {0x11, 0x22, 0x33};
    ASSERT_EQ(::write(w, in, sizeof in), 3);
    uint8_t buf[16] = {};
    ASSERT_EQ(::read(t.readPipe[0], buf, sizeof buf), 3);
    EXPECT_EQ(Bytes(buf, buf + 3), (Bytes{0x11, 0x22, 0x33}));
    errno = 0;
    EXPECT_EQ(::read(t.readPipe[0], buf, sizeof buf), -1);  // empty: no blocking
    EXPECT_EQ(errno, EAGAIN);

    const uint8_t out[2] = {0xab, 0xcd};
    ASSERT_EQ(::write(t.writePipe[1], out, sizeof out), 2);
    ASSERT_EQ(::read(r, buf, sizeof buf), 2);
    EXPECT_EQ(Bytes(buf, buf + 2), (Bytes{0xab, 0xcd}));
}

TEST(ThreadObject, DestroyingNeverOpenedObjectSucceedsSilently) {
    Pipe sentinel;
    OutputCapture capture;
    {
        TestableTransport t(0);
        EXPECT_EQ(t.readPipe[0], -1);
        EXPECT_EQ(t.readPipe[1], -1);
        EXPECT_EQ(t.writePipe[0], -1);
        EXPECT_EQ(t.writePipe[1], -1);
    }
    EXPECT_TRUE(isOpen(sentinel.readEnd()));
    EXPECT_TRUE(isOpen(sentinel.writeEnd()));
    EXPECT_TRUE(capture.outLines().empty());
    EXPECT_TRUE(capture.errLines().empty());
}

TEST(ThreadObject, DestructorClearsQueueAndLogsStateAtDebugLevelOne) {
    OutputCapture capture;
    int fds[4] = {-1, -1, -1, -1};
    {
        TestableTransport t(1);
        int r = -1;
        int w = -1;
        t.open(r, w);
        fds[0] = t.readPipe[0];
        fds[1] = t.readPipe[1];
        fds[2] = t.writePipe[0];
        fds[3] = t.writePipe[1];
        t.sendQueue.push_back(new Frames(2));
        t.sendQueue.push_back(new Frames(1));
    }
    for (int fd : fds) {
        EXPECT_TRUE(isClosed(fd)) << fd;
    }
    EXPECT_EQ(capture.outLines(), (std::vector<std::string>{
                                      "[DEBUG] CANTransportThread::clear() state = RCTS_IDLE",
                                  }));
}

TEST(ThreadObject, DestructorLeavesProxyDescriptorOpen) {
    Pipe proxy;
    {
        TestableTransport t(0);
        int r = -1;
        int w = -1;
        t.open(r, w);
        t.setConnection(proxy.writeEnd());
        EXPECT_EQ(t.canProxyFD, proxy.writeEnd());
    }
    EXPECT_TRUE(isOpen(proxy.writeEnd()));
}

TEST(ThreadObject, RepeatedOpenReleasesPreviousPipes) {
    TestableTransport t(0);
    int r1 = -1;
    int w1 = -1;
    t.open(r1, w1);
    const int old[4] = {t.readPipe[0], t.readPipe[1], t.writePipe[0], t.writePipe[1]};
    int r2 = -1;
    int w2 = -1;
    t.open(r2, w2);
    const int now[4] = {t.readPipe[0], t.readPipe[1], t.writePipe[0], t.writePipe[1]};
    EXPECT_EQ(r2, now[2]);
    EXPECT_EQ(w2, now[1]);
    for (int fd : old) {
        const bool reused = std::find(std::begin(now), std::end(now), fd) != std::end(now);
        EXPECT_TRUE(reused || isClosed(fd)) << "descriptor " << fd << " of the first open";
    }
    EXPECT_NE(::fcntl(t.readPipe[0], F_GETFL) & O_NONBLOCK, 0);
}

TEST(ThreadObject, AfterRepeatedOpenTheThreadServesTheNewPipes) {
    TransportHarness h(0);
    int r2 = -1;
    int w2 = -1;
    h.transport.open(r2, w2);
    h.start();
    const Bytes frame = canFrameMessage({0x02, 0x51, 0x52, 0, 0, 0, 0, 0});
    ASSERT_EQ(::write(w2, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    EXPECT_TRUE(h.expectFrame(kAck));
    MessageReader reader(r2);
    std::unique_ptr<MessageBase> msg = reader.next(kEventWait);
    ASSERT_NE(msg, nullptr);
    auto* payload = dynamic_cast<CANTransportTraceMessage*>(msg.get());
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->getPayload(), (Bytes{0x51, 0x52}));
}

TEST(ThreadObject, OpenFailingAtFirstPipeLogsAndThrows) {
    if (DescriptorExhaustion::sanitizerProbesWithPipes()) {
        GTEST_SKIP() << "the sanitizer's own checks need free descriptors";
    }
    OutputCapture capture;
    TestableTransport t(0);
    int r = -1;
    int w = -1;
    bool thrown = false;
    {
        DescriptorExhaustion exhaustion(1);
        if (!exhaustion.usable()) {
            GTEST_SKIP() << "cannot lower the descriptor limit here";
        }
        try {
            t.open(r, w);
        } catch (QBException& e) {
            thrown = true;
            EXPECT_EQ(e.text(), "");
        }
    }
    EXPECT_TRUE(thrown);
    EXPECT_EQ(capture.errLines(), (std::vector<std::string>{
                                      "[ERROR] CANTransportThread::open() failed to open pipe: ",
                                      "[ERROR] errno 24: Too many open files",
                                  }));
    EXPECT_TRUE(capture.outLines().empty());
    EXPECT_EQ(t.readPipe[0], -1);
    EXPECT_EQ(t.writePipe[0], -1);
}

TEST(ThreadObject, OpenFailingAtSecondPipeKeepsFirstPipeUntilDestruction) {
    if (DescriptorExhaustion::sanitizerProbesWithPipes()) {
        GTEST_SKIP() << "the sanitizer's own checks need free descriptors";
    }
    OutputCapture capture;
    int first[2] = {-1, -1};
    {
        TestableTransport t(0);
        int r = -1;
        int w = -1;
        bool thrown = false;
        {
            DescriptorExhaustion exhaustion(3);
            if (!exhaustion.usable()) {
                GTEST_SKIP() << "cannot lower the descriptor limit here";
            }
            try {
                t.open(r, w);
            } catch (QBException&) {
                thrown = true;
            }
        }
        EXPECT_TRUE(thrown);
        first[0] = t.readPipe[0];
        first[1] = t.readPipe[1];
        EXPECT_TRUE(isOpen(first[0]));
        EXPECT_TRUE(isOpen(first[1]));
        EXPECT_EQ(t.writePipe[0], -1);
        EXPECT_EQ(t.writePipe[1], -1);
        EXPECT_EQ(capture.errLines(),
                  (std::vector<std::string>{
                      "[ERROR] CANTransportThread::open() failed to open pipe: ",
                      "[ERROR] errno 24: Too many open files",
                  }));
    }
    EXPECT_TRUE(isClosed(first[0]));
    EXPECT_TRUE(isClosed(first[1]));
}

// ---------------------------------------------------------------------------------------------
// Configuration calls

TEST(ThreadObject, ConstructorSetsDocumentedDefaults) {
    TestableTransport t(2);
    EXPECT_EQ(t.msgBuffer, nullptr);
    EXPECT_FALSE(t.delegateStatusChanged);
    EXPECT_EQ(t.canProxyFD, 0);
    EXPECT_EQ(t.state.load(), 0);
    EXPECT_EQ(t.nextFrame, CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME);
    EXPECT_EQ(t.sendCANid, 0);
    EXPECT_EQ(t.cfCounter, 0);
    EXPECT_EQ(t.retryCount, 0);
    EXPECT_EQ(t.bytesToReceive, 0);
    EXPECT_FALSE(t.connected);
    EXPECT_TRUE(t.logDisconnected);
    EXPECT_EQ(t.debug.load(), 2);
    EXPECT_TRUE(t.sendQueue.empty());
    EXPECT_TRUE(t.receiveBuffer.empty());
    EXPECT_EQ(t.curSendPtr, TestableTransport::MSGPART_INVALID);
}

TEST(ThreadObject, SettersStoreTheirValues) {
    TestableTransport t(0);
    t.setSendCANid(0x1234);
    EXPECT_EQ(t.sendCANid, 0x1234);
    t.setDebugLevel(3);
    EXPECT_EQ(t.debug.load(), 3);
    t.setConnection(42);
    EXPECT_EQ(t.canProxyFD, 42);
}

TEST(ThreadObject, SetDelegateCopiesTheCallable) {
    TestableTransport t(0);
    int calls = 0;
    CANTransportThread::delstatus_t cb = [&calls](CANTransportThread::statuschange_t, uint16_t) {
        ++calls;
    };
    t.setDelegate(cb);
    cb = nullptr;  // the endpoint keeps its own copy
    ASSERT_TRUE(t.delegateStatusChanged);
    t.delegateStatusChanged(CANTransportThread::CTT_CONNECTED, 0);
    EXPECT_EQ(calls, 1);
}

TEST(ThreadObject, EmptyDelegateClearsTheCallback) {
    TransportHarness h(0);
    CANTransportThread::delstatus_t empty;
    h.transport.setDelegate(empty);
    h.start();
    h.sendFrame({0x01, 0x99, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectPayload({0x99}, kPeerId));
    EXPECT_TRUE(h.expectFrame(kAck));
    h.transport.stop();
    EXPECT_EQ(h.status.count(), 0u);
    EXPECT_EQ(h.outLines(), (std::vector<std::string>{
                                "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                            }));
    EXPECT_TRUE(h.transport.connected);
}

// ---------------------------------------------------------------------------------------------
// The status callback's contract

TEST(ThreadObject, StatusCallbackRunsOnTheTransportThreadWithNoLockHeld) {
    struct Call {
        CANTransportThread::statuschange_t status;
        uint16_t arg;
        bool onWorker;
        bool queueLockFree;
        bool logLockFree;
    };
    std::mutex callsMutex;
    std::vector<Call> calls;
    TransportHarness h(0);
    CANTransportThread::delstatus_t cb = [&](CANTransportThread::statuschange_t st, uint16_t arg) {
        Call c{st, arg, false, false, false};
        c.onWorker = h.transport.hasWorker() && pthread_equal(pthread_self(), h.transport.worker());
        pthread_mutex_t& queueLock = h.transport.mutexBufferLock.getMutex();
        c.queueLockFree = pthread_mutex_trylock(&queueLock) == 0;
        if (c.queueLockFree) {
            pthread_mutex_unlock(&queueLock);
        }
        c.logLockFree = LogUtil::logMutex.try_lock();
        if (c.logLockFree) {
            LogUtil::logMutex.unlock();
        }
        std::lock_guard<std::mutex> lock(callsMutex);
        calls.push_back(c);
    };
    h.transport.setDelegate(cb);
    h.start();
    h.sendPayload({0x22});
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}));
    h.sendFrame(kAck);  // CTT_CONNECTED, CTT_ACKNOWLEDGED
    h.sendPayload({0x23});
    ASSERT_TRUE(h.expectFrame({0x01, 0x23, 0, 0, 0, 0, 0, 0}));
    for (int i = 0; i < 4; ++i) {
        h.sendFrame(kNotAck);
        ASSERT_TRUE(h.expectFrame({0x01, 0x23, 0, 0, 0, 0, 0, 0}));
    }
    h.sendFrame(kNotAck);  // CTT_DISCONNECTED
    ASSERT_TRUE(waitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(callsMutex);
            return calls.size() >= 3;
        },
        kEventWait));
    h.transport.stop();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(calls[1].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(calls[1].arg, 0x22);
    EXPECT_EQ(calls[2].status, CANTransportThread::CTT_DISCONNECTED);
    for (const Call& c : calls) {
        EXPECT_TRUE(c.onWorker) << c.status;
        EXPECT_TRUE(c.queueLockFree) << c.status;
        EXPECT_TRUE(c.logLockFree) << c.status;
    }
}

TEST(ThreadObject, ClearFromApplicationThreadKeepsOnlyThePayloadInFlight) {
    TransportHarness h(1);
    h.start();
    h.writeInput(concat({payloadMessage({0x11}), payloadMessage({0x12}), payloadMessage({0x13})}));
    ASSERT_TRUE(h.expectFrame({0x01, 0x11, 0, 0, 0, 0, 0, 0}));
    // All three are queued when the loop is back in its wait.
    ASSERT_TRUE(h.waitForLine(
        "[DEBUG] CANTransportThread::threadCode() state = RCTS_SENDING RCTS_WAIT_FOR_FC "));
    h.transport.clear(false);
    EXPECT_EQ(h.transport.state.load(), 5);
    h.sendFrame(kAck);
    ASSERT_TRUE(h.status.waitForCount(2, kEventWait));
    EXPECT_TRUE(h.expectNoFrame(std::chrono::milliseconds(100)));
    EXPECT_TRUE(h.transport.sendQueueEmpty());
    EXPECT_EQ(h.status.events()[1].arg, 0x11);
}

TEST(ThreadObject, ClearAllFromApplicationThreadEndsTheWaitForFlowControl) {
    TransportHarness h(0);
    h.start();
    h.sendPayload({0x11});
    ASSERT_TRUE(h.expectFrame({0x01, 0x11, 0, 0, 0, 0, 0, 0}));
    ASSERT_TRUE(waitUntil([&] { return h.transport.state.load() == 5; }, kEventWait));
    h.transport.clear(true);
    EXPECT_EQ(h.transport.state.load(), 0);
    EXPECT_TRUE(h.transport.sendQueueEmpty());
    h.sendFrame(kAck);  // the acknowledgement comes too late
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::checkFlowControl() received a flow control but has no "
        "sending state. 0x000007e8 8  0x33 0x00 0x00 0x00 0x00 0x00 0x00 0x00"));
    EXPECT_TRUE(h.expectNoFrame(std::chrono::milliseconds(50)));
    h.transport.stop();
    ASSERT_EQ(h.status.count(), 1u);  // CTT_CONNECTED only
}
