// End-to-end tests: two transport endpoints wired back to back through their CAN proxy
// descriptors, payloads handed over and read back as an application does.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "can/EndToEndWiring.h"
#include "common/OutputCapture.h"
#include "common/Wait.h"
#include "libqbcan/CANTransportThread.h"

using qbtest::countLines;
using qbtest::EndToEndWiring;
using qbtest::OutputCapture;

namespace {

typedef EndToEndWiring::Side Side;
typedef CANTransportThread::statuschange_t Status;

const Side A = EndToEndWiring::A;
const Side B = EndToEndWiring::B;

const size_t STREAM_PAYLOADS = 1000;

/// The identifier the sender reports with the acknowledgement: DATA[1] of the first frame.
uint16_t acknowledgementId(const byteVec_t& payload) {
    return payload.size() < 8 ? payload[0] : static_cast<uint16_t>(payload.size() & 0xFF);
}

/// Frames of one payload: a single frame, or a first frame and ceil((len - 6) / 7)
/// consecutive frames.
size_t consecutiveFrames(size_t len) {
    return len < 8 ? 0 : (len - 6 + 7 - 1) / 7;
}

byteVec_t randomBytes(std::mt19937& rng, size_t len) {
    std::uniform_int_distribution<int> byte(0, 255);
    byteVec_t bytes(len);
    for (uint8_t& b : bytes) {
        b = static_cast<uint8_t>(byte(rng));
    }
    return bytes;
}

/// `n` payloads: the boundary lengths first (single frame limits, first consecutive frame, the
/// sequence number wrapping after 16 consecutive frames, the longest payloads), then random
/// lengths from 1 to 4095.
std::vector<byteVec_t> makeStream(uint32_t seed, size_t n) {
    const size_t boundaries[] = {1,  2,   6,   7,   8,   9,   13,  14,   15,  20,
                                 21, 111, 112, 113, 118, 119, 120, 4094, 4095};
    std::mt19937 rng(seed);
    std::uniform_int_distribution<size_t> length(1, 4095);
    std::vector<byteVec_t> payloads;
    for (size_t len : boundaries) {
        payloads.push_back(randomBytes(rng, len));
    }
    while (payloads.size() < n) {
        payloads.push_back(randomBytes(rng, length(rng)));
    }
    return payloads;
}

size_t countLinesContaining(const std::vector<std::string>& lines, const std::string& text) {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
        return l.find(text) != std::string::npos;
    }));
}

size_t countLinesStartingWith(const std::vector<std::string>& lines, const std::string& text) {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
        return l.compare(0, text.size(), text) == 0;
    }));
}

std::string statusText(const std::vector<EndToEndWiring::StatusEvent>& events) {
    std::string text;
    for (const EndToEndWiring::StatusEvent& e : events) {
        text += std::to_string(static_cast<int>(e.status)) + ":" + std::to_string(e.id) + " ";
    }
    return text;
}

void record(const std::string& key, const std::string& value) {
    ::testing::Test::RecordProperty(key, value);
}

/// Sends STREAM_PAYLOADS payloads from `from` to the other endpoint, all handed over before the
/// peer hears the first frame, and checks every delivery, acknowledgement and frame.
void checkOneWayStream(Side from, uint32_t seed) {
    const Side to = EndToEndWiring::other(from);
    const std::vector<byteVec_t> payloads = makeStream(seed, STREAM_PAYLOADS);

    size_t singles = 0;
    size_t segmented = 0;
    size_t consecutive = 0;
    size_t bytes = 0;
    for (const byteVec_t& p : payloads) {
        (p.size() < 8 ? singles : segmented) += 1;
        consecutive += consecutiveFrames(p.size());
        bytes += p.size();
    }

    OutputCapture capture;
    EndToEndWiring wiring(0);
    // The forwarder holds the frames back until every payload has been handed over, so that
    // all of them are queued before the first one can be acknowledged.
    wiring.start(true);
    const double submitStart = wiring.now();
    for (const byteVec_t& p : payloads) {
        ASSERT_TRUE(wiring.submit(from, p));
    }
    const double submitSeconds = wiring.now() - submitStart;
    EXPECT_FALSE(wiring.endpoint(from).sendQueueEmpty());
    EXPECT_EQ(wiring.statusCount(from, CANTransportThread::CTT_ACKNOWLEDGED), 0u);

    const double transferStart = wiring.now();
    wiring.releaseFrames();
    const bool allAcknowledged =
        wiring.waitForStatus(from, CANTransportThread::CTT_ACKNOWLEDGED, payloads.size(),
                             qbtest::scaled(std::chrono::seconds(90)));
    const bool allDelivered =
        wiring.waitForDeliveries(to, payloads.size(), qbtest::scaled(std::chrono::seconds(5)));
    const double transferSeconds = wiring.now() - transferStart;

    std::fprintf(stderr,
                 "[e2e] %s->%s: %zu payloads (%zu single, %zu segmented, %zu bytes) handed over "
                 "in %.3f s, transferred in %.3f s: %.1f payloads/s, %.0f bytes/s\n",
                 EndToEndWiring::name(from), EndToEndWiring::name(to), payloads.size(), singles,
                 segmented, bytes, submitSeconds, transferSeconds,
                 payloads.size() / transferSeconds, bytes / transferSeconds);
    record("transfer_seconds", std::to_string(transferSeconds));
    record("payloads_per_second", std::to_string(payloads.size() / transferSeconds));
    ASSERT_TRUE(allAcknowledged) << wiring.statusCount(from, CANTransportThread::CTT_ACKNOWLEDGED)
                                 << " of " << payloads.size() << " acknowledged";
    ASSERT_TRUE(allDelivered) << wiring.deliveryCount(to) << " of " << payloads.size()
                              << " delivered";

    // Anything late (a time-out, a resend) would show within the longest protocol time-out.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));

    EXPECT_TRUE(wiring.endpoint(from).sendQueueEmpty());
    EXPECT_TRUE(wiring.endpoint(to).sendQueueEmpty());
    EXPECT_TRUE(wiring.endpoint(from).isRunning());
    EXPECT_TRUE(wiring.endpoint(to).isRunning());

    const std::vector<EndToEndWiring::Delivery> got = wiring.deliveries(to);
    ASSERT_EQ(got.size(), payloads.size());
    for (size_t i = 0; i < payloads.size(); ++i) {
        ASSERT_EQ(got[i].payload, payloads[i])
            << "payload " << i << " of length " << payloads[i].size();
        ASSERT_EQ(got[i].canId, EndToEndWiring::SEND_ID[from]) << "payload " << i;
        ASSERT_EQ(got[i].canType, CT_STANDARD) << "payload " << i;
    }
    EXPECT_EQ(wiring.deliveryCount(from), 0u);

    const std::vector<EndToEndWiring::StatusEvent> senderStatus = wiring.statuses(from);
    ASSERT_EQ(senderStatus.size(), payloads.size() + 1) << statusText(senderStatus);
    EXPECT_EQ(senderStatus[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(senderStatus[0].id, 0);
    for (size_t i = 0; i < payloads.size(); ++i) {
        ASSERT_EQ(senderStatus[i + 1].status, CANTransportThread::CTT_ACKNOWLEDGED) << i;
        ASSERT_EQ(senderStatus[i + 1].id, acknowledgementId(payloads[i])) << "payload " << i;
    }
    const std::vector<EndToEndWiring::StatusEvent> receiverStatus = wiring.statuses(to);
    ASSERT_EQ(receiverStatus.size(), 1u) << statusText(receiverStatus);
    EXPECT_EQ(receiverStatus[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(receiverStatus[0].id, 0);

    // Every frame went out once: no resend, no refusal.
    const EndToEndWiring::FrameCounts sent = wiring.frameCounts(from);
    EXPECT_EQ(sent.single, singles);
    EXPECT_EQ(sent.first, segmented);
    EXPECT_EQ(sent.consecutive, consecutive);
    EXPECT_EQ(sent.total, singles + segmented + consecutive);
    EXPECT_EQ(sent.wrongShape, 0u);
    const EndToEndWiring::FrameCounts answered = wiring.frameCounts(to);
    EXPECT_EQ(answered.flowControl[1], segmented);
    EXPECT_EQ(answered.flowControl[3], payloads.size());
    EXPECT_EQ(answered.total, segmented + payloads.size());
    EXPECT_EQ(answered.wrongShape, 0u);
    EXPECT_EQ(wiring.unexpectedInput(), 0u);
    EXPECT_EQ(wiring.failedWrites(), 0u);

    wiring.stop();
    const std::vector<std::string> out = capture.outLines();
    EXPECT_EQ(countLinesStartingWith(out, "[ERROR]"), 0u) << capture.outText().substr(0, 2000);
    EXPECT_EQ(countLinesContaining(out, "send retry"), 0u);
    EXPECT_EQ(countLines(out, "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED"), 2u);
    EXPECT_EQ(capture.errText(), "");
}

TEST(EndToEndStream, ThousandPayloadsFromAToBArriveExactInOrderEachAcknowledgedOnce) {
    checkOneWayStream(A, 20240611u);
}

TEST(EndToEndStream, ThousandPayloadsFromBToAArriveExactInOrderEachAcknowledgedOnce) {
    checkOneWayStream(B, 777u);
}

TEST(EndToEndEmptyPayload,
     RefusedFiveTimesThenWholeQueueDroppedWithOneDisconnectAndLaterPayloadDelivered) {
    OutputCapture capture;
    EndToEndWiring wiring(0);
    wiring.setRecordFrames(true);
    wiring.start();

    std::mt19937 rng(42u);
    const byteVec_t shortPayload = randomBytes(rng, 5);
    const byteVec_t longPayload = randomBytes(rng, 300);
    // One write: the empty payload and the two behind it reach the endpoint together.
    ASSERT_TRUE(wiring.submitAll(A, {byteVec_t(), shortPayload, longPayload}));

    ASSERT_TRUE(wiring.waitForStatus(A, CANTransportThread::CTT_DISCONNECTED, 1,
                                     qbtest::scaled(std::chrono::seconds(10))))
        << statusText(wiring.statuses(A));
    // Long enough for any protocol time-out to run out.
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));

    EXPECT_EQ(wiring.deliveryCount(B), 0u);
    EXPECT_EQ(wiring.deliveryCount(A), 0u);
    EXPECT_TRUE(wiring.endpoint(A).sendQueueEmpty());

    const std::vector<EndToEndWiring::StatusEvent> senderStatus = wiring.statuses(A);
    ASSERT_EQ(senderStatus.size(), 2u) << statusText(senderStatus);
    EXPECT_EQ(senderStatus[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(senderStatus[0].id, 0);
    EXPECT_EQ(senderStatus[1].status, CANTransportThread::CTT_DISCONNECTED);
    EXPECT_EQ(senderStatus[1].id, 0);
    const std::vector<EndToEndWiring::StatusEvent> receiverStatus = wiring.statuses(B);
    ASSERT_EQ(receiverStatus.size(), 1u) << statusText(receiverStatus);
    EXPECT_EQ(receiverStatus[0].status, CANTransportThread::CTT_CONNECTED);

    // A sent the frame of eight 0x00 bytes five times and nothing of the payloads behind it;
    // B refused each with not-ready-to-receive.
    const std::array<uint8_t, 8> zeros = {0, 0, 0, 0, 0, 0, 0, 0};
    const std::array<uint8_t, 8> notReady = {0x30, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<EndToEndWiring::Frame> fromA = wiring.frames(A);
    ASSERT_EQ(fromA.size(), 5u);
    for (const EndToEndWiring::Frame& f : fromA) {
        EXPECT_EQ(f.id, 0x7E0u);
        EXPECT_EQ(f.length, 8);
        EXPECT_EQ(f.data, zeros);
    }
    const std::vector<EndToEndWiring::Frame> fromB = wiring.frames(B);
    ASSERT_EQ(fromB.size(), 5u);
    for (const EndToEndWiring::Frame& f : fromB) {
        EXPECT_EQ(f.id, 0x7E8u);
        EXPECT_EQ(f.length, 8);
        EXPECT_EQ(f.data, notReady);
    }

    const std::vector<std::string> out = capture.outLines();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(countLines(out, "[INFO] CANTransportThread::handleSendError() send retry = " +
                                      std::to_string(i)),
                  1u)
            << i;
    }
    EXPECT_EQ(countLinesContaining(out, "send retry"), 5u);
    EXPECT_EQ(countLines(out, "[INFO] CANTransportThread::handleSendError() CTT_DISCONNECTED"), 1u);

    // A later payload goes through as usual; the peer is heard from anew first.
    const byteVec_t later = randomBytes(rng, 20);
    ASSERT_TRUE(wiring.submit(A, later));
    ASSERT_TRUE(wiring.waitForDeliveries(B, 1, qbtest::scaled(std::chrono::seconds(5))));
    ASSERT_TRUE(wiring.waitForStatus(A, CANTransportThread::CTT_ACKNOWLEDGED, 1,
                                     qbtest::scaled(std::chrono::seconds(5))));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const std::vector<EndToEndWiring::Delivery> got = wiring.deliveries(B);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].payload, later);
    EXPECT_EQ(got[0].canId, 0x7E0u);

    const std::vector<EndToEndWiring::StatusEvent> after = wiring.statuses(A);
    ASSERT_EQ(after.size(), 4u) << statusText(after);
    EXPECT_EQ(after[2].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(after[3].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(after[3].id, 20);
    EXPECT_EQ(wiring.statuses(B).size(), 1u);
    EXPECT_TRUE(wiring.endpoint(A).sendQueueEmpty());

    // The later payload: a first frame and two consecutive frames, sent once.
    const std::vector<EndToEndWiring::Frame> laterFrames = wiring.frames(A);
    ASSERT_EQ(laterFrames.size(), 8u);
    EXPECT_EQ(laterFrames[5].data[0], 0x10);
    EXPECT_EQ(laterFrames[5].data[1], 20);
    EXPECT_EQ(laterFrames[6].data[0], 0x20);
    EXPECT_EQ(laterFrames[7].data[0], 0x21);
    EXPECT_EQ(wiring.unexpectedInput(), 0u);
    EXPECT_EQ(wiring.failedWrites(), 0u);
    wiring.stop();
    EXPECT_EQ(capture.errText(), "");
}

TEST(EndToEndRequestResponse,
     FiveHundredRequestsEachAnsweredWithRandomSizedResponseAllExactInOrder) {
    const size_t rounds = 500;
    std::mt19937 rng(5150u);
    std::uniform_int_distribution<size_t> length(1, 4095);
    std::vector<byteVec_t> requests;
    std::vector<byteVec_t> responses;
    for (size_t i = 0; i < rounds; ++i) {
        requests.push_back(randomBytes(rng, length(rng)));
        responses.push_back(randomBytes(rng, length(rng)));
    }

    OutputCapture capture;
    EndToEndWiring wiring(0);
    // B answers each request it delivers, from its reader thread.
    wiring.setDeliveryHandler(B, [&](size_t index, const byteVec_t&) {
        if (index < responses.size()) {
            wiring.submit(B, responses[index]);
        }
    });
    wiring.start();

    const double begin = wiring.now();
    for (size_t i = 0; i < rounds; ++i) {
        ASSERT_TRUE(wiring.submit(A, requests[i]));
        ASSERT_TRUE(wiring.waitForDeliveries(A, i + 1, qbtest::scaled(std::chrono::seconds(10))))
            << "no response to request " << i;
    }
    ASSERT_TRUE(wiring.waitForStatus(B, CANTransportThread::CTT_ACKNOWLEDGED, rounds,
                                     qbtest::scaled(std::chrono::seconds(5))));
    const double seconds = wiring.now() - begin;
    std::fprintf(stderr, "[e2e] request/response: %zu rounds in %.3f s (%.2f ms per round)\n",
                 rounds, seconds, 1000.0 * seconds / rounds);
    record("round_trip_ms", std::to_string(1000.0 * seconds / rounds));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));

    const std::vector<EndToEndWiring::Delivery> atB = wiring.deliveries(B);
    const std::vector<EndToEndWiring::Delivery> atA = wiring.deliveries(A);
    ASSERT_EQ(atB.size(), rounds);
    ASSERT_EQ(atA.size(), rounds);
    for (size_t i = 0; i < rounds; ++i) {
        ASSERT_EQ(atB[i].payload, requests[i]) << "request " << i;
        ASSERT_EQ(atB[i].canId, 0x7E0u) << "request " << i;
        ASSERT_EQ(atA[i].payload, responses[i]) << "response " << i;
        ASSERT_EQ(atA[i].canId, 0x7E8u) << "response " << i;
    }
    for (Side side : {A, B}) {
        const std::vector<byteVec_t>& sent = side == A ? requests : responses;
        const std::vector<EndToEndWiring::StatusEvent> events = wiring.statuses(side);
        ASSERT_EQ(events.size(), rounds + 1)
            << EndToEndWiring::name(side) << " " << statusText(events);
        EXPECT_EQ(events[0].status, CANTransportThread::CTT_CONNECTED);
        for (size_t i = 0; i < rounds; ++i) {
            ASSERT_EQ(events[i + 1].status, CANTransportThread::CTT_ACKNOWLEDGED)
                << EndToEndWiring::name(side) << " " << i;
            ASSERT_EQ(events[i + 1].id, acknowledgementId(sent[i]))
                << EndToEndWiring::name(side) << " " << i;
        }
        EXPECT_TRUE(wiring.endpoint(side).sendQueueEmpty());
        EXPECT_TRUE(wiring.endpoint(side).isRunning());
        const EndToEndWiring::FrameCounts c = wiring.frameCounts(side);
        EXPECT_EQ(c.flowControl[0], 0u) << EndToEndWiring::name(side);
        EXPECT_EQ(c.flowControl[2], 0u) << EndToEndWiring::name(side);
        EXPECT_EQ(c.flowControl[3], rounds) << EndToEndWiring::name(side);
        EXPECT_EQ(c.other + c.wrongShape, 0u) << EndToEndWiring::name(side);
    }
    EXPECT_EQ(wiring.unexpectedInput(), 0u);
    EXPECT_EQ(wiring.failedWrites(), 0u);
    wiring.stop();
    const std::vector<std::string> out = capture.outLines();
    EXPECT_EQ(countLinesStartingWith(out, "[ERROR]"), 0u) << capture.outText().substr(0, 2000);
    EXPECT_EQ(countLinesContaining(out, "send retry"), 0u);
    EXPECT_EQ(capture.errText(), "");
}

// ---- Both directions at once ----

const size_t DUPLEX_PAYLOADS = 200;

/// Payload k is recognisable by its acknowledgement identifier, which is k: payloads 5, 15, 25, ...
/// are single frames starting with byte k, the others are segmented with a length whose low byte
/// is k.
std::vector<byteVec_t> makeDuplexStream(uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<size_t> shortLength(1, 7);
    std::uniform_int_distribution<size_t> highNibble(0, 15);
    std::vector<byteVec_t> payloads;
    for (size_t k = 0; k < DUPLEX_PAYLOADS; ++k) {
        if (k % 10 == 5) {
            byteVec_t p = randomBytes(rng, shortLength(rng));
            p[0] = static_cast<uint8_t>(k);
            payloads.push_back(p);
        } else {
            size_t len = (highNibble(rng) << 8) | k;
            if (len < 8) {
                len += 256;
            }
            payloads.push_back(randomBytes(rng, len));
        }
    }
    return payloads;
}

struct DirectionOutcome {
    size_t sent = 0;
    size_t deliveredExact = 0;      ///< payloads delivered byte-exact at least once
    size_t duplicates = 0;          ///< further exact deliveries of a payload
    size_t deliveredWrong = 0;      ///< deliveries whose content differs from every payload
    size_t wrongIsTail = 0;         ///< of those: the tail of a payload (its first bytes missing)
    size_t deliveredWrongOnly = 0;  ///< payloads delivered only wrong
    size_t acknowledged = 0;
    size_t neverAcknowledged = 0;
    size_t deliveredNotAcknowledged = 0;
    size_t acknowledgedNotDelivered = 0;
    size_t lostNotDelivered = 0;  ///< neither delivered nor acknowledged
    size_t lossReports = 0;       ///< CTT_SEND_TIMEOUT and CTT_DISCONNECTED at the sender
    size_t receiveTimeouts = 0;   ///< CTT_RECEIVE_TIMEOUT at the receiver
    size_t outOfOrder = 0;        ///< exact deliveries of an earlier payload after a later one
    size_t badAcknowledgementIds = 0;
    size_t wrongCanId = 0;
};

DirectionOutcome analyseDirection(const EndToEndWiring& wiring, Side from,
                                  const std::vector<byteVec_t>& sent) {
    const Side to = EndToEndWiring::other(from);
    DirectionOutcome o;
    o.sent = sent.size();
    std::vector<size_t> exact(sent.size(), 0);
    std::vector<size_t> wrong(sent.size(), 0);
    std::vector<bool> acked(sent.size(), false);

    long lastAck = -1;
    for (const EndToEndWiring::StatusEvent& e : wiring.statuses(from)) {
        if (e.status == CANTransportThread::CTT_ACKNOWLEDGED) {
            ++o.acknowledged;
            // The queue is worked through in order: identifiers must rise.
            if (e.id >= sent.size() || static_cast<long>(e.id) <= lastAck) {
                ++o.badAcknowledgementIds;
            } else {
                acked[e.id] = true;
                lastAck = e.id;
            }
        } else if (e.status == CANTransportThread::CTT_SEND_TIMEOUT ||
                   e.status == CANTransportThread::CTT_DISCONNECTED) {
            ++o.lossReports;
        }
    }
    for (const EndToEndWiring::StatusEvent& e : wiring.statuses(to)) {
        o.receiveTimeouts += e.status == CANTransportThread::CTT_RECEIVE_TIMEOUT ? 1 : 0;
    }

    size_t lastExact = 0;
    for (const EndToEndWiring::Delivery& d : wiring.deliveries(to)) {
        if (d.canId != EndToEndWiring::SEND_ID[from]) {
            ++o.wrongCanId;
        }
        const uint16_t k = d.payload.empty() ? 0xFFFF : acknowledgementId(d.payload);
        if (k < sent.size() && d.payload == sent[k]) {
            if (k < lastExact) {
                ++o.outOfOrder;
            }
            lastExact = k;
            ++exact[k];
            continue;
        }
        ++o.deliveredWrong;
        for (size_t j = 0; j < sent.size(); ++j) {
            const byteVec_t& p = sent[j];
            if (p.size() > d.payload.size() &&
                std::equal(d.payload.begin(), d.payload.end(), p.end() - d.payload.size())) {
                ++o.wrongIsTail;
                ++wrong[j];
                break;
            }
        }
    }
    for (size_t k = 0; k < sent.size(); ++k) {
        const bool delivered = exact[k] > 0 || wrong[k] > 0;
        o.deliveredExact += exact[k] > 0 ? 1 : 0;
        o.duplicates += exact[k] > 1 ? exact[k] - 1 : 0;
        o.deliveredWrongOnly += exact[k] == 0 && wrong[k] > 0 ? 1 : 0;
        o.neverAcknowledged += acked[k] ? 0 : 1;
        o.deliveredNotAcknowledged += delivered && !acked[k] ? 1 : 0;
        o.acknowledgedNotDelivered += !delivered && acked[k] ? 1 : 0;
        o.lostNotDelivered += !delivered && !acked[k] ? 1 : 0;
    }
    return o;
}

void printOutcome(const std::string& label, const char* direction, const DirectionOutcome& o) {
    std::fprintf(stderr,
                 "[e2e] %s %s: sent %zu, delivered exact %zu (+%zu duplicates), delivered "
                 "wrong %zu (%zu of them a payload's tail; %zu payloads delivered only wrong), "
                 "acknowledged %zu, never acknowledged %zu (delivered but not acknowledged %zu, "
                 "acknowledged but not delivered %zu, lost %zu), loss reports %zu, receive "
                 "time-outs at the receiver %zu\n",
                 label.c_str(), direction, o.sent, o.deliveredExact, o.duplicates, o.deliveredWrong,
                 o.wrongIsTail, o.deliveredWrongOnly, o.acknowledged, o.neverAcknowledged,
                 o.deliveredNotAcknowledged, o.acknowledgedNotDelivered, o.lostNotDelivered,
                 o.lossReports, o.receiveTimeouts);
    const std::string prefix = label + "_" + direction + "_";
    record(prefix + "delivered_exact", std::to_string(o.deliveredExact));
    record(prefix + "delivered_wrong", std::to_string(o.deliveredWrong));
    record(prefix + "acknowledged", std::to_string(o.acknowledged));
    record(prefix + "never_acknowledged", std::to_string(o.neverAcknowledged));
    record(prefix + "loss_reports", std::to_string(o.lossReports));
}

/// Stops the wiring, prints the counts of both directions and checks what must hold even when
/// transfers in both directions get in each other's way.
void checkDuplexOutcome(const std::string& label, EndToEndWiring& wiring, OutputCapture& capture,
                        const std::vector<byteVec_t>& fromA, const std::vector<byteVec_t>& fromB,
                        double seconds) {
    EXPECT_TRUE(wiring.endpoint(A).isRunning());
    EXPECT_TRUE(wiring.endpoint(B).isRunning());
    const DirectionOutcome ab = analyseDirection(wiring, A, fromA);
    const DirectionOutcome ba = analyseDirection(wiring, B, fromB);
    const EndToEndWiring::FrameCounts framesA = wiring.frameCounts(A);
    const EndToEndWiring::FrameCounts framesB = wiring.frameCounts(B);
    EXPECT_EQ(wiring.unexpectedInput(), 0u);
    EXPECT_EQ(wiring.failedWrites(), 0u);
    wiring.stop();

    const std::vector<std::string> out = capture.outLines();
    const size_t retries = countLinesContaining(out, "send retry = ");
    std::fprintf(stderr,
                 "[e2e] %s: done after %.3f s; %zu \"send retry\" lines; frames A->B %zu, "
                 "B->A %zu; %zu error lines\n",
                 label.c_str(), seconds, retries, framesA.total, framesB.total,
                 countLinesStartingWith(out, "[ERROR]"));
    printOutcome(label, "A->B", ab);
    printOutcome(label, "B->A", ba);
    record(label + "_send_retry_lines", std::to_string(retries));

    for (const DirectionOutcome* o : {&ab, &ba}) {
        const char* direction = o == &ab ? "A->B" : "B->A";
        // Acknowledgement identifiers name payloads of the stream, in queue order.
        EXPECT_EQ(o->badAcknowledgementIds, 0u) << direction;
        // Byte-exact deliveries keep the order of the stream.
        EXPECT_EQ(o->outOfOrder, 0u) << direction;
        EXPECT_EQ(o->wrongCanId, 0u) << direction;
        // A payload that was not delivered must not have been acknowledged...
        EXPECT_EQ(o->acknowledgedNotDelivered, 0u) << direction;
        // ...and one that was never acknowledged was dropped, which the sender reports.
        if (o->neverAcknowledged > 0) {
            EXPECT_GT(o->lossReports, 0u) << direction;
        }
    }
    EXPECT_EQ(capture.errText(), "");
}

TEST(EndToEndDuplex, SimultaneousStreamsEachPayloadDeliveredOrItsLossReportedWithoutHang) {
    const std::vector<byteVec_t> fromA = makeDuplexStream(1111u);
    const std::vector<byteVec_t> fromB = makeDuplexStream(2222u);

    OutputCapture capture;
    EndToEndWiring wiring(0);
    wiring.start();
    const double begin = wiring.now();
    bool submittedA = true;
    bool submittedB = true;
    std::thread senderA([&] {
        for (const byteVec_t& p : fromA) {
            submittedA = wiring.submit(A, p) && submittedA;
        }
    });
    std::thread senderB([&] {
        for (const byteVec_t& p : fromB) {
            submittedB = wiring.submit(B, p) && submittedB;
        }
    });
    senderA.join();
    senderB.join();
    ASSERT_TRUE(submittedA);
    ASSERT_TRUE(submittedB);

    // Done: both queues empty and no frame for longer than the longest protocol time-out.
    const bool settled = qbtest::waitUntil(
        [&] {
            return wiring.endpoint(A).sendQueueEmpty() && wiring.endpoint(B).sendQueueEmpty() &&
                   wiring.secondsSinceLastFrame() > 1.5;
        },
        qbtest::scaled(std::chrono::seconds(45)));
    const double seconds = wiring.now() - begin;
    ASSERT_TRUE(settled) << "still busy after " << 45 * qbtest::timeScale << " s";
    checkDuplexOutcome("duplex_stream", wiring, capture, fromA, fromB, seconds);
}

/// True once the send queue of both endpoints has stayed empty over a short interval (a payload
/// between the input pipe and the queue is not seen by one look).
bool bothQueuesStayEmpty(EndToEndWiring& wiring) {
    for (int look = 0; look < 3; ++look) {
        if (!wiring.endpoint(A).sendQueueEmpty() || !wiring.endpoint(B).sendQueueEmpty()) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

TEST(EndToEndDuplex, PayloadsStartedTogetherFromBothSidesEachDeliveredOrItsLossReported) {
    const std::vector<byteVec_t> fromA = makeDuplexStream(3333u);
    const std::vector<byteVec_t> fromB = makeDuplexStream(4444u);

    OutputCapture capture;
    EndToEndWiring wiring(0);
    wiring.start();
    const double begin = wiring.now();
    // Round k: both sides are handed payload k at the same moment, so that both first frames
    // cross; the next round starts when both queues are empty again.
    for (size_t k = 0; k < DUPLEX_PAYLOADS; ++k) {
        ASSERT_TRUE(wiring.submit(A, fromA[k]));
        ASSERT_TRUE(wiring.submit(B, fromB[k]));
        ASSERT_TRUE(qbtest::waitUntil([&] { return bothQueuesStayEmpty(wiring); },
                                      qbtest::scaled(std::chrono::seconds(15))))
            << "round " << k << " still busy after " << 15 * qbtest::timeScale << " s";
    }
    ASSERT_TRUE(qbtest::waitUntil([&] { return wiring.secondsSinceLastFrame() > 1.5; },
                                  qbtest::scaled(std::chrono::seconds(10))));
    const double seconds = wiring.now() - begin;
    checkDuplexOutcome("duplex_rounds", wiring, capture, fromA, fromB, seconds);
}

}  // namespace
