// Hex text: the byte and number forms the tools and candump lines use.
#include <gtest/gtest.h>

#include <string>

#include "libqbutil/HexText.h"

TEST(HexText, EncodesUpperCasePairsWithoutSeparators) {
    EXPECT_EQ(HexText::encode(byteVec_t{0x00, 0x0A, 0x1B, 0xFF}), "000A1BFF");
    EXPECT_EQ(HexText::encode(byteVec_t{}), "");
}

TEST(HexText, NumberKeepsExactlyTheRequestedDigits) {
    EXPECT_EQ(HexText::number(0x7E0, 3), "7E0");
    EXPECT_EQ(HexText::number(0x123, 8), "00000123");
    EXPECT_EQ(HexText::number(0x18DAF110, 8), "18DAF110");
    EXPECT_EQ(HexText::number(0xABCD, 3), "BCD");
    EXPECT_EQ(HexText::number(0x4, 1), "4");
}

TEST(HexText, DigitValueTakesEitherCaseAndRefusesOtherCharacters) {
    EXPECT_EQ(HexText::digitValue('0'), 0);
    EXPECT_EQ(HexText::digitValue('9'), 9);
    EXPECT_EQ(HexText::digitValue('a'), 10);
    EXPECT_EQ(HexText::digitValue('F'), 15);
    EXPECT_EQ(HexText::digitValue('g'), -1);
    EXPECT_EQ(HexText::digitValue('.'), -1);
}

TEST(HexText, DecodesPairsWithOptionalBlanksAndDots) {
    byteVec_t bytes;
    std::string error;
    ASSERT_TRUE(HexText::decode("11.2233 aB", bytes, error));
    EXPECT_EQ(bytes, (byteVec_t{0x11, 0x22, 0x33, 0xAB}));
    ASSERT_TRUE(HexText::decode("", bytes, error));
    EXPECT_TRUE(bytes.empty());
}

TEST(HexText, RefusesOddDigitsAndNonHexWithAReason) {
    byteVec_t bytes;
    std::string error;
    EXPECT_FALSE(HexText::decode("123", bytes, error));
    EXPECT_EQ(error, "odd number of hex digits");
    EXPECT_FALSE(HexText::decode("1 23", bytes, error));
    EXPECT_EQ(error, "odd number of hex digits");
    EXPECT_FALSE(HexText::decode("zz", bytes, error));
    EXPECT_EQ(error, "not a hex digit 'z'");
    EXPECT_FALSE(HexText::decode("1z", bytes, error));
    EXPECT_EQ(error, "not a hex digit 'z'");
}
