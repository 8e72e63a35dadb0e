#include "libqbcansim/CandumpLine.h"

#include "libqbutil/HexText.h"

#include <cstdio>
#include <stdexcept>
#include <vector>

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::vector<std::string> splitBlanks(const std::string& line) {
    std::vector<std::string> fields;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && isBlank(line[i])) {
            ++i;
        }
        const size_t begin = i;
        while (i < line.size() && !isBlank(line[i])) {
            ++i;
        }
        if (i > begin) {
            fields.push_back(line.substr(begin, i - begin));
        }
    }
    return fields;
}

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

// "(SEC.USEC)": 1 to 18 second digits (so that the value fits an int64_t), exactly 6
// microsecond digits.
bool parseTimestamp(const std::string& field, CandumpLine& out, std::string& error) {
    const size_t dot = field.find('.');
    const bool shaped = field.size() >= 2 && field.front() == '(' && field.back() == ')' &&
                        dot != std::string::npos && dot > 1 && dot < 20 &&
                        field.size() - dot - 2 == 6;
    bool digits = shaped;
    for (size_t i = 1; digits && i + 1 < field.size(); ++i) {
        digits = i == dot || (field[i] >= '0' && field[i] <= '9');
    }
    if (!digits) {
        error = "time stamp " + quoted(field) +
                " is not \"(SEC.USEC)\" with 1 to 18 digits of seconds and 6 of microseconds";
        return false;
    }
    int64_t sec = 0;
    for (size_t i = 1; i < dot; ++i) {
        sec = sec * 10 + (field[i] - '0');
    }
    uint32_t usec = 0;
    for (size_t i = dot + 1; i + 1 < field.size(); ++i) {
        usec = usec * 10 + static_cast<uint32_t>(field[i] - '0');
    }
    out.hasTimestamp = true;
    out.seconds = sec;
    out.microseconds = usec;
    return true;
}

bool parseId(const std::string& text, CandumpLine& out, std::string& error) {
    if (text.size() != 3 && text.size() != 8) {
        error = "identifier " + quoted(text) + " has " + std::to_string(text.size()) +
                " hex digits: 3 (standard) or 8 (extended) expected";
        return false;
    }
    uint32_t id = 0;
    for (char c : text) {
        const int v = HexText::digitValue(c);
        if (v < 0) {
            error = "identifier " + quoted(text) + " is not hexadecimal";
            return false;
        }
        id = (id << 4) | static_cast<uint32_t>(v);
    }
    const bool extended = text.size() == 8;
    if (!extended && id > 0x7FF) {
        error = "standard identifier " + quoted(text) + " is above 7FF";
        return false;
    }
    if (extended && id > 0x1FFFFFFF) {
        error = "extended identifier " + quoted(text) + " is above 1FFFFFFF";
        return false;
    }
    out.canId = id;
    out.extended = extended;
    return true;
}

bool parseData(const std::string& text, CandumpLine& out, std::string& error) {
    size_t digits = 0;
    for (char c : text) {
        if (c == '.') {
            continue;
        }
        if (HexText::digitValue(c) < 0) {
            error = "data " + quoted(text) + " has a character that is neither a hex digit nor '.'";
            return false;
        }
        ++digits;
    }
    if (digits % 2 != 0) {
        error = "data " + quoted(text) + " has an odd number of hex digits";
        return false;
    }
    if (digits / 2 > 8) {
        error = "data " + quoted(text) + " has " + std::to_string(digits / 2) +
                " bytes: a classic CAN frame has at most 8";
        return false;
    }
    uint8_t length = 0;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == '.') {
            ++i;
            continue;
        }
        // A byte is two adjacent digits: the digit count is even, so a lone digit here means a
        // '.' splits this byte.
        if (i + 1 >= text.size() || text[i + 1] == '.') {
            error = "data " + quoted(text) + " has a '.' inside a byte";
            return false;
        }
        out.data[length++] = static_cast<uint8_t>(HexText::digitValue(text[i]) * 16 +
                                                  HexText::digitValue(text[i + 1]));
        i += 2;
    }
    out.length = length;
    for (size_t i = length; i < out.data.size(); ++i) {
        out.data[i] = 0;
    }
    return true;
}

}  // namespace

std::string CandumpLine::identifierText() const {
    return HexText::number(canId, extended ? 8 : 3);
}

bool CandumpLine::parseFrame(const std::string& text, CandumpLine& out, std::string& error) {
    const size_t hash = text.find('#');
    if (hash == std::string::npos) {
        error = "frame " + quoted(text) + " has no '#' between identifier and data";
        return false;
    }
    const std::string rest = text.substr(hash + 1);
    if (!rest.empty() && rest[0] == '#') {
        error = quoted(text) + " is a CAN FD frame, not a classic CAN data frame";
        return false;
    }
    if (!rest.empty() && (rest[0] == 'R' || rest[0] == 'r')) {
        error = quoted(text) + " is a remote frame, not a classic CAN data frame";
        return false;
    }
    return parseId(text.substr(0, hash), out, error) && parseData(rest, out, error);
}

bool CandumpLine::parse(const std::string& line, CandumpLine& out, std::string& error) {
    std::vector<std::string> fields = splitBlanks(line);
    if (fields.empty()) {
        error = "empty line";
        return false;
    }
    CandumpLine result;
    size_t next = 0;
    if (fields[0][0] == '(') {
        if (!parseTimestamp(fields[0], result, error)) {
            return false;
        }
        next = 1;
    }
    const size_t left = fields.size() - next;
    if (left == 3 && (fields.back() == "R" || fields.back() == "T")) {
        result.direction = fields.back()[0];
        fields.pop_back();
    } else if (left != 2) {
        error = "expected \"(SEC.USEC) IFACE ID#DATA\" or \"IFACE ID#DATA\", got " + quoted(line);
        return false;
    }
    result.interfaceName = fields[next];
    if (!parseFrame(fields[next + 1], result, error)) {
        return false;
    }
    out = result;
    return true;
}

std::string CandumpLine::frameText() const {
    if (length > 8) {
        throw std::invalid_argument(
            "CandumpLine: a classic CAN frame has at most 8 data bytes, not " +
            std::to_string(length));
    }
    if (canId > (extended ? 0x1FFFFFFFu : 0x7FFu)) {
        throw std::invalid_argument("CandumpLine: identifier " + std::to_string(canId) +
                                    " is too wide for its format");
    }
    std::string s = identifierText();
    s += '#';
    s += HexText::encode(data.data(), length);
    return s;
}

std::string CandumpLine::toString() const {
    std::string s;
    if (hasTimestamp) {
        if (seconds < 0 || microseconds > 999999) {
            throw std::invalid_argument("CandumpLine: time stamp out of range");
        }
        char stamp[40];
        std::snprintf(stamp, sizeof stamp, "(%010lld.%06lu) ", static_cast<long long>(seconds),
                      static_cast<unsigned long>(microseconds));
        s += stamp;
    }
    if (!interfaceName.empty()) {
        s += interfaceName;
        s += ' ';
    }
    s += frameText();
    if (direction != '\0') {
        s += ' ';
        s += direction;
    }
    return s;
}

std::string CandumpLine::format(int64_t seconds, uint32_t microseconds,
                                const std::string& interfaceName, uint32_t canId, bool extended,
                                const uint8_t* data, uint8_t length) {
    CandumpLine line;
    line.hasTimestamp = true;
    line.seconds = seconds;
    line.microseconds = microseconds;
    line.interfaceName = interfaceName;
    line.canId = canId;
    line.extended = extended;
    if (length > line.data.size()) {
        throw std::invalid_argument(
            "CandumpLine: a classic CAN frame has at most 8 data bytes, not " +
            std::to_string(length));
    }
    if (length > 0 && data == nullptr) {
        throw std::invalid_argument("CandumpLine: null data with a non-zero length");
    }
    line.length = length;
    for (uint8_t i = 0; i < length; ++i) {
        line.data[i] = data[i];
    }
    return line.toString();
}
