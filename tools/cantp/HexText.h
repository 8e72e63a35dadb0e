// Bytes as hexadecimal text, the way cantp reads and writes payloads.
#pragma once

#include <string>

#include "libqbutil/utility.h"

/// Hex pairs to bytes and back.
class HexText {
  public:
    /// Upper-case hex pairs without separators ("0A1B").
    static std::string encode(const byteVec_t& bytes);
    /// Reads hex pairs in either case; blanks and '.' may stand between bytes, never between the
    /// two digits of one byte. Empty text gives no bytes. On failure returns false and puts the
    /// reason (e.g. "odd number of hex digits") into `error`.
    static bool decode(const std::string& text, byteVec_t& bytes, std::string& error);
};
