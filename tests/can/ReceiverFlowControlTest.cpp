// The receiving side's flow-control frames and its reports of frames it cannot use.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "can/TransportHarness.h"
#include "common/Wait.h"

using namespace qbtest;

namespace {

// The first error line showError writes for `data0` with the given expectation.
std::string shownKind(uint8_t data0, CANTransportThread::frametype_t expected) {
    TransportHarness h(0);
    h.transport.nextFrame = expected;
    TPCANMsg m = frame(0x7E8, {data0});
    h.transport.showError(m);
    const Lines lines = h.outLines();
    EXPECT_EQ(lines.size(), 2u);
    return lines.empty() ? std::string() : lines[0];
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// sendFlowControl

TEST(ReceiverFlowControl, ReadyToReceiveUsesSendIdArmsTimerAndEntersReceiving) {
    TransportHarness h(withSendId(0x123));
    h.transport.state = h.transport.RCTS_SENDING | h.transport.RCTS_WAIT_FOR_FC;
    h.transport.setSelectTimeout(0, 10);
    h.transport.sendFlowControl(1);
    EXPECT_TRUE(h.expectFrame({0x31, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(h.transport.selectTimeout.tv_sec, 1);
    EXPECT_EQ(h.transport.selectTimeout.tv_usec, 0);
    EXPECT_EQ(h.transport.timeNotSlept.tv_sec, 1);
    EXPECT_EQ(h.transport.timeNotSlept.tv_usec, 0);
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_CONSECUTIVE_FRAME);
    EXPECT_EQ(h.transport.state.load(), 7);
}

TEST(ReceiverFlowControl, NotReadyToReceiveSendsFrameAndChangesNothingElse) {
    TransportHarness h(withSendId(0x123));
    h.transport.state = h.transport.RCTS_RECEIVING;
    h.transport.nextFrame = CANTransportThread::CTF_CONSECUTIVE_FRAME;
    h.transport.setSelectTimeout(0, 10);
    h.transport.receiveBuffer = {1, 2, 3};
    h.transport.sendFlowControl(0);
    EXPECT_TRUE(h.expectFrame({0x30, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(h.transport.state.load(), 2);
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_CONSECUTIVE_FRAME);
    EXPECT_EQ(h.transport.selectTimeout.tv_usec, 10000);
    EXPECT_EQ(h.transport.receiveBuffer, (Bytes{1, 2, 3}));
}

TEST(ReceiverFlowControl, NotAcknowledgeAndAcknowledgeReturnReceiverToIdleOnly) {
    for (int code : {2, 3}) {
        TransportHarness h(0);
        h.transport.state = 7;
        h.transport.nextFrame = CANTransportThread::CTF_CONSECUTIVE_FRAME;
        h.transport.setSelectTimeout(0, 10);
        h.transport.sendFlowControl(code);
        EXPECT_TRUE(h.expectFrame({static_cast<uint8_t>(0x30 | code), 0, 0, 0, 0, 0, 0, 0}));
        EXPECT_EQ(h.transport.state.load(), 5) << code;
        EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME) << code;
        EXPECT_EQ(h.transport.selectTimeout.tv_sec, 0) << code;
        EXPECT_EQ(h.transport.selectTimeout.tv_usec, 10000) << code;
    }
}

TEST(ReceiverFlowControl, UnassignedCodeIsSentAndChangesNothing) {
    TransportHarness h(0);
    h.transport.state = h.transport.RCTS_RECEIVING;
    h.transport.nextFrame = CANTransportThread::CTF_CONSECUTIVE_FRAME;
    h.transport.sendFlowControl(7);
    EXPECT_TRUE(h.expectFrame({0x37, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(h.transport.state.load(), 2);
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_CONSECUTIVE_FRAME);
}

TEST(ReceiverFlowControl, FlowControlFrameIsLoggedTwiceAtLevelThreeOnceAtOneAndTwo) {
    const std::string line =
        "[DEBUG] CANTransportThread::sendFlowControl()  0x000007e0 8  0x30 0x00 0x00 0x00 0x00 "
        "0x00 0x00 0x00";
    const std::string write =
        "[DEBUG] CANTransportThread::sendCANMessage() CAN write to canProxyFD: CAN ch 0 id 0x7e0 "
        "STD dlc 8 len 8 data 30 00 00 00 00 00 00 00";
    {
        TransportHarness h(3);
        h.transport.sendFlowControl(0);
        EXPECT_EQ(h.outLines(), (Lines{line, line, write}));
    }
    for (int level : {1, 2}) {
        TransportHarness h(level);
        h.transport.sendFlowControl(0);
        EXPECT_EQ(h.outLines(), (Lines{line, write})) << level;
    }
}

TEST(ReceiverFlowControl, FlowControlAtLevelZeroIsSentWithoutLogging) {
    TransportHarness h(0);
    h.transport.sendFlowControl(3);
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.outLines().empty());
    EXPECT_TRUE(h.errLines().empty());
}

// ---------------------------------------------------------------------------------------------
// Unusable frames

TEST(ReceiverFlowControl, ConsecutiveFrameWhileIdleIsReportedAndRefused) {
    TransportHarness h(1);
    h.start();
    h.sendFrame({0x21, 1, 2, 3, 4, 5, 6, 7});
    ASSERT_TRUE(h.expectFrame(kNotReady));
    const std::string idle = "[DEBUG] CANTransportThread::threadCode() state = RCTS_IDLE";
    ASSERT_TRUE(h.waitForLineCount(idle, 2));
    h.transport.stop();
    EXPECT_EQ(h.outLines(),
              (Lines{
                  "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                  idle,
                  "[DEBUG] CANTransportThread::handleData() CAN data received:  CAN ch 0 id 0x7e8 "
                  "STD dlc 8 len 8 data 21 01 02 03 04 05 06 07",
                  "[DEBUG] CANTransportThread::handleCANData() other side is alive, connected",
                  "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED",
                  "[ERROR] CANTransportThread::showError() received consecutive frame but "
                  "expected first or single frame",
                  "[ERROR] CANTransportThread::showError() message:  0x000007e8 8  0x21 0x01 0x02 "
                  "0x03 0x04 0x05 0x06 0x07",
                  "[ERROR] CANTransportThread::showErrorAndClearBuffer() send "
                  "CTP_FC_NOT_READY_TO_RECEIVE",
                  "[DEBUG] CANTransportThread::sendFlowControl()  0x000007e0 8  0x30 0x00 0x00 "
                  "0x00 0x00 0x00 0x00 0x00",
                  "[DEBUG] CANTransportThread::sendCANMessage() CAN write to canProxyFD: CAN ch 0 "
                  "id 0x7e0 STD dlc 8 len 8 data 30 00 00 00 00 00 00 00",
                  "[ERROR] CANTransportThread::showErrorAndClearBuffer() receiveBuffer.clear()",
                  idle,
              }));
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME);
    EXPECT_EQ(h.transport.state.load(), 0);
}

TEST(ReceiverFlowControl, FirstFrameWhileAwaitingConsecutiveFramesKeepsTransferOpenButEmpty) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0x10, 0x14, 0x51, 0x52, 0x53, 0x54, 0x55, 0x56});
    ASSERT_TRUE(h.expectFrame(kNotReady));
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::showError() received first frame but expected consecutive "
        "frame"));
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::showError() message:  0x000007e8 8  0x10 0x14 0x51 0x52 0x53 "
        "0x54 0x55 0x56"));
    EXPECT_EQ(h.transport.state.load(), 2);
    // The transfer goes on, without the six bytes of its first frame.
    h.sendFrame({0x20, 7, 8, 9, 10, 11, 12, 13});
    h.sendFrame({0x21, 14, 15, 16, 17, 18, 19, 20});
    EXPECT_TRUE(h.expectPayload(countingBytes(14, 7), 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
}

TEST(ReceiverFlowControl, SingleFrameWhileAwaitingConsecutiveFramesIsRefused) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x0A, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0x02, 0x41, 0x42, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kNotReady));
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::showError() received single frame but expected consecutive "
        "frame"));
    EXPECT_TRUE(h.expectNoPayload(milliseconds(30)));
    EXPECT_EQ(h.transport.state.load(), 2);
}

TEST(ReceiverFlowControl, FrameStartingWithZeroIsNamedSingleFrame) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x00, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kNotReady));
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::showError() received single frame but expected first or "
        "single frame"));
    EXPECT_TRUE(h.expectNoPayload(milliseconds(30)));
}

TEST(ReceiverFlowControl, FrameStartingWith45IsNamedUnknownFrame) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x45, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kNotReady));
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::showError() received unknown frame but expected first or "
        "single frame"));
}

TEST(ReceiverFlowControl, InvalidFrameDuringTransferClearsBufferButKeepsReceiveState) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0xF0, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kNotReady));
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::showError() received unknown frame but expected consecutive "
        "frame"));
    EXPECT_EQ(h.transport.state.load(), 2);
    h.sendFrame({0x20, 7, 8, 9, 10, 11, 12, 13});
    h.sendFrame({0x21, 14, 15, 16, 17, 18, 19, 20});
    EXPECT_TRUE(h.expectPayload(countingBytes(14, 7), 0x7E8));
}

TEST(ReceiverFlowControl, ShowErrorNamesEveryKindOfFrame) {
    const auto idle = CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME;
    const auto busy = CANTransportThread::CTF_CONSECUTIVE_FRAME;
    const std::string pre = "[ERROR] CANTransportThread::showError() received ";
    EXPECT_EQ(shownKind(0x05, idle), pre + "single frame but expected first or single frame");
    EXPECT_EQ(shownKind(0x00, busy), pre + "single frame but expected consecutive frame");
    EXPECT_EQ(shownKind(0x15, busy), pre + "first frame but expected consecutive frame");
    EXPECT_EQ(shownKind(0x25, idle), pre + "consecutive frame but expected first or single frame");
    EXPECT_EQ(shownKind(0x35, idle), pre + "flow control but expected first or single frame");
    EXPECT_EQ(shownKind(0x45, busy), pre + "unknown frame but expected consecutive frame");
    EXPECT_EQ(shownKind(0xF0, idle), pre + "unknown frame but expected first or single frame");
}

TEST(ReceiverFlowControl, ShowErrorWritesFrameLineAndChangesNothing) {
    TransportHarness h(0);
    h.transport.receiveBuffer = {9, 9};
    TPCANMsg m = frame(0x7E8, {0x25, 0xA0});
    m.LEN = 2;
    h.transport.showError(m);
    EXPECT_EQ(h.outLines(),
              (Lines{
                  "[ERROR] CANTransportThread::showError() received consecutive frame but "
                  "expected first or single frame",
                  "[ERROR] CANTransportThread::showError() message:  0x000007e8 2  0x25 0xa0",
              }));
    EXPECT_EQ(h.transport.receiveBuffer, (Bytes{9, 9}));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(10)));
}

TEST(ReceiverFlowControl, ShowErrorAndClearBufferRefusesAndDropsOnlyTheBytes) {
    TransportHarness h(0);
    h.transport.state = h.transport.RCTS_RECEIVING;
    h.transport.nextFrame = CANTransportThread::CTF_CONSECUTIVE_FRAME;
    h.transport.cfCounter = 3;
    h.transport.bytesToReceive = 9;
    h.transport.setSelectTimeout(1, 0);
    h.transport.timeNotSlept.tv_sec = 0;
    h.transport.timeNotSlept.tv_usec = 400000;
    h.transport.receiveBuffer = {1, 2, 3};
    TPCANMsg m = frame(0x7E8, {0x10, 0x20, 1, 2, 3, 4, 5, 6});
    h.transport.showErrorAndClearBuffer(m);
    EXPECT_TRUE(h.expectFrame(kNotReady));
    EXPECT_TRUE(h.transport.receiveBuffer.empty());
    EXPECT_EQ(h.transport.state.load(), 2);
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_CONSECUTIVE_FRAME);
    EXPECT_EQ(h.transport.cfCounter, 3);
    EXPECT_EQ(h.transport.bytesToReceive, 9);
    EXPECT_EQ(h.transport.selectTimeout.tv_sec, 1);
    EXPECT_EQ(h.transport.timeNotSlept.tv_sec, 0);
    EXPECT_EQ(h.transport.timeNotSlept.tv_usec, 400000);
    EXPECT_EQ(h.outLines(),
              (Lines{
                  "[ERROR] CANTransportThread::showError() received first frame but expected "
                  "consecutive frame",
                  "[ERROR] CANTransportThread::showError() message:  0x000007e8 8  0x10 0x20 0x01 "
                  "0x02 0x03 0x04 0x05 0x06",
                  "[ERROR] CANTransportThread::showErrorAndClearBuffer() send "
                  "CTP_FC_NOT_READY_TO_RECEIVE",
                  "[ERROR] CANTransportThread::showErrorAndClearBuffer() receiveBuffer.clear()",
              }));
}

TEST(ReceiverFlowControl, FirstFrameIsAnsweredReadyToReceiveWithSendId) {
    TransportHarness h(withSendId(0x123));
    h.start();
    h.sendFrame({0x10, 0x08, 1, 2, 3, 4, 5, 6}, 0x456);
    std::optional<ProxyFrame> f = h.nextFrame(kEventWait);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->canId, 0x123u);  // never the identifier of the frame answered
    EXPECT_EQ(f->data, (Bytes{0x31, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 2; }, kEventWait));
}
