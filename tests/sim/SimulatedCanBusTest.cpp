// The simulated bus end to end, with plain pipes standing in for transport endpoints.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "common/OutputCapture.h"
#include "common/Wait.h"
#include "libqbcansim/SimulatedCanBus.h"
#include "libqbio/LogUtil.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "sim/BusTestSupport.h"

using namespace std::chrono_literals;
using qbtest::writeAll;
using simtest::Endpoint;
using simtest::frameMessage;

namespace {

SimulatedCanBus::Config fastConfig() {
    SimulatedCanBus::Config c;
    c.timed = false;
    return c;
}

bool waitForCarried(const SimulatedCanBus& bus, uint64_t n, std::chrono::milliseconds timeout) {
    return qbtest::waitUntil([&] { return bus.statistics().framesCarried >= n; }, timeout);
}

std::vector<uint8_t> indexData(unsigned i) {
    return {static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i & 0xFF)};
}

}  // namespace

TEST(SimulatedCanBus, DeliversToEveryOtherNodeAsCanProxyFrames) {
    Endpoint a, b, c;
    SimulatedCanBus bus(fastConfig());
    const int na = bus.addNode(a.inputFd(), "A");
    const int nb = bus.addNode(b.inputFd(), "B");
    bus.addNode(c.inputFd(), "C");
    bus.start();
    ASSERT_TRUE(writeAll(bus.proxyFd(na), frameMessage(0x7E0, false, {0x02, 0x11, 0x22}, 3)));
    ASSERT_TRUE(writeAll(bus.proxyFd(nb), frameMessage(0x12345678, true, {})));
    ASSERT_TRUE(c.waitForFrames(2, 2s));
    ASSERT_TRUE(a.waitForFrames(1, 2s));
    ASSERT_TRUE(b.waitForFrames(1, 2s));
    ASSERT_TRUE(waitForCarried(bus, 2, 2s));
    bus.stop();

    // Nothing comes back to the sender.
    a.poll();
    b.poll();
    ASSERT_EQ(1u, a.frames.size());
    ASSERT_EQ(1u, b.frames.size());
    EXPECT_EQ(0x12345678u, a.frames[0].id);
    EXPECT_EQ(0x7E0u, b.frames[0].id);

    const simtest::Received& std7e0 = b.frames[0];
    EXPECT_EQ(MSGID_CAN_EXT, std7e0.msgId);
    EXPECT_EQ(CF_STANDARD, std7e0.kind);
    EXPECT_EQ(CSE_NO, std7e0.stateError);
    EXPECT_EQ(CT_STANDARD, std7e0.type);
    EXPECT_EQ(3, std7e0.channel);
    EXPECT_EQ((std::vector<uint8_t>{0x02, 0x11, 0x22}), std7e0.data);
    EXPECT_EQ(CT_EXTENDED, a.frames[0].type);
    EXPECT_TRUE(a.frames[0].data.empty());
    EXPECT_EQ(2u, c.frames.size());
    EXPECT_EQ(0, a.parseErrors + b.parseErrors + c.parseErrors);
}

TEST(SimulatedCanBus, FastModeDeliversEverythingAndKeepsEachNodesOrder) {
    const unsigned perNode = 300;
    Endpoint a, b, c;
    SimulatedCanBus bus(fastConfig());
    const int na = bus.addNode(a.inputFd(), "A");
    const int nb = bus.addNode(b.inputFd(), "B");
    bus.addNode(c.inputFd(), "C");
    bus.start();
    // B's identifier is lower and wins whenever both wait; each node's own order must hold.
    std::thread writerB([&] {
        for (unsigned i = 0; i < perNode; ++i) {
            writeAll(bus.proxyFd(nb), frameMessage(0x100, false, indexData(i)));
        }
    });
    for (unsigned i = 0; i < perNode; ++i) {
        ASSERT_TRUE(writeAll(bus.proxyFd(na), frameMessage(0x200, false, indexData(i))));
    }
    writerB.join();
    ASSERT_TRUE(c.waitForFrames(2 * perNode, 5s)) << c.frames.size();
    ASSERT_TRUE(a.waitForFrames(perNode, 5s));
    ASSERT_TRUE(b.waitForFrames(perNode, 5s));

    unsigned nextA = 0, nextB = 0;
    for (const auto& f : c.frames) {
        unsigned& next = f.id == 0x200 ? nextA : nextB;
        EXPECT_EQ(indexData(next), f.data) << "frame of id 0x" << std::hex << f.id;
        ++next;
    }
    EXPECT_EQ(perNode, nextA);
    EXPECT_EQ(perNode, nextB);
    for (unsigned i = 0; i < perNode; ++i) {
        EXPECT_EQ(indexData(i), a.frames[i].data);
        EXPECT_EQ(0x100u, a.frames[i].id);
        EXPECT_EQ(indexData(i), b.frames[i].data);
        EXPECT_EQ(0x200u, b.frames[i].id);
    }
}

TEST(SimulatedCanBus, LowestIdentifierWinsAmongFramesWaitingAtStart) {
    Endpoint n0, n1, n2, rx;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(n0.inputFd(), "n0");
    bus.addNode(n1.inputFd(), "n1");
    bus.addNode(n2.inputFd(), "n2");
    bus.addNode(rx.inputFd(), "rx");
    // Written before the bus starts, so all wait together. n0's 0x100 stays behind its 0x300:
    // only the head of a node's queue takes part in arbitration.
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x300, false, {})));
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x100, false, {})));
    ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x200, false, {})));
    ASSERT_TRUE(writeAll(bus.proxyFd(2), frameMessage(0x050, false, {})));
    bus.start();
    ASSERT_TRUE(rx.waitForFrames(4, 2s));
    EXPECT_EQ((std::vector<uint32_t>{0x050, 0x200, 0x300, 0x100}), rx.ids());
}

TEST(SimulatedCanBus, ArbitrationComparesTheFieldsAsOnTheWire) {
    Endpoint n0, n1, n2, n3, rx;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(n0.inputFd(), "n0");
    bus.addNode(n1.inputFd(), "n1");
    bus.addNode(n2.inputFd(), "n2");
    bus.addNode(n3.inputFd(), "n3");
    bus.addNode(rx.inputFd(), "rx");
    // Extended 0x04000000 has identifier A 0x100 and loses to standard 0x100 (SRR recessive
    // against a dominant RTR). Extended 0x00000001 has identifier A 0 and beats standard 0x001.
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x04000000, true, {0x01})));
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x001, false, {0x02})));
    ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x100, false, {0x03})));
    ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x00000001, true, {0x04})));
    // Equal fields: the lower node index first.
    ASSERT_TRUE(writeAll(bus.proxyFd(3), frameMessage(0x555, false, {0x06})));
    ASSERT_TRUE(writeAll(bus.proxyFd(2), frameMessage(0x555, false, {0x05})));
    bus.start();
    ASSERT_TRUE(rx.waitForFrames(6, 2s));
    // Heads: ext 0x04000000 (A 0x100, SRR), std 0x100, 0x555, 0x555 -> std 0x100.
    // Heads: ext 0x04000000, ext 0x00000001 (A 0), 0x555, 0x555 -> ext 0x00000001.
    // Heads: ext 0x04000000, 0x555, 0x555 -> ext 0x04000000, then std 0x001 (n0's next).
    // Then the two 0x555: n2 before n3.
    std::vector<uint8_t> order;
    for (const auto& f : rx.frames) {
        order.push_back(f.data.at(0));
    }
    EXPECT_EQ((std::vector<uint8_t>{0x03, 0x04, 0x01, 0x02, 0x05, 0x06}), order);
}

TEST(SimulatedCanBus, FramesWrittenDuringALongFrameGoOutByIdentifier) {
    // At 250 bit/s the 8-byte 0x7FF frame of all ones takes 126 bits = 504 ms (long enough for
    // a loaded machine to write and the bus to read the others meanwhile); the three frames
    // written while it is on the bus (51 bits each, 0x100 / 0x200 / 0x300 without data) must
    // follow in identifier order, not in the order they were written.
    SimulatedCanBus::Config cfg;
    cfg.bitrate = 250;
    Endpoint n0, n1, n2, n3, rx;
    SimulatedCanBus bus(cfg);
    bus.addNode(n0.inputFd(), "n0");
    bus.addNode(n1.inputFd(), "n1");
    bus.addNode(n2.inputFd(), "n2");
    bus.addNode(n3.inputFd(), "n3");
    bus.addNode(rx.inputFd(), "rx");
    bus.start();
    ASSERT_TRUE(
        writeAll(bus.proxyFd(0), frameMessage(0x7FF, false, std::vector<uint8_t>(8, 0xFF))));
    ASSERT_TRUE(qbtest::waitUntil([&] { return bus.statistics().currentSender == 0; }, 2s));
    ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x300, false, {})));
    ASSERT_TRUE(writeAll(bus.proxyFd(2), frameMessage(0x100, false, {})));
    ASSERT_TRUE(writeAll(bus.proxyFd(3), frameMessage(0x200, false, {})));
    ASSERT_TRUE(qbtest::waitUntil(
        [&] {
            const auto s = bus.statistics();
            return s.nodes[1].framesAccepted == 1 && s.nodes[2].framesAccepted == 1 &&
                   s.nodes[3].framesAccepted == 1;
        },
        2s));
    // The premise of the test: all three were read while the long frame was on the bus.
    ASSERT_EQ(0u, bus.statistics().framesCarried);
    ASSERT_TRUE(rx.waitForFrames(4, 5s));
    EXPECT_EQ((std::vector<uint32_t>{0x7FF, 0x100, 0x200, 0x300}), rx.ids());
    ASSERT_TRUE(waitForCarried(bus, 4, 2s));
    // 126 + 3 * 51 bits at 4 ms per bit.
    EXPECT_EQ(INT64_C(1116000000), bus.statistics().busyNs);
}

TEST(SimulatedCanBus, FrameLossIsReproducibleFromTheSeed) {
    const unsigned count = 1000;
    auto run = [&](uint64_t seed, SimulatedCanBus::Statistics& stats) {
        SimulatedCanBus::Config cfg = fastConfig();
        cfg.lossProbability = 0.25;
        cfg.seed = seed;
        Endpoint tx, rx;
        SimulatedCanBus bus(cfg);
        bus.addNode(tx.inputFd(), "tx");
        bus.addNode(rx.inputFd(), "rx");
        bus.start();
        for (unsigned i = 0; i < count; ++i) {
            EXPECT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x321, false, indexData(i))));
        }
        EXPECT_TRUE(qbtest::waitUntil(
            [&] {
                rx.poll();
                return bus.statistics().framesCarried == count;
            },
            5s));
        bus.stop();
        rx.poll();
        stats = bus.statistics();
        std::set<unsigned> received;
        for (const auto& f : rx.frames) {
            received.insert(static_cast<unsigned>(f.data.at(0)) << 8 | f.data.at(1));
        }
        EXPECT_EQ(rx.frames.size(), received.size());
        return received;
    };
    SimulatedCanBus::Statistics s1, s2, s3;
    const std::set<unsigned> first = run(7, s1);
    const std::set<unsigned> second = run(7, s2);
    const std::set<unsigned> other = run(8, s3);
    EXPECT_EQ(first, second);
    EXPECT_NE(first, other);
    // 1000 draws at p = 0.25: mean 250, standard deviation 13.7.
    EXPECT_EQ(count - first.size(), s1.framesLost);
    EXPECT_GE(s1.framesLost, 200u);
    EXPECT_LE(s1.framesLost, 300u);
    EXPECT_GE(s3.framesLost, 200u);
    EXPECT_LE(s3.framesLost, 300u);
    // Lost frames still occupied the bus.
    EXPECT_EQ(count, s1.framesCarried);
    EXPECT_EQ(count, s1.nodes[0].framesSent);
    EXPECT_EQ(first.size(), s1.nodes[1].framesReceived);
}

TEST(SimulatedCanBus, LossProbabilityOneLosesEveryFrameButTheTapSeesThem) {
    SimulatedCanBus::Config cfg = fastConfig();
    cfg.lossProbability = 1.0;
    std::ostringstream tap;
    cfg.tap = &tap;
    Endpoint tx, rx;
    SimulatedCanBus bus(cfg);
    bus.addNode(tx.inputFd(), "tx");
    bus.addNode(rx.inputFd(), "rx");
    bus.start();
    for (unsigned i = 0; i < 10; ++i) {
        ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x0AB, false, {0xCD})));
    }
    ASSERT_TRUE(waitForCarried(bus, 10, 2s));
    bus.stop();
    EXPECT_EQ(0u, rx.poll());
    const auto s = bus.statistics();
    EXPECT_EQ(10u, s.framesLost);
    EXPECT_EQ(0u, s.nodes[1].framesReceived);
    EXPECT_EQ(10u, qbtest::splitLines(tap.str()).size());
}

TEST(SimulatedCanBus, SilencedNodeNeitherSendsNorReceives) {
    Endpoint a, b, c;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    bus.addNode(c.inputFd(), "C");
    bus.start();
    bus.silence(1, 60s);
    for (unsigned i = 0; i < 5; ++i) {
        ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x10, false, indexData(i))));
    }
    for (unsigned i = 0; i < 3; ++i) {
        ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x20, false, indexData(i))));
    }
    ASSERT_TRUE(c.waitForFrames(5, 2s));
    ASSERT_TRUE(qbtest::waitUntil(
        [&] {
            const auto s = bus.statistics();
            return s.nodes[1].framesDropped == 3 && s.framesCarried == 5;
        },
        2s));
    // Ending the silence lets B talk and listen again.
    bus.silence(1, 0ns);
    ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x20, false, {0xBB})));
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x10, false, {0xAA})));
    ASSERT_TRUE(b.waitForFrames(1, 2s));
    ASSERT_TRUE(c.waitForFrames(7, 2s));
    ASSERT_TRUE(waitForCarried(bus, 7, 2s));
    bus.stop();

    a.poll();
    ASSERT_EQ(1u, a.frames.size());
    EXPECT_EQ((std::vector<uint8_t>{0xBB}), a.frames[0].data);
    ASSERT_EQ(1u, b.frames.size());
    EXPECT_EQ((std::vector<uint8_t>{0xAA}), b.frames[0].data);
    const auto s = bus.statistics();
    EXPECT_EQ(5u, s.nodes[1].framesMissed);
    EXPECT_EQ(3u, s.nodes[1].framesDropped);
    EXPECT_EQ(1u, s.nodes[1].framesSent);
    EXPECT_EQ(4u, s.nodes[1].framesAccepted);
    EXPECT_EQ(1u, s.nodes[1].framesReceived);
    EXPECT_EQ(7u, s.nodes[2].framesReceived);
}

TEST(SimulatedCanBus, SilenceEndsAfterItsDuration) {
    Endpoint a, b;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    bus.start();
    bus.silence(0, 200ms);
    const auto silenceEnd = std::chrono::steady_clock::now() + 200ms;
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x10, false, {0x01})));
    ASSERT_TRUE(
        qbtest::waitUntil([&] { return bus.statistics().nodes[0].framesDropped == 1; }, 2s));
    ASSERT_TRUE(
        qbtest::waitUntil([&] { return std::chrono::steady_clock::now() > silenceEnd; }, 2s));
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x10, false, {0x02})));
    ASSERT_TRUE(b.waitForFrames(1, 2s));
    EXPECT_EQ((std::vector<uint8_t>{0x02}), b.frames.at(0).data);
}

TEST(SimulatedCanBus, StatisticsAddUp) {
    // Timed at 500 kbit/s, 2 us per bit. Bits per frame (worked out by hand, see the frame
    // timing tests): 0x123#DEADBEEF 81, 12345678#021003 96, 0x7E8# 50.
    SimulatedCanBus::Config cfg;
    cfg.lossProbability = 0.2;
    cfg.seed = 99;
    Endpoint a, b, c;
    SimulatedCanBus bus(cfg);
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    bus.addNode(c.inputFd(), "C");
    bus.start();
    for (unsigned i = 0; i < 10; ++i) {
        ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x123, false, {0xDE, 0xAD, 0xBE, 0xEF})));
        ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x12345678, true, {0x02, 0x10, 0x03})));
        ASSERT_TRUE(writeAll(bus.proxyFd(2), frameMessage(0x7E8, false, {})));
    }
    ASSERT_TRUE(waitForCarried(bus, 30, 5s));
    bus.stop();
    const auto s = bus.statistics();
    EXPECT_EQ(30u, s.framesCarried);
    EXPECT_EQ(10u * 81 + 10u * 96 + 10u * 50, s.bitsCarried);  // 2270
    EXPECT_EQ(INT64_C(4540000), s.busyNs);
    EXPECT_EQ(810u, s.nodes[0].bitsSent);
    EXPECT_EQ(960u, s.nodes[1].bitsSent);
    EXPECT_EQ(500u, s.nodes[2].bitsSent);
    uint64_t sent = 0, received = 0;
    for (const auto& n : s.nodes) {
        EXPECT_EQ(10u, n.framesAccepted) << n.name;
        EXPECT_EQ(10u, n.framesSent) << n.name;
        EXPECT_EQ(0u, n.framesPending) << n.name;
        EXPECT_EQ(0u, n.framesDropped) << n.name;
        sent += n.framesSent;
        received += n.framesReceived;
    }
    EXPECT_EQ(s.framesCarried, sent);
    // Every frame that was not lost reached the two other nodes.
    EXPECT_EQ(2 * (s.framesCarried - s.framesLost), received);
    EXPECT_GT(s.framesLost, 0u);
    EXPECT_EQ(-1, s.currentSender);
    EXPECT_GE(s.elapsedNs, s.busyNs);
    EXPECT_DOUBLE_EQ(100.0 * 4540000.0 / static_cast<double>(s.elapsedNs), s.loadPercent);
    // After the end, elapsed time stands still.
    EXPECT_EQ(s.elapsedNs, bus.statistics().elapsedNs);
    a.poll();
    b.poll();
    c.poll();
    EXPECT_EQ(received, a.frames.size() + b.frames.size() + c.frames.size());
}

TEST(SimulatedCanBus, IdleBusHasNoLoad) {
    Endpoint a;
    SimulatedCanBus bus;
    bus.addNode(a.inputFd(), "A");
    EXPECT_EQ(0, bus.statistics().elapsedNs);
    bus.start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return bus.statistics().elapsedNs > 20000000; }, 2s));
    const auto s = bus.statistics();
    EXPECT_EQ(0.0, s.loadPercent);
    EXPECT_EQ(0, s.busyNs);
    EXPECT_EQ(-1, s.currentSender);
    ASSERT_EQ(1u, s.nodes.size());
    EXPECT_EQ("A", s.nodes[0].name);
}

TEST(SimulatedCanBus, TapWritesCandumpLines) {
    std::ostringstream tap;
    SimulatedCanBus::Config cfg = fastConfig();
    cfg.tap = &tap;
    cfg.tapInterface = "vcan3";
    Endpoint a, b;
    SimulatedCanBus bus(cfg);
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    const int64_t before = std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
    bus.start();
    ASSERT_TRUE(
        writeAll(bus.proxyFd(0),
                 frameMessage(0x7E0, false, {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77})));
    ASSERT_TRUE(waitForCarried(bus, 1, 2s));
    ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x7E8, false, {})));
    ASSERT_TRUE(waitForCarried(bus, 2, 2s));
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x12345678, true, {0x02, 0x10, 0x03})));
    ASSERT_TRUE(waitForCarried(bus, 3, 2s));
    ASSERT_TRUE(writeAll(bus.proxyFd(1), frameMessage(0x00000123, true, {0x0a})));
    ASSERT_TRUE(waitForCarried(bus, 4, 2s));
    bus.stop();
    const int64_t after = std::chrono::duration_cast<std::chrono::seconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();

    const std::vector<std::string> lines = qbtest::splitLines(tap.str());
    ASSERT_EQ(4u, lines.size()) << tap.str();
    const std::regex shape(R"(^\((\d{10})\.(\d{6})\) (.*)$)");
    const std::vector<std::string> frames = {"vcan3 7E0#0211223344556677", "vcan3 7E8#",
                                             "vcan3 12345678#021003", "vcan3 00000123#0A"};
    for (size_t i = 0; i < lines.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, shape)) << lines[i];
        EXPECT_EQ(frames[i], m[3].str());
        const int64_t sec = std::stoll(m[1].str());
        EXPECT_GE(sec, before);
        EXPECT_LE(sec, after);
    }
}

TEST(SimulatedCanBus, RejectsWhatIsNotAClassicCanFrame) {
    qbtest::OutputCapture capture;
    Endpoint a, b;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    bus.start();
    const uint8_t payload[] = {1, 2, 3};
    const CANTransportTraceMessage transport(0, 0x7E0, payload, payload + 3, CT_STANDARD);
    byteVec_t bytes;
    transport.createByteArray(bytes, true, false);
    ASSERT_TRUE(writeAll(bus.proxyFd(0), bytes));
    const uint8_t twelve[12] = {};
    const CANExtTraceMessage fd(0, 0, CF_STANDARD, CSE_NO, CT_FD_STANDARD, 12, 0x123, twelve);
    fd.createByteArray(bytes, true, false);
    ASSERT_TRUE(writeAll(bus.proxyFd(0), bytes));
    const CANExtTraceMessage tooLong(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 12, 0x124, twelve);
    tooLong.createByteArray(bytes, true, false);
    ASSERT_TRUE(writeAll(bus.proxyFd(0), bytes));
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x125, false, {0x42})));
    ASSERT_TRUE(b.waitForFrames(1, 2s));
    ASSERT_TRUE(waitForCarried(bus, 1, 2s));
    bus.stop();

    EXPECT_EQ(0x125u, b.frames.at(0).id);
    const auto s = bus.statistics();
    EXPECT_EQ(3u, s.messagesRejected);
    EXPECT_EQ(3u, s.nodes[0].messagesRejected);
    EXPECT_EQ(1u, s.nodes[0].framesAccepted);
    const std::vector<std::string> expected = {
        "[ERROR] SimulatedCanBus::readNode() node A: dropped trace message with identifier "
        "0x8014: not a CAN frame (CANExtTraceMessage)",
        "[ERROR] SimulatedCanBus::readNode() node A: dropped CAN FD frame id 0x123: not a "
        "classic CAN frame",
        "[ERROR] SimulatedCanBus::readNode() node A: dropped frame id 0x124 with 12 data bytes: "
        "a classic CAN frame has at most 8"};
    EXPECT_EQ(expected, capture.outLines());
}

TEST(SimulatedCanBus, DropsUnreadableBytesAndGoesOn) {
    qbtest::OutputCapture capture;
    Endpoint a, b;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    bus.start();
    byteVec_t garbage(40, 0x5A);
    const byteVec_t good = frameMessage(0x126, false, {0x43});
    garbage.insert(garbage.end(), good.begin(), good.end());
    ASSERT_TRUE(writeAll(bus.proxyFd(0), garbage));
    ASSERT_TRUE(b.waitForFrames(1, 2s));
    ASSERT_TRUE(waitForCarried(bus, 1, 2s));
    bus.stop();
    EXPECT_EQ(0x126u, b.frames.at(0).id);
    const auto s = bus.statistics();
    EXPECT_GE(s.nodes[0].messagesRejected, 1u);
    const auto lines = capture.outLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(s.nodes[0].messagesRejected, lines.size());
    for (const auto& line : lines) {
        EXPECT_EQ(0u, line.find("[ERROR] SimulatedCanBus::readNode() node A: dropped unreadable "
                                "bytes: "))
            << line;
    }
}

TEST(SimulatedCanBus, WriteToInputKeepsLargeMessagesWhole) {
    // Payload messages far beyond PIPE_BUF go into A's input while the bus writes B's frames
    // into it; every message must come out of the pipe intact.
    const unsigned payloads = 20, frames = 500;
    Endpoint a, b;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    bus.start();
    std::atomic<bool> allWritten{true};
    std::thread app([&] {
        for (unsigned i = 0; i < payloads; ++i) {
            const byteVec_t payload(4000 + i, static_cast<uint8_t>(i));
            const CANTransportTraceMessage msg(0, 0x7E0, payload.begin(), payload.end(),
                                               CT_STANDARD);
            byteVec_t bytes;
            msg.createByteArray(bytes, true, false);
            if (!bus.writeToInput(0, bytes)) {
                allWritten = false;
            }
        }
    });
    std::thread endpointB([&] {
        for (unsigned i = 0; i < frames; ++i) {
            writeAll(bus.proxyFd(1), frameMessage(0x321, false, indexData(i)));
        }
    });
    const bool done = qbtest::waitUntil(
        [&] {
            a.poll();
            return a.frames.size() == frames && a.others.size() == payloads;
        },
        10s);
    app.join();
    endpointB.join();
    ASSERT_TRUE(done) << a.frames.size() << " frames, " << a.others.size() << " payloads";
    EXPECT_TRUE(allWritten);
    EXPECT_EQ(0, a.parseErrors);
    for (unsigned i = 0; i < payloads; ++i) {
        const auto* msg = dynamic_cast<const CANTransportTraceMessage*>(a.others[i].get());
        ASSERT_NE(nullptr, msg);
        EXPECT_EQ(byteVec_t(4000 + i, static_cast<uint8_t>(i)), msg->getPayload());
    }
    for (unsigned i = 0; i < frames; ++i) {
        EXPECT_EQ(indexData(i), a.frames[i].data);
    }
}

TEST(SimulatedCanBus, WriteToInputWithoutReaderFailsWithoutEndingTheProcess) {
    qbtest::OutputCapture capture;
    Endpoint a;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(a.inputFd(), "A");
    a.input.closeRead();
    EXPECT_FALSE(bus.writeToInput(0, frameMessage(0x1, false, {})));
    const auto err = capture.errLines();
    ASSERT_EQ(2u, err.size());
    EXPECT_EQ(
        "[ERROR] SimulatedCanBus::writeToInput() failed to write 26 bytes into the input "
        "of node A: ",
        err[0]);
    EXPECT_EQ(0u, err[1].find("[ERROR] errno 32: ")) << err[1];
}

TEST(SimulatedCanBus, DeliveryToAClosedInputIsCountedAndLoggedOnce) {
    qbtest::OutputCapture capture;
    Endpoint a, b, c;
    SimulatedCanBus bus(fastConfig());
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    bus.addNode(c.inputFd(), "C");
    b.input.closeRead();
    bus.start();
    for (unsigned i = 0; i < 3; ++i) {
        ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x1, false, {})));
    }
    ASSERT_TRUE(c.waitForFrames(3, 2s));
    ASSERT_TRUE(waitForCarried(bus, 3, 2s));
    bus.stop();
    const auto s = bus.statistics();
    EXPECT_EQ(3u, s.nodes[1].deliveryFailures);
    EXPECT_EQ(0u, s.nodes[1].framesReceived);
    EXPECT_EQ(3u, s.nodes[2].framesReceived);
    const auto err = capture.errLines();
    ASSERT_EQ(2u, err.size());
    EXPECT_EQ(
        "[ERROR] SimulatedCanBus::deliver() failed to write a frame into the input of node "
        "B, no more frames go to it: ",
        err[0]);
    EXPECT_EQ(0u, err[1].find("[ERROR] errno 32: ")) << err[1];
}

namespace {

/// A fast bus whose node A has written `count` frames that node B does not read (until the test
/// polls it): once B's input pipe is full (64 KiB: at most 2512 frame messages of 26 bytes;
/// select() reports room only for a whole free page) the bus waits for room. 4000 frames are well
/// beyond what the pipe takes, so the bus is held up however fast it forwards. The writes do not
/// block: what the bus has not taken yet (at most 4000 - 2512 frames) fits into the proxy pipe.
struct HeldUpByAFullInput {
    static constexpr unsigned count = 4000;
    Endpoint a, b;
    SimulatedCanBus bus{fastConfig()};

    /// Starts the bus and writes A's frames; false if a write failed.
    bool start() {
        bus.addNode(a.inputFd(), "A");
        bus.addNode(b.inputFd(), "B");
        bus.start();
        for (unsigned i = 0; i < count; ++i) {
            if (!writeAll(bus.proxyFd(0), frameMessage(0x1, false, {}))) {
                return false;
            }
        }
        return true;
    }
};

}  // namespace

TEST(SimulatedCanBus, StopEndsABusWaitingForRoomInAFullInput) {
    // stop() must end a bus that waits for room in B's full input.
    HeldUpByAFullInput rig;
    SimulatedCanBus& bus = rig.bus;
    const unsigned count = HeldUpByAFullInput::count;
    ASSERT_TRUE(rig.start());
    ASSERT_TRUE(
        qbtest::waitUntil([&] { return bus.statistics().nodes[1].framesReceived >= 1800; }, 5s))
        << bus.statistics().nodes[1].framesReceived;
    const auto t0 = std::chrono::steady_clock::now();
    bus.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 1s);
    // The premise: the bus was held up by the full pipe.
    EXPECT_LT(bus.statistics().nodes[1].framesReceived, count);
}

TEST(SimulatedCanBus, FastModeReportsFramesBeingWrittenApartFromTheCountedOnes) {
    // In fast mode the bus gathers frames and writes them to each receiver in batches; it counts
    // them once written. While B's full input holds a batch up, those frames have left the bus
    // but are not counted: the statistics show them as being delivered, so that a reader can
    // tell counts that are complete from counts that are not.
    HeldUpByAFullInput rig;
    SimulatedCanBus& bus = rig.bus;
    Endpoint& b = rig.b;
    const unsigned count = HeldUpByAFullInput::count;
    ASSERT_TRUE(rig.start());
    SimulatedCanBus::Statistics held;
    ASSERT_TRUE(qbtest::waitUntil(
        [&] {
            held = bus.statistics();
            return held.framesBeingDelivered > 0 && held.nodes[1].framesReceived >= 1800;
        },
        5s))
        << held.framesBeingDelivered << " " << held.nodes[1].framesReceived;
    EXPECT_LT(held.framesCarried, count);
    EXPECT_EQ(held.framesCarried, held.nodes[1].framesReceived);

    // B reads: every frame arrives, and once the bus has nothing left to write every frame is
    // counted and none is shown as being delivered.
    ASSERT_TRUE(b.waitForFrames(count, 10s)) << b.frames.size();
    SimulatedCanBus::Statistics done;
    ASSERT_TRUE(qbtest::waitUntil(
        [&] {
            done = bus.statistics();
            return done.framesBeingDelivered == 0;
        },
        5s));
    EXPECT_EQ(count, done.framesCarried);
    EXPECT_EQ(count, done.nodes[1].framesReceived);
    bus.stop();
}

TEST(SimulatedCanBus, DestructorStopsARunningBus) {
    SimulatedCanBus::Config cfg;
    cfg.bitrate = 10;  // the frame below takes seconds
    Endpoint a, b;
    const auto t0 = std::chrono::steady_clock::now();
    {
        SimulatedCanBus bus(cfg);
        bus.addNode(a.inputFd(), "A");
        bus.addNode(b.inputFd(), "B");
        bus.start();
        ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x1, false, {})));
        ASSERT_TRUE(qbtest::waitUntil([&] { return bus.statistics().currentSender == 0; }, 2s));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    EXPECT_EQ(0u, b.poll());
}

TEST(SimulatedCanBus, RefusesBadConfigurationAndCalls) {
    SimulatedCanBus::Config cfg;
    cfg.bitrate = 0;
    EXPECT_THROW(SimulatedCanBus{cfg}, std::invalid_argument);
    cfg.bitrate = 500000;
    cfg.lossProbability = 1.5;
    EXPECT_THROW(SimulatedCanBus{cfg}, std::invalid_argument);
    cfg.lossProbability = -0.1;
    EXPECT_THROW(SimulatedCanBus{cfg}, std::invalid_argument);

    Endpoint a;
    SimulatedCanBus bus;
    EXPECT_THROW(bus.addNode(-1, "bad"), std::invalid_argument);
    EXPECT_EQ(0, bus.addNode(a.inputFd(), "A"));
    EXPECT_EQ(1, bus.nodeCount());
    EXPECT_THROW(bus.proxyFd(1), std::out_of_range);
    EXPECT_THROW(bus.proxyFd(-1), std::out_of_range);
    EXPECT_THROW(bus.writeToInput(1, byteVec_t{}), std::out_of_range);
    EXPECT_THROW(bus.silence(2, 1s), std::out_of_range);
    bus.start();
    EXPECT_THROW(bus.addNode(a.inputFd(), "late"), std::logic_error);
}

TEST(SimulatedCanBus, DebugLevelOneLogsEveryFrame) {
    qbtest::OutputCapture capture;
    SimulatedCanBus::Config cfg = fastConfig();
    cfg.debugLevel = 1;
    cfg.lossProbability = 1.0;
    Endpoint a, b;
    SimulatedCanBus bus(cfg);
    bus.addNode(a.inputFd(), "A");
    bus.addNode(b.inputFd(), "B");
    bus.start();
    ASSERT_TRUE(writeAll(bus.proxyFd(0), frameMessage(0x123, false, {0xDE, 0xAD, 0xBE, 0xEF})));
    ASSERT_TRUE(waitForCarried(bus, 1, 2s));
    bus.stop();
    EXPECT_EQ(std::vector<std::string>{"[DEBUG] SimulatedCanBus::finish() node A frame "
                                       "123#DEADBEEF 81 bits lost"},
              capture.outLines());
}
