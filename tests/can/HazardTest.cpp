// The loss patterns under which the transport protocol delivers something other than each
// payload once and whole, reproduced with the shortest frame sequences the lossy-bus soak
// (cantp soak) met them with. Two endpoints, A (0x7E0) and B (0x7E8), are connected through
// the test: every frame one of them writes to its CAN proxy is read here and either passed into
// the other's input or dropped (a frame lost on the bus). The endpoints are left as they are;
// the tests assert exactly what they do. docs/reliability.md lists the hazards.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "can/TransportHarness.h"
#include "common/OutputCapture.h"
#include "common/Pipe.h"
#include "common/Wait.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"

using namespace qbtest;

namespace {

/// One endpoint of the relayed pair: the transport behind its real pipes, its status callback
/// recorded, readers on its CAN proxy descriptor and on its output.
struct Endpoint {
    explicit Endpoint(uint16_t sendId) : proxy(true), transport(0), id(sendId) {
        transport.setSendCANid(sendId);
        CANTransportThread::delstatus_t cb = status.callback();
        transport.setDelegate(cb);
        transport.open(readFD, writeFD);
        transport.setConnection(proxy.writeEnd());
        frames.reset(new MessageReader(proxy.readEnd()));
        payloads.reset(new MessageReader(readFD));
    }
    ~Endpoint() { transport.stop(); }

    Pipe proxy;
    StatusRecorder status;
    TestableTransport transport;
    uint16_t id;
    int readFD = -1;
    int writeFD = -1;
    std::unique_ptr<MessageReader> frames;
    std::unique_ptr<MessageReader> payloads;
};

/// A and B, with one output capture for both (created first, destroyed last).
class RelayedPair {
  public:
    RelayedPair() : a(0x7E0), b(0x7E8) {}

    void start() {
        a.transport.start();
        b.transport.start();
    }

    /// The application hands a payload to `from`.
    void handOver(Endpoint& from, const Bytes& payload) {
        ASSERT_TRUE(writeAll(from.writeFD, payloadMessage(payload)));
    }

    /// Reads the next frame `from` sent and checks its data.
    ::testing::AssertionResult take(Endpoint& from, const Bytes& expected) {
        std::unique_ptr<MessageBase> msg = from.frames->next(kEventWait);
        auto* c = dynamic_cast<CANTraceMessageBase*>(msg.get());
        if (c == nullptr) {
            return ::testing::AssertionFailure() << "no frame from 0x" << std::hex << from.id
                                                 << ", expected " << hexText(expected);
        }
        const Bytes data(c->getData(), c->getData() + c->getNumberOfDataBytes());
        if (data != expected || c->getCanId() != from.id) {
            return ::testing::AssertionFailure()
                   << "frame from 0x" << std::hex << from.id << ": id 0x" << c->getCanId()
                   << " data " << hexText(data) << ", expected " << hexText(expected);
        }
        return ::testing::AssertionSuccess();
    }

    /// The next frame `from` sent is `expected`; it reaches the other endpoint.
    ::testing::AssertionResult pass(Endpoint& from, const Bytes& expected) {
        ::testing::AssertionResult r = take(from, expected);
        if (r) {
            Endpoint& to = &from == &a ? b : a;
            if (!writeAll(to.writeFD, canFrameMessage(expected, from.id))) {
                return ::testing::AssertionFailure() << "write into the peer's input failed";
            }
        }
        return r;
    }

    /// The next frame `from` sent is `expected`; it is lost on the bus.
    ::testing::AssertionResult drop(Endpoint& from, const Bytes& expected) {
        return take(from, expected);
    }

    /// The payloads `at` delivers within `during`.
    std::vector<Bytes> deliveries(Endpoint& at, milliseconds during) {
        std::vector<Bytes> got;
        for (;;) {
            std::unique_ptr<MessageBase> msg = at.payloads->next(during);
            auto* t = dynamic_cast<CANTransportTraceMessage*>(msg.get());
            if (t == nullptr) {
                return got;
            }
            EXPECT_EQ(t->getCanId(), (&at == &a ? b : a).id);
            got.push_back(t->getPayload());
            during = milliseconds(100);
        }
    }

    size_t lineCount(const std::string& line) const { return countLines(capture.outLines(), line); }

    OutputCapture capture;
    Endpoint a;
    Endpoint b;
};

std::vector<Status> statuses(const StatusRecorder& r) {
    std::vector<Status> s;
    for (const StatusEvent& e : r.events()) {
        s.push_back(e.status);
    }
    return s;
}

const char* const kWrongSequence =
    "[ERROR] CANTransportThread::checkConsecutiveFrame() sequence counter of consecutive frame "
    "wrong. Got 1 but expected 0";
const char* const kConsecutiveWhileIdle =
    "[ERROR] CANTransportThread::showError() received consecutive frame but expected first or "
    "single frame";
const char* const kFirstWhileReceiving =
    "[ERROR] CANTransportThread::showError() received first frame but expected consecutive frame";
const char* const kRefused2 =
    "[ERROR] CANTransportThread::checkFlowControl() CTP_FC_NOT_ACKNOWLEDGE or "
    "CTP_FC_NOT_READY_TO_RECEIVE received [2]";
const char* const kRefused0 =
    "[ERROR] CANTransportThread::checkFlowControl() CTP_FC_NOT_ACKNOWLEDGE or "
    "CTP_FC_NOT_READY_TO_RECEIVE received [0]";
const char* const kNoSendingState =
    "[ERROR] CANTransportThread::checkFlowControl() received a flow control but has no sending "
    "state. 0x000007e8 8  0x30 0x00 0x00 0x00 0x00 0x00 0x00 0x00";
const char* const kRetry0 = "[INFO] CANTransportThread::handleSendError() send retry = 0";
const char* const kRetry1 = "[INFO] CANTransportThread::handleSendError() send retry = 1";

// A 27-byte payload 1, 2, ..., 27: a first frame and three consecutive frames.
const Bytes kFirst{0x10, 0x1B, 1, 2, 3, 4, 5, 6};
const Bytes kCf0{0x20, 7, 8, 9, 10, 11, 12, 13};
const Bytes kCf1{0x21, 14, 15, 16, 17, 18, 19, 20};
const Bytes kCf2{0x22, 21, 22, 23, 24, 25, 26, 27};

// Steps of the soak's partial delivery, from A handing over the 27-byte payload 1..27 to A
// receiving B's acknowledgement of what B delivered. A's last copy of its first frame, sent
// after the final refusal, has been read from A's proxy and not passed on.
void partialDeliveryAsAcknowledged(RelayedPair& p) {
    p.handOver(p.a, countingBytes(27, 1));
    ASSERT_TRUE(p.pass(p.a, kFirst));
    ASSERT_TRUE(p.pass(p.b, kReady));
    ASSERT_TRUE(p.drop(p.a, kCf0));  // lost
    ASSERT_TRUE(p.pass(p.a, kCf1));  // B: wrong sequence number
    ASSERT_TRUE(p.pass(p.a, kCf2));  // B: consecutive frame while idle
    ASSERT_TRUE(p.pass(p.b, kNotAck));
    ASSERT_TRUE(p.pass(p.b, kNotReady));
    ASSERT_TRUE(p.pass(p.a, kFirst));  // A's resend after the refusal [2]: B starts anew
    ASSERT_TRUE(p.pass(p.a, kFirst));  // A's resend after the refusal [0]: B clears, stays open
    ASSERT_TRUE(p.pass(p.b, kReady));  // meant for the first resend
    ASSERT_TRUE(p.pass(p.b, kNotReady));
    // A: the ready to receive releases the burst; the next refusal makes it send the first frame
    // again. B: the burst completes the open transfer.
    ASSERT_TRUE(p.pass(p.a, kCf0));
    ASSERT_TRUE(p.pass(p.a, kCf1));
    ASSERT_TRUE(p.pass(p.a, kCf2));
    ASSERT_TRUE(p.drop(p.a, kFirst));
    ASSERT_TRUE(p.pass(p.b, kAck));
    ASSERT_TRUE(p.a.status.waitForCount(2, kEventWait));
}

}  // namespace

// The soak's partial deliveries. One lost consecutive frame makes the receiver refuse the rest
// twice (a wrong sequence number: not acknowledged; the frame after it, while idle: not ready),
// and the sender counts both refusals, so it sends its first frame twice more. The receiver takes
// the first repeat as a new transfer and answers ready to receive; the second repeat arrives while
// that transfer is open, so it only clears the bytes received and leaves the transfer open. The
// ready to receive meant for the first repeat releases the sender's consecutive frames, which
// complete the open transfer: the application gets the payload without its first six bytes, the
// peer is told "acknowledged", and the sender reports the payload acknowledged.
TEST(Hazard, LostConsecutiveFrameDeliversPayloadWithoutItsFirstSixBytesAsAcknowledged) {
    RelayedPair p;
    p.start();
    ASSERT_NO_FATAL_FAILURE(partialDeliveryAsAcknowledged(p));

    EXPECT_EQ(p.deliveries(p.b, kEventWait), (std::vector<Bytes>{countingBytes(21, 7)}));
    const std::vector<StatusEvent> aEvents = p.a.status.events();
    EXPECT_EQ(statuses(p.a.status), (std::vector<Status>{CANTransportThread::CTT_CONNECTED,
                                                         CANTransportThread::CTT_ACKNOWLEDGED}));
    EXPECT_EQ(aEvents[1].arg, 27);
    EXPECT_EQ(statuses(p.b.status), (std::vector<Status>{CANTransportThread::CTT_CONNECTED}));
    EXPECT_TRUE(p.a.transport.sendQueueEmpty());
    EXPECT_TRUE(p.deliveries(p.a, milliseconds(50)).empty());

    p.a.transport.stop();
    p.b.transport.stop();
    EXPECT_EQ(p.lineCount(kWrongSequence), 1u);
    EXPECT_EQ(p.lineCount(kConsecutiveWhileIdle), 1u);
    EXPECT_EQ(p.lineCount(kFirstWhileReceiving), 1u);
    EXPECT_EQ(p.lineCount(kRefused2), 1u);
    EXPECT_EQ(p.lineCount(kRefused0), 2u);
    // The ready to receive sets the retry count back to 0 between the refusals.
    EXPECT_EQ(p.lineCount(kRetry0), 2u);
    EXPECT_EQ(p.lineCount(kRetry1), 1u);
}

// What the soak met after some partial deliveries and give-ups. A copy of a first frame that
// is still on its way when the sender has moved on (here the last copy sent after the final
// refusal of hazard 1) reaches the idle receiver and opens a transfer of the old length; the
// receiver's ready to receive is held up on the way. The next payload's first frame arrives while
// that transfer is open and is refused, but the held-up ready to receive releases the next
// payload's consecutive frames: the receiver delivers the old length's worth of the next payload
// (without its first six bytes, 21 of its 48 bytes), and the sender reports the next payload
// acknowledged too. The frames after the cut are refused one by one, and the sender, no longer
// waiting, logs each refusal.
TEST(Hazard, StaleFirstFrameOpensTransferThatNextPayloadCompletesCutToTheOldLength) {
    RelayedPair p;
    p.start();
    ASSERT_NO_FATAL_FAILURE(partialDeliveryAsAcknowledged(p));
    // The last copy of the first frame reaches B: a new transfer of 27 bytes. B's answer is held
    // up on its way to A.
    ASSERT_TRUE(writeAll(p.b.writeFD, canFrameMessage(kFirst, 0x7E0)));
    ASSERT_TRUE(p.take(p.b, kReady));
    const Bytes nextFirst{0x10, 0x30, 101, 102, 103, 104, 105, 106};
    p.handOver(p.a, countingBytes(48, 101));
    ASSERT_TRUE(p.pass(p.a, nextFirst));
    ASSERT_TRUE(p.take(p.b, kNotReady));  // refused; the 27-byte transfer stays open
    // Both answers reach A now, the one for the stale copy first.
    ASSERT_TRUE(writeAll(p.a.writeFD, canFrameMessage(kReady, 0x7E8)));
    ASSERT_TRUE(writeAll(p.a.writeFD, canFrameMessage(kNotReady, 0x7E8)));
    for (uint8_t sn = 0; sn < 6; ++sn) {
        Bytes cf{static_cast<uint8_t>(0x20 | sn)};
        for (uint8_t k = 0; k < 7; ++k) {
            cf.push_back(static_cast<uint8_t>(107 + 7 * sn + k));
        }
        ASSERT_TRUE(p.pass(p.a, cf));
    }
    ASSERT_TRUE(p.drop(p.a, nextFirst));  // A's resend after the refusal
    ASSERT_TRUE(p.pass(p.b, kAck));       // after the third consecutive frame: 21 bytes complete
    for (int k = 0; k < 3; ++k) {
        ASSERT_TRUE(p.pass(p.b, kNotReady));  // the fourth to sixth, while idle
    }
    ASSERT_TRUE(p.a.status.waitForCount(3, kEventWait));
    ASSERT_TRUE(waitUntil([&] { return p.lineCount(kNoSendingState) == 3; }, kEventWait));

    EXPECT_EQ(p.deliveries(p.b, kEventWait),
              (std::vector<Bytes>{countingBytes(21, 7), countingBytes(21, 107)}));
    EXPECT_EQ(statuses(p.a.status), (std::vector<Status>{CANTransportThread::CTT_CONNECTED,
                                                         CANTransportThread::CTT_ACKNOWLEDGED,
                                                         CANTransportThread::CTT_ACKNOWLEDGED}));
    EXPECT_EQ(p.a.status.events()[2].arg, 48);
    EXPECT_TRUE(p.a.transport.sendQueueEmpty());
    p.a.transport.stop();
    p.b.transport.stop();
    EXPECT_EQ(p.lineCount(kFirstWhileReceiving), 2u);
    EXPECT_EQ(p.lineCount(kConsecutiveWhileIdle), 4u);
    EXPECT_EQ(p.lineCount(kNoSendingState), 3u);
}

// The same hazard at its core: a first frame repeated while its transfer is open keeps the
// transfer open with nothing in it, and the consecutive frames complete it.
TEST(Hazard, RepeatedFirstFrameDuringOpenTransferDeliversPayloadWithoutItsFirstSixBytes) {
    RelayedPair p;
    p.start();
    ASSERT_TRUE(writeAll(p.b.writeFD, canFrameMessage(kFirst, 0x7E0)));
    ASSERT_TRUE(p.take(p.b, kReady));
    ASSERT_TRUE(writeAll(p.b.writeFD, canFrameMessage(kFirst, 0x7E0)));
    ASSERT_TRUE(p.take(p.b, kNotReady));
    ASSERT_TRUE(writeAll(p.b.writeFD, canFrameMessage(kCf0, 0x7E0)));
    ASSERT_TRUE(writeAll(p.b.writeFD, canFrameMessage(kCf1, 0x7E0)));
    ASSERT_TRUE(writeAll(p.b.writeFD, canFrameMessage(kCf2, 0x7E0)));
    ASSERT_TRUE(p.take(p.b, kAck));
    EXPECT_EQ(p.deliveries(p.b, kEventWait), (std::vector<Bytes>{countingBytes(21, 7)}));
    EXPECT_EQ(statuses(p.b.status), (std::vector<Status>{CANTransportThread::CTT_CONNECTED}));
    p.b.transport.stop();
    EXPECT_EQ(p.lineCount(kFirstWhileReceiving), 1u);
}

// The soak's duplicates: the receiver delivers a payload and acknowledges it; the
// acknowledgement is lost; after its 1 s wait the sender sends the payload again, and the
// receiver, which cannot tell a repeat from a new payload, delivers it a second time. The sender
// reports the payload acknowledged once.
TEST(Hazard, LostAcknowledgementMakesTheReceiverDeliverThePayloadTwice) {
    RelayedPair p;
    p.start();
    const Bytes single{0x03, 0x41, 0x42, 0x43, 0, 0, 0, 0};
    p.handOver(p.a, {0x41, 0x42, 0x43});
    ASSERT_TRUE(p.pass(p.a, single));
    ASSERT_TRUE(p.drop(p.b, kAck));  // lost
    ASSERT_TRUE(p.pass(p.a, single));
    ASSERT_TRUE(p.pass(p.b, kAck));
    ASSERT_TRUE(p.a.status.waitForCount(2, kEventWait));
    EXPECT_EQ(p.deliveries(p.b, kEventWait),
              (std::vector<Bytes>{{0x41, 0x42, 0x43}, {0x41, 0x42, 0x43}}));
    EXPECT_EQ(statuses(p.a.status), (std::vector<Status>{CANTransportThread::CTT_CONNECTED,
                                                         CANTransportThread::CTT_ACKNOWLEDGED}));
    EXPECT_EQ(p.a.status.events()[1].arg, 0x41);
    p.a.transport.stop();
    EXPECT_EQ(p.lineCount(kRetry0), 1u);
}

// The same for a segmented payload: the repeat is a whole new transfer to the receiver.
TEST(Hazard, LostFinalAcknowledgementMakesTheReceiverDeliverASegmentedPayloadTwice) {
    RelayedPair p;
    p.start();
    p.handOver(p.a, countingBytes(27, 1));
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(p.pass(p.a, kFirst));
        ASSERT_TRUE(p.pass(p.b, kReady));
        ASSERT_TRUE(p.pass(p.a, kCf0));
        ASSERT_TRUE(p.pass(p.a, kCf1));
        ASSERT_TRUE(p.pass(p.a, kCf2));
        if (round == 0) {
            ASSERT_TRUE(p.drop(p.b, kAck));  // lost
        } else {
            ASSERT_TRUE(p.pass(p.b, kAck));
        }
    }
    ASSERT_TRUE(p.a.status.waitForCount(2, kEventWait));
    EXPECT_EQ(p.deliveries(p.b, kEventWait),
              (std::vector<Bytes>{countingBytes(27, 1), countingBytes(27, 1)}));
    EXPECT_EQ(p.a.status.events()[1].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(p.a.status.events()[1].arg, 27);
}

// The soak's "failed but delivered": every acknowledgement of a delivered payload is lost, five
// times; the sender gives the payload up and reports the failure, although the receiver has
// delivered it five times.
TEST(Hazard, FiveLostAcknowledgementsReportFailureOfAPayloadDeliveredFiveTimes) {
    RelayedPair p;
    p.start();
    const Bytes single{0x01, 0x41, 0, 0, 0, 0, 0, 0};
    p.handOver(p.a, {0x41});
    for (int attempt = 0; attempt < 5; ++attempt) {
        ASSERT_TRUE(p.pass(p.a, single));
        ASSERT_TRUE(p.drop(p.b, kAck));  // lost
    }
    // A never heard from B, so it reports a send time-out rather than a lost peer.
    ASSERT_TRUE(p.a.status.waitForCount(1, kTimerWait));
    EXPECT_EQ(statuses(p.a.status), (std::vector<Status>{CANTransportThread::CTT_SEND_TIMEOUT}));
    EXPECT_EQ(p.deliveries(p.b, kEventWait), std::vector<Bytes>(5, Bytes{0x41}));
    EXPECT_TRUE(p.a.transport.sendQueueEmpty());
}

// The soak's most common failure. One lost consecutive frame early in a payload makes the
// receiver refuse each later frame of the burst: the frame after the gap is not acknowledged
// (wrong sequence number), every further one is not ready to receive (a consecutive frame while
// idle). The sender counts each refusal as a failure of the payload, so five frames after the
// gap use up all its tries at once: the payload and the whole queue are dropped and the peer is
// reported lost, although only one frame was lost.
TEST(Hazard, OneLostConsecutiveFrameUsesUpAllTriesAndReportsThePeerLost) {
    RelayedPair p;
    p.start();
    // 48 bytes: a first frame and six consecutive frames.
    const Bytes payload = countingBytes(48, 1);
    const Bytes first{0x10, 0x30, 1, 2, 3, 4, 5, 6};
    p.handOver(p.a, payload);
    p.handOver(p.a, {0x55});  // queued behind it
    ASSERT_TRUE(p.pass(p.a, first));
    ASSERT_TRUE(p.pass(p.b, kReady));
    ASSERT_TRUE(p.drop(p.a, Bytes{0x20, 7, 8, 9, 10, 11, 12, 13}));  // lost
    for (uint8_t sn = 1; sn < 6; ++sn) {
        const uint8_t from = static_cast<uint8_t>(7 + 7 * sn);
        Bytes cf{static_cast<uint8_t>(0x20 | sn)};
        for (uint8_t k = 0; k < 7; ++k) {
            cf.push_back(static_cast<uint8_t>(from + k));
        }
        ASSERT_TRUE(p.pass(p.a, cf));
    }
    ASSERT_TRUE(p.pass(p.b, kNotAck));
    for (int k = 0; k < 4; ++k) {
        ASSERT_TRUE(p.pass(p.b, kNotReady));
    }
    // Four resends of the first frame (lost here too), then the fifth failure gives up.
    for (int k = 0; k < 4; ++k) {
        ASSERT_TRUE(p.drop(p.a, first));
    }
    ASSERT_TRUE(p.a.status.waitForCount(2, kEventWait));
    EXPECT_EQ(statuses(p.a.status), (std::vector<Status>{CANTransportThread::CTT_CONNECTED,
                                                         CANTransportThread::CTT_DISCONNECTED}));
    EXPECT_TRUE(p.a.frames->next(milliseconds(100)) == nullptr);  // the queued payload is gone
    EXPECT_TRUE(p.deliveries(p.b, milliseconds(100)).empty());
    EXPECT_TRUE(p.a.transport.sendQueueEmpty());
    p.a.transport.stop();
    p.b.transport.stop();
    EXPECT_EQ(p.lineCount(kWrongSequence), 1u);
    EXPECT_EQ(p.lineCount(kConsecutiveWhileIdle), 4u);
    EXPECT_EQ(p.lineCount(kRefused2), 1u);
    EXPECT_EQ(p.lineCount(kRefused0), 4u);
}
