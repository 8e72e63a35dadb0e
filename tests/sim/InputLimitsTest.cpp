// Every numeric limit of the candump line, the simulated bus's configuration and the frame
// timing, each tested on both sides: the last value accepted and the first refused.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include "libqbcansim/CanFrameTiming.h"
#include "libqbcansim/CandumpLine.h"
#include "libqbcansim/SimulatedCanBus.h"

namespace {

bool parses(const std::string& text) {
    CandumpLine line;
    std::string error;
    return CandumpLine::parse(text, line, error);
}

std::string parseError(const std::string& text) {
    CandumpLine line;
    std::string error;
    EXPECT_FALSE(CandumpLine::parse(text, line, error)) << text;
    return error;
}

const std::string kStampTail =
    " is not \"(SEC.USEC)\" with 1 to 18 digits of seconds and 6 of microseconds";

CandumpLine frameLine(uint32_t id, bool extended, uint8_t length) {
    CandumpLine line;
    line.interfaceName = "can0";
    line.canId = id;
    line.extended = extended;
    line.length = length;
    return line;
}

}  // namespace

TEST(CandumpLineLimits, SecondsTakeOneDigitButNotNone) {
    EXPECT_TRUE(parses("(7.000000) can0 123#"));
    EXPECT_EQ("time stamp \"(.000000)\"" + kStampTail, parseError("(.000000) can0 123#"));
}

TEST(CandumpLineLimits, SecondsTakeEighteenDigitsButNotNineteen) {
    EXPECT_TRUE(parses("(100000000000000000.000000) can0 123#"));
    EXPECT_EQ("time stamp \"(1000000000000000000.000000)\"" + kStampTail,
              parseError("(1000000000000000000.000000) can0 123#"));
}

TEST(CandumpLineLimits, MicrosecondsTakeExactlySixDigits) {
    EXPECT_TRUE(parses("(1700000000.999999) can0 123#"));
    EXPECT_EQ("time stamp \"(1700000000.99999)\"" + kStampTail,
              parseError("(1700000000.99999) can0 123#"));
    EXPECT_EQ("time stamp \"(1700000000.9999990)\"" + kStampTail,
              parseError("(1700000000.9999990) can0 123#"));
}

TEST(CandumpLineLimits, StandardIdentifierIsThreeDigitsUpTo7FF) {
    EXPECT_TRUE(parses("can0 7FF#"));
    EXPECT_EQ("standard identifier \"800\" is above 7FF", parseError("can0 800#"));
    EXPECT_EQ("identifier \"7F\" has 2 hex digits: 3 (standard) or 8 (extended) expected",
              parseError("can0 7F#"));
    EXPECT_EQ("identifier \"07FF\" has 4 hex digits: 3 (standard) or 8 (extended) expected",
              parseError("can0 07FF#"));
}

TEST(CandumpLineLimits, ExtendedIdentifierIsEightDigitsUpTo1FFFFFFF) {
    EXPECT_TRUE(parses("can0 1FFFFFFF#"));
    EXPECT_EQ("extended identifier \"20000000\" is above 1FFFFFFF", parseError("can0 20000000#"));
    EXPECT_EQ("identifier \"1FFFFFF\" has 7 hex digits: 3 (standard) or 8 (extended) expected",
              parseError("can0 1FFFFFF#"));
    EXPECT_EQ("identifier \"01FFFFFFF\" has 9 hex digits: 3 (standard) or 8 (extended) expected",
              parseError("can0 01FFFFFFF#"));
}

TEST(CandumpLineLimits, DataTakesEightBytesButNotNine) {
    CandumpLine line;
    std::string error;
    ASSERT_TRUE(CandumpLine::parse("can0 123#0102030405060708", line, error)) << error;
    EXPECT_EQ(8, line.length);
    EXPECT_EQ(8, line.data[7]);
    EXPECT_EQ("data \"010203040506070809\" has 9 bytes: a classic CAN frame has at most 8",
              parseError("can0 123#010203040506070809"));
}

TEST(CandumpLineLimits, WrittenMicrosecondsGoUpTo999999) {
    CandumpLine line = frameLine(0x123, false, 0);
    line.hasTimestamp = true;
    line.seconds = 0;
    line.microseconds = 999999;
    EXPECT_EQ("(0000000000.999999) can0 123#", line.toString());
    line.microseconds = 1000000;
    EXPECT_THROW(line.toString(), std::invalid_argument);
}

TEST(CandumpLineLimits, WrittenSecondsStartAtZero) {
    CandumpLine line = frameLine(0x123, false, 0);
    line.hasTimestamp = true;
    line.seconds = 0;
    EXPECT_EQ("(0000000000.000000) can0 123#", line.toString());
    line.seconds = -1;
    EXPECT_THROW(line.toString(), std::invalid_argument);
}

TEST(CandumpLineLimits, WrittenFrameTakesEightBytesButNotNine) {
    EXPECT_EQ("123#0000000000000000", frameLine(0x123, false, 8).frameText());
    EXPECT_THROW(frameLine(0x123, false, 9).frameText(), std::invalid_argument);
    const uint8_t data[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ("(0000000001.000002) can0 123#0102030405060708",
              CandumpLine::format(1, 2, "can0", 0x123, false, data, 8));
    EXPECT_THROW(CandumpLine::format(1, 2, "can0", 0x123, false, data, 9), std::invalid_argument);
}

TEST(CandumpLineLimits, WrittenIdentifierFitsItsFormat) {
    EXPECT_EQ("7FF#", frameLine(0x7FF, false, 0).frameText());
    EXPECT_THROW(frameLine(0x800, false, 0).frameText(), std::invalid_argument);
    EXPECT_EQ("1FFFFFFF#", frameLine(0x1FFFFFFF, true, 0).frameText());
    EXPECT_THROW(frameLine(0x20000000, true, 0).frameText(), std::invalid_argument);
}

TEST(SimulatedCanBusLimits, BitRateOfOneIsAcceptedAndZeroIsNot) {
    SimulatedCanBus::Config cfg;
    cfg.bitrate = 1;
    EXPECT_NO_THROW(SimulatedCanBus{cfg});
    cfg.bitrate = 0;
    EXPECT_THROW(SimulatedCanBus{cfg}, std::invalid_argument);
}

TEST(SimulatedCanBusLimits, LossProbabilityFromZeroToOneInclusive) {
    SimulatedCanBus::Config cfg;
    cfg.lossProbability = 0.0;
    EXPECT_NO_THROW(SimulatedCanBus{cfg});
    cfg.lossProbability = 1.0;
    EXPECT_NO_THROW(SimulatedCanBus{cfg});
    cfg.lossProbability = std::nextafter(1.0, 2.0);
    EXPECT_THROW(SimulatedCanBus{cfg}, std::invalid_argument);
    cfg.lossProbability = -std::numeric_limits<double>::denorm_min();
    EXPECT_THROW(SimulatedCanBus{cfg}, std::invalid_argument);
    cfg.lossProbability = std::numeric_limits<double>::quiet_NaN();
    EXPECT_THROW(SimulatedCanBus{cfg}, std::invalid_argument);
}

TEST(SimulatedCanBusLimits, NodeDescriptorZeroIsAcceptedAndMinusOneIsNot) {
    SimulatedCanBus bus;
    EXPECT_THROW(bus.addNode(-1, "bad"), std::invalid_argument);
    // Descriptor 0 is a valid descriptor; nothing is written to it before the bus starts.
    EXPECT_EQ(0, bus.addNode(STDIN_FILENO, "stdin"));
}

TEST(CanFrameTimingLimits, EightDataBytesButNotNine) {
    const uint8_t data[9] = {};
    EXPECT_NO_THROW(CanFrameTiming::frameBits(0x123, false, data, 8));
    EXPECT_THROW(CanFrameTiming::frameBits(0x123, false, data, 9), std::invalid_argument);
}

TEST(CanFrameTimingLimits, IdentifierFitsItsWidth) {
    EXPECT_NO_THROW(CanFrameTiming::frameBits(0x7FF, false, nullptr, 0));
    EXPECT_THROW(CanFrameTiming::frameBits(0x800, false, nullptr, 0), std::invalid_argument);
    EXPECT_NO_THROW(CanFrameTiming::frameBits(0x1FFFFFFF, true, nullptr, 0));
    EXPECT_THROW(CanFrameTiming::frameBits(0x20000000, true, nullptr, 0), std::invalid_argument);
}

TEST(CanFrameTimingLimits, BitRateOfOneIsAcceptedAndZeroIsNot) {
    // The largest bit count at the lowest rate: 2^32 - 1 seconds, with no overflow.
    EXPECT_EQ(INT64_C(4294967295000000000), CanFrameTiming::frameTimeNs(UINT32_MAX, 1));
    EXPECT_THROW(CanFrameTiming::frameTimeNs(111, 0), std::invalid_argument);
}
