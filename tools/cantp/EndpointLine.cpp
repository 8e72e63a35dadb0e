#include "EndpointLine.h"

#include <sstream>

#include "ArgumentReader.h"
#include "libqbutil/HexText.h"

namespace {

EndpointLine invalid(const std::string& reason) {
    EndpointLine result;
    result.kind = EndpointLine::INVALID;
    result.reason = reason;
    return result;
}

}  // namespace

EndpointLine EndpointLine::parse(const std::string& rawLine) {
    EndpointLine result;
    std::string line = rawLine;
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    // CR counts as a blank wherever it stands, as it does for the candump fields: a stray CR
    // before a '#' must not turn a comment into a frame on an interface named "#...".
    const char* const blanks = " \t\r";
    const size_t begin = line.find_first_not_of(blanks);
    if (begin == std::string::npos || line[begin] == '#') {
        return result;
    }
    const size_t end = line.find_last_not_of(blanks);
    const std::string text = line.substr(begin, end - begin + 1);
    std::istringstream words(text);
    std::string command;
    words >> command;
    std::string rest;
    std::getline(words, rest);
    const size_t restBegin = rest.find_first_not_of(" \t");
    rest = restBegin == std::string::npos ? std::string() : rest.substr(restBegin);

    if (command == "send") {
        std::string reason;
        if (!HexText::decode(rest, result.payload, reason)) {
            return invalid(reason);
        }
        result.kind = SEND;
    } else if (command == "clear") {
        if (rest.empty()) {
            result.kind = CLEAR;
        } else if (rest == "all") {
            result.kind = CLEAR_ALL;
        } else {
            return invalid("clear takes nothing or 'all'");
        }
    } else if (command == "empty") {
        if (!rest.empty()) {
            return invalid("empty takes no argument");
        }
        result.kind = EMPTY;
    } else if (command == "debug") {
        try {
            result.debugLevel = ArgumentReader::toInt("debug level", rest, -1000, 1000);
        } catch (const UsageError& e) {
            return invalid(e.what());
        }
        result.kind = DEBUG;
    } else {
        std::string reason;
        if (!CandumpLine::parse(text, result.frame, reason)) {
            return invalid(reason);
        }
        result.kind = FRAME;
    }
    return result;
}
