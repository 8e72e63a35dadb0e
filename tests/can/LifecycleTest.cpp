// Starting, stopping and destroying a running endpoint, and the exceptions that end its thread.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "can/TransportHarness.h"
#include "common/OutputCapture.h"
#include "common/Pipe.h"
#include "common/Wait.h"

using namespace qbtest;

namespace {

// Stopping is a cancellation at the wait: it should take a few milliseconds at most. 100 ms
// leaves room for a loaded machine and for the sanitizers.
constexpr double kStopLimitSeconds = 0.100;

}  // namespace

TEST(Lifecycle, IsRunningFromStartUntilStop) {
    TransportHarness h(0);
    EXPECT_FALSE(h.transport.isRunning());
    h.start();
    EXPECT_TRUE(h.transport.isRunning());
    ASSERT_TRUE(h.waitForLine("[INFO] CANTransportThread::threadCode() Start CANTransportThread"));
    h.transport.stop();
    EXPECT_FALSE(h.transport.isRunning());
    EXPECT_EQ(h.transport.exitReason(), "");
    EXPECT_TRUE(h.errLines().empty());
}

TEST(Lifecycle, StopWhileIdleInUnlimitedWaitIsFast) {
    TransportHarness h(1);
    h.start();
    ASSERT_TRUE(h.waitForLine("[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE"));
    const double t0 = monotonicSeconds();
    h.transport.stop();
    const double took = monotonicSeconds() - t0;
    std::printf("stop() of an idle endpoint took %.3f ms\n", took * 1000);
    EXPECT_LT(took, kStopLimitSeconds);
    EXPECT_FALSE(h.transport.isRunning());
    EXPECT_TRUE(h.errLines().empty());
}

TEST(Lifecycle, StopMidTransferIsFastAndDestroyingAfterwardsIsClean) {
    auto h = std::make_unique<TransportHarness>(0);
    h->start();
    h->sendPayload(countingBytes(20, 1));
    ASSERT_TRUE(h->expectFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6}));
    h->sendFrame({0x10, 0x0A, 1, 2, 3, 4, 5, 6});  // and a reception under way
    ASSERT_TRUE(h->expectFrame(kReady));
    ASSERT_TRUE(waitUntil([&] { return h->transport.state.load() == 7; }, kEventWait));
    const double t0 = monotonicSeconds();
    h->transport.stop();
    const double took = monotonicSeconds() - t0;
    std::printf("stop() in the middle of a transfer took %.3f ms\n", took * 1000);
    EXPECT_LT(took, kStopLimitSeconds);
    EXPECT_FALSE(h->transport.isRunning());
    EXPECT_EQ(h->transport.sendQueue.size(), 1u);
    const int fds[4] = {h->transport.readPipe[0], h->transport.readPipe[1],
                        h->transport.writePipe[0], h->transport.writePipe[1]};
    EXPECT_TRUE(h->errLines().empty());
    h.reset();  // frees the queued payload and closes the pipes
    for (int fd : fds) {
        EXPECT_TRUE(isClosed(fd)) << fd;
    }
}

TEST(Lifecycle, DestroyingARunningEndpointStopsItFirst) {
    OutputCapture capture;
    Pipe proxy(true);
    auto* t = new TestableTransport(0);
    int r = -1;
    int w = -1;
    t->open(r, w);
    t->setConnection(proxy.writeEnd());
    t->start();
    ASSERT_TRUE(capture.waitForOutLine(
        "[INFO] CANTransportThread::threadCode() Start CANTransportThread", kEventWait));
    const double t0 = monotonicSeconds();
    delete t;
    const double took = monotonicSeconds() - t0;
    std::printf("destroying a running endpoint took %.3f ms\n", took * 1000);
    EXPECT_LT(took, kStopLimitSeconds);
    EXPECT_TRUE(isClosed(r));
    EXPECT_TRUE(isClosed(w));
    EXPECT_FALSE(isClosed(proxy.writeEnd()));
    EXPECT_TRUE(capture.errLines().empty());
}

TEST(Lifecycle, AcknowledgementWithoutCallbackEndsTheThread) {
    TransportHarness h(withoutCallback());
    h.start();
    h.sendPayload({0x22});
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}));
    h.sendFrame(kAck);
    ASSERT_TRUE(waitUntil([&] { return !h.transport.isRunning(); }, kEventWait));
    const std::string reason = h.transport.exitReason();
    EXPECT_NE(reason.find("bad_function_call"), std::string::npos) << reason;
    EXPECT_TRUE(h.waitForLine("[ERROR] Thread::run() threadCode() ended by exception: " + reason));
    EXPECT_EQ(h.errLines(), Lines{});
    h.transport.stop();  // joins the ended thread
    EXPECT_FALSE(h.transport.isRunning());
}

TEST(Lifecycle, CanMessageWithTenDataBytesEndsTheThreadWithBufferMismatch) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x02, 0x41, 0x42, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(waitUntil([&] { return !h.transport.isRunning(); }, kEventWait));
    EXPECT_EQ(h.transport.exitReason(), "CANTraceMessageBase too long");
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] Thread::run() threadCode() ended by exception: CANTraceMessageBase too long"));
    EXPECT_EQ(h.errLines(), Lines{});
    EXPECT_TRUE(h.expectNoFrame(milliseconds(20)));
}

TEST(Lifecycle, ClosedProxyMakesFrameWritesFailWithoutEndingTheProcess) {
    TransportHarness h(0);
    h.proxy.closeRead();  // nobody reads the CAN proxy descriptor any more
    h.start();
    h.sendPayload({0x22});
    EXPECT_TRUE(h.waitForErrLine(
        "[ERROR] CANTransportThread::sendCANMessage() failed to send data to the CAN proxy: "));
    EXPECT_TRUE(h.waitForErrLine("[ERROR] errno 32: Broken pipe"));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 5; }, kEventWait));
    EXPECT_TRUE(h.transport.isRunning());
}
