// Bytes and numbers as hexadecimal text, the way the tools and the candump lines write them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "libqbutil/utility.h"

/// Hex pairs to bytes and back, and fixed-width hex numbers. Pure functions, thread-safe.
class HexText {
  public:
    /// Upper-case hex pairs without separators ("0A1B").
    static std::string encode(const byteVec_t& bytes);
    static std::string encode(const uint8_t* bytes, size_t count);
    /// `value` as exactly `digits` upper-case hex digits (the low 4 * digits bits).
    static std::string number(uint32_t value, unsigned digits);
    /// The value of one hex digit in either case, or -1 for any other character.
    static int digitValue(char c);
    /// Reads hex pairs in either case; blanks and '.' may stand between bytes, never between the
    /// two digits of one byte. Empty text gives no bytes. On failure returns false and puts the
    /// reason (e.g. "odd number of hex digits") into `error`.
    static bool decode(const std::string& text, byteVec_t& bytes, std::string& error);
};
