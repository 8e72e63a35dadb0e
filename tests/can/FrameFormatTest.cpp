// The frame record, its printed form, the frame-kind predicates, the PCI parameter, the
// classification of received frames, the frame layouts the sender builds, and how a frame is
// carried to the CAN proxy.
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "can/TransportHarness.h"
#include "libqbcan/cantransport.h"

using namespace qbtest;

namespace {

std::string printed(const TPCANMsg& m) {
    std::ostringstream os;
    os << m;
    return os.str();
}

Bytes dataOf(const TPCANMsg& m) {
    return Bytes(m.DATA, m.DATA + 8);
}

// The frames of the payload at the front of the send queue.
std::vector<Bytes> frontFrames(TestableTransport& t) {
    std::vector<Bytes> frames;
    if (t.sendQueue.empty()) {
        return frames;
    }
    for (const TPCANMsg& m : *t.sendQueue.front()) {
        EXPECT_EQ(m.ID, 0x7E0u);
        EXPECT_EQ(m.LEN, 8);
        frames.push_back(dataOf(m));
    }
    return frames;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Printed form of a frame

TEST(FrameFormat, PrintedFrameHasTwoBlanksBetweenLengthAndFirstByte) {
    EXPECT_EQ(printed(frame(0x7E0, 8, {0x03, 0x22, 0xF1, 0x90, 0, 0, 0, 0})),
              " 0x000007e0 8  0x03 0x22 0xf1 0x90 0x00 0x00 0x00 0x00");
}

TEST(FrameFormat, PrintedFrameWithLengthZeroHasNoDataPartAndNoTrailingBlank) {
    EXPECT_EQ(printed(frame(0x7E0, 0, {0x11, 0x22})), " 0x000007e0 0");
}

TEST(FrameFormat, PrintedFrameShowsLenBytesInLowerCaseHex) {
    EXPECT_EQ(printed(frame(0x123, 3, {0xAB, 0x0C, 0xD0, 0xEE})), " 0x00000123 3  0xab 0x0c 0xd0");
    EXPECT_EQ(printed(frame(0xFFFFFFFF, 1, {0xFF})), " 0xffffffff 1  0xff");
    EXPECT_EQ(printed(frame(0x1ABCDEF0, 2, {1, 2})), " 0x1abcdef0 2  0x01 0x02");
}

TEST(FrameFormat, PrintedFrameWithLengthAboveEightShowsTheEightBytesTheRecordHolds) {
    // LEN is printed in hexadecimal as it stands; the record holds 8 data bytes.
    EXPECT_EQ(printed(frame(0x7E8, 9, {1, 2, 3, 4, 5, 6, 7, 8})),
              " 0x000007e8 9  0x01 0x02 0x03 0x04 0x05 0x06 0x07 0x08");
    EXPECT_EQ(printed(frame(0x7E8, 12, {1, 2, 3, 4, 5, 6, 7, 8})),
              " 0x000007e8 c  0x01 0x02 0x03 0x04 0x05 0x06 0x07 0x08");
}

TEST(FrameFormat, PrintingAFrameLeavesStreamBaseFillAndWidthAsFound) {
    std::ostringstream os;
    os << std::oct << std::setfill('*');
    os.width(6);
    os << frame(0x7E0, 0, {});
    EXPECT_EQ(os.fill(), '*');
    EXPECT_EQ(os.width(), 6);
    os << 8;
    EXPECT_EQ(os.str(), " 0x000007e0 0****10");

    std::ostringstream decStream;
    decStream << std::dec << std::boolalpha;
    const auto flags = decStream.flags();
    decStream << frame(0x7E0, 1, {0xAB});
    EXPECT_EQ(decStream.flags(), flags);
    decStream << ' ' << 26 << ' ' << true;
    EXPECT_EQ(decStream.str(), " 0x000007e0 1  0xab 26 true");
}

// ---------------------------------------------------------------------------------------------
// Predicates, PCI parameter and classification

TEST(FrameFormat, PredicatesTestTheHighNibble) {
    EXPECT_TRUE(isSingleFrame(0x00));
    EXPECT_TRUE(isSingleFrame(0x0F));
    EXPECT_FALSE(isSingleFrame(0x10));
    EXPECT_TRUE(isFirstFrame(0x10));
    EXPECT_TRUE(isFirstFrame(0x1F));
    EXPECT_FALSE(isFirstFrame(0x0F));
    EXPECT_FALSE(isFirstFrame(0x20));
    EXPECT_TRUE(isConsecutiveFrame(0x20));
    EXPECT_TRUE(isConsecutiveFrame(0x2F));
    EXPECT_FALSE(isConsecutiveFrame(0x1F));
    EXPECT_FALSE(isConsecutiveFrame(0x30));
    EXPECT_TRUE(isFlowControlFrame(0x30));
    EXPECT_TRUE(isFlowControlFrame(0x3F));
    EXPECT_FALSE(isFlowControlFrame(0x2F));
    EXPECT_FALSE(isFlowControlFrame(0x40));
    EXPECT_FALSE(isSingleFrame(0xF0));
    EXPECT_FALSE(isFlowControlFrame(0xB3));
}

TEST(FrameFormat, FlowControlCodesHaveTheirValues) {
    EXPECT_EQ(CTP_FC_NOT_READY_TO_RECEIVE, 0);
    EXPECT_EQ(CTP_FC_READY_TO_RECEIVE, 1);
    EXPECT_EQ(CTP_FC_NOT_ACKNOWLEDGE, 2);
    EXPECT_EQ(CTP_FC_ACKNOWLEDGE, 3);
}

TEST(FrameFormat, FrameParamOfFirstFrameIsTwelveBitLength) {
    // Low byte DATA[0], high byte DATA[1].
    EXPECT_EQ(getFrameParam(0x0810), 8);
    EXPECT_EQ(getFrameParam(0x1410), 20);
    EXPECT_EQ(getFrameParam(0xFF1F), 4095);
    EXPECT_EQ(getFrameParam(0x0010), 0);
    EXPECT_EQ(getFrameParam(0x2C11), 300);
    EXPECT_EQ(getFrameParam(0x0010 | 0x0100), 1);
}

TEST(FrameFormat, FrameParamOfOtherKindsIsLowNibbleOfFirstByte) {
    EXPECT_EQ(getFrameParam(0x0007), 7);
    EXPECT_EQ(getFrameParam(0x000F), 15);
    EXPECT_EQ(getFrameParam(0x0023), 3);
    EXPECT_EQ(getFrameParam(0x0020), 0);
    EXPECT_EQ(getFrameParam(0x0031), 1);
    EXPECT_EQ(getFrameParam(0x003F), 15);
    EXPECT_EQ(getFrameParam(0x0045), 5);
    // A second byte does not matter for any kind but the first frame.
    EXPECT_EQ(getFrameParam(0xAB05), 5);
    EXPECT_EQ(getFrameParam(0xFF2A), 10);
}

TEST(FrameFormat, ClassifyFrameFollowsTheOrderOfTests) {
    EXPECT_EQ(classifyFrame(0x00), CTP_FRAME_INVALID);
    EXPECT_EQ(classifyFrame(0x01), CTP_FRAME_SINGLE);
    EXPECT_EQ(classifyFrame(0x07), CTP_FRAME_SINGLE);
    EXPECT_EQ(classifyFrame(0x0F), CTP_FRAME_SINGLE);
    EXPECT_EQ(classifyFrame(0x10), CTP_FRAME_FIRST);
    EXPECT_EQ(classifyFrame(0x1F), CTP_FRAME_FIRST);
    EXPECT_EQ(classifyFrame(0x20), CTP_FRAME_CONSECUTIVE);
    EXPECT_EQ(classifyFrame(0x2F), CTP_FRAME_CONSECUTIVE);
    EXPECT_EQ(classifyFrame(0x30), CTP_FRAME_FLOW_CONTROL);
    EXPECT_EQ(classifyFrame(0x3F), CTP_FRAME_FLOW_CONTROL);
    EXPECT_EQ(classifyFrame(0x40), CTP_FRAME_INVALID);
    EXPECT_EQ(classifyFrame(0x45), CTP_FRAME_INVALID);
    EXPECT_EQ(classifyFrame(0x80), CTP_FRAME_INVALID);
    EXPECT_EQ(classifyFrame(0xFF), CTP_FRAME_INVALID);
}

TEST(FrameFormat, FrameStartingWith3FIsFlowControlWithCode15) {
    EXPECT_EQ(classifyFrame(0x3F), CTP_FRAME_FLOW_CONTROL);
    EXPECT_EQ(getFrameParam(0x3F), 15);
}

TEST(FrameFormat, FrameStartingWith45IsInvalid) {
    EXPECT_EQ(classifyFrame(0x45), CTP_FRAME_INVALID);
    EXPECT_FALSE(isSingleFrame(0x45));
    EXPECT_FALSE(isFirstFrame(0x45));
    EXPECT_FALSE(isConsecutiveFrame(0x45));
    EXPECT_FALSE(isFlowControlFrame(0x45));
}

// ---------------------------------------------------------------------------------------------
// Frame layouts built by the sender

TEST(FrameFormat, SevenBytePayloadIsOneSingleFrameWithoutPadding) {
    TransportHarness h(0);
    h.transport.prepareData(countingBytes(7, 1).data(), 7);
    EXPECT_EQ(frontFrames(h.transport), (std::vector<Bytes>{
                                            {0x07, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07},
                                        }));
    EXPECT_TRUE(h.expectFrame({0x07, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07}));
}

TEST(FrameFormat, ShortSingleFrameIsPaddedWithZeros) {
    TransportHarness h(0);
    const Bytes payload{0xAA, 0xBB};
    h.transport.prepareData(payload.data(), payload.size());
    EXPECT_EQ(frontFrames(h.transport), (std::vector<Bytes>{
                                            {0x02, 0xAA, 0xBB, 0x00, 0x00, 0x00, 0x00, 0x00},
                                        }));
}

TEST(FrameFormat, EightBytePayloadIsFirstFrameAndOnePaddedConsecutiveFrame) {
    TransportHarness h(0);
    h.transport.prepareData(countingBytes(8, 1).data(), 8);
    EXPECT_EQ(frontFrames(h.transport), (std::vector<Bytes>{
                                            {0x10, 0x08, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06},
                                            {0x20, 0x07, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00},
                                        }));
    EXPECT_TRUE(h.expectFrame({0x10, 0x08, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06}));
}

TEST(FrameFormat, ThirteenBytePayloadFillsOneConsecutiveFrameExactly) {
    TransportHarness h(0);
    h.transport.prepareData(countingBytes(13, 1).data(), 13);
    EXPECT_EQ(frontFrames(h.transport), (std::vector<Bytes>{
                                            {0x10, 0x0D, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06},
                                            {0x20, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D},
                                        }));
}

TEST(FrameFormat, FourteenBytePayloadNeedsSecondConsecutiveFrameWithOneByte) {
    TransportHarness h(0);
    h.transport.prepareData(countingBytes(14, 1).data(), 14);
    EXPECT_EQ(frontFrames(h.transport), (std::vector<Bytes>{
                                            {0x10, 0x0E, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06},
                                            {0x20, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D},
                                            {0x21, 0x0E, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},
                                        }));
}

TEST(FrameFormat, SeventeenthConsecutiveFrameHasSequenceNumberZeroAgain) {
    TransportHarness h(0);
    const Bytes payload = countingBytes(6 + 7 * 17);  // 125 bytes: 17 full consecutive frames
    h.transport.prepareData(payload.data(), payload.size());
    const std::vector<Bytes> frames = frontFrames(h.transport);
    ASSERT_EQ(frames.size(), 18u);
    EXPECT_EQ(frames[0], (Bytes{0x10, 0x7D, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05}));
    const std::vector<uint8_t> pci{0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28,
                                   0x29, 0x2A, 0x2B, 0x2C, 0x2D, 0x2E, 0x2F, 0x20};
    for (size_t i = 0; i < pci.size(); ++i) {
        EXPECT_EQ(frames[i + 1][0], pci[i]) << "consecutive frame " << i;
    }
    EXPECT_EQ(frames[17], (Bytes{0x20, 0x76, 0x77, 0x78, 0x79, 0x7A, 0x7B, 0x7C}));
}

TEST(FrameFormat, Payload4095AnnouncesFullTwelveBitLength) {
    TransportHarness h(0);
    const Bytes payload = countingBytes(4095);
    h.transport.prepareData(payload.data(), payload.size());
    const std::vector<Bytes> frames = frontFrames(h.transport);
    ASSERT_EQ(frames.size(), 586u);
    EXPECT_EQ(frames.front(), (Bytes{0x1F, 0xFF, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05}));
    EXPECT_EQ(frames.back(), (Bytes{0x28, 0xFE, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

TEST(FrameFormat, Payload4096AnnouncesZeroLengthAndIsStillSentWhole) {
    TransportHarness h(0);
    const Bytes payload = countingBytes(4096);
    h.transport.prepareData(payload.data(), payload.size());
    const std::vector<Bytes> frames = frontFrames(h.transport);
    ASSERT_EQ(frames.size(), 586u);
    EXPECT_EQ(frames.front(), (Bytes{0x10, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05}));
    EXPECT_EQ(frames[1], (Bytes{0x20, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C}));
    EXPECT_EQ(frames.back(), (Bytes{0x28, 0xFE, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00}));
    // All payload bytes are in the frames, in order.
    Bytes carried(frames[0].begin() + 2, frames[0].end());
    for (size_t i = 1; i < frames.size(); ++i) {
        carried.insert(carried.end(), frames[i].begin() + 1, frames[i].end());
    }
    carried.resize(4096);
    EXPECT_EQ(carried, payload);
}

TEST(FrameFormat, EmptyPayloadIsAllZeroFrameWhichReceiverClassifiesInvalid) {
    TransportHarness h(0);
    h.transport.prepareData(nullptr, 0);
    EXPECT_EQ(frontFrames(h.transport), (std::vector<Bytes>{
                                            {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},
                                        }));
    EXPECT_TRUE(h.expectFrame({0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(classifyFrame(0x00), CTP_FRAME_INVALID);
}

TEST(FrameFormat, EmptyPayloadSentToAnotherEndpointIsRefusedAsInvalid) {
    TransportHarness sender(0);
    sender.start();
    sender.sendPayload({});
    std::optional<ProxyFrame> f = sender.nextFrame(kEventWait);
    ASSERT_TRUE(f.has_value());
    ASSERT_EQ(f->data, (Bytes{0, 0, 0, 0, 0, 0, 0, 0}));

    TransportHarness receiver(0);
    receiver.start();
    receiver.sendFrame(f->data, f->canId);
    EXPECT_TRUE(receiver.expectFrame(kNotReady));
    EXPECT_TRUE(receiver.waitForLine(
        "[ERROR] CANTransportThread::showError() received single frame but expected first or "
        "single frame"));
    EXPECT_TRUE(receiver.expectNoPayload(std::chrono::milliseconds(50)));
}

// ---------------------------------------------------------------------------------------------
// Carriage to the CAN proxy

TEST(FrameFormat, FrameIsCarriedAsCanExtTraceMessageWithFixedFields) {
    TransportHarness h(0);
    TPCANMsg m = frame(0x7FF, 8, {0x21, 1, 2, 3, 4, 5, 6, 7});
    h.transport.sendCANMessage(m);
    std::optional<ProxyFrame> f = h.nextFrame(kEventWait);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->msgId, MSGID_CAN_EXT);
    EXPECT_EQ(f->timeStamp, 0u);
    EXPECT_EQ(f->channel, 0);
    EXPECT_EQ(f->frameKind, CF_STANDARD);
    EXPECT_EQ(f->status, 0);
    EXPECT_EQ(f->canType, CT_STANDARD);
    EXPECT_EQ(f->canId, 0x7FFu);
    EXPECT_EQ(f->data, (Bytes{0x21, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(FrameFormat, IdentifierAbove7FFLosesItsUpperBits) {
    TransportHarness h(0);
    TPCANMsg m = frame(0x800, 8, {0x30, 0, 0, 0, 0, 0, 0, 0});
    h.transport.sendCANMessage(m);
    TPCANMsg m2 = frame(0x1FE5, 8, {0x31, 0, 0, 0, 0, 0, 0, 0});
    h.transport.sendCANMessage(m2);
    std::optional<ProxyFrame> f = h.nextFrame(kEventWait);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->canId, 0u);
    f = h.nextFrame(kEventWait);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->canId, 0x7E5u);
}

TEST(FrameFormat, CarriedFrameHoldsTheFirstLenBytes) {
    TransportHarness h(0);
    TPCANMsg m = frame(0x100, 3, {0x0A, 0x0B, 0x0C, 0x0D});
    h.transport.sendCANMessage(m);
    std::optional<ProxyFrame> f = h.nextFrame(kEventWait);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->data, (Bytes{0x0A, 0x0B, 0x0C}));
}

TEST(FrameFormat, FlowControlWithSendIdAbove7FFReachesProxyWithCutIdentifier) {
    TransportHarness h(withSendId(0x08E0));
    h.start();
    h.sendFrame({0x01, 0x55, 0, 0, 0, 0, 0, 0});
    std::optional<ProxyFrame> f = h.nextFrame(kEventWait);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->canId, 0x0E0u);
    EXPECT_EQ(f->data, (Bytes{0x33, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(FrameFormat, SegmentedPayloadGoesOutWithSendIdAndFullLength) {
    TransportHarness h(0);
    h.start();
    h.sendPayload(countingBytes(14, 0x41));
    EXPECT_TRUE(h.expectFrame({0x10, 0x0E, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46}));
    h.sendFrame({0x31, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectFrame({0x20, 0x47, 0x48, 0x49, 0x4A, 0x4B, 0x4C, 0x4D}));
    EXPECT_TRUE(h.expectFrame({0x21, 0x4E, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
}
