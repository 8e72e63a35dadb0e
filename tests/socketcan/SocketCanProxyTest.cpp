// The SocketCAN proxy without a kernel CAN stack: one end of a SOCK_SEQPACKET socketpair stands
// in for the CAN_RAW socket (it carries one struct can_frame per packet, as a CAN_RAW socket
// does), the other end is the rest of the bus. Failures a socketpair cannot produce (ENOBUFS,
// ENETDOWN, kernel drop counts) come through the proxy's socket-call seam.
//
// Expected frames are written byte by byte by hand: struct can_frame on x86-64 and ARM is
// can_id (4 bytes, little-endian, flags in the top bits), the DLC, 3 bytes of padding, 8 data
// bytes.

#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/error.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/OutputCapture.h"
#include "common/Pipe.h"
#include "common/Wait.h"
#include "libqbcan/CANTransportThread.h"
#include "libqbsocketcan/CanErrorFrame.h"
#include "libqbsocketcan/CanRawSocket.h"
#include "libqbsocketcan/SocketCanProxy.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/TraceMessageWriter.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using qbtest::OutputCapture;
using qbtest::waitUntil;

can_frame makeFrame(uint32_t canId, std::vector<uint8_t> data) {
    can_frame f;
    std::memset(&f, 0, sizeof f);
    f.can_id = canId;
    f.can_dlc = static_cast<uint8_t>(data.size());
    if (!data.empty()) {
        std::memcpy(f.data, data.data(), data.size());
    }
    return f;
}

// The proxy on one end of a socketpair; `bus` is the other end. The endpoint's input is a pipe
// read back by the test.
class ProxyRig {
  public:
    explicit ProxyRig(std::vector<CanRawSocket::Identifier> peers = {{0x7E8, false}},
                      const SocketCanProxy::SocketCalls* calls = nullptr)
        : input(true) {
        int sv[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
        bus = sv[1];
        writer.reset(new TraceMessageWriter(input.writeEnd()));
        proxy.reset(new SocketCanProxy(CanRawSocket::adopt(sv[0], "test0", peers), *writer));
        if (calls != nullptr) {
            proxy->setSocketCalls(*calls);
        }
        reader.reset(new TraceMessageBuffer(input.readEnd(), nullptr));
    }
    ~ProxyRig() {
        proxy.reset();
        ::close(bus);
    }

    // Writes what the endpoint would write to its proxy descriptor.
    void endpointSends(const MessageBase& msg) {
        byteVec_t bytes;
        msg.createByteArray(bytes, true, false);
        ASSERT_EQ(::write(proxy->proxyFd(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    // The next packet on the bus end, or empty after the deadline.
    Bytes busReceives(std::chrono::milliseconds timeout = 2000ms) {
        pollfd p{bus, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) {
            return {};
        }
        uint8_t buf[128];
        const ssize_t n = ::read(bus, buf, sizeof buf);
        return n > 0 ? Bytes(buf, buf + n) : Bytes();
    }

    void busSends(const can_frame& f) {
        ASSERT_EQ(::write(bus, &f, sizeof f), static_cast<ssize_t>(sizeof f));
    }

    // The next message in the endpoint's input, or null after the deadline.
    std::unique_ptr<MessageBase> endpointReceives(std::chrono::milliseconds timeout = 2000ms) {
        std::unique_ptr<MessageBase> msg;
        waitUntil(
            [&] {
                reader->read();
                msg.reset(reader->getNextMessage());
                return msg != nullptr;
            },
            timeout);
        return msg;
    }

    qbtest::Pipe input;
    int bus = -1;
    std::unique_ptr<TraceMessageWriter> writer;
    std::unique_ptr<SocketCanProxy> proxy;
    std::unique_ptr<TraceMessageBuffer> reader;
};

CANExtTraceMessage endpointFrame(uint32_t id, cantype_t type, std::vector<uint8_t> data) {
    return CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, type, static_cast<uint8_t>(data.size()),
                              id, data.data());
}

// ---- Endpoint to bus ----------------------------------------------------------------------

TEST(SocketCanProxy, WritesAStandardFrameOfTheEndpointAsOneCanFrame) {
    ProxyRig rig;
    rig.proxy->start();
    rig.endpointSends(endpointFrame(0x7E0, CT_STANDARD, {0x10, 0x14, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(rig.busReceives(), (Bytes{0xE0, 0x07, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x10, 0x14,
                                        0x01, 0x02, 0x03, 0x04, 0x05, 0x06}));
    EXPECT_TRUE(waitUntil([&] { return rig.proxy->statistics().framesSent == 1; }, 2000ms));
}

TEST(SocketCanProxy, WritesAnExtendedFrameWithTheExtendedFlag) {
    ProxyRig rig;
    rig.proxy->start();
    rig.endpointSends(endpointFrame(0x18DA00F1, CT_EXTENDED, {0x30, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(rig.busReceives(), (Bytes{0xF1, 0x00, 0xDA, 0x98, 0x08, 0x00, 0x00, 0x00, 0x30, 0x00,
                                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

TEST(SocketCanProxy, TakesTheDlcFromTheNumberOfDataBytes) {
    ProxyRig rig;
    rig.proxy->start();
    rig.endpointSends(endpointFrame(0x123, CT_STANDARD, {0xAA, 0xBB, 0xCC}));
    rig.endpointSends(endpointFrame(0x124, CT_STANDARD, {}));
    EXPECT_EQ(rig.busReceives(), (Bytes{0x23, 0x01, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0xAA, 0xBB,
                                        0xCC, 0x00, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(rig.busReceives(), (Bytes{0x24, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

TEST(SocketCanProxy, RejectsAMessageThatIsNotACanFrameAndGoesOn) {
    OutputCapture capture;
    ProxyRig rig;
    rig.proxy->start();
    const Bytes payload = {1, 2, 3};
    rig.endpointSends(
        CANTransportTraceMessage(0, 0x7E0, payload.begin(), payload.end(), CT_STANDARD));
    rig.endpointSends(endpointFrame(0x7E0, CT_STANDARD, {0x01, 0x55}));
    EXPECT_EQ(rig.busReceives(), (Bytes{0xE0, 0x07, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x55,
                                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
    rig.proxy->stop();
    EXPECT_EQ(rig.proxy->statistics().messagesRejected, 1u);
    EXPECT_EQ(qbtest::countLines(capture.outLines(),
                                 "[ERROR] SocketCanProxy::readEndpoint() dropped a message from "
                                 "the endpoint (identifier 32788): not a CAN frame"),
              1u);
}

TEST(SocketCanProxy, RejectsCanFdFramesAndFramesWithMoreThanEightBytes) {
    OutputCapture capture;
    ProxyRig rig;
    rig.proxy->start();
    const std::vector<uint8_t> twelve(12, 0x11);
    rig.endpointSends(endpointFrame(0x7E0, CT_FD_STANDARD, {1, 2}));
    rig.endpointSends(endpointFrame(0x7E0, CT_STANDARD, twelve));
    ASSERT_TRUE(waitUntil([&] { return rig.proxy->statistics().messagesRejected == 2; }, 2000ms));
    EXPECT_TRUE(rig.busReceives(100ms).empty());
    rig.proxy->stop();
    EXPECT_EQ(qbtest::countLines(capture.outLines(),
                                 "[ERROR] SocketCanProxy::readEndpoint() dropped a message from "
                                 "the endpoint (identifier 11): a CAN FD frame"),
              1u);
    EXPECT_EQ(qbtest::countLines(capture.outLines(),
                                 "[ERROR] SocketCanProxy::readEndpoint() dropped a message from "
                                 "the endpoint (identifier 11): more than 8 data bytes"),
              1u);
}

// ---- Bus to endpoint ----------------------------------------------------------------------

TEST(SocketCanProxy, DeliversAPeerFrameWithItsReceiveTime) {
    ProxyRig rig;
    rig.proxy->start();
    timeval before;
    ::gettimeofday(&before, nullptr);
    rig.busSends(makeFrame(0x7E8, {0x03, 0x62, 0xF1, 0x90, 0, 0, 0, 0}));
    std::unique_ptr<MessageBase> msg = rig.endpointReceives();
    timeval after;
    ::gettimeofday(&after, nullptr);
    ASSERT_NE(msg, nullptr);
    ASSERT_EQ(msg->getMessageId(), MSGID_CAN_EXT);
    const auto& f = dynamic_cast<const CANExtTraceMessage&>(*msg);
    EXPECT_EQ(f.getCanId(), 0x7E8u);
    EXPECT_EQ(f.getCanType(), CT_STANDARD);
    EXPECT_EQ(f.getFrameKind(), CF_STANDARD);
    EXPECT_EQ(f.getChannel(), 0);
    ASSERT_EQ(f.getNumberOfDataBytes(), 8);
    EXPECT_EQ(Bytes(f.getData(), f.getData() + 8), (Bytes{0x03, 0x62, 0xF1, 0x90, 0, 0, 0, 0}));
    const uint64_t beforeUs = static_cast<uint64_t>(before.tv_sec) * 1000000u + before.tv_usec;
    const uint64_t afterUs = static_cast<uint64_t>(after.tv_sec) * 1000000u + after.tv_usec;
    EXPECT_GE(f.getTimeStamp(), beforeUs);
    EXPECT_LE(f.getTimeStamp(), afterUs);
    EXPECT_TRUE(waitUntil([&] { return rig.proxy->statistics().framesReceived == 1; }, 2000ms));
}

TEST(SocketCanProxy, DeliversAnExtendedPeerFrameAsExtended) {
    ProxyRig rig({{0x18DAF100, true}});
    rig.proxy->start();
    rig.busSends(makeFrame(0x18DAF100 | CAN_EFF_FLAG, {0x30}));
    std::unique_ptr<MessageBase> msg = rig.endpointReceives();
    ASSERT_NE(msg, nullptr);
    const auto& f = dynamic_cast<const CANExtTraceMessage&>(*msg);
    EXPECT_EQ(f.getCanId(), 0x18DAF100u);
    EXPECT_EQ(f.getCanType(), CT_EXTENDED);
    EXPECT_EQ(f.getNumberOfDataBytes(), 1);
}

TEST(SocketCanProxy, DropsAndCountsFramesOfOtherIdentifiers) {
    ProxyRig rig({{0x7E8, false}});
    rig.proxy->start();
    rig.busSends(makeFrame(0x7E9, {0x01, 0x11}));
    rig.busSends(makeFrame(0x7E8 | CAN_EFF_FLAG, {0x01, 0x22}));  // same number, extended
    rig.busSends(makeFrame(0x7E8, {0x01, 0x33}));
    std::unique_ptr<MessageBase> msg = rig.endpointReceives();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(dynamic_cast<const CANExtTraceMessage&>(*msg).getData()[1], 0x33);
    // The count follows the write that the endpoint's input has already seen.
    EXPECT_TRUE(waitUntil([&] { return rig.proxy->statistics().framesReceived == 1; }, 2000ms));
    const SocketCanProxy::Statistics s = rig.proxy->statistics();
    EXPECT_EQ(s.framesFilteredOut, 2u);
    EXPECT_EQ(s.framesReceived, 1u);
}

TEST(SocketCanProxy, IgnoresAndCountsRemoteFrames) {
    ProxyRig rig;
    rig.proxy->start();
    rig.busSends(makeFrame(0x7E8 | CAN_RTR_FLAG, {}));
    rig.busSends(makeFrame(0x7E8, {0x01, 0x44}));
    ASSERT_NE(rig.endpointReceives(), nullptr);
    EXPECT_EQ(rig.proxy->statistics().remoteFramesIgnored, 1u);
    EXPECT_EQ(rig.endpointReceives(100ms), nullptr);
}

TEST(SocketCanProxy, IgnoresAndCountsCanFdFrames) {
    ProxyRig rig;
    rig.proxy->start();
    canfd_frame fd;
    std::memset(&fd, 0, sizeof fd);
    fd.can_id = 0x7E8;
    fd.len = 12;
    ASSERT_EQ(::write(rig.bus, &fd, sizeof fd), static_cast<ssize_t>(CANFD_MTU));
    rig.busSends(makeFrame(0x7E8, {0x01, 0x55}));
    ASSERT_NE(rig.endpointReceives(), nullptr);
    EXPECT_EQ(rig.proxy->statistics().fdFramesIgnored, 1u);
    EXPECT_EQ(rig.endpointReceives(100ms), nullptr);
}

TEST(SocketCanProxy, LogsErrorFramesAsClearErrorLines) {
    OutputCapture capture;
    ProxyRig rig;
    rig.proxy->start();
    rig.busSends(makeFrame(CAN_ERR_FLAG | CAN_ERR_BUSOFF, {0, 0, 0, 0, 0, 0, 0, 0}));
    rig.busSends(makeFrame(CAN_ERR_FLAG | CAN_ERR_ACK, {0, 0, 0, 0, 0, 0, 0, 0}));
    rig.busSends(
        makeFrame(CAN_ERR_FLAG | CAN_ERR_CRTL, {0, CAN_ERR_CRTL_TX_PASSIVE, 0, 0, 0, 0, 0, 0}));
    ASSERT_TRUE(waitUntil([&] { return rig.proxy->statistics().errorFrames == 3; }, 2000ms));
    rig.proxy->stop();
    const std::vector<std::string> lines = capture.outLines();
    EXPECT_EQ(qbtest::countLines(lines,
                                 "[ERROR] SocketCanProxy::handleFrame() error frame on test0: "
                                 "bus-off"),
              1u);
    EXPECT_EQ(qbtest::countLines(lines,
                                 "[ERROR] SocketCanProxy::handleFrame() error frame on test0: no "
                                 "acknowledgement from any node"),
              1u);
    EXPECT_EQ(qbtest::countLines(lines,
                                 "[ERROR] SocketCanProxy::handleFrame() error frame on test0: "
                                 "controller problem: transmit error passive"),
              1u);
    EXPECT_EQ(rig.proxy->statistics().framesReceived, 0u);
}

TEST(SocketCanProxy, LogsARepeatedErrorFrameOnceASecondButCountsEveryOne) {
    OutputCapture capture;
    ProxyRig rig;
    rig.proxy->start();
    for (int i = 0; i < 50; ++i) {
        rig.busSends(makeFrame(CAN_ERR_FLAG | CAN_ERR_ACK, {0, 0, 0, 0, 0, 0, 0, 0}));
    }
    ASSERT_TRUE(waitUntil([&] { return rig.proxy->statistics().errorFrames == 50; }, 2000ms));
    rig.proxy->stop();
    // 50 frames written within far less than a second; a slow machine may see two lines.
    const size_t lines = qbtest::countLines(
        capture.outLines(),
        "[ERROR] SocketCanProxy::handleFrame() error frame on test0: no acknowledgement from any "
        "node");
    EXPECT_GE(lines, 1u);
    EXPECT_LE(lines, 2u);
}

TEST(CanErrorFrame, NamesSeveralClassesAndUnknownOnes) {
    const can_frame f = makeFrame(CAN_ERR_FLAG | CAN_ERR_BUSOFF | CAN_ERR_TX_TIMEOUT | 0x10000000,
                                  {0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(CanErrorFrame::describe(f), "bus-off, transmit time-out, error class 0x10000000");
    const can_frame none = makeFrame(CAN_ERR_FLAG, {});
    EXPECT_EQ(CanErrorFrame::describe(none), "error frame without error class");
    const can_frame crtl = makeFrame(CAN_ERR_FLAG | CAN_ERR_CRTL, {0, 0x03});
    EXPECT_EQ(CanErrorFrame::describe(crtl),
              "controller problem: receive buffer overflow and transmit buffer overflow");
}

// ---- Seam: kernel drop counts -------------------------------------------------------------

std::atomic<uint32_t> injectedDropCount{0};

// recvmsg() on the socketpair, with the drop count a CAN_RAW socket would attach.
ssize_t recvmsgWithDropCount(int fd, msghdr* msg, int flags) {
    const size_t room = msg->msg_controllen;
    const ssize_t n = ::recvmsg(fd, msg, flags);
    if (n <= 0) {
        return n;
    }
    // Append SO_RXQ_OVFL after what the socketpair put there (its time stamp).
    const size_t used = msg->msg_controllen;
    if (used + CMSG_SPACE(sizeof(uint32_t)) > room) {
        return n;
    }
    auto* c = reinterpret_cast<cmsghdr*>(static_cast<char*>(msg->msg_control) + used);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SO_RXQ_OVFL;
    c->cmsg_len = CMSG_LEN(sizeof(uint32_t));
    const uint32_t count = injectedDropCount.load();
    std::memcpy(CMSG_DATA(c), &count, sizeof count);
    msg->msg_controllen = used + CMSG_SPACE(sizeof(uint32_t));
    return n;
}

TEST(SocketCanProxy, ReportsFramesTheKernelDroppedWithTheirCount) {
    OutputCapture capture;
    const SocketCanProxy::SocketCalls calls{
        [](int fd, const void* d, size_t s) { return ::write(fd, d, s); }, &recvmsgWithDropCount};
    injectedDropCount = 0;
    ProxyRig rig({{0x7E8, false}}, &calls);
    rig.proxy->start();
    rig.busSends(makeFrame(0x7E8, {0x01, 0x01}));
    ASSERT_NE(rig.endpointReceives(), nullptr);
    injectedDropCount = 3;
    rig.busSends(makeFrame(0x7E8, {0x01, 0x02}));
    ASSERT_NE(rig.endpointReceives(), nullptr);
    rig.busSends(makeFrame(0x7E8, {0x01, 0x03}));  // no new drops
    ASSERT_NE(rig.endpointReceives(), nullptr);
    injectedDropCount = 10;
    rig.busSends(makeFrame(0x7E8, {0x01, 0x04}));
    ASSERT_NE(rig.endpointReceives(), nullptr);
    rig.proxy->stop();
    EXPECT_EQ(rig.proxy->statistics().receiveDrops, 10u);
    const std::vector<std::string> lines = capture.outLines();
    EXPECT_EQ(qbtest::countLines(lines,
                                 "[ERROR] SocketCanProxy::receiveFrames() receive buffer of test0 "
                                 "overflowed: 3 frames dropped by the kernel"),
              1u);
    EXPECT_EQ(qbtest::countLines(lines,
                                 "[ERROR] SocketCanProxy::receiveFrames() receive buffer of test0 "
                                 "overflowed: 7 frames dropped by the kernel"),
              1u);
}

// ---- Seam: transmit back-pressure ---------------------------------------------------------

std::atomic<int> enobufsToInject{0};
std::atomic<bool> enobufsForever{false};

ssize_t writeWithEnobufs(int fd, const void* data, size_t size) {
    if (enobufsForever.load() || enobufsToInject.fetch_sub(1) > 0) {
        errno = ENOBUFS;
        return -1;
    }
    return ::write(fd, data, size);
}

ssize_t plainRecvmsg(int fd, msghdr* msg, int flags) {
    return ::recvmsg(fd, msg, flags);
}

TEST(SocketCanProxy, RetriesAfterEnobufsWithoutLosingOrReorderingFrames) {
    const SocketCanProxy::SocketCalls calls{&writeWithEnobufs, &plainRecvmsg};
    enobufsForever = false;
    enobufsToInject = 5;
    ProxyRig rig({{0x7E8, false}}, &calls);
    rig.proxy->start();
    for (uint8_t i = 0; i < 20; ++i) {
        rig.endpointSends(
            endpointFrame(0x7E0, CT_STANDARD, {static_cast<uint8_t>(0x20 | (i & 15)), i}));
    }
    for (uint8_t i = 0; i < 20; ++i) {
        const Bytes got = rig.busReceives();
        ASSERT_EQ(got.size(), sizeof(can_frame)) << "frame " << int(i);
        EXPECT_EQ(got[8], 0x20 | (i & 15));
        EXPECT_EQ(got[9], i);
    }
    // The count follows the write that the bus end has already seen.
    EXPECT_TRUE(waitUntil([&] { return rig.proxy->statistics().framesSent == 20; }, 2000ms));
    const SocketCanProxy::Statistics s = rig.proxy->statistics();
    EXPECT_EQ(s.writeRetries, 5u);
    EXPECT_EQ(s.enobufs, 5u);
    EXPECT_EQ(s.sendFailures, 0u);
}

TEST(SocketCanProxy, BacksOffWithoutSpinningWhileTheTransmitQueueStaysFull) {
    // A controller in bus-off keeps its queue full: every write fails with ENOBUFS.
    const SocketCanProxy::SocketCalls calls{&writeWithEnobufs, &plainRecvmsg};
    enobufsForever = true;
    ProxyRig rig({{0x7E8, false}}, &calls);
    rig.proxy->start();
    rig.endpointSends(endpointFrame(0x7E0, CT_STANDARD, {0x01, 0x11}));
    ASSERT_TRUE(waitUntil([&] { return rig.proxy->statistics().enobufs > 0; }, 2000ms));
    rusage before;
    ::getrusage(RUSAGE_SELF, &before);
    const uint64_t retriesBefore = rig.proxy->statistics().writeRetries;
    const double t0 = qbtest::monotonicSeconds();
    // Not a bare sleep: the wait is the measurement window.
    waitUntil([&] { return qbtest::monotonicSeconds() - t0 >= 1.0; }, 2000ms);
    rusage after;
    ::getrusage(RUSAGE_SELF, &after);
    const uint64_t retries = rig.proxy->statistics().writeRetries - retriesBefore;
    enobufsForever = false;
    // The back-off doubles to MAX_BACKOFF_US (8 ms): about 125 attempts a second, not
    // thousands.
    EXPECT_LT(retries, 400u);
    EXPECT_GT(retries, 10u);
    // The frame is still there and goes out once the queue drains.
    const Bytes got = rig.busReceives();
    ASSERT_EQ(got.size(), sizeof(can_frame));
    EXPECT_EQ(got[9], 0x11);
    const double cpu = (after.ru_utime.tv_sec - before.ru_utime.tv_sec) +
                       (after.ru_stime.tv_sec - before.ru_stime.tv_sec) +
                       1e-6 * ((after.ru_utime.tv_usec - before.ru_utime.tv_usec) +
                               (after.ru_stime.tv_usec - before.ru_stime.tv_usec));
    // The whole test process (the waiting loop polls every 500 us) in one second of wall time.
    EXPECT_LT(cpu, 0.5);
}

TEST(SocketCanProxy, WaitsForRoomWhenTheSocketIsFullAndLosesNothing) {
    // A tiny send buffer on the proxy's end: a burst of 585 frames (one 4095-byte payload)
    // meets EAGAIN long before the bus end reads; every frame must still arrive, in order.
    ProxyRig rig;
    const int small = 2048;
    ASSERT_EQ(
        ::setsockopt(rig.proxy->canSocket().fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    rig.proxy->start();
    for (int i = 0; i < 585; ++i) {
        rig.endpointSends(endpointFrame(0x7E0, CT_STANDARD,
                                        {static_cast<uint8_t>(0x20 | (i & 15)),
                                         static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8)}));
    }
    ASSERT_TRUE(waitUntil([&] { return rig.proxy->statistics().writeRetries > 0; }, 2000ms));
    for (int i = 0; i < 585; ++i) {
        const Bytes got = rig.busReceives();
        ASSERT_EQ(got.size(), sizeof(can_frame)) << "frame " << i;
        ASSERT_EQ(got[9], static_cast<uint8_t>(i));
        ASSERT_EQ(got[10], static_cast<uint8_t>(i >> 8));
    }
    EXPECT_TRUE(waitUntil([&] { return rig.proxy->statistics().framesSent == 585; }, 2000ms));
    const SocketCanProxy::Statistics s = rig.proxy->statistics();
    EXPECT_EQ(s.enobufs, 0u);
    EXPECT_EQ(s.sendFailures, 0u);
}

// ---- Seam: the interface goes down --------------------------------------------------------

std::atomic<int> recvError{0};

ssize_t recvmsgFailing(int fd, msghdr* msg, int flags) {
    if (recvError.load() != 0) {
        errno = recvError.load();
        return -1;
    }
    return ::recvmsg(fd, msg, flags);
}

TEST(SocketCanProxy, StopsWithAClearErrorWhenTheInterfaceGoesDown) {
    OutputCapture capture;
    const SocketCanProxy::SocketCalls calls{
        [](int fd, const void* d, size_t s) { return ::write(fd, d, s); }, &recvmsgFailing};
    recvError = ENETDOWN;
    ProxyRig rig({{0x7E8, false}}, &calls);
    rig.proxy->start();
    rig.busSends(makeFrame(0x7E8, {0x01, 0x01}));  // wakes the proxy
    ASSERT_TRUE(waitUntil([&] { return !rig.proxy->isRunning(); }, 2000ms));
    recvError = 0;
    EXPECT_TRUE(rig.proxy->failed());
    EXPECT_EQ(rig.proxy->failure(), "interface test0 is down or gone: Network is down");
    const std::vector<std::string> err = capture.errLines();
    ASSERT_EQ(err.size(), 2u);
    EXPECT_EQ(err[0],
              "[ERROR] SocketCanProxy::receiveFrames() interface test0 is down or gone, the proxy "
              "stops: ");
    EXPECT_EQ(err[1], "[ERROR] errno 100: Network is down");
}

TEST(SocketCanProxy, StopsWhenSendingFindsTheInterfaceGone) {
    OutputCapture capture;
    const SocketCanProxy::SocketCalls calls{[](int, const void*, size_t) -> ssize_t {
                                                errno = ENODEV;
                                                return -1;
                                            },
                                            &plainRecvmsg};
    ProxyRig rig({{0x7E8, false}}, &calls);
    rig.proxy->start();
    rig.endpointSends(endpointFrame(0x7E0, CT_STANDARD, {0x01, 0x11}));
    ASSERT_TRUE(waitUntil([&] { return !rig.proxy->isRunning(); }, 2000ms));
    EXPECT_EQ(rig.proxy->failure(), "interface test0 is down or gone: No such device");
    EXPECT_EQ(qbtest::countLines(capture.errLines(),
                                 "[ERROR] SocketCanProxy::transmitFrames() interface test0 is "
                                 "down or gone, the proxy stops: "),
              1u);
}

TEST(SocketCanProxy, TakesTheEndOfTheOtherSideAsTheInterfaceGone) {
    OutputCapture capture;
    ProxyRig rig;
    rig.proxy->start();
    ::shutdown(rig.bus, SHUT_RDWR);
    ASSERT_TRUE(waitUntil([&] { return !rig.proxy->isRunning(); }, 2000ms));
    EXPECT_EQ(rig.proxy->failure(), "interface test0 is down or gone: No such device");
}

TEST(SocketCanProxy, StopEndsTheThreadWhileTheEndpointDoesNotRead) {
    // Nobody reads the endpoint's input: the proxy blocks writing into it and stop() must still
    // end it.
    ProxyRig rig({{0x7E8, false}});
    rig.proxy->start();
    const int sent = 3000;  // about 150 KB of trace messages: more than the 64 KiB pipe holds
    int written = 0;
    for (; written < sent; ++written) {
        const can_frame f = makeFrame(0x7E8, {0x21, 1, 2, 3, 4, 5, 6, 7});
        pollfd p{rig.bus, POLLOUT, 0};
        if (::poll(&p, 1, 200) <= 0) {
            break;  // the proxy no longer reads: it blocks on the full input
        }
        ASSERT_EQ(::write(rig.bus, &f, sizeof f), static_cast<ssize_t>(sizeof f));
    }
    ASSERT_TRUE(waitUntil([&] { return rig.proxy->statistics().framesReceived > 100; }, 2000ms));
    const double t0 = qbtest::monotonicSeconds();
    rig.proxy->stop();
    EXPECT_LT(qbtest::monotonicSeconds() - t0, 2.0);
    EXPECT_FALSE(rig.proxy->isRunning());
}

// ---- Two endpoints over a socketpair ------------------------------------------------------

// An endpoint with its proxy on one end of the socketpair.
struct Side {
    Side(int fd, uint16_t sendId, uint16_t peerId) : endpoint(0) {
        endpoint.setSendCANid(sendId);
        CANTransportThread::delstatus_t cb = [this](CANTransportThread::statuschange_t st,
                                                    uint16_t) {
            if (st == CANTransportThread::CTT_ACKNOWLEDGED) {
                ++acks;
            } else if (st == CANTransportThread::CTT_SEND_TIMEOUT ||
                       st == CANTransportThread::CTT_DISCONNECTED) {
                ++failures;
            }
        };
        endpoint.setDelegate(cb);
        endpoint.open(appRead, appWrite);
        input.reset(new TraceMessageWriter(appWrite));
        proxy.reset(new SocketCanProxy(
            CanRawSocket::adopt(fd, "pair" + std::to_string(sendId), {{peerId, false}}), *input));
        endpoint.setConnection(proxy->proxyFd());
        output.reset(new TraceMessageBuffer(appRead, nullptr));
    }
    ~Side() {
        proxy->stop();
        endpoint.stop();
    }
    CANTransportThread endpoint;
    int appRead = -1;
    int appWrite = -1;
    std::unique_ptr<TraceMessageWriter> input;
    std::unique_ptr<SocketCanProxy> proxy;
    std::unique_ptr<TraceMessageBuffer> output;
    std::atomic<int> acks{0};
    std::atomic<int> failures{0};
};

TEST(SocketCanProxy, CarriesPayloadsOfEveryLengthClassBetweenTwoEndpoints) {
    OutputCapture capture;  // the endpoints' start lines
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    Side a(sv[0], 0x7E0, 0x7E8);
    Side b(sv[1], 0x7E8, 0x7E0);
    a.proxy->start();
    b.proxy->start();
    a.endpoint.start();
    b.endpoint.start();
    int expectedAcks = 0;
    for (size_t size : {1, 7, 8, 100, 1000, 4095}) {
        byteVec_t payload(size);
        for (size_t i = 0; i < size; ++i) {
            payload[i] = static_cast<uint8_t>(i * 13 + size);
        }
        CANTransportTraceMessage msg(0, 0x7E0, payload.begin(), payload.end(), CT_STANDARD);
        ASSERT_TRUE(a.input->write(msg));
        ++expectedAcks;
        ASSERT_TRUE(waitUntil([&] { return a.acks.load() == expectedAcks; }, 10000ms))
            << "payload of " << size << " bytes";
        std::unique_ptr<MessageBase> got;
        ASSERT_TRUE(waitUntil(
            [&] {
                b.output->read();
                got.reset(b.output->getNextMessage());
                return got != nullptr;
            },
            2000ms));
        ASSERT_EQ(got->getMessageId(), MSGID_CAN_TRANSPORT);
        EXPECT_EQ(dynamic_cast<const CANTransportTraceMessage&>(*got).getPayload(), payload)
            << "payload of " << size << " bytes";
    }
    EXPECT_EQ(a.failures.load(), 0);
    // Stop both proxies so that every count is final (a count follows its write).
    a.proxy->stop();
    b.proxy->stop();
    const SocketCanProxy::Statistics sa = a.proxy->statistics();
    const SocketCanProxy::Statistics sb = b.proxy->statistics();
    // Frames: 1 + 1 + (1+1) + (1+14) + (1+142) + (1+585) data frames from a; b answers every
    // single frame and every payload with acknowledgement, and each first frame with ready.
    EXPECT_EQ(sa.framesSent, 1u + 1u + 2u + 15u + 143u + 586u);
    EXPECT_EQ(sb.framesReceived, sa.framesSent);
    EXPECT_EQ(sb.framesSent, 6u + 4u);
    EXPECT_EQ(sa.framesReceived, sb.framesSent);
}

}  // namespace
