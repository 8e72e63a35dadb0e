// Cutting payloads into frames, the send queue, putting frames on the wire at the right moments,
// the removal of the front payload, and the application's question whether all was delivered.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "can/TransportHarness.h"
#include "common/Bytes.h"
#include "common/Wait.h"

using namespace qbtest;

// ---------------------------------------------------------------------------------------------
// Frames per payload, on the wire

TEST(Segmentation, SevenBytePayloadIsSentAsOneFrame) {
    TransportHarness h(0);
    h.start();
    h.sendPayload(countingBytes(7, 1));
    EXPECT_TRUE(h.expectFrame({0x07, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(50)));
}

TEST(Segmentation, EightBytePayloadIsSentAsTwoFrames) {
    TransportHarness h(0);
    h.start();
    h.sendPayload(countingBytes(8, 1));
    EXPECT_TRUE(h.expectFrame({0x10, 0x08, 1, 2, 3, 4, 5, 6}));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(50)));  // the rest waits for flow control
    h.sendFrame(kReady);
    EXPECT_TRUE(h.expectFrame({0x20, 7, 8, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(50)));
}

TEST(Segmentation, ThirteenBytePayloadIsSentAsTwoFrames) {
    TransportHarness h(0);
    h.start();
    h.sendPayload(countingBytes(13, 1));
    EXPECT_TRUE(h.expectFrame({0x10, 0x0D, 1, 2, 3, 4, 5, 6}));
    h.sendFrame(kReady);
    EXPECT_TRUE(h.expectFrame({0x20, 7, 8, 9, 10, 11, 12, 13}));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(50)));
}

TEST(Segmentation, FourteenBytePayloadIsSentAsThreeFrames) {
    TransportHarness h(0);
    h.start();
    h.sendPayload(countingBytes(14, 1));
    EXPECT_TRUE(h.expectFrame({0x10, 0x0E, 1, 2, 3, 4, 5, 6}));
    h.sendFrame(kReady);
    EXPECT_TRUE(h.expectFrame({0x20, 7, 8, 9, 10, 11, 12, 13}));
    EXPECT_TRUE(h.expectFrame({0x21, 14, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(50)));
}

TEST(Segmentation, Payload4096IsSentWholeInOneBurstAfterReadyToReceive) {
    TransportHarness h(0);
    h.start();
    h.sendPayload(countingBytes(4096));
    EXPECT_TRUE(h.expectFrame({0x10, 0x00, 0, 1, 2, 3, 4, 5}));
    h.sendFrame(kReady);
    std::vector<Bytes> frames;
    for (;;) {
        std::optional<ProxyFrame> f = h.nextFrame(milliseconds(300));
        if (!f) {
            break;
        }
        frames.push_back(f->data);
    }
    ASSERT_EQ(frames.size(), 585u);
    EXPECT_EQ(frames[0], (Bytes{0x20, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(frames[15], (Bytes{0x2F, 0x6F, 0x70, 0x71, 0x72, 0x73, 0x74, 0x75}));
    EXPECT_EQ(frames[16], (Bytes{0x20, 0x76, 0x77, 0x78, 0x79, 0x7A, 0x7B, 0x7C}));
    EXPECT_EQ(frames.back(), (Bytes{0x28, 0xFE, 0xFF, 0, 0, 0, 0, 0}));
    h.sendFrame(kAck);
    ASSERT_TRUE(h.status.waitForCount(2, kEventWait));
    EXPECT_EQ(h.status.events()[1].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(h.status.events()[1].arg, 0x00);
}

// ---------------------------------------------------------------------------------------------
// prepareData

TEST(Segmentation, PrepareDataLogsSingleFrameWithItsPrintedForm) {
    TransportHarness h(1);
    const Bytes payload{1, 2, 3};
    h.transport.prepareData(payload.data(), payload.size());
    EXPECT_EQ(h.outLines(),
              (Lines{
                  "[DEBUG] CANTransportThread::prepareData() single frame:   0x000007e0 8  0x03 "
                  "0x01 0x02 0x03 0x00 0x00 0x00 0x00",
                  "[DEBUG] CANTransportThread::sendCANMessage() CAN write to canProxyFD: CAN ch 0 "
                  "id 0x7e0 STD dlc 8 len 8 data 03 01 02 03 00 00 00 00",
              }));
}

TEST(Segmentation, PrepareDataLogsSegmentedPayloadWithoutItsFrames) {
    TransportHarness h(1);
    const Bytes payload = countingBytes(20, 1);
    h.transport.prepareData(payload.data(), payload.size());
    EXPECT_EQ(h.outLines(),
              (Lines{
                  "[DEBUG] CANTransportThread::prepareData() consecutive frame:  ",
                  "[DEBUG] CANTransportThread::sendCANMessage() CAN write to canProxyFD: CAN ch 0 "
                  "id 0x7e0 STD dlc 8 len 8 data 10 14 01 02 03 04 05 06",
              }));
}

TEST(Segmentation, PrepareDataWhenIdleStartsSendingAndArmsOneSecondWait) {
    TransportHarness h(0);
    const Bytes payload{0x22, 0x33};
    h.transport.prepareData(payload.data(), payload.size());
    EXPECT_TRUE(h.expectFrame({0x02, 0x22, 0x33, 0, 0, 0, 0, 0}));
    EXPECT_EQ(h.transport.state.load(), 5);
    ASSERT_EQ(h.transport.sendQueue.size(), 1u);
    EXPECT_EQ(h.transport.curSendPtr, h.transport.sendQueue.front()->begin());
    EXPECT_EQ(h.transport.selectTimeout.tv_sec, 1);
    EXPECT_EQ(h.transport.selectTimeout.tv_usec, 0);
    EXPECT_EQ(h.transport.timeNotSlept.tv_sec, 1);
    EXPECT_EQ(h.transport.timeNotSlept.tv_usec, 0);
}

TEST(Segmentation, PrepareDataWhileReceivingOnlyQueuesThePayload) {
    TransportHarness h(0);
    h.transport.state = h.transport.RCTS_RECEIVING;
    const Bytes payload{0x22};
    h.transport.prepareData(payload.data(), payload.size());
    EXPECT_EQ(h.transport.sendQueue.size(), 1u);
    EXPECT_EQ(h.transport.state.load(), 2);
    EXPECT_TRUE(h.expectNoFrame(milliseconds(20)));
}

TEST(Segmentation, PayloadArrivingWhileReceivingWaitsForTheRunningTimer) {
    TransportHarness h(0);
    h.start();
    h.sendFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6});  // first frame of 20 bytes
    double tFirst = 0;
    ASSERT_TRUE(h.expectFrame(kReady, kEventWait, &tFirst));
    h.sendPayload({0x22});
    EXPECT_TRUE(h.expectNoFrame(milliseconds(200)));  // not started while receiving
    EXPECT_FALSE(h.transport.sendQueueEmpty());
    EXPECT_EQ(h.transport.state.load(), 2);
    h.sendFrame({0x20, 7, 8, 9, 10, 11, 12, 13});
    h.sendFrame({0x21, 14, 15, 16, 17, 18, 19, 20});
    EXPECT_TRUE(h.expectPayload(countingBytes(20, 1), 0x7E8));
    ASSERT_TRUE(h.expectFrame(kAck));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(100)));
    double tStart = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kTimerWait, &tStart));
    std::printf("queued payload started %.3f s after the first frame\n", tStart - tFirst);
    EXPECT_GE(tStart - tFirst, kOneSecondLow);
    EXPECT_LT(tStart - tFirst, kOneSecondHigh);
}

TEST(Segmentation, ThreePayloadsAreSentStrictlyOneAfterTheOther) {
    TransportHarness h(0);
    h.start();
    h.writeInput(concat({payloadMessage({0x11}), payloadMessage({0x12, 0x13}),
                         payloadMessage({0x14, 0x15, 0x16})}));
    ASSERT_TRUE(h.expectFrame({0x01, 0x11, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(h.expectNoFrame(milliseconds(100)));
    EXPECT_FALSE(h.transport.sendQueueEmpty());
    double tAck = monotonicSeconds();
    h.sendFrame(kAck);
    double t = 0;
    ASSERT_TRUE(h.expectFrame({0x02, 0x12, 0x13, 0, 0, 0, 0, 0}, kEventWait, &t));
    EXPECT_GE(t - tAck, 0.009);  // the 10 ms pause after an acknowledgement
    EXPECT_TRUE(h.expectNoFrame(milliseconds(100)));
    tAck = monotonicSeconds();
    h.sendFrame(kAck);
    ASSERT_TRUE(h.expectFrame({0x03, 0x14, 0x15, 0x16, 0, 0, 0, 0}, kEventWait, &t));
    EXPECT_GE(t - tAck, 0.009);
    EXPECT_TRUE(h.expectNoFrame(milliseconds(50)));
    h.sendFrame(kAck);
    ASSERT_TRUE(h.status.waitForCount(4, kEventWait));
    const std::vector<StatusEvent> ev = h.status.events();
    EXPECT_EQ(ev[0].status, CANTransportThread::CTT_CONNECTED);
    EXPECT_EQ(ev[1].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(ev[1].arg, 0x11);
    EXPECT_EQ(ev[2].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(ev[2].arg, 0x12);
    EXPECT_EQ(ev[3].status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(ev[3].arg, 0x14);
    EXPECT_TRUE(waitUntil([&] { return h.transport.sendQueueEmpty(); }, kEventWait));
}

// ---------------------------------------------------------------------------------------------
// processSendQueue

TEST(Segmentation, ProcessSendQueueWhileWaitingForFlowControlSendsNothingAndKeepsTimer) {
    TransportHarness h(0);
    auto* frames = new Frames{frame({0x01, 0x22})};
    h.transport.sendQueue.push_back(frames);
    h.transport.state = h.transport.RCTS_SENDING | h.transport.RCTS_WAIT_FOR_FC;
    h.transport.curSendPtr = frames->begin();
    h.transport.setSelectTimeout(3, 250);
    h.transport.timeNotSlept.tv_sec = 2;  // part of it has passed
    h.transport.processSendQueue();
    EXPECT_TRUE(h.expectNoFrame(milliseconds(20)));
    EXPECT_EQ(h.transport.state.load(), 5);
    EXPECT_EQ(h.transport.curSendPtr, frames->begin());
    EXPECT_EQ(h.transport.selectTimeout.tv_sec, 3);
    EXPECT_EQ(h.transport.selectTimeout.tv_usec, 250000);
    EXPECT_EQ(h.transport.timeNotSlept.tv_sec, 2);
    EXPECT_EQ(h.transport.timeNotSlept.tv_usec, 250000);
}

TEST(Segmentation, ProcessSendQueueWithEmptyQueueChangesNothing) {
    TransportHarness h(0);
    h.transport.state = h.transport.RCTS_SENDING;
    h.transport.setSelectTimeout(0, 10);
    h.transport.processSendQueue();
    EXPECT_TRUE(h.expectNoFrame(milliseconds(20)));
    EXPECT_EQ(h.transport.state.load(), 1);
    EXPECT_EQ(h.transport.selectTimeout.tv_usec, 10000);
}

TEST(Segmentation, ProcessSendQueueAtEndOfPayloadReportsFirstEndOfVectorError) {
    TransportHarness h(0);
    auto* frames = new Frames{frame({0x10, 0x08, 1, 2, 3, 4, 5, 6}), frame({0x20, 7, 8})};
    h.transport.sendQueue.push_back(frames);
    h.transport.state = h.transport.RCTS_SENDING | h.transport.RCTS_RECEIVING;
    h.transport.curSendPtr = frames->end();
    h.transport.processSendQueue();
    EXPECT_EQ(h.outLines(), (Lines{
                                "[ERROR] CANTransportThread::processSendQueue() reached end of "
                                "vector - be confused :-/",
                            }));
    EXPECT_EQ(h.transport.state.load(), 0);  // receiving is cleared as well
    EXPECT_EQ(h.transport.sendQueue.size(), 1u);
    EXPECT_EQ(h.transport.curSendPtr, frames->end());
    EXPECT_TRUE(h.expectNoFrame(milliseconds(20)));
    // The payload stays queued and starts again from its first frame.
    h.transport.processSendQueue();
    EXPECT_TRUE(h.expectFrame({0x10, 0x08, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(h.transport.state.load(), 5);
    EXPECT_EQ(h.transport.curSendPtr, frames->begin());
}

TEST(Segmentation, ProcessSendQueueAfterLastFrameReportsSecondEndOfVectorError) {
    TransportHarness h(0);
    auto* frames = new Frames{frame({0x01, 0x22})};
    h.transport.sendQueue.push_back(frames);
    h.transport.state = h.transport.RCTS_SENDING;
    h.transport.curSendPtr = frames->begin();
    h.transport.processSendQueue();
    EXPECT_EQ(h.outLines(), (Lines{
                                "[ERROR] CANTransportThread::processSendQueue() reached end of "
                                "vector (2) - be confused :-/",
                            }));
    EXPECT_EQ(h.transport.state.load(), 0);
    EXPECT_EQ(h.transport.sendQueue.size(), 1u);
    EXPECT_EQ(h.transport.curSendPtr, frames->end());
    EXPECT_TRUE(h.expectNoFrame(milliseconds(20)));
}

TEST(Segmentation, ProcessSendQueueContinuesWithTheRestInOneBurst) {
    TransportHarness h(0);
    const Bytes payload = countingBytes(20, 1);
    h.transport.prepareData(payload.data(), payload.size());
    ASSERT_TRUE(h.expectFrame({0x10, 0x14, 1, 2, 3, 4, 5, 6}));
    h.transport.state = h.transport.RCTS_SENDING;  // as after ready-to-receive
    h.transport.setSelectTimeout(0, 0);
    h.transport.processSendQueue();
    EXPECT_TRUE(h.expectFrame({0x20, 7, 8, 9, 10, 11, 12, 13}));
    EXPECT_TRUE(h.expectFrame({0x21, 14, 15, 16, 17, 18, 19, 20}));
    EXPECT_EQ(h.transport.state.load(), 5);
    EXPECT_EQ(h.transport.curSendPtr, h.transport.sendQueue.front()->end());
    EXPECT_EQ(h.transport.selectTimeout.tv_sec, 1);
    EXPECT_EQ(h.transport.selectTimeout.tv_usec, 0);
}

TEST(Segmentation, ReadyToReceiveForSingleFramePayloadEndsInEndOfVectorError) {
    TransportHarness h(0);
    h.start();
    h.sendPayload({0x22});
    double t0 = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kEventWait, &t0));
    h.sendFrame(kReady);
    EXPECT_TRUE(
        h.waitForLine("[ERROR] CANTransportThread::processSendQueue() reached end of "
                      "vector (2) - be confused :-/"));
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 0; }, kEventWait));
    EXPECT_FALSE(h.transport.sendQueueEmpty());
    // The running timer then starts the payload again from its first frame.
    double t1 = 0;
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}, kTimerWait, &t1));
    EXPECT_GE(t1 - t0, kOneSecondLow);
    EXPECT_LT(t1 - t0, kOneSecondHigh);
}

// ---------------------------------------------------------------------------------------------
// deleteFirstMessage and sendQueueEmpty

TEST(Segmentation, DeleteFirstMessageReturnsSecondByteOfFirstFrame) {
    TransportHarness h(0);
    h.transport.sendQueue.push_back(new Frames{frame({0x11, 0x2C, 1, 2, 3, 4, 5, 6})});
    h.transport.sendQueue.push_back(new Frames{frame({0x01, 0x22})});
    EXPECT_EQ(h.transport.deleteFirstMessage(), 0x2C);
    ASSERT_EQ(h.transport.sendQueue.size(), 1u);
    EXPECT_EQ(h.transport.deleteFirstMessage(), 0x22);
    EXPECT_TRUE(h.transport.sendQueue.empty());
}

TEST(Segmentation, SendQueueEmptyIsFalseWhileInputWaitsInThePipe) {
    TransportHarness h(0);
    EXPECT_TRUE(h.transport.sendQueueEmpty());
    const uint8_t byte = 0x51;
    ASSERT_EQ(::write(h.writeFD, &byte, 1), 1);
    EXPECT_FALSE(h.transport.sendQueueEmpty());
    uint8_t buf[4];
    ASSERT_EQ(::read(h.transport.readPipe[0], buf, sizeof buf), 1);
    EXPECT_TRUE(h.transport.sendQueueEmpty());
}

TEST(Segmentation, SendQueueEmptyIsFalseUntilThePayloadIsAcknowledged) {
    TransportHarness h(0);
    h.start();
    h.sendPayload({0x22});
    ASSERT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(h.transport.sendQueueEmpty());
    h.sendFrame(kAck);
    EXPECT_TRUE(waitUntil([&] { return h.transport.sendQueueEmpty(); }, kEventWait));
    ASSERT_TRUE(h.status.waitForCount(2, kEventWait));
    EXPECT_EQ(h.status.events()[1].status, CANTransportThread::CTT_ACKNOWLEDGED);
}

// ---------------------------------------------------------------------------------------------
// A failed write to the CAN proxy

TEST(Segmentation, FailedWriteToProxyChangesNoStateAndTheTimeoutFollows) {
    const std::string failed =
        "[ERROR] CANTransportThread::sendCANMessage() failed to send data to the CAN proxy: ";
    TransportHarness h(0);
    h.transport.setConnection(-1);
    h.start();
    h.sendPayload({0x22});
    ASSERT_TRUE(h.waitForErrLine(failed));
    const double t0 = monotonicSeconds();
    EXPECT_TRUE(waitUntil([&] { return h.transport.state.load() == 5; }, kEventWait));
    EXPECT_FALSE(h.waitForLine("[INFO] CANTransportThread::handleSendError() send retry = 0",
                               milliseconds(700)));
    ASSERT_TRUE(waitUntil([&] { return countLines(h.errLines(), failed) >= 2; }, kTimerWait));
    const double t1 = monotonicSeconds();
    EXPECT_GE(t1 - t0, kOneSecondLow);
    EXPECT_LT(t1 - t0, kOneSecondHigh);
    h.transport.stop();
    const Lines err = h.errLines();
    ASSERT_GE(err.size(), 4u);
    EXPECT_EQ(err[0], failed);
    EXPECT_EQ(err[1], "[ERROR] errno 9: Bad file descriptor");
    EXPECT_EQ(err[2], failed);
    EXPECT_EQ(err[3], "[ERROR] errno 9: Bad file descriptor");
    EXPECT_EQ(
        countLines(h.outLines(), "[INFO] CANTransportThread::handleSendError() send retry = 0"),
        1u);
}
