// Every numeric limit of the CAN trace messages, each tested on both sides: the data length
// codes at each step of their table, the 64 bytes a message holds, the copy limit of
// getDataBytes() and the identifier width of each CAN type.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "libqbtrace/BufferMismatchException.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"

namespace {

CANExtTraceMessage messageWith(uint8_t count) {
    std::vector<uint8_t> data(64);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i + 1);
    }
    return CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, count, 0x123, data.data());
}

}  // namespace

TEST(CanDlcLimits, EachCodeEndsWhereTheNextBegins) {
    // Last count of a code, first count of the next.
    EXPECT_EQ(8, CANTraceMessageBase::numDataBytes2dlc(8));
    EXPECT_EQ(9, CANTraceMessageBase::numDataBytes2dlc(9));
    EXPECT_EQ(9, CANTraceMessageBase::numDataBytes2dlc(12));
    EXPECT_EQ(10, CANTraceMessageBase::numDataBytes2dlc(13));
    EXPECT_EQ(10, CANTraceMessageBase::numDataBytes2dlc(16));
    EXPECT_EQ(11, CANTraceMessageBase::numDataBytes2dlc(17));
    EXPECT_EQ(11, CANTraceMessageBase::numDataBytes2dlc(20));
    EXPECT_EQ(12, CANTraceMessageBase::numDataBytes2dlc(21));
    EXPECT_EQ(12, CANTraceMessageBase::numDataBytes2dlc(24));
    EXPECT_EQ(13, CANTraceMessageBase::numDataBytes2dlc(25));
    EXPECT_EQ(13, CANTraceMessageBase::numDataBytes2dlc(32));
    EXPECT_EQ(14, CANTraceMessageBase::numDataBytes2dlc(33));
    EXPECT_EQ(14, CANTraceMessageBase::numDataBytes2dlc(48));
    EXPECT_EQ(15, CANTraceMessageBase::numDataBytes2dlc(49));
    EXPECT_EQ(15, CANTraceMessageBase::numDataBytes2dlc(64));
    EXPECT_EQ(15, CANTraceMessageBase::numDataBytes2dlc(65));
    EXPECT_EQ(15, CANTraceMessageBase::numDataBytes2dlc(255));
}

TEST(CanDataLimits, MessageHoldsSixtyFourBytesButNotSixtyFive) {
    EXPECT_EQ(64, messageWith(64).getNumberOfDataBytes());
    EXPECT_EQ(64, messageWith(65).getNumberOfDataBytes());
    CANExtTraceMessage msg = messageWith(0);
    std::vector<uint8_t> data(65, 0xAB);
    msg.setDataBytes(data.data(), 64);
    EXPECT_EQ(64, msg.getNumberOfDataBytes());
    msg.setDataBytes(data.data(), 65);
    EXPECT_EQ(64, msg.getNumberOfDataBytes());
}

TEST(CanDataLimits, GetDataBytesCopiesUpToTheDestinationSizeAndRefusesOneMore) {
    uint8_t out[64] = {};
    messageWith(8).getDataBytes(out, 8);
    EXPECT_EQ(8, out[7]);
    EXPECT_THROW(messageWith(8).getDataBytes(out, 7), BufferMismatchException);
    messageWith(64).getDataBytes(out, 64);
    EXPECT_EQ(64, out[63]);
    EXPECT_THROW(messageWith(64).getDataBytes(out, 63), BufferMismatchException);
}

TEST(CanIdentifierLimits, StandardTypesKeepElevenBits) {
    EXPECT_EQ(0x7FFu, CANTraceMessageBase::fixCanId(0x7FF, CT_STANDARD));
    EXPECT_EQ(0x000u, CANTraceMessageBase::fixCanId(0x800, CT_STANDARD));
    EXPECT_EQ(0x7FFu, CANTraceMessageBase::fixCanId(0x7FF, CT_FD_STANDARD));
    EXPECT_EQ(0x000u, CANTraceMessageBase::fixCanId(0x800, CT_FD_STANDARD));
}

TEST(CanIdentifierLimits, ExtendedTypesKeepTwentyNineBits) {
    EXPECT_EQ(0x1FFFFFFFu, CANTraceMessageBase::fixCanId(0x1FFFFFFF, CT_EXTENDED));
    EXPECT_EQ(0x00000000u, CANTraceMessageBase::fixCanId(0x20000000, CT_EXTENDED));
    EXPECT_EQ(0x1FFFFFFFu, CANTraceMessageBase::fixCanId(0x1FFFFFFF, CT_FD_EXTENDED));
    EXPECT_EQ(0x00000000u, CANTraceMessageBase::fixCanId(0x20000000, CT_FD_EXTENDED));
}
