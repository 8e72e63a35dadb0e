// Frames from the peer: the connected report, single frames, first and consecutive frames with
// their sequence numbers, delivery of the reassembled payload, and the receive time-out.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "can/TransportHarness.h"
#include "common/Wait.h"

using namespace qbtest;

// ---------------------------------------------------------------------------------------------
// Single frames

TEST(Reassembly, SingleFrameIsDeliveredAtOnceAndAcknowledged) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x03, 0x41, 0x42, 0x43, 0, 0, 0, 0}, 0x7E8);
    EXPECT_TRUE(h.expectPayload({0x41, 0x42, 0x43}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.expectNoPayload(milliseconds(30)));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(10)));
    EXPECT_EQ(h.transport.state.load(), 0);
}

TEST(Reassembly, SingleFrameFromAnyIdentifierIsTaken) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x02, 0x0A, 0x0B, 0, 0, 0, 0, 0}, 0x123);
    EXPECT_TRUE(h.expectPayload({0x0A, 0x0B}, 0x123));
    h.sendFrame({0x01, 0x0C, 0, 0, 0, 0, 0, 0}, 0x7E0);  // even our own send identifier
    EXPECT_TRUE(h.expectPayload({0x0C}, 0x7E0));
}

TEST(Reassembly, SingleFrameArmsTheOneSecondTimer) {
    TransportHarness h(0);
    TPCANMsg m = frame(0x7E8, {0x03, 0x41, 0x42, 0x43});
    h.transport.handleCANData(m);
    EXPECT_EQ(h.transport.selectTimeout.tv_sec, 1);
    EXPECT_EQ(h.transport.selectTimeout.tv_usec, 0);
    EXPECT_EQ(h.transport.timeNotSlept.tv_sec, 1);
    EXPECT_EQ(h.transport.timeNotSlept.tv_usec, 0);
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME);
    EXPECT_EQ(h.transport.state.load(), 0);
    EXPECT_TRUE(h.transport.receiveBuffer.empty());
    EXPECT_TRUE(h.expectPayload({0x41, 0x42, 0x43}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
}

TEST(Reassembly, SingleFrameWithLengthNibbleAboveSevenIsPaddedWithZeros) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x0A, 1, 2, 3, 4, 5, 6, 7});
    EXPECT_TRUE(h.expectPayload({1, 2, 3, 4, 5, 6, 7, 0, 0, 0}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    h.sendFrame({0x0F, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7});
    EXPECT_TRUE(
        h.expectPayload({0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0, 0, 0, 0, 0, 0, 0, 0}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    h.sendFrame({0x08, 1, 2, 3, 4, 5, 6, 7});
    EXPECT_TRUE(h.expectPayload({1, 2, 3, 4, 5, 6, 7, 0}, 0x7E8));
}

// ---------------------------------------------------------------------------------------------
// The connected report

TEST(Reassembly, FirstFrameAfterConstructionReportsConnectedBeforeItsHandling) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x45, 1, 2, 3, 4, 5, 6, 7});  // even an invalid frame
    ASSERT_TRUE(h.expectFrame(kNotReady));
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kAck));
    h.transport.stop();
    const std::vector<StatusEvent> ev = h.status.events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(ev[0].arg, 0);
    EXPECT_EQ(h.outLines(),
              (Lines{
                  "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                  "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED",
                  "[ERROR] CANTransportThread::showError() received unknown frame but expected "
                  "first or single frame",
                  "[ERROR] CANTransportThread::showError() message:  0x000007e8 8  0x45 0x01 0x02 "
                  "0x03 0x04 0x05 0x06 0x07",
                  "[ERROR] CANTransportThread::showErrorAndClearBuffer() send "
                  "CTP_FC_NOT_READY_TO_RECEIVE",
                  "[ERROR] CANTransportThread::showErrorAndClearBuffer() receiveBuffer.clear()",
              }));
}

TEST(Reassembly, WithoutCallbackFirstFrameOnlyMarksPeerConnected) {
    TransportHarness h(withoutCallback());
    h.start();
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(h.expectFrame(kAck));
    h.transport.stop();
    EXPECT_TRUE(h.transport.connected);
    EXPECT_TRUE(h.transport.logDisconnected);
    EXPECT_EQ(h.outLines(), (Lines{
                                "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                            }));
}

// ---------------------------------------------------------------------------------------------
// Segmented payloads

TEST(Reassembly, TwentyBytesInFirstAndTwoConsecutiveFramesAreDeliveredExactly) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 2; }, kEventWait));
    h.sendFrame({0x20, 7, 8, 9, 10, 11, 12, 13});
    EXPECT_TRUE(h.expectNoFrame(milliseconds(30)));  // no answer to a middle frame
    h.sendFrame({0x21, 14, 15, 16, 17, 18, 19, 20});
    EXPECT_TRUE(h.expectPayload(countingBytes(20, 1), 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 0; }, kEventWait));
    h.transport.stop();
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME);
    EXPECT_TRUE(h.transport.receiveBuffer.empty());
}

TEST(Reassembly, LastConsecutiveFrameContributesOnlyTheMissingBytes) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x0A, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0x20, 7, 8, 9, 10, 0xEE, 0xEE, 0xEE});
    EXPECT_TRUE(h.expectPayload(countingBytes(10, 1), 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
}

TEST(Reassembly, FirstFrameAnnouncingSixBytesIsDeliveredAtOnceAndThenAwaitsConsecutiveFrames) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x06, 1, 2, 3, 4, 5, 6});
    EXPECT_TRUE(h.expectPayload({1, 2, 3, 4, 5, 6}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.expectFrame(kReady));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 2; }, kEventWait));
    // bytesToReceive is zero: the next consecutive frame delivers an empty payload.
    h.sendFrame({0x20, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE});
    EXPECT_TRUE(h.expectPayload({}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 0; }, kEventWait));
}

TEST(Reassembly, FirstFrameAnnouncingFewerThanSixBytesDeliversAllSixThenAnEmptyPayload) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x03, 1, 2, 3, 4, 5, 6});
    EXPECT_TRUE(h.expectPayload({1, 2, 3, 4, 5, 6}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.expectFrame(kReady));
    // bytesToReceive is negative: the consecutive frame contributes nothing.
    h.sendFrame({0x20, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE});
    EXPECT_TRUE(h.expectPayload({}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
}

TEST(Reassembly, ConsecutiveFrameWithWrongSequenceNumberIsRefused) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0x20, 7, 8, 9, 10, 11, 12, 13});
    h.sendFrame({0x22, 14, 15, 16, 17, 18, 19, 20});
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::checkConsecutiveFrame() sequence counter of consecutive "
        "frame wrong. Got 2 but expected 1"));
    EXPECT_TRUE(h.expectFrame(kNotAck));
    EXPECT_TRUE(h.expectNoPayload(milliseconds(30)));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 0; }, kEventWait));
    h.transport.stop();
    EXPECT_TRUE(h.transport.receiveBuffer.empty());
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME);
    EXPECT_EQ(h.transport.cfCounter, 1);
    EXPECT_EQ(h.transport.bytesToReceive, 7);
}

TEST(Reassembly, NewTransferAfterSequenceErrorStartsAfresh) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0x21, 7, 8, 9, 10, 11, 12, 13});
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::checkConsecutiveFrame() sequence counter of consecutive "
        "frame wrong. Got 1 but expected 0"));
    ASSERT_TRUE(h.expectFrame(kNotAck));
    h.sendFrame({0x10, 0x08, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0x20, 0x67, 0x68, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectPayload(countingBytes(8, 0x61), 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
}

TEST(Reassembly, SeventeenthConsecutiveFrameMustCarrySequenceNumberZero) {
    TransportHarness h(0);
    h.start();
    const Bytes payload = countingBytes(6 + 7 * 17);
    h.sendFrame({0x10, 0x7D, 0, 1, 2, 3, 4, 5});
    ASSERT_TRUE(h.expectFrame(kReady));
    Bytes input;
    for (int i = 0; i < 17; ++i) {
        Bytes cf{static_cast<uint8_t>(0x20 | (i & 0x0F))};
        cf.insert(cf.end(), payload.begin() + 6 + 7 * i, payload.begin() + 13 + 7 * i);
        const Bytes msg = canFrameMessage(cf);
        input.insert(input.end(), msg.begin(), msg.end());
    }
    h.writeInput(input);
    EXPECT_TRUE(h.expectPayload(payload, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
}

TEST(Reassembly, SeventeenthConsecutiveFrameWithSequenceNumberSixteenIsRefused) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x7D, 0, 1, 2, 3, 4, 5});
    ASSERT_TRUE(h.expectFrame(kReady));
    for (int i = 0; i < 16; ++i) {
        h.sendFrame({static_cast<uint8_t>(0x20 | i), 1, 2, 3, 4, 5, 6, 7});
    }
    h.sendFrame({0x21, 1, 2, 3, 4, 5, 6, 7});  // 16 & 0x0F is 0, not 1
    EXPECT_TRUE(h.waitForLine(
        "[ERROR] CANTransportThread::checkConsecutiveFrame() sequence counter of consecutive "
        "frame wrong. Got 1 but expected 0"));
    EXPECT_TRUE(h.expectFrame(kNotAck));
    EXPECT_TRUE(h.expectNoPayload(milliseconds(30)));
}

TEST(Reassembly, FramesOfOneTransferAreJoinedWhateverTheirIdentifiers) {
    TransportHarness h(0);
    h.start();
    h.writeInput(
        canFrameMessage({0x10, 0x0A, 1, 2, 3, 4, 5, 6}, 0x18DAF110, MSGID_CAN_EXT, CT_EXTENDED));
    ASSERT_TRUE(h.expectFrame(kReady));
    h.writeInput(
        canFrameMessage({0x20, 7, 8, 9, 10, 0, 0, 0}, 0x18DA10F1, MSGID_CAN_EXT, CT_EXTENDED));
    // The delivered identifier is the low 16 bits of the frame that completed the payload.
    EXPECT_TRUE(h.expectPayload(countingBytes(10, 1), 0x10F1));
    EXPECT_TRUE(h.expectFrame(kAck));
}

TEST(Reassembly, AcknowledgementOfOwnPayloadMidReceptionLetsNextFirstFrameAppendToKeptBytes) {
    TransportHarness h(0);
    h.start();
    h.sendPayload({0x22});
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}));
    h.sendFrame({0x10, 0x0A, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame(kAck);  // acknowledges our payload and resets the receiver's expectation
    ASSERT_TRUE(h.status.waitForCount(2, kEventWait));
    // A new first frame is now taken; the six bytes already received are not cleared.
    h.sendFrame({0x10, 0x08, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66});
    ASSERT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0x20, 0x67, 0x68, 0, 0, 0, 0, 0});
    EXPECT_TRUE(
        h.expectPayload({1, 2, 3, 4, 5, 6, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68}, 0x7E8));
    EXPECT_TRUE(h.expectFrame(kAck));
}

// ---------------------------------------------------------------------------------------------
// Receive time-out

TEST(Reassembly, StalledReceptionEndsAfterOneSecondWithNotAcknowledgeAndReceiveTimeout) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});
    double tReady = 0;
    ASSERT_TRUE(h.expectFrame(kReady, kEventWait, &tReady));
    double tNotAck = 0;
    ASSERT_TRUE(h.expectFrame(kNotAck, kTimerWait, &tNotAck));
    std::printf("receive time-out after %.3f s\n", tNotAck - tReady);
    EXPECT_GE(tNotAck - tReady, kOneSecondLow);
    EXPECT_LT(tNotAck - tReady, kOneSecondHigh);
    ASSERT_TRUE(h.status.waitForCount(2, kEventWait));
    EXPECT_EQ(h.status.events()[1].status, CANTransportThread::CTT_RECEIVE_TIMEOUT);
    EXPECT_EQ(h.status.events()[1].arg, 0);
    EXPECT_TRUE(h.waitForLine("[INFO] CANTransportThread::handleTimeout() CTT_RECEIVE_TIMEOUT"));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 0; }, kEventWait));
    // The partial payload is gone: a new single frame is delivered on its own.
    h.sendFrame({0x01, 0x77, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectPayload({0x77}, 0x7E8));
    h.transport.stop();
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME);
}

TEST(Reassembly, ConsecutiveFramesDoNotRestartTheReceiveTimer) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});
    double tReady = 0;
    ASSERT_TRUE(h.expectFrame(kReady, kEventWait, &tReady));
    // Stimulus timing: the consecutive frame comes 0.6 s into the 1 s wait.
    std::this_thread::sleep_for(std::chrono::duration<double>(tReady + 0.6 - monotonicSeconds()));
    h.sendFrame({0x20, 7, 8, 9, 10, 11, 12, 13});
    double tNotAck = 0;
    ASSERT_TRUE(h.expectFrame(kNotAck, kTimerWait, &tNotAck));
    std::printf("receive time-out %.3f s after the first frame\n", tNotAck - tReady);
    EXPECT_GE(tNotAck - tReady, kOneSecondLow);
    EXPECT_LT(tNotAck - tReady, 1.45);  // restarted it would be 1.6 s
}

TEST(Reassembly, ReceiveTimeoutWithoutCallbackLogsNothing) {
    TransportHarness h(withoutCallback());
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(h.expectFrame(kReady));
    ASSERT_TRUE(h.expectFrame(kNotAck, kTimerWait));
    h.transport.stop();
    EXPECT_EQ(h.outLines(), (Lines{
                                "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
                            }));
}

// ---------------------------------------------------------------------------------------------
// Delivery failure

TEST(Reassembly, PayloadThatCannotBeWrittenToApplicationIsNotAcknowledged) {
    TransportHarness h(0);
    ::close(h.readFD);  // the application no longer reads
    h.transport.writePipe[0] = -1;
    h.start();
    h.sendFrame({0x01, 0x42, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectFrame(kNotAck));
    EXPECT_TRUE(h.waitForErrLine(
        "[ERROR] CANTransportThread::addReceivedData() failed to write data to pipe: "));
    h.sendFrame({0x10, 0x08, 1, 2, 3, 4, 5, 6});
    EXPECT_TRUE(h.expectFrame(kReady));
    h.sendFrame({0x20, 7, 8, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectFrame(kNotAck));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 0; }, kEventWait));
    EXPECT_TRUE(h.transport.isRunning());
    h.transport.stop();
    EXPECT_EQ(h.errLines(),
              (Lines{
                  "[ERROR] CANTransportThread::addReceivedData() failed to write data to pipe: ",
                  "[ERROR] errno 32: Broken pipe",
                  "[ERROR] CANTransportThread::addReceivedData() failed to write data to pipe: ",
                  "[ERROR] errno 32: Broken pipe",
              }));
    EXPECT_EQ(h.transport.nextFrame, CANTransportThread::CTF_SINGLE_OR_FIRST_FRAME);
    EXPECT_TRUE(h.transport.receiveBuffer.empty());
}
