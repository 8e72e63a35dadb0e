// The candump log line: exact written text, and what the reader accepts and refuses.
#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>

#include "libqbcansim/CandumpLine.h"

namespace {

CandumpLine mustParse(const std::string& text) {
    CandumpLine line;
    std::string error;
    EXPECT_TRUE(CandumpLine::parse(text, line, error)) << text << ": " << error;
    return line;
}

std::string parseError(const std::string& text) {
    CandumpLine line;
    std::string error;
    EXPECT_FALSE(CandumpLine::parse(text, line, error)) << text;
    return error;
}

std::array<uint8_t, 8> bytes(std::initializer_list<uint8_t> values) {
    std::array<uint8_t, 8> a{};
    size_t i = 0;
    for (uint8_t v : values) {
        a[i++] = v;
    }
    return a;
}

}  // namespace

TEST(CandumpLineFormat, StandardFrameWithEightBytes) {
    const uint8_t data[] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    EXPECT_EQ("(1700000000.123456) can0 7E0#0211223344556677",
              CandumpLine::format(1700000000, 123456, "can0", 0x7E0, false, data, 8));
}

TEST(CandumpLineFormat, StandardFrameWithoutData) {
    EXPECT_EQ("(1700000000.123789) can0 7E8#",
              CandumpLine::format(1700000000, 123789, "can0", 0x7E8, false, nullptr, 0));
}

TEST(CandumpLineFormat, ExtendedFrame) {
    const uint8_t data[] = {0x02, 0x10, 0x03};
    EXPECT_EQ("(1700000000.200000) can0 12345678#021003",
              CandumpLine::format(1700000000, 200000, "can0", 0x12345678, true, data, 3));
}

TEST(CandumpLineFormat, PadsSecondsAndMicrosecondsAndIdentifiers) {
    const uint8_t data[] = {0x0A, 0xBC};
    EXPECT_EQ("(0000000042.000007) vcan1 001#0ABC",
              CandumpLine::format(42, 7, "vcan1", 0x001, false, data, 2));
    EXPECT_EQ("(0000000042.000007) vcan1 00000001#",
              CandumpLine::format(42, 7, "vcan1", 0x001, true, data, 0));
}

TEST(CandumpLineFormat, WithoutTimestampInterfaceOrWithDirection) {
    CandumpLine line;
    line.canId = 0x123;
    line.length = 4;
    line.data = bytes({0xDE, 0xAD, 0xBE, 0xEF});
    EXPECT_EQ("123#DEADBEEF", line.toString());
    line.interfaceName = "can0";
    EXPECT_EQ("can0 123#DEADBEEF", line.toString());
    line.direction = 'T';
    EXPECT_EQ("can0 123#DEADBEEF T", line.toString());
}

TEST(CandumpLineFormat, RefusesWhatIsNotAClassicFrame) {
    const uint8_t data[9] = {};
    EXPECT_THROW(CandumpLine::format(1, 0, "can0", 0x123, false, data, 9), std::invalid_argument);
    EXPECT_THROW(CandumpLine::format(1, 0, "can0", 0x800, false, data, 0), std::invalid_argument);
    EXPECT_THROW(CandumpLine::format(1, 0, "can0", 0x20000000, true, data, 0),
                 std::invalid_argument);
    EXPECT_THROW(CandumpLine::format(1, 1000000, "can0", 0x1, false, data, 0),
                 std::invalid_argument);
    EXPECT_THROW(CandumpLine::format(-1, 0, "can0", 0x1, false, data, 0), std::invalid_argument);
}

TEST(CandumpLineParse, TimestampedLine) {
    const CandumpLine line = mustParse("(1700000000.123456) can0 7E0#0211223344556677");
    EXPECT_TRUE(line.hasTimestamp);
    EXPECT_EQ(1700000000, line.seconds);
    EXPECT_EQ(123456u, line.microseconds);
    EXPECT_EQ("can0", line.interfaceName);
    EXPECT_EQ(0x7E0u, line.canId);
    EXPECT_FALSE(line.extended);
    EXPECT_EQ(8, line.length);
    EXPECT_EQ(bytes({0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77}), line.data);
    EXPECT_EQ('\0', line.direction);
}

TEST(CandumpLineParse, LineWithoutTimestamp) {
    const CandumpLine line = mustParse("vcan0 123#DEADBEEF");
    EXPECT_FALSE(line.hasTimestamp);
    EXPECT_EQ("vcan0", line.interfaceName);
    EXPECT_EQ(0x123u, line.canId);
    EXPECT_EQ(4, line.length);
    EXPECT_EQ(bytes({0xDE, 0xAD, 0xBE, 0xEF}), line.data);
}

TEST(CandumpLineParse, EmptyData) {
    const CandumpLine line = mustParse("(1700000000.123789) can0 7E8#");
    EXPECT_EQ(0x7E8u, line.canId);
    EXPECT_EQ(0, line.length);
    EXPECT_EQ(bytes({}), line.data);
}

TEST(CandumpLineParse, DigitCountNotValueDecidesTheFormat) {
    const CandumpLine ext = mustParse("can0 00000123#");
    EXPECT_TRUE(ext.extended);
    EXPECT_EQ(0x123u, ext.canId);
    const CandumpLine std3 = mustParse("can0 001#");
    EXPECT_FALSE(std3.extended);
    EXPECT_EQ(0x001u, std3.canId);
    const CandumpLine big = mustParse("(1700000000.200000) can0 12345678#021003");
    EXPECT_TRUE(big.extended);
    EXPECT_EQ(0x12345678u, big.canId);
    EXPECT_EQ(3, big.length);
}

TEST(CandumpLineParse, LowerCaseAndDotSeparatedData) {
    const CandumpLine line = mustParse("can0 7e0#de.adBE.ef");
    EXPECT_EQ(0x7E0u, line.canId);
    EXPECT_EQ(4, line.length);
    EXPECT_EQ(bytes({0xDE, 0xAD, 0xBE, 0xEF}), line.data);
    EXPECT_EQ(bytes({0x11, 0x22, 0x33}), mustParse("can0 123#11.2233").data);
    EXPECT_EQ(bytes({0x11}), mustParse("can0 123#.11.").data);
    EXPECT_EQ(0x1abcdef0u, mustParse("can0 1abcdef0#").canId);
}

TEST(CandumpLineParse, RunsOfBlanksTabsAndLineEnds) {
    const CandumpLine line = mustParse("  (1700000000.000001)    vcan10\t 7E0#01  \r\n");
    EXPECT_EQ("vcan10", line.interfaceName);
    EXPECT_EQ(1u, line.microseconds);
    EXPECT_EQ(1, line.length);
}

TEST(CandumpLineParse, AnyNumberOfSecondDigits) {
    EXPECT_EQ(0, mustParse("(0.000000) can0 123#").seconds);
    EXPECT_EQ(12, mustParse("(12.500000) can0 123#").seconds);
    EXPECT_EQ(INT64_C(999999999999999999),
              mustParse("(999999999999999999.000000) can0 123#").seconds);
}

TEST(CandumpLineParse, DirectionSuffix) {
    EXPECT_EQ('R', mustParse("(1700000000.123456) can0 123#11 R").direction);
    EXPECT_EQ('T', mustParse("can0 123#11 T").direction);
}

TEST(CandumpLineParse, RoundTripsWrittenLines) {
    for (const char* text :
         {"(1700000000.123456) can0 7E0#0211223344556677", "(1700000000.123789) can0 7E8#",
          "(1700000000.200000) can0 12345678#021003",
          "(0000000001.000000) vcan3 00000000#0000000000000000"}) {
        EXPECT_EQ(text, mustParse(text).toString());
    }
}

TEST(CandumpLineParse, RefusesRemoteFrames) {
    EXPECT_EQ("\"123#R\" is a remote frame, not a classic CAN data frame",
              parseError("can0 123#R"));
    EXPECT_EQ("\"123#R5\" is a remote frame, not a classic CAN data frame",
              parseError("(1700000000.123456) can0 123#R5"));
}

TEST(CandumpLineParse, RefusesCanFdFrames) {
    EXPECT_EQ("\"123##1DEADBEEF\" is a CAN FD frame, not a classic CAN data frame",
              parseError("(1700000000.123456) can0 123##1DEADBEEF"));
}

TEST(CandumpLineParse, RefusesOddDigitCount) {
    EXPECT_EQ("data \"123\" has an odd number of hex digits", parseError("can0 7E0#123"));
    EXPECT_EQ("data \"1.23\" has an odd number of hex digits", parseError("can0 7E0#1.23"));
}

TEST(CandumpLineParse, RefusesDotInsideAByte) {
    EXPECT_EQ("data \"1.2\" has a '.' inside a byte", parseError("can0 7E0#1.2"));
    EXPECT_EQ("data \"12.3.4\" has a '.' inside a byte", parseError("can0 7E0#12.3.4"));
}

TEST(CandumpLineParse, RefusesMoreThanEightBytes) {
    EXPECT_EQ("data \"001122334455667788\" has 9 bytes: a classic CAN frame has at most 8",
              parseError("can0 7E0#001122334455667788"));
}

TEST(CandumpLineParse, RefusesNonHexData) {
    EXPECT_EQ("data \"12G4\" has a character that is neither a hex digit nor '.'",
              parseError("can0 7E0#12G4"));
}

TEST(CandumpLineParse, RefusesIdentifiersOfOtherWidths) {
    EXPECT_EQ("identifier \"12\" has 2 hex digits: 3 (standard) or 8 (extended) expected",
              parseError("can0 12#00"));
    EXPECT_EQ("identifier \"0123\" has 4 hex digits: 3 (standard) or 8 (extended) expected",
              parseError("can0 0123#00"));
    EXPECT_EQ("identifier \"\" has 0 hex digits: 3 (standard) or 8 (extended) expected",
              parseError("can0 #00"));
}

TEST(CandumpLineParse, RefusesIdentifiersOutOfRange) {
    EXPECT_EQ("standard identifier \"800\" is above 7FF", parseError("can0 800#"));
    EXPECT_EQ("extended identifier \"20000000\" is above 1FFFFFFF", parseError("can0 20000000#"));
    EXPECT_EQ("identifier \"12X\" is not hexadecimal", parseError("can0 12X#"));
}

TEST(CandumpLineParse, RefusesMalformedTimestamps) {
    const std::string tail =
        " is not \"(SEC.USEC)\" with 1 to 18 digits of seconds and 6 of microseconds";
    EXPECT_EQ("time stamp \"(1700000000.12345)\"" + tail,
              parseError("(1700000000.12345) can0 123#"));
    EXPECT_EQ("time stamp \"(1700000000)\"" + tail, parseError("(1700000000) can0 123#"));
    EXPECT_EQ("time stamp \"(.123456)\"" + tail, parseError("(.123456) can0 123#"));
    EXPECT_EQ("time stamp \"(17x0.123456)\"" + tail, parseError("(17x0.123456) can0 123#"));
    EXPECT_EQ("time stamp \"(1700000000.123456\"" + tail,
              parseError("(1700000000.123456 can0 123#"));
    EXPECT_EQ("time stamp \"(1234567890123456789.000000)\"" + tail,
              parseError("(1234567890123456789.000000) can0 123#"));
}

TEST(CandumpLineParse, RefusesLinesOfOtherShapes) {
    EXPECT_EQ("empty line", parseError(""));
    EXPECT_EQ("empty line", parseError("   \r\n"));
    EXPECT_EQ("expected \"(SEC.USEC) IFACE ID#DATA\" or \"IFACE ID#DATA\", got \"123#11\"",
              parseError("123#11"));
    EXPECT_EQ(
        "expected \"(SEC.USEC) IFACE ID#DATA\" or \"IFACE ID#DATA\", got "
        "\"(1700000000.123456) 123#11\"",
        parseError("(1700000000.123456) 123#11"));
    EXPECT_EQ(
        "expected \"(SEC.USEC) IFACE ID#DATA\" or \"IFACE ID#DATA\", got "
        "\"can0 123#11 X\"",
        parseError("can0 123#11 X"));
    EXPECT_EQ("frame \"12311\" has no '#' between identifier and data", parseError("can0 12311"));
}

TEST(CandumpLineParseFrame, CansendSyntax) {
    CandumpLine line;
    line.interfaceName = "kept";
    std::string error;
    ASSERT_TRUE(CandumpLine::parseFrame("123#DEADBEEF", line, error)) << error;
    EXPECT_EQ(0x123u, line.canId);
    EXPECT_FALSE(line.extended);
    EXPECT_EQ(4, line.length);
    EXPECT_EQ(bytes({0xDE, 0xAD, 0xBE, 0xEF}), line.data);
    EXPECT_EQ("kept", line.interfaceName);
    ASSERT_TRUE(CandumpLine::parseFrame("1F334455#1122334455667788", line, error)) << error;
    EXPECT_TRUE(line.extended);
    EXPECT_EQ(0x1F334455u, line.canId);
    EXPECT_EQ(8, line.length);
    EXPECT_FALSE(CandumpLine::parseFrame("123#R", line, error));
    EXPECT_EQ("\"123#R\" is a remote frame, not a classic CAN data frame", error);
}

TEST(CandumpLineParseFrame, ShorterDataClearsOldBytes) {
    CandumpLine line;
    std::string error;
    ASSERT_TRUE(CandumpLine::parseFrame("123#1122334455667788", line, error));
    ASSERT_TRUE(CandumpLine::parseFrame("123#AA", line, error));
    EXPECT_EQ(1, line.length);
    EXPECT_EQ(bytes({0xAA}), line.data);
}
