#include "common/OutputCapture.h"

#include <algorithm>
#include <iostream>
#include <mutex>

#include "common/Wait.h"
#include "libqbio/LogUtil.h"

namespace qbtest {

std::string LockedStringBuf::str() const {
    std::lock_guard<std::mutex> lock(mutex);
    return text;
}

void LockedStringBuf::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    text.clear();
}

LockedStringBuf::int_type LockedStringBuf::overflow(int_type ch) {
    if (traits_type::eq_int_type(ch, traits_type::eof())) {
        return traits_type::not_eof(ch);
    }
    std::lock_guard<std::mutex> lock(mutex);
    text.push_back(traits_type::to_char_type(ch));
    return ch;
}

std::streamsize LockedStringBuf::xsputn(const char* s, std::streamsize n) {
    std::lock_guard<std::mutex> lock(mutex);
    text.append(s, static_cast<size_t>(n));
    return n;
}

OutputCapture::OutputCapture() {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    savedOut = std::cout.rdbuf(&out);
    savedErr = std::cerr.rdbuf(&err);
}

OutputCapture::~OutputCapture() {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    std::cout.rdbuf(savedOut);
    std::cerr.rdbuf(savedErr);
}

std::string OutputCapture::outText() const {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    return out.str();
}

std::string OutputCapture::errText() const {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    return err.str();
}

std::vector<std::string> OutputCapture::outLines() const {
    return splitLines(outText());
}

std::vector<std::string> OutputCapture::errLines() const {
    return splitLines(errText());
}

void OutputCapture::clear() {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    out.clear();
    err.clear();
}

namespace {
bool hasLine(const std::vector<std::string>& lines, const std::string& text, bool whole) {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) {
        return whole ? l == text : l.find(text) != std::string::npos;
    });
}
}  // namespace

bool OutputCapture::waitForOutLine(const std::string& line,
                                   std::chrono::milliseconds timeout) const {
    return waitUntil([&] { return hasLine(outLines(), line, true); }, timeout);
}

bool OutputCapture::waitForOutLineContaining(const std::string& text,
                                             std::chrono::milliseconds timeout) const {
    return waitUntil([&] { return hasLine(outLines(), text, false); }, timeout);
}

bool OutputCapture::waitForErrLineContaining(const std::string& text,
                                             std::chrono::milliseconds timeout) const {
    return waitUntil([&] { return hasLine(errLines(), text, false); }, timeout);
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t begin = 0;
    for (;;) {
        const size_t nl = text.find('\n', begin);
        if (nl == std::string::npos) {
            break;
        }
        lines.push_back(text.substr(begin, nl - begin));
        begin = nl + 1;
    }
    return lines;
}

size_t countLines(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

}  // namespace qbtest
