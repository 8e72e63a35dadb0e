// The endpoint against the two descriptors it writes to when their readers do not keep up: an
// application that does not read its pipe, and a CAN proxy that takes no frames. The endpoint
// waits in its write; nothing is lost or reordered once the reader reads again, and stop() ends
// an endpoint that waits for the application.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "can/TransportHarness.h"
#include "common/Wait.h"

using namespace qbtest;

namespace {

/// Fills the pipe behind the write end `fd` to the last byte (switching it to non-blocking mode
/// for that and back); returns how many bytes it took.
size_t fillPipe(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    const std::vector<uint8_t> junk(4096, 0xEE);
    size_t total = 0;
    for (size_t chunk = junk.size(); chunk > 0; chunk /= 2) {
        for (;;) {
            const ssize_t n = ::write(fd, junk.data(), chunk);
            if (n <= 0) {
                break;
            }
            total += static_cast<size_t>(n);
        }
    }
    ::fcntl(fd, F_SETFL, flags);
    return total;
}

/// Reads exactly `count` bytes from `fd` (the filler put there by fillPipe()).
::testing::AssertionResult drain(int fd, size_t count) {
    std::vector<uint8_t> buffer(4096);
    while (count > 0) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(kEventWait.count())) <= 0) {
            return ::testing::AssertionFailure() << count << " filler bytes not readable";
        }
        const ssize_t n = ::read(fd, buffer.data(), std::min(count, buffer.size()));
        if (n > 0) {
            count -= static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        } else {
            return ::testing::AssertionFailure() << "read failed, errno " << errno;
        }
    }
    return ::testing::AssertionSuccess();
}

const Bytes kPeerSingle{0x03, 0x41, 0x42, 0x43, 0, 0, 0, 0};

}  // namespace

TEST(BadInput, ApplicationThatDoesNotReadHoldsTheEndpointInItsDeliveryUntilItReadsAgain) {
    TransportHarness h(0);
    h.start();
    const size_t filler = fillPipe(h.transport.writePipe[1]);
    ASSERT_GT(filler, 0u);
    h.sendFrame(kPeerSingle);
    h.sendFrame({0x01, 0x44, 0, 0, 0, 0, 0, 0});
    // The endpoint waits in the write of the first payload: no acknowledgement goes out, and the
    // second frame waits in its input.
    EXPECT_TRUE(h.expectNoFrame(milliseconds(300)));
    EXPECT_TRUE(h.transport.isRunning());
    ASSERT_TRUE(drain(h.readFD, filler));
    EXPECT_TRUE(h.expectPayload({0x41, 0x42, 0x43}, kPeerId));
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.expectPayload({0x44}, kPeerId));
    EXPECT_TRUE(h.expectFrame(kAck));
    ASSERT_TRUE(h.status.waitForCount(1, kEventWait));
    EXPECT_EQ(h.status.events().size(), 1u);
    EXPECT_EQ(h.status.events()[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_TRUE(h.errLines().empty());
}

TEST(BadInput, StopEndsAnEndpointWaitingForAnApplicationThatDoesNotRead) {
    TransportHarness h(0);
    h.start();
    ASSERT_GT(fillPipe(h.transport.writePipe[1]), 0u);
    h.sendFrame(kPeerSingle);
    EXPECT_TRUE(h.expectNoFrame(milliseconds(200)));
    const double t0 = monotonicSeconds();
    h.transport.stop();
    EXPECT_LT(monotonicSeconds() - t0, 1.0);
    EXPECT_FALSE(h.transport.isRunning());
    EXPECT_TRUE(h.errLines().empty());
}

TEST(BadInput, ProxyThatTakesNoFramesHoldsTheEndpointUntilItReadsAgainAndNothingIsLost) {
    TransportHarness h(0);
    const size_t filler = fillPipe(h.proxy.writeEnd());
    ASSERT_GT(filler, 0u);
    h.start();
    h.sendPayload({0x22});
    h.sendFrame(kPeerSingle);
    // The endpoint waits in the write of its single frame; the peer's frame waits in its input.
    EXPECT_TRUE(h.expectNoPayload(milliseconds(300)));
    EXPECT_TRUE(h.transport.isRunning());
    ASSERT_TRUE(drain(h.proxy.readEnd(), filler));
    EXPECT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(h.expectPayload({0x41, 0x42, 0x43}, kPeerId));
    EXPECT_TRUE(h.expectFrame(kAck));
    h.sendFrame(kAck);
    ASSERT_TRUE(h.status.waitForCount(2, kEventWait));
    EXPECT_EQ(h.status.events()[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(h.status.events()[1].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(h.status.events()[1].arg, 0x22);
    EXPECT_TRUE(h.errLines().empty());
}
