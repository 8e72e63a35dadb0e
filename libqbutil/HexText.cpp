#include "libqbutil/HexText.h"

namespace {
const char kDigits[] = "0123456789ABCDEF";
}  // namespace

int HexText::digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::string HexText::encode(const uint8_t* bytes, size_t count) {
    std::string text;
    text.reserve(count * 2);
    for (size_t i = 0; i < count; ++i) {
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return text;
}

std::string HexText::encode(const byteVec_t& bytes) {
    return encode(bytes.data(), bytes.size());
}

std::string HexText::number(uint32_t value, unsigned digits) {
    std::string text;
    text.reserve(digits);
    for (unsigned i = digits; i > 0; --i) {
        text.push_back(kDigits[(value >> (4 * (i - 1))) & 0x0F]);
    }
    return text;
}

bool HexText::decode(const std::string& text, byteVec_t& bytes, std::string& error) {
    bytes.clear();
    size_t i = 0;
    while (i < text.size()) {
        const char c = text[i];
        if (c == ' ' || c == '\t' || c == '.') {
            ++i;
            continue;
        }
        const int high = digitValue(c);
        if (high < 0) {
            error = std::string("not a hex digit '") + c + "'";
            return false;
        }
        if (i + 1 >= text.size() || digitValue(text[i + 1]) < 0) {
            const bool atEnd = i + 1 >= text.size() || text[i + 1] == ' ' || text[i + 1] == '\t' ||
                               text[i + 1] == '.';
            error = atEnd ? "odd number of hex digits"
                          : std::string("not a hex digit '") + text[i + 1] + "'";
            return false;
        }
        bytes.push_back(static_cast<uint8_t>(high * 16 + digitValue(text[i + 1])));
        i += 2;
    }
    return true;
}
