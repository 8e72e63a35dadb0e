// CAN frame trace messages: data length codes, data copying limits, identifier masking, the
// status byte, printing and copying.

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libqbtrace/BufferMismatchException.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANProxyTraceMessage.h"
#include "libqbtrace/CANTraceMessage.h"
#include "trace/TraceTestSupport.h"

namespace {

std::vector<uint8_t> sequence(size_t n, uint8_t first = 1) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<uint8_t>(first + i);
    }
    return bytes;
}

CANExtTraceMessage frameWith(size_t numberOfDataBytes) {
    const std::vector<uint8_t> data = sequence(numberOfDataBytes);
    return CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD,
                              static_cast<uint8_t>(numberOfDataBytes), 0x123, data.data());
}

std::string printed(const MessageBase& msg) {
    std::ostringstream os;
    msg.print(os);
    return os.str();
}

}  // namespace

TEST(CanDlc, MapsByteCountsToDataLengthCodes) {
    EXPECT_EQ(0, CANTraceMessageBase::numDataBytes2dlc(0));
    EXPECT_EQ(8, CANTraceMessageBase::numDataBytes2dlc(8));
    EXPECT_EQ(9, CANTraceMessageBase::numDataBytes2dlc(9));
    EXPECT_EQ(9, CANTraceMessageBase::numDataBytes2dlc(12));
    EXPECT_EQ(10, CANTraceMessageBase::numDataBytes2dlc(13));
    EXPECT_EQ(12, CANTraceMessageBase::numDataBytes2dlc(24));
    EXPECT_EQ(13, CANTraceMessageBase::numDataBytes2dlc(25));
    EXPECT_EQ(13, CANTraceMessageBase::numDataBytes2dlc(32));
    EXPECT_EQ(14, CANTraceMessageBase::numDataBytes2dlc(33));
    EXPECT_EQ(14, CANTraceMessageBase::numDataBytes2dlc(48));
    EXPECT_EQ(15, CANTraceMessageBase::numDataBytes2dlc(49));
    EXPECT_EQ(15, CANTraceMessageBase::numDataBytes2dlc(64));
    EXPECT_EQ(15, CANTraceMessageBase::numDataBytes2dlc(200));
    EXPECT_EQ(15, CANTraceMessageBase::numDataBytes2dlc(255));
}

TEST(CanDlc, EveryCountBetweenTableEntriesGetsTheSmallestCodeThatHoldsIt) {
    // The CAN FD table, written out here: bytes per code 0..15.
    const unsigned bytesOfCode[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
    for (unsigned n = 0; n <= 64; ++n) {
        const unsigned dlc = CANTraceMessageBase::numDataBytes2dlc(static_cast<uint8_t>(n));
        ASSERT_LT(dlc, 16u) << "n=" << n;
        EXPECT_GE(bytesOfCode[dlc], n) << "n=" << n;
        if (dlc > 0) {
            EXPECT_LT(bytesOfCode[dlc - 1], n) << "n=" << n;
        }
    }
}

TEST(CanDlc, GetDlcUsesTheNumberOfDataBytes) {
    EXPECT_EQ(8, frameWith(8).getDlc());
    EXPECT_EQ(9, frameWith(9).getDlc());
    EXPECT_EQ(13, frameWith(30).getDlc());
    EXPECT_EQ(15, frameWith(64).getDlc());
}

TEST(CanDataBytes, NineBytesFitALimitOfNine) {
    const CANExtTraceMessage msg = frameWith(9);
    uint8_t dest[12];
    std::fill(std::begin(dest), std::end(dest), 0xEE);
    msg.getDataBytes(dest, 9);
    const std::vector<uint8_t> expected = {1, 2, 3, 4, 5, 6, 7, 8, 9, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(expected, std::vector<uint8_t>(std::begin(dest), std::end(dest)));
}

TEST(CanDataBytes, TenBytesIntoALimitOfNineThrowBufferMismatch) {
    const CANExtTraceMessage msg = frameWith(10);
    uint8_t dest[16];
    std::fill(std::begin(dest), std::end(dest), 0xEE);
    try {
        msg.getDataBytes(dest, 9);
        FAIL() << "no exception";
    } catch (const BufferMismatchException& e) {
        EXPECT_STREQ("CANTraceMessageBase too long", e.what());
    }
    // Nothing was copied.
    for (uint8_t b : dest) {
        EXPECT_EQ(0xEE, b);
    }
}

TEST(CanDataBytes, TwelveBytesIntoALimitOfNineThrowBufferMismatch) {
    const CANExtTraceMessage msg = frameWith(12);
    uint8_t dest[16];
    try {
        msg.getDataBytes(dest, 9);
        FAIL() << "no exception";
    } catch (const BufferMismatchException& e) {
        EXPECT_STREQ("CANTraceMessageBase too long", e.what());
    }
}

TEST(CanDataBytes, EightBytesIntoAnEightByteBufferCopyExactlyEight) {
    const CANExtTraceMessage msg = frameWith(8);
    uint8_t dest[10] = {0, 0, 0, 0, 0, 0, 0, 0, 0x55, 0x55};
    msg.getDataBytes(dest, 8);
    const std::vector<uint8_t> expected = {1, 2, 3, 4, 5, 6, 7, 8, 0x55, 0x55};
    EXPECT_EQ(expected, std::vector<uint8_t>(std::begin(dest), std::end(dest)));
}

TEST(CanDataBytes, ZeroBytesCopyNothingEvenIntoAZeroLimit) {
    const CANExtTraceMessage msg = frameWith(0);
    uint8_t dest[1] = {0x77};
    msg.getDataBytes(dest, 0);
    EXPECT_EQ(0x77, dest[0]);
}

TEST(CanDataBytes, SetDataBytesWithAHundredBytesStoresSixtyFour) {
    CANExtTraceMessage msg = frameWith(0);
    const std::vector<uint8_t> data = sequence(100);
    msg.setDataBytes(data.data(), data.size());
    EXPECT_EQ(64, msg.getNumberOfDataBytes());
    EXPECT_EQ(15, msg.getDlc());
    EXPECT_EQ(std::vector<uint8_t>(data.begin(), data.begin() + 64),
              std::vector<uint8_t>(msg.getData(), msg.getData() + 64));
}

TEST(CanDataBytes, ConstructorCutsTheDataToSixtyFourBytes) {
    const std::vector<uint8_t> data = sequence(200);
    const CANTraceMessage msg(0, 0, CF_STANDARD, CSE_NO, CT_FD_STANDARD, 200, 0x10, data.data());
    EXPECT_EQ(64, msg.getNumberOfDataBytes());
    EXPECT_EQ(9u + 64u, msg.getSize());
}

TEST(CanDataBytes, SetDataBytesWithZeroClearsTheData) {
    CANExtTraceMessage msg = frameWith(8);
    msg.setDataBytes(nullptr, 0);
    EXPECT_EQ(0, msg.getNumberOfDataBytes());
    EXPECT_EQ(9u, msg.getSize());
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(0, msg.getData()[i]);
    }
}

TEST(CanIdentifier, StandardIdentifierKeepsElevenBits) {
    const uint8_t data[8] = {0};
    const CANExtTraceMessage keep(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7FF, data);
    EXPECT_EQ(0x7FFu, keep.getCanId());
    const CANExtTraceMessage cut(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x800, data);
    EXPECT_EQ(0u, cut.getCanId());
    const CANExtTraceMessage high(0, 0, CF_STANDARD, CSE_NO, CT_FD_STANDARD, 8, 0xFFFF7E0, data);
    EXPECT_EQ(0x7E0u, high.getCanId());
}

TEST(CanIdentifier, ExtendedIdentifierKeepsTwentyNineBits) {
    const uint8_t data[8] = {0};
    const CANExtTraceMessage ext(0, 0, CF_STANDARD, CSE_NO, CT_EXTENDED, 8, 0xFFFFFFFF, data);
    EXPECT_EQ(0x1FFFFFFFu, ext.getCanId());
    const CANExtTraceMessage fd(0, 0, CF_STANDARD, CSE_NO, CT_FD_EXTENDED, 8, 0x3ABCDEF1, data);
    EXPECT_EQ(0x1ABCDEF1u, fd.getCanId());
    const CANExtTraceMessage fits(0, 0, CF_STANDARD, CSE_NO, CT_EXTENDED, 8, 0x800, data);
    EXPECT_EQ(0x800u, fits.getCanId());
}

TEST(CanIdentifier, FixCanIdMasksPerType) {
    EXPECT_EQ(0x7FFu, CANTraceMessageBase::fixCanId(0xFFFFFFFF, CT_STANDARD));
    EXPECT_EQ(0x7FFu, CANTraceMessageBase::fixCanId(0xFFFFFFFF, CT_FD_STANDARD));
    EXPECT_EQ(0x1FFFFFFFu, CANTraceMessageBase::fixCanId(0xFFFFFFFF, CT_EXTENDED));
    EXPECT_EQ(0x1FFFFFFFu, CANTraceMessageBase::fixCanId(0xFFFFFFFF, CT_FD_EXTENDED));
    EXPECT_EQ(0x123u, CANTraceMessageBase::fixCanId(0x123, CT_STANDARD));
}

TEST(CanStatus, ErrorStateGoesToTheLowNibbleAndFdFlagsToTheHighBits) {
    const uint8_t data[1] = {0};
    CANProxyTraceMessage msg(0, 1, CF_ERROR, CSE_CRC, CT_FD_STANDARD, 1, 0x1, data);
    EXPECT_EQ(0x06, msg.getStatus());
    EXPECT_EQ(CSE_CRC, msg.getStateError());
    EXPECT_FALSE(msg.getBitRateSwitch());
    EXPECT_FALSE(msg.getErrorStateIndicator());
    msg.setFdFlags(true, false);
    EXPECT_EQ(0x46, msg.getStatus());
    msg.setFdFlags(false, true);
    EXPECT_EQ(0x86, msg.getStatus());
    msg.setFdFlags(true, true);
    EXPECT_EQ(0xC6, msg.getStatus());
    EXPECT_EQ(CSE_CRC, msg.getStateError());
    msg.setFdFlags(false, false);
    EXPECT_EQ(0x06, msg.getStatus());
}

TEST(CanMessageIds, EachClassCarriesItsIdentifier) {
    const uint8_t data[1] = {0};
    EXPECT_EQ(MSGID_CAN,
              CANTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 1, 1, data).getMessageId());
    EXPECT_EQ(
        MSGID_CAN_EXT,
        CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 1, 1, data).getMessageId());
    EXPECT_EQ(
        MSGID_CAN_PROXY,
        CANProxyTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 1, 1, data).getMessageId());
}

TEST(CanPrint, ClassicFrameInOneLine) {
    const uint8_t data[8] = {0x02, 0x10, 0x03, 0, 0, 0, 0, 0};
    const CANExtTraceMessage msg(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7E0, data);
    EXPECT_EQ("CAN ch 0 id 0x7e0 STD dlc 8 len 8 data 02 10 03 00 00 00 00 00", printed(msg));
    std::ostringstream viaOperator;
    viaOperator << msg;
    EXPECT_EQ("CAN ch 0 id 0x7e0 STD dlc 8 len 8 data 02 10 03 00 00 00 00 00", viaOperator.str());
}

TEST(CanPrint, KindErrorStateAndFdFlagsAreShownWhenSet) {
    const uint8_t data[12] = {0xAB, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF};
    CANProxyTraceMessage msg(0, 3, CF_TXMESSAGE, CSE_STUFF, CT_FD_EXTENDED, 12, 0x1ABCDEF0, data);
    msg.setFdFlags(true, true);
    EXPECT_EQ(
        "CAN ch 3 id 0x1abcdef0 FD_EXT TX err STUFF BRS ESI dlc 9 len 12 data ab 01 02 03 "
        "04 05 06 07 08 09 0a ff",
        printed(msg));
    std::ostringstream viaOperator;
    viaOperator << msg;
    EXPECT_EQ(printed(msg), viaOperator.str());
}

TEST(CanPrint, EmptyFrameHasNoDataPart) {
    const CANTraceMessage msg(0, 1, CF_ERROR, CSE_OVERRUN, CT_EXTENDED, 0, 0x1234, nullptr);
    EXPECT_EQ("CAN ch 1 id 0x1234 EXT ERROR err OVERRUN dlc 0 len 0", printed(msg));
    std::ostringstream viaOperator;
    viaOperator << msg;
    EXPECT_EQ("CAN ch 1 id 0x1234 EXT ERROR err OVERRUN dlc 0 len 0", viaOperator.str());
}

TEST(CanPrint, RemainingKindAndStateNames) {
    const CANTraceMessage req(0, 0, CF_TXREQUEST, CSE_ACKNOWLEDGE, CT_FD_STANDARD, 0, 1, nullptr);
    EXPECT_EQ("CAN ch 0 id 0x1 FD_STD TXREQ err ACK dlc 0 len 0", printed(req));
    const CANTraceMessage fmt(0, 0, CF_STANDARD, CSE_FORMAT, CT_STANDARD, 0, 1, nullptr);
    EXPECT_EQ("CAN ch 0 id 0x1 STD err FORMAT dlc 0 len 0", printed(fmt));
    const CANTraceMessage b1(0, 0, CF_STANDARD, CSE_BIT1, CT_STANDARD, 0, 1, nullptr);
    EXPECT_EQ("CAN ch 0 id 0x1 STD err BIT1 dlc 0 len 0", printed(b1));
    const CANTraceMessage b0(0, 0, CF_STANDARD, CSE_BIT0, CT_STANDARD, 0, 1, nullptr);
    EXPECT_EQ("CAN ch 0 id 0x1 STD err BIT0 dlc 0 len 0", printed(b0));
    const CANTraceMessage crc(0, 0, CF_STANDARD, CSE_CRC, CT_STANDARD, 0, 1, nullptr);
    EXPECT_EQ("CAN ch 0 id 0x1 STD err CRC dlc 0 len 0", printed(crc));
}

TEST(CanPrint, KindAndErrorStateWithoutNamesPrintAsNumbers) {
    // The status nibble holds 16 values and the kind enumeration 8, not all of them named.
    const CANTraceMessage msg(0, 0, static_cast<canframe_t>(5), static_cast<canstaterr_t>(12),
                              CT_STANDARD, 0, 0x5, nullptr);
    EXPECT_EQ(12, msg.getStateError());
    EXPECT_EQ("CAN ch 0 id 0x5 STD kind 5 err 12 dlc 0 len 0", printed(msg));
}

TEST(CanPrint, LeavesTheStreamFlagsAlone) {
    const uint8_t data[1] = {0x1F};
    const CANExtTraceMessage msg(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 1, 0x10, data);
    std::ostringstream os;
    os << msg << ' ' << 31;
    EXPECT_EQ("CAN ch 0 id 0x10 STD dlc 1 len 1 data 1f 31", os.str());
}

TEST(CanClone, CloneIsAnEqualObjectOfTheSameClass) {
    const std::vector<uint8_t> data = sequence(20, 0x30);
    CANProxyTraceMessage msg(77, 2, CF_TXMESSAGE, CSE_BIT0, CT_FD_EXTENDED, 20, 0x1234567,
                             data.data());
    msg.setFdFlags(true, false);
    std::unique_ptr<MessageBase> copy(msg.clone());
    ASSERT_NE(nullptr, copy);
    qbtest::expectSameMessage(msg, *copy);

    const CANTraceMessage can(5, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 3, 0x7, data.data());
    std::unique_ptr<MessageBase> canCopy(can.clone());
    qbtest::expectSameMessage(can, *canCopy);

    const CANExtTraceMessage ext(6, 1, CF_ERROR, CSE_NO, CT_EXTENDED, 0, 0x7, nullptr);
    std::unique_ptr<MessageBase> extCopy(ext.clone());
    qbtest::expectSameMessage(ext, *extCopy);
}
