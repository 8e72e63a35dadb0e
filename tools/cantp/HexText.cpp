#include "HexText.h"

namespace {
int hexValue(char c) {
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
}  // namespace

std::string HexText::encode(const byteVec_t& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        text.push_back(digits[b >> 4]);
        text.push_back(digits[b & 0x0F]);
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
        const int high = hexValue(c);
        if (high < 0) {
            error = std::string("not a hex digit '") + c + "'";
            return false;
        }
        if (i + 1 >= text.size() || hexValue(text[i + 1]) < 0) {
            const bool atEnd = i + 1 >= text.size() || text[i + 1] == ' ' || text[i + 1] == '\t' ||
                               text[i + 1] == '.';
            error = atEnd ? "odd number of hex digits"
                          : std::string("not a hex digit '") + text[i + 1] + "'";
            return false;
        }
        bytes.push_back(static_cast<uint8_t>(high * 16 + hexValue(text[i + 1])));
        i += 2;
    }
    return true;
}
