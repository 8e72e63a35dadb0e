// The thread body: log lines of the loop by debug level, the protocol timer as a deadline, the
// dispatch of trace messages by identifier, interrupted and failing waits, and the reader's
// handling of empty, closed and garbled input.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "can/TransportHarness.h"
#include "common/Bytes.h"
#include "common/Wait.h"
#include "libqbtrace/RawTraceMessage.h"

using namespace qbtest;

namespace {

// One expected log line and the lowest debug level at which it is written (0: always).
struct Logged {
    int level;
    const char* line;
};

Lines linesUpTo(const std::vector<Logged>& transcript, int level) {
    Lines lines;
    for (const Logged& l : transcript) {
        if (l.level <= level) {
            lines.push_back(l.line);
        }
    }
    return lines;
}

// The peer sends the single frame 03 41 42 43 to an idle endpoint.
const std::vector<Logged> kSingleFrameTranscript = {
    {0, "[INFO] CANTransportThread::threadCode() Start CANTransportThread"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 5.000000"},
    {1, "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE"},
    {3, "[DEBUG] CANTransportThread::threadCode() timeout set to 0"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 0.000000"},
    {3, "[DEBUG] CANTransportThread::threadCode() pselect data available"},
    {1,
     "[DEBUG] CANTransportThread::handleData() CAN data received:  CAN ch 0 id 0x7e8 STD dlc 8 "
     "len 8 data 03 41 42 43 00 00 00 00"},
    {2,
     "[DEBUG] CANTransportThread::handleCANData() CAN data received from the CAN proxy:  "
     "0x000007e8 8  0x03 0x41 0x42 0x43 0x00 0x00 0x00 0x00"},
    {3, "[DEBUG] CANTransportThread::handleCANData() connected: 0"},
    {1, "[DEBUG] CANTransportThread::handleCANData() other side is alive, connected"},
    {0, "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED"},
    {2,
     "[DEBUG] CANTransportThread::checkSingleFrame()  0x000007e8 8  0x03 0x41 0x42 0x43 0x00 "
     "0x00 0x00 0x00"},
    {3, "[DEBUG] CANTransportThread::addReceivedData() canID=7e8"},
    {3,
     "[DEBUG] CANTransportThread::sendFlowControl()  0x000007e0 8  0x33 0x00 0x00 0x00 0x00 "
     "0x00 0x00 0x00"},
    {1,
     "[DEBUG] CANTransportThread::sendFlowControl()  0x000007e0 8  0x33 0x00 0x00 0x00 0x00 "
     "0x00 0x00 0x00"},
    {1,
     "[DEBUG] CANTransportThread::sendCANMessage() CAN write to canProxyFD: CAN ch 0 id 0x7e0 "
     "STD dlc 8 len 8 data 33 00 00 00 00 00 00 00"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 1.000000"},
    {1, "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE"},
    {3, "[DEBUG] CANTransportThread::threadCode() timeout set to 0"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 0.000000"},
};

// The application hands over two payloads in one write; the peer acknowledges each; the 10 ms
// pause after the first acknowledgement expires and starts the second.
const std::vector<Logged> kTwoPayloadTranscript = {
    {0, "[INFO] CANTransportThread::threadCode() Start CANTransportThread"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 5.000000"},
    {1, "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE"},
    {3, "[DEBUG] CANTransportThread::threadCode() timeout set to 0"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 0.000000"},
    {3, "[DEBUG] CANTransportThread::threadCode() pselect data available"},
    {1,
     "[DEBUG] CANTransportThread::handleData() CAN data received:  CAN transport id 0x0 STD len "
     "3 data 22 f1 90"},
    {1,
     "[DEBUG] CANTransportThread::prepareData() single frame:   0x000007e0 8  0x03 0x22 0xf1 "
     "0x90 0x00 0x00 0x00 0x00"},
    {1,
     "[DEBUG] CANTransportThread::sendCANMessage() CAN write to canProxyFD: CAN ch 0 id 0x7e0 "
     "STD dlc 8 len 8 data 03 22 f1 90 00 00 00 00"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 1.000000"},
    {1,
     "[DEBUG] CANTransportThread::handleData() CAN data received:  CAN transport id 0x0 STD len "
     "2 data 3e 00"},
    {1,
     "[DEBUG] CANTransportThread::prepareData() single frame:   0x000007e0 8  0x02 0x3e 0x00 "
     "0x00 0x00 0x00 0x00 0x00"},
    {1, "[DEBUG] CANTransportThread::threadCode() state = RCTS_SENDING RCTS_WAIT_FOR_FC "},
    {3, "[DEBUG] CANTransportThread::threadCode() pselect data available"},
    {1,
     "[DEBUG] CANTransportThread::handleData() CAN data received:  CAN ch 0 id 0x7e8 STD dlc 8 "
     "len 8 data 33 00 00 00 00 00 00 00"},
    {2,
     "[DEBUG] CANTransportThread::handleCANData() CAN data received from the CAN proxy:  "
     "0x000007e8 8  0x33 0x00 0x00 0x00 0x00 0x00 0x00 0x00"},
    {3, "[DEBUG] CANTransportThread::handleCANData() connected: 0"},
    {1, "[DEBUG] CANTransportThread::handleCANData() other side is alive, connected"},
    {0, "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED"},
    {2,
     "[DEBUG] CANTransportThread::checkFlowControl()  0x000007e8 8  0x33 0x00 0x00 0x00 0x00 "
     "0x00 0x00 0x00"},
    {2, "[DEBUG] CANTransportThread::checkFlowControl() CTP_FC_ACKNOWLEDGE"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 0.010000"},
    {1, "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE"},
    {2, "[DEBUG] CANTransportThread::threadCode() pselect timeout"},
    {1, "[DEBUG] CANTransportThread::handleTimeout() state = RCTS_IDLE"},
    {1,
     "[DEBUG] CANTransportThread::sendCANMessage() CAN write to canProxyFD: CAN ch 0 id 0x7e0 "
     "STD dlc 8 len 8 data 02 3e 00 00 00 00 00 00"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 1.000000"},
    {1, "[DEBUG] CANTransportThread::threadCode() state = RCTS_SENDING RCTS_WAIT_FOR_FC "},
    {3, "[DEBUG] CANTransportThread::threadCode() pselect data available"},
    {1,
     "[DEBUG] CANTransportThread::handleData() CAN data received:  CAN ch 0 id 0x7e8 STD dlc 8 "
     "len 8 data 33 00 00 00 00 00 00 00"},
    {2,
     "[DEBUG] CANTransportThread::handleCANData() CAN data received from the CAN proxy:  "
     "0x000007e8 8  0x33 0x00 0x00 0x00 0x00 0x00 0x00 0x00"},
    {3, "[DEBUG] CANTransportThread::handleCANData() connected: 1"},
    {2,
     "[DEBUG] CANTransportThread::checkFlowControl()  0x000007e8 8  0x33 0x00 0x00 0x00 0x00 "
     "0x00 0x00 0x00"},
    {2, "[DEBUG] CANTransportThread::checkFlowControl() CTP_FC_ACKNOWLEDGE"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 0.010000"},
    {1, "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE"},
    {3, "[DEBUG] CANTransportThread::threadCode() timeout set to 0"},
    {2, "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 0.000000"},
};

// A serialised trace message with identifier 2 and body aa bb cc, written out byte by byte
// (format version 2): frame start c0, version 02, identifier 02 00, time stamp 0, the body,
// CRC-32 0x1185297f, frame end c1.
const Bytes kUnknownIdMessage{0xc0, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                              0x00, 0x00, 0xaa, 0xbb, 0xcc, 0x7f, 0x29, 0x85, 0x11, 0xc1};

const char* const kUnknownIdLine =
    "[ERROR] CANTransportThread::handleData() unknown trace-message id found.";

Bytes rawMessage(msgid_t id, const Bytes& body) {
    byteVec_t out;
    RawTraceMessage(id, 0, body).createByteArray(out, true, false);
    return out;
}

double processCpuSeconds() {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

void ignoreSignal(int) {}

// Installs a handler for SIGUSR1 without SA_RESTART for the test's lifetime.
class InterruptingSignal {
  public:
    InterruptingSignal() {
        struct sigaction sa {};
        sa.sa_handler = &ignoreSignal;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = 0;
        ::sigaction(SIGUSR1, &sa, &saved);
    }
    ~InterruptingSignal() { ::sigaction(SIGUSR1, &saved, nullptr); }
    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

  private:
    struct sigaction saved {};
};

class LoopLogGating : public ::testing::TestWithParam<int> {};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Log lines of the loop by debug level

TEST_P(LoopLogGating, ReceivedSingleFrameWritesExactlyTheLinesOfTheLevel) {
    const int level = GetParam();
    TransportHarness h(level);
    h.start();
    h.sendFrame({0x03, 0x41, 0x42, 0x43, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectPayload({0x41, 0x42, 0x43}, 0x7E8));
    ASSERT_TRUE(h.expectFrame(kAck));
    const Lines expected = linesUpTo(kSingleFrameTranscript, level);
    EXPECT_TRUE(waitUntil([&] { return h.outLines().size() >= expected.size(); }, kEventWait));
    h.transport.stop();
    EXPECT_EQ(h.outLines(), expected);
    EXPECT_TRUE(h.errLines().empty());
}

TEST_P(LoopLogGating, TwoPayloadsWithTimeoutBetweenWriteExactlyTheLinesOfTheLevel) {
    const int level = GetParam();
    const std::string waiting =
        "[DEBUG] CANTransportThread::threadCode() state = RCTS_SENDING RCTS_WAIT_FOR_FC ";
    TransportHarness h(level);
    h.start();
    h.writeInput(concat({payloadMessage({0x22, 0xF1, 0x90}), payloadMessage({0x3E, 0x00})}));
    ASSERT_TRUE(h.expectFrame({0x03, 0x22, 0xF1, 0x90, 0, 0, 0, 0}));
    if (level >= 1) {
        ASSERT_TRUE(h.waitForLineCount(waiting, 1));  // back in the wait before the answer
    }
    h.sendFrame(kAck);
    ASSERT_TRUE(h.expectFrame({0x02, 0x3E, 0, 0, 0, 0, 0, 0}));
    if (level >= 1) {
        ASSERT_TRUE(h.waitForLineCount(waiting, 2));
    }
    h.sendFrame(kAck);
    ASSERT_TRUE(h.status.waitForCount(3, kEventWait));
    const Lines expected = linesUpTo(kTwoPayloadTranscript, level);
    EXPECT_TRUE(waitUntil([&] { return h.outLines().size() >= expected.size(); }, kEventWait));
    h.transport.stop();
    EXPECT_EQ(h.outLines(), expected);
    EXPECT_TRUE(h.errLines().empty());
    const std::vector<StatusEvent> ev = h.status.events();
    ASSERT_EQ(ev.size(), 3u);
    EXPECT_EQ(ev[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(ev[0].arg, 0);
    EXPECT_EQ(ev[1].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(ev[1].arg, 0x22);
    EXPECT_EQ(ev[2].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(ev[2].arg, 0x3E);
}

INSTANTIATE_TEST_SUITE_P(EventLoop, LoopLogGating, ::testing::Values(0, 1, 2, 3),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return "Debug" + std::to_string(info.param);
                         });

TEST(EventLoop, NegativeDebugLevelEnablesOnlyTheLinesGatedByNotZero) {
    TransportHarness h(-1);
    h.start();
    h.sendFrame({0x03, 0x41, 0x42, 0x43, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectPayload({0x41, 0x42, 0x43}, 0x7E8));
    ASSERT_TRUE(h.expectFrame(kAck));
    const std::string lastLine = "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE";
    EXPECT_TRUE(h.waitForLineCount(lastLine, 2));
    h.transport.stop();
    // The two level-1 lines whose gate form is not fixed either way are left out.
    Lines lines;
    for (const std::string& l : h.outLines()) {
        if (l.find("other side is alive") == std::string::npos &&
            l.find("CAN write to canProxyFD") == std::string::npos) {
            lines.push_back(l);
        }
    }
    EXPECT_EQ(lines, (Lines{
                         "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                         "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE",
                         "[DEBUG] CANTransportThread::handleData() CAN data received:  CAN ch 0 "
                         "id 0x7e8 STD dlc 8 len 8 data 03 41 42 43 00 00 00 00",
                         "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED",
                         "[DEBUG] CANTransportThread::sendFlowControl()  0x000007e0 8  0x33 0x00 "
                         "0x00 0x00 0x00 0x00 0x00 0x00",
                         "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE",
                     }));
}

TEST(EventLoop, DebugLevelChangedWhileRunningTakesEffectAtTheNextLine) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x01, 0x11, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kAck));
    ASSERT_TRUE(h.expectPayload({0x11}, 0x7E8));
    EXPECT_EQ(h.outLines().size(), 2u);  // start and CTT_CONNECTED
    h.transport.setDebugLevel(1);
    h.sendFrame({0x01, 0x12, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.waitForLine(
        "[DEBUG] CANTransportThread::handleData() CAN data received:  CAN ch 0 id 0x7e8 STD dlc 8 "
        "len 8 data 01 12 00 00 00 00 00 00"));
}

// ---------------------------------------------------------------------------------------------
// The protocol timer

TEST(EventLoop, IdleWithEmptyQueueWaitsWithoutTimeLimit) {
    TransportHarness h(2);
    h.start();
    h.sendPayload({0x22});
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}));
    h.sendFrame(kAck);  // arms the 10 ms pause; with nothing queued the loop then goes idle
    ASSERT_TRUE(h.waitForLine(
        "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 0.010000"));
    EXPECT_FALSE(h.waitForLine("[DEBUG] CANTransportThread::threadCode() pselect timeout",
                               milliseconds(300)));
    h.transport.stop();
    const Lines lines = h.outLines();
    EXPECT_EQ(lines.back(),
              "[DEBUG] CANTransportThread::setSelectTimeout() select timeout set to 0.000000");
    for (const std::string& l : lines) {
        EXPECT_EQ(l.find("handleTimeout()"), std::string::npos) << l;
    }
}

TEST(EventLoop, InputDuringRunningTimeoutDoesNotRestartIt) {
    TransportHarness h(0);
    h.start();
    h.sendPayload({0x22});
    double t0 = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kEventWait, &t0));
    // Stimulus timing, not a wait for an event: the input arrives 0.6 s into the 1 s wait.
    std::this_thread::sleep_for(std::chrono::duration<double>(t0 + 0.6 - monotonicSeconds()));
    h.writeInput(kUnknownIdMessage);  // handled without touching the timer
    ASSERT_TRUE(h.waitForLine(kUnknownIdLine));
    double t1 = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kTimerWait, &t1));
    std::printf("resend %.3f s after the first send\n", t1 - t0);
    EXPECT_GE(t1 - t0, kOneSecondLow);
    EXPECT_LT(t1 - t0, 1.45);  // restarted by the input it would be 1.6 s
}

TEST(EventLoop, AfterExpiryTheNextWaitLastsTheFullTimeoutAgain) {
    TransportHarness h(0);
    h.start();
    h.sendPayload({0x22});
    double t0 = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kEventWait, &t0));
    h.sendFrame({0x37, 0, 0, 0, 0, 0, 0, 0});  // code 7: the wait ends, the timer runs on
    ASSERT_TRUE(
        h.waitForLine("[ERROR] CANTransportThread::processSendQueue() reached end of "
                      "vector (2) - be confused :-/",
                      kTimerWait));
    const double t1 = monotonicSeconds();
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 0; }, kEventWait));
    double t2 = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kTimerWait, &t2));
    std::printf("expiry after %.3f s, next expiry %.3f s later\n", t1 - t0, t2 - t1);
    EXPECT_GE(t1 - t0, kOneSecondLow);
    EXPECT_LT(t1 - t0, kOneSecondHigh);
    EXPECT_GE(t2 - t1, kOneSecondLow);
    EXPECT_LT(t2 - t1, kOneSecondHigh);
}

// ---------------------------------------------------------------------------------------------
// Dispatch by identifier

TEST(EventLoop, CanMessageWithEightDataBytesReachesFrameHandlerWithLenEight) {
    TransportHarness h(2);
    h.start();
    h.sendFrame({0x02, 0x41, 0x42, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.waitForLine(
        "[DEBUG] CANTransportThread::handleCANData() CAN data received from the CAN proxy:  "
        "0x000007e8 8  0x02 0x41 0x42 0x00 0x00 0x00 0x00 0x00"));
    EXPECT_TRUE(h.expectPayload({0x41, 0x42}, 0x7E8));
}

TEST(EventLoop, CanMessageWithThreeDataBytesReachesFrameHandlerWithLenThree) {
    TransportHarness h(2);
    h.start();
    h.sendFrame({0x02, 0x41, 0x42});
    EXPECT_TRUE(
        h.waitForLine("[DEBUG] CANTransportThread::handleCANData() CAN data received from the "
                      "CAN proxy:  0x000007e8 3  0x02 0x41 0x42"));
    EXPECT_TRUE(h.expectPayload({0x41, 0x42}, 0x7E8));
}

TEST(EventLoop, CanMessageWithNineDataBytesReachesFrameHandlerWithLenNine) {
    TransportHarness h(2);
    h.start();
    h.sendFrame({0x02, 0x41, 0x42, 0, 0, 0, 0, 0, 0x99});
    EXPECT_TRUE(h.waitForLine(
        "[DEBUG] CANTransportThread::handleCANData() CAN data received from the CAN proxy:  "
        "0x000007e8 9  0x02 0x41 0x42 0x00 0x00 0x00 0x00 0x00"));
    EXPECT_TRUE(h.expectPayload({0x41, 0x42}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.transport.isRunning());
}

TEST(EventLoop, NinthDataByteStaysOutOfTheFrameRecord) {
    TransportHarness h(0);
    const Bytes input = canFrameMessage({0x07, 1, 2, 3, 4, 5, 6, 7, 0xEE});
    h.writeInput(input);
    h.transport.handleData();  // on the test's thread: the record lives on its stack
    EXPECT_TRUE(h.expectPayload({1, 2, 3, 4, 5, 6, 7}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
}

TEST(EventLoop, AllThreeCanMessageKindsAreTakenAsFrames) {
    TransportHarness h(0);
    h.start();
    h.writeInput(canFrameMessage({0x01, 0xA1, 0, 0, 0, 0, 0, 0}, 0x101, MSGID_CAN));
    EXPECT_TRUE(h.expectPayload({0xA1}, 0x101));
    h.writeInput(canFrameMessage({0x01, 0xA2, 0, 0, 0, 0, 0, 0}, 0x102, MSGID_CAN_EXT));
    EXPECT_TRUE(h.expectPayload({0xA2}, 0x102));
    h.writeInput(canFrameMessage({0x01, 0xA3, 0, 0, 0, 0, 0, 0}, 0x103, MSGID_CAN_PROXY));
    EXPECT_TRUE(h.expectPayload({0xA3}, 0x103));
}

TEST(EventLoop, CanMessageWithTwelveDataBytesEndsTheThreadWithBufferMismatch) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x02, 0x41, 0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(waitUntil([&] { return !h.transport.isRunning(); }, kEventWait));
    EXPECT_EQ(h.transport.exitReason(), "CANTraceMessageBase too long");
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] Thread::run() threadCode() ended by exception: CANTraceMessageBase too long"));
    EXPECT_EQ(h.errLines(), Lines{});
    EXPECT_TRUE(h.expectNoFrame(milliseconds(20)));
    EXPECT_TRUE(h.expectNoPayload(milliseconds(20)));
}

TEST(EventLoop, CanMessageWithTwelveDataBytesThrowsOutOfHandleData) {
    TransportHarness h(0);
    h.writeInput(canFrameMessage({0x02, 0x41, 0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    bool thrown = false;
    try {
        h.transport.handleData();
    } catch (const std::exception& e) {
        thrown = true;
        EXPECT_STREQ(e.what(), "CANTraceMessageBase too long");
    }
    EXPECT_TRUE(thrown);
}

TEST(EventLoop, TransportPayloadIsNeverPassedToFrameHandler) {
    TransportHarness h(3);
    h.start();
    h.sendPayload({0x03, 0x41, 0x42});  // looks like a single frame, but is a payload
    EXPECT_TRUE(h.expectFrame({0x03, 0x03, 0x41, 0x42, 0, 0, 0, 0}));
    EXPECT_TRUE(h.expectNoPayload(milliseconds(50)));
    h.transport.stop();
    for (const std::string& l : h.outLines()) {
        EXPECT_EQ(l.find("handleCANData()"), std::string::npos) << l;
    }
}

TEST(EventLoop, MessageWithUnknownIdentifierIsDumpedAndDropped) {
    TransportHarness h(0);
    h.start();
    h.writeInput(kUnknownIdMessage);
    ASSERT_TRUE(h.waitForLine(kUnknownIdLine));
    EXPECT_TRUE(waitUntil([&] { return h.errLines().size() >= 2; }, kEventWait));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(30)));
    EXPECT_TRUE(h.expectNoPayload(milliseconds(10)));
    // The endpoint goes on.
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectPayload({0x42}, 0x7E8));
    h.transport.stop();
    EXPECT_EQ(h.errLines(),
              (Lines{
                  "[ERROR] CANTransportThread: c0 02 02 00 00 00 00 00 00 00 00 00 aa bb cc 7f  "
                  "|................|",
                  // 4 bytes: the text column is padded by twelve missing byte columns.
                  "[ERROR] CANTransportThread: 29 85 11 c1" + std::string(36 + 2, ' ') + "|)...|",
              }));
    EXPECT_EQ(h.outLines(), (Lines{
                                "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                                kUnknownIdLine,
                                "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED",
                            }));
}

TEST(EventLoop, MessageOfCanIdentifierThatIsNotACanFrameIsTreatedAsUnknown) {
    const MessageBase::invalidMsgHandling_t saved = MessageBase::invalidHandling;
    MessageBase::invalidHandling = MessageBase::IMH_RETURN_INVALID_MESSAGE;
    {
        TransportHarness h(0);
        h.start();
        h.writeInput(rawMessage(MSGID_CAN_EXT, {0x01, 0x02, 0x03}));
        EXPECT_TRUE(h.waitForLine(kUnknownIdLine));
        EXPECT_TRUE(h.expectNoFrame(milliseconds(30)));
        h.writeInput(rawMessage(MSGID_CAN_TRANSPORT, {0x01}));
        EXPECT_TRUE(h.waitForLineCount(kUnknownIdLine, 2));
        EXPECT_TRUE(h.expectNoFrame(milliseconds(30)));
        EXPECT_TRUE(h.transport.isRunning());
        h.transport.stop();
        EXPECT_FALSE(h.transport.connected);
    }
    MessageBase::invalidHandling = saved;
}

// ---------------------------------------------------------------------------------------------
// Interrupted and failing waits

TEST(EventLoop, InterruptedWaitLogsPselectInterruptedAtDebugLevelOne) {
    InterruptingSignal signal;
    TransportHarness h(1);
    h.start();
    const std::string idle = "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE";
    const std::string interrupted = "[DEBUG] CANTransportThread::threadCode() pselect interrupted";
    ASSERT_TRUE(h.waitForLine(idle));
    ASSERT_TRUE(waitUntil([&] { return h.transport.hasWorker(); }, kEventWait));
    // A signal that lands just before the wait does not interrupt it: signal until one does.
    EXPECT_TRUE(waitUntil(
        [&] {
            ::pthread_kill(h.transport.worker(), SIGUSR1);
            return h.waitForLine(interrupted, milliseconds(20));
        },
        kEventWait));
    EXPECT_TRUE(h.waitForLineCount(idle, 2));  // the next iteration
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectPayload({0x42}, 0x7E8));
    h.transport.stop();
    EXPECT_TRUE(h.errLines().empty());
    for (const std::string& l : h.outLines()) {
        EXPECT_TRUE(l == idle || l == interrupted || l.find("pselect") == std::string::npos) << l;
    }
}

TEST(EventLoop, InterruptedWaitIsSilentAtDebugLevelZero) {
    InterruptingSignal signal;
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kAck));
    ASSERT_TRUE(waitUntil([&] { return h.transport.hasWorker(); }, kEventWait));
    for (int i = 0; i < 10; ++i) {  // the idle thread spends nearly all its time in the wait
        ::pthread_kill(h.transport.worker(), SIGUSR1);
        std::this_thread::sleep_for(milliseconds(10));
    }
    h.sendFrame({0x01, 0x43, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectFrame(kAck));
    h.transport.stop();
    EXPECT_EQ(h.outLines(), (Lines{
                                "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                                "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED",
                            }));
    EXPECT_TRUE(h.errLines().empty());
}

TEST(EventLoop, FailingWaitLogsErrorAndAtDebugLevelOneAlsoPselectInterrupted) {
    TransportHarness h(1);
    // Closed under the thread before its first wait, so that every wait fails. (A wait that is
    // already blocked does not notice a close.)
    ::close(h.transport.readPipe[0]);
    h.start();
    EXPECT_TRUE(
        h.waitForErrLine("[ERROR] CANTransportThread::threadCode() pselect() reported an error."));
    EXPECT_TRUE(h.waitForLine("[DEBUG] CANTransportThread::threadCode() pselect interrupted"));
    h.transport.stop();
    h.transport.readPipe[0] = -1;
    const Lines err = h.errLines();
    ASSERT_GE(err.size(), 2u);
    EXPECT_EQ(err[0], "[ERROR] CANTransportThread::threadCode() pselect() reported an error.");
    EXPECT_EQ(err[1], "[ERROR] errno 9: Bad file descriptor");
    const Lines out = h.outLines();
    ASSERT_GE(out.size(), 4u);
    EXPECT_EQ(out[2], "[DEBUG] CANTransportThread::threadCode() pselect interrupted");
    EXPECT_EQ(out[3], "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE");
}

TEST(EventLoop, FailingWaitAtDebugLevelZeroLogsOnlyTheError) {
    TransportHarness h(0);
    ::close(h.transport.readPipe[0]);
    h.start();
    EXPECT_TRUE(waitUntil([&] { return h.errLines().size() >= 4; }, kEventWait));
    h.transport.stop();
    h.transport.readPipe[0] = -1;
    const Lines err = h.errLines();
    ASSERT_GE(err.size(), 4u);
    EXPECT_EQ(err[0], "[ERROR] CANTransportThread::threadCode() pselect() reported an error.");
    EXPECT_EQ(err[1], "[ERROR] errno 9: Bad file descriptor");
    EXPECT_EQ(err[2], "[ERROR] CANTransportThread::threadCode() pselect() reported an error.");
    EXPECT_EQ(err[3], "[ERROR] errno 9: Bad file descriptor");
    EXPECT_EQ(h.outLines(), (Lines{
                                "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                            }));
}

// ---------------------------------------------------------------------------------------------
// Reading the input pipe

TEST(EventLoop, EmptyInputPipeWritesNoErrorLine) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectFrame(kAck));
    h.sendPayload({0x10});
    EXPECT_TRUE(h.expectFrame({0x01, 0x10, 0, 0, 0, 0, 0, 0}));
    h.transport.stop();
    EXPECT_TRUE(h.errLines().empty());
    for (const std::string& l : h.outLines()) {
        EXPECT_EQ(l.find("failed to read data"), std::string::npos) << l;
    }
}

TEST(EventLoop, AllMessagesOfOneWriteAreHandledInOnePass) {
    TransportHarness h(3);
    h.start();
    h.writeInput(concat({canFrameMessage({0x01, 0x51, 0, 0, 0, 0, 0, 0}),
                         canFrameMessage({0x01, 0x52, 0, 0, 0, 0, 0, 0})}));
    EXPECT_TRUE(h.expectPayload({0x51}, 0x7E8));
    EXPECT_TRUE(h.expectPayload({0x52}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.expectFrame(kAck));
    h.transport.stop();
    EXPECT_EQ(
        countLines(h.outLines(), "[DEBUG] CANTransportThread::threadCode() pselect data available"),
        1u);
}

TEST(EventLoop, ClosedInputLogsInfoOnceAndLoopDoesNotSpin) {
    const std::string closedLine =
        "[INFO] CANTransportThread::getNextTraceMessage() input pipe closed by the application: "
        "no further input is read";
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kAck));
    ::close(h.writeFD);
    h.transport.readPipe[1] = -1;  // the application's end is gone
    ASSERT_TRUE(h.waitForLine(closedLine));
    const double wall0 = monotonicSeconds();
    const double cpu0 = processCpuSeconds();
    std::this_thread::sleep_for(milliseconds(300));  // measuring, not waiting for an event
    const double cpu = processCpuSeconds() - cpu0;
    const double wall = monotonicSeconds() - wall0;
    std::printf("process CPU time %.3f s over %.3f s of wall time after end of input\n", cpu, wall);
    EXPECT_LT(cpu, 0.3 * wall);
    EXPECT_TRUE(h.transport.isRunning());
    h.transport.stop();
    EXPECT_EQ(h.outLines(), (Lines{
                                "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                                "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED",
                                closedLine,
                            }));
    EXPECT_TRUE(h.errLines().empty());
}

TEST(EventLoop, ClosedInputStillServesTheProtocolTimer) {
    TransportHarness h(0);
    h.start();
    h.sendPayload({0x22});
    double t0 = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kEventWait, &t0));
    ::close(h.writeFD);
    h.transport.readPipe[1] = -1;
    double t1 = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kTimerWait, &t1));
    EXPECT_GE(t1 - t0, kOneSecondLow);
    EXPECT_LT(t1 - t0, kOneSecondHigh);
    EXPECT_TRUE(h.waitForLine("[INFO] CANTransportThread::handleSendError() send retry = 0"));
}

TEST(EventLoop, GarbageBeforeAPayloadIsReportedAndThePayloadIsSentInTheSamePass) {
    TransportHarness h(0);
    h.start();
    h.writeInput(concat({{0x01, 0x02, 0x03, 0x04, 0x05}, payloadMessage({0x22, 0xF1})}));
    EXPECT_TRUE(
        h.waitForLine("[ERROR] CANTransportThread::getNextTraceMessage() Got exception: "
                      "QBException: trace message stream: dropped 5 bytes: no message start"));
    // No further input follows: the payload must go out from this one write.
    EXPECT_TRUE(h.expectFrame({0x02, 0x22, 0xF1, 0, 0, 0, 0, 0}));
    h.transport.stop();
    EXPECT_TRUE(h.errLines().empty());
}

TEST(EventLoop, MessageWithInvalidBodyIsReportedAsException) {
    TransportHarness h(0);
    h.start();
    h.writeInput(rawMessage(MSGID_CAN_EXT, {0x01, 0x02, 0x03}));
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::getNextTraceMessage() Got exception: QBException: trace "
        "message stream: dropped 20 bytes: invalid message id 0xb: CAN frame body of 3 bytes is "
        "shorter than 9"));
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectPayload({0x42}, 0x7E8));
}
