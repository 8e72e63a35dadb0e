#include "ArgumentReader.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

ArgumentReader::ArgumentReader(int argcIn, char** argvIn, int first)
    : argc(argcIn), argv(argvIn), index(first) {}

std::string ArgumentReader::current() const {
    return done() ? std::string() : argv[index];
}

std::string ArgumentReader::take() {
    return done() ? std::string() : argv[index++];
}

bool ArgumentReader::option(const char* longName, const char* shortName, std::string& value) {
    if (done()) {
        return false;
    }
    const std::string arg = argv[index];
    const size_t longLength = std::strlen(longName);
    if (arg.compare(0, longLength, longName) == 0 && arg.size() > longLength &&
        arg[longLength] == '=') {
        value = arg.substr(longLength + 1);
        ++index;
        return true;
    }
    if (arg != longName && (shortName == nullptr || arg != shortName)) {
        return false;
    }
    if (index + 1 >= argc) {
        throw UsageError("option " + arg + " needs a value");
    }
    value = argv[index + 1];
    index += 2;
    return true;
}

bool ArgumentReader::flag(const char* longName, const char* shortName) {
    if (done()) {
        return false;
    }
    const std::string arg = argv[index];
    if (arg == longName || (shortName != nullptr && arg == shortName)) {
        ++index;
        return true;
    }
    return false;
}

bool ArgumentReader::parseUnsigned(const std::string& text, uint64_t max, uint64_t& value) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') {
        return false;
    }
    int base = 10;
    std::string digits = text;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        digits = text.substr(2);
    }
    if (digits.empty()) {
        return false;
    }
    for (char c : digits) {
        const bool ok = base == 16 ? std::isxdigit(static_cast<unsigned char>(c)) != 0
                                   : std::isdigit(static_cast<unsigned char>(c)) != 0;
        if (!ok) {
            return false;
        }
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long parsed = std::strtoull(digits.c_str(), &end, base);
    if (errno == ERANGE || end == nullptr || *end != '\0' || parsed > max) {
        return false;
    }
    value = parsed;
    return true;
}

uint64_t ArgumentReader::toUnsigned(const std::string& what, const std::string& text,
                                    uint64_t max) {
    uint64_t value = 0;
    if (!parseUnsigned(text, max, value)) {
        throw UsageError(what + " must be a number from 0 to " + std::to_string(max) +
                         " (decimal, or hexadecimal with 0x), not '" + text + "'");
    }
    return value;
}

int ArgumentReader::toInt(const std::string& what, const std::string& text, int min, int max) {
    const bool negative = !text.empty() && text[0] == '-';
    uint64_t magnitude = 0;
    const uint64_t limit = negative ? static_cast<uint64_t>(-static_cast<int64_t>(min))
                                    : static_cast<uint64_t>(max < 0 ? 0 : max);
    if ((negative && min >= 0) ||
        !parseUnsigned(negative ? text.substr(1) : text, limit, magnitude)) {
        throw UsageError(what + " must be a number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", not '" + text + "'");
    }
    return negative ? -static_cast<int>(magnitude) : static_cast<int>(magnitude);
}

double ArgumentReader::toDouble(const std::string& what, const std::string& text, double min,
                                double max) {
    errno = 0;
    char* end = nullptr;
    const double value = text.empty() ? NAN : std::strtod(text.c_str(), &end);
    if (text.empty() || errno == ERANGE || end == nullptr || *end != '\0' || std::isnan(value) ||
        value < min || value > max) {
        throw UsageError(what + " must be a number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", not '" + text + "'");
    }
    return value;
}
