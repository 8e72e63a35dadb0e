// Bit lengths, CRC-15 values and stuff-bit counts of known classic CAN data frames.
//
// Every expected number below was worked out apart from the code under test: the frame was
// written out bit by bit (SOF, arbitration, control, data), the CRC-15 computed over those bits
// by polynomial long division with x^15 + 0x4599 and cross-checked with the shift-register form,
// the CRC appended, and the stuff bits counted by walking the sequence with the rule "after five
// equal bits insert the opposite bit, which starts the next run". Total = unstuffed bits + stuff
// bits + 13 (CRC delimiter, ACK slot, ACK delimiter, 7 EOF, 3 intermission). Unstuffed bits are
// 34 + 8 * len for a standard frame (1 + 11 + 1 + 1 + 1 + 4 + 15) and 54 + 8 * len for an
// extended one (1 + 11 + 1 + 1 + 18 + 1 + 1 + 1 + 4 + 15).
#include <gtest/gtest.h>

#include <random>

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "libqbcansim/CanFrameTiming.h"

namespace {

struct KnownFrame {
    uint32_t id;
    bool extended;
    std::vector<uint8_t> data;
    uint16_t crc;
    uint32_t stuffBits;
    uint32_t totalBits;
};

void expectFrame(const KnownFrame& f) {
    const uint8_t len = static_cast<uint8_t>(f.data.size());
    EXPECT_EQ(f.crc, CanFrameTiming::crc15(f.id, f.extended, f.data.data(), len));
    EXPECT_EQ(f.stuffBits, CanFrameTiming::stuffBitCount(f.id, f.extended, f.data.data(), len));
    EXPECT_EQ(f.totalBits, CanFrameTiming::frameBits(f.id, f.extended, f.data.data(), len));
}

std::vector<uint8_t> bitsOf(const char* text) {
    std::vector<uint8_t> bits;
    for (const char* p = text; *p != '\0'; ++p) {
        bits.push_back(static_cast<uint8_t>(*p == '1' ? 1 : 0));
    }
    return bits;
}

}  // namespace

TEST(CanFrameTiming, StandardFrameWithoutStuffBitsHas111Bits) {
    // 0x2AA and 0xAA bytes alternate levels everywhere; the CRC is 100001111010110 (0x43D6):
    // no run reaches five, so 34 + 64 + 13 = 111.
    expectFrame({0x2AA, false, {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}, 0x43D6, 0, 111});
}

TEST(CanFrameTiming, AllDominantStandardFrameWithoutData) {
    // SOF, identifier 0, RTR, IDE, r0, DLC 0 and CRC 0: 34 dominant bits in a row, stuffed after
    // bits 5, 10, 15, 20, 25 and 30: 34 + 6 + 13 = 53.
    expectFrame({0x000, false, {}, 0x0000, 6, 53});
}

TEST(CanFrameTiming, AllZeroDataFrameStuffsHeavily) {
    // 83 head bits, only the DLC's 1 breaks the zeros; CRC 0x145B: 16 stuff bits, 34+64+16+13.
    expectFrame({0x000, false, {0, 0, 0, 0, 0, 0, 0, 0}, 0x145B, 16, 127});
}

TEST(CanFrameTiming, WorstCaseStuffingThroughTheData) {
    // Identifier 0x02F, eight bytes 0x3C, CRC 0x07DF. The 98 bits from start of frame through
    // the CRC sequence, stuff bits in brackets:
    //   00000[1]0101111000100000[1]
    //   1111[0]0000[1] eight times (the data, and the first two CRC bits at the end)
    //   0011111[0]011111[0]
    // From the data on a stuff bit follows every four bits, the most there can be, and the last
    // one follows the last CRC bit. 34 + 64 + 20 + 13 = 131.
    expectFrame({0x02F, false, {0x3C, 0x3C, 0x3C, 0x3C, 0x3C, 0x3C, 0x3C, 0x3C}, 0x07DF, 20, 131});
}

TEST(CanFrameTiming, AllRecessiveStandardFrame) {
    expectFrame({0x7FF, false, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 0x4C89, 15, 126});
}

TEST(CanFrameTiming, StandardFrameWithFourBytes) {
    expectFrame({0x123, false, {0xDE, 0xAD, 0xBE, 0xEF}, 0x4E6B, 2, 81});
}

TEST(CanFrameTiming, StandardFrameWithEightBytes) {
    expectFrame({0x7E0, false, {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77}, 0x5390, 3, 114});
}

TEST(CanFrameTiming, StandardFrameWithOneStuffBit) {
    expectFrame({0x555, false, {0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}, 0x1B04, 1, 112});
}

TEST(CanFrameTiming, StandardFrameWithoutData) {
    expectFrame({0x7E8, false, {}, 0x7530, 3, 50});
}

TEST(CanFrameTiming, ExtendedFrameWithThreeBytes) {
    expectFrame({0x12345678, true, {0x02, 0x10, 0x03}, 0x7593, 5, 96});
}

TEST(CanFrameTiming, ExtendedFrameWithoutData) {
    expectFrame({0x00000000, true, {}, 0x4610, 7, 74});
}

TEST(CanFrameTiming, AllRecessiveExtendedFrame) {
    expectFrame(
        {0x1FFFFFFF, true, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 0x1B69, 18, 149});
}

TEST(CanFrameTiming, AllZeroExtendedFrameStuffsHeavily) {
    expectFrame({0x00000000, true, {0, 0, 0, 0, 0, 0, 0, 0}, 0x3DAF, 19, 150});
}

TEST(CanFrameTiming, HeadBitsOfStandardFrame) {
    // SOF 0, identifier 0x7E8 = 111 1110 1000, RTR 0, IDE 0, r0 0, DLC 0000.
    const std::vector<uint8_t> expected = bitsOf(
        "0"
        "11111101000"
        "0"
        "0"
        "0"
        "0000");
    uint8_t bits[CanFrameTiming::MAX_HEAD_BITS];
    const size_t n = CanFrameTiming::headBits(0x7E8, false, nullptr, 0, bits);
    EXPECT_EQ(expected, std::vector<uint8_t>(bits, bits + n));
}

TEST(CanFrameTiming, HeadBitsOfExtendedFrame) {
    // 0x12345678 = identifier A 0x48D (100 1000 1101) and identifier B 0x05678
    // (00 0101 0110 0111 1000); SRR 1, IDE 1, RTR 0, r1 0, r0 0, DLC 0001, data 0xA5.
    const std::vector<uint8_t> expected = bitsOf(
        "0"
        "10010001101"
        "1"
        "1"
        "000101011001111000"
        "0"
        "0"
        "0"
        "0001"
        "10100101");
    const uint8_t data = 0xA5;
    uint8_t bits[CanFrameTiming::MAX_HEAD_BITS];
    const size_t n = CanFrameTiming::headBits(0x12345678, true, &data, 1, bits);
    EXPECT_EQ(expected, std::vector<uint8_t>(bits, bits + n));
}

TEST(CanFrameTiming, Crc15OfSingleRecessiveBitIsThePolynomial) {
    const uint8_t one = 1;
    EXPECT_EQ(0x4599, CanFrameTiming::crc15(&one, 1));
    const uint8_t zero = 0;
    EXPECT_EQ(0x0000, CanFrameTiming::crc15(&zero, 1));
    EXPECT_EQ(0x0000, CanFrameTiming::crc15(nullptr, 0));
}

TEST(CanFrameTiming, StuffBitCountOfSequences) {
    const std::vector<uint8_t> fourAndFour = bitsOf("000010000");
    EXPECT_EQ(0u, CanFrameTiming::stuffBitCount(fourAndFour.data(), fourAndFour.size()));
    const std::vector<uint8_t> five = bitsOf("00000");
    EXPECT_EQ(1u, CanFrameTiming::stuffBitCount(five.data(), five.size()));
    const std::vector<uint8_t> ten = bitsOf("0000000000");
    EXPECT_EQ(2u, CanFrameTiming::stuffBitCount(ten.data(), ten.size()));
    // 00000 [1] 1111: the inserted 1 and four more 1s make five: [0] goes in after them.
    const std::vector<uint8_t> stuffBitCounts = bitsOf("000001111");
    EXPECT_EQ(2u, CanFrameTiming::stuffBitCount(stuffBitCounts.data(), stuffBitCounts.size()));
    // 00000 [1] 111: only four equal bits after the stuff bit.
    const std::vector<uint8_t> shortRun = bitsOf("00000111");
    EXPECT_EQ(1u, CanFrameTiming::stuffBitCount(shortRun.data(), shortRun.size()));
    const std::vector<uint8_t> alternating = bitsOf("0101010101");
    EXPECT_EQ(0u, CanFrameTiming::stuffBitCount(alternating.data(), alternating.size()));
}

TEST(CanFrameTiming, FrameTimeAtBitRates) {
    EXPECT_EQ(222000, CanFrameTiming::frameTimeNs(111, 500000));  // 2 us per bit
    EXPECT_EQ(111000, CanFrameTiming::frameTimeNs(111, 1000000));
    EXPECT_EQ(1192000, CanFrameTiming::frameTimeNs(149, 125000));  // 8 us per bit
    EXPECT_EQ(333333333, CanFrameTiming::frameTimeNs(1, 3));       // 333333333.3 rounds down
    EXPECT_EQ(666666667, CanFrameTiming::frameTimeNs(2, 3));       // 666666666.7 rounds up
    EXPECT_EQ(0, CanFrameTiming::frameTimeNs(0, 500000));
    // 2^32 - 1 bits at 1 bit/s: no overflow on any platform.
    EXPECT_EQ(INT64_C(4294967295000000000), CanFrameTiming::frameTimeNs(0xFFFFFFFFu, 1));
}

TEST(CanFrameTiming, RefusesBadArguments) {
    const uint8_t data[9] = {};
    EXPECT_THROW(CanFrameTiming::frameBits(0x123, false, data, 9), std::invalid_argument);
    EXPECT_THROW(CanFrameTiming::frameBits(0x800, false, data, 0), std::invalid_argument);
    EXPECT_THROW(CanFrameTiming::frameBits(0x20000000, true, data, 0), std::invalid_argument);
    EXPECT_THROW(CanFrameTiming::frameBits(0x123, false, nullptr, 1), std::invalid_argument);
    EXPECT_THROW(CanFrameTiming::frameTimeNs(100, 0), std::invalid_argument);
    EXPECT_NO_THROW(CanFrameTiming::frameBits(0x7FF, false, nullptr, 0));
    EXPECT_NO_THROW(CanFrameTiming::frameBits(0x1FFFFFFF, true, data, 8));
}

// frameBits() counts on packed bytes through tables; the bit-by-bit functions are the
// reference: both must agree on every frame, stuffing-heavy ones included.
TEST(CanFrameTiming, FrameBitsAgreesWithTheBitByBitCount) {
    std::mt19937 random(12345);
    const uint8_t patterns[] = {0x00, 0xFF, 0x0F, 0xF0, 0x55, 0xAA, 0x07, 0xF8};
    for (int round = 0; round < 20000; ++round) {
        const bool extended = round % 3 == 0;
        const uint32_t id = extended
                                ? static_cast<uint32_t>(random()) & CanFrameTiming::MAX_EXTENDED_ID
                                : static_cast<uint32_t>(random()) & CanFrameTiming::MAX_STANDARD_ID;
        const auto len = static_cast<uint8_t>(random() % 9);
        uint8_t data[8];
        for (auto& byte : data) {
            byte = round % 2 == 0 ? static_cast<uint8_t>(random())
                                  : patterns[random() % sizeof patterns];
        }
        uint8_t bits[CanFrameTiming::MAX_HEAD_BITS + 15];
        size_t n = CanFrameTiming::headBits(id, extended, data, len, bits);
        const uint16_t crc = CanFrameTiming::crc15(bits, n);
        for (unsigned b = 15; b > 0; --b) {
            bits[n++] = static_cast<uint8_t>((crc >> (b - 1)) & 1u);
        }
        const uint32_t expected = static_cast<uint32_t>(n) +
                                  CanFrameTiming::stuffBitCount(bits, n) +
                                  CanFrameTiming::TRAILER_BITS;
        ASSERT_EQ(CanFrameTiming::frameBits(id, extended, data, len), expected)
            << "id 0x" << std::hex << id << (extended ? " extended" : " standard") << std::dec
            << " len " << static_cast<unsigned>(len);
    }
}
