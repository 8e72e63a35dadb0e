#include "libqbio/LogUtil.h"

#include <cstring>
#include <string>

namespace LogUtil {

std::mutex logMutex;

namespace {

// strerror_r comes in two shapes, chosen by the C library and the feature macros: the GNU one
// returns the text (which may or may not be in `buffer`), the XSI one returns 0 and fills
// `buffer`. Overloading on the result type picks the right reading for whichever is compiled.
[[maybe_unused]] const char* textOf(const char* gnuResult, const char* /*buffer*/) {
    return gnuResult;
}

[[maybe_unused]] const char* textOf(int xsiResult, const char* buffer) {
    return xsiResult == 0 ? buffer : nullptr;
}

}  // namespace

std::string errorText(int errnum) {
    char buffer[256];
    buffer[0] = '\0';
    const char* text = textOf(strerror_r(errnum, buffer, sizeof buffer), buffer);
    if (text == nullptr || *text == '\0') {
        return "Unknown error " + std::to_string(errnum);
    }
    return text;
}

void printError(int errnum) {
    // One insertion for the whole line. No lock here: the caller already holds logMutex.
    std::cerr << "[ERROR] errno " + std::to_string(errnum) + ": " + errorText(errnum) + '\n';
}

}  // namespace LogUtil
