// Fuzz target: the input-line parser of `cantp endpoint` (EndpointLine), with the candump frame
// parser (CandumpLine) and the number parsing of ArgumentReader behind it.
//
// Input: text; each '\n'-separated line is parsed on its own.
//
// Checked for every line: no crash, no exception out of the parser; blank and '#' lines give
// NOTHING and nothing else does; a SEND payload has at most half as many bytes as the line has
// characters; a DEBUG level lies in -1000..1000; a FRAME is a classic data frame (at most 8
// bytes, a standard identifier of at most 0x7FF, an extended one of at most 0x1FFFFFFF, a
// microsecond field below 1000000) and the line CandumpLine writes for it parses back into the
// same frame; a line that ArgumentReader::parseUnsigned() accepts reads back as the same number
// when written in decimal.
#include <cstdint>
#include <string>

#include "ArgumentReader.h"
#include "EndpointLine.h"
#include "FuzzSupport.h"
#include "libqbcansim/CandumpLine.h"

namespace {

std::string frameFields(const CandumpLine& f) {
    std::string s = std::to_string(f.hasTimestamp) + " " + std::to_string(f.seconds) + "." +
                    std::to_string(f.microseconds) + " [" + f.interfaceName + "] " +
                    std::to_string(f.canId) + (f.extended ? "x" : "s") + " " +
                    std::to_string(f.length) + ":";
    for (unsigned i = 0; i < f.length && i < f.data.size(); ++i) {
        s += " " + std::to_string(f.data[i]);
    }
    s += " dir " + std::to_string(static_cast<int>(f.direction));
    return s;
}

bool blankOrComment(const std::string& line) {
    const size_t begin = line.find_first_not_of(" \t\r");
    return begin == std::string::npos || line[begin] == '#';
}

void checkLine(const std::string& line) {
    const EndpointLine parsed = EndpointLine::parse(line);
    QB_FUZZ_CHECK((parsed.kind == EndpointLine::NOTHING) == blankOrComment(line),
                  "kind " << parsed.kind << " for \"" << line << "\"");
    switch (parsed.kind) {
        case EndpointLine::SEND:
            QB_FUZZ_CHECK(parsed.payload.size() * 2 <= line.size(),
                          parsed.payload.size() << " payload bytes from \"" << line << "\"");
            break;
        case EndpointLine::DEBUG:
            QB_FUZZ_CHECK(parsed.debugLevel >= -1000 && parsed.debugLevel <= 1000,
                          "debug level " << parsed.debugLevel);
            break;
        case EndpointLine::INVALID:
            QB_FUZZ_CHECK(!parsed.reason.empty(), "no reason for \"" << line << "\"");
            break;
        case EndpointLine::FRAME: {
            const CandumpLine& f = parsed.frame;
            QB_FUZZ_CHECK(f.length <= 8 && f.canId <= (f.extended ? 0x1FFFFFFFu : 0x7FFu) &&
                              f.microseconds < 1000000u && f.seconds >= 0,
                          "frame out of range from \"" << line << "\": " << frameFields(f));
            const std::string written = f.toString();
            const EndpointLine again = EndpointLine::parse(written);
            QB_FUZZ_CHECK(
                again.kind == EndpointLine::FRAME && frameFields(again.frame) == frameFields(f),
                "\"" << line << "\" written as \"" << written << "\" does not read back: "
                     << frameFields(f) << " / " << frameFields(again.frame));
            break;
        }
        default:
            break;
    }
    uint64_t value = 0;
    if (ArgumentReader::parseUnsigned(line, UINT64_MAX, value)) {
        uint64_t again = 0;
        QB_FUZZ_CHECK(ArgumentReader::parseUnsigned(std::to_string(value), UINT64_MAX, again) &&
                          again == value,
                      "\"" << line << "\" read as " << value);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qbfuzz::silenceLogStreams();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    size_t begin = 0;
    while (begin <= text.size()) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            end = text.size();
        }
        checkLine(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return 0;
}
