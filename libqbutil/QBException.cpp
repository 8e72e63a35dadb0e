#include "libqbutil/QBException.h"

namespace {
// Output, append-at-end: every insertion lands after the text already held, also in a copy
// that was opened on the text of its source.
constexpr std::ios_base::openmode kTextMode = std::ios_base::out | std::ios_base::ate;

constexpr const char* kDefaultWhat = "QBException";
}  // namespace

QBException::QBException()
    : std::exception(), std::stringstream(std::string(), kTextMode), code(0) {}

QBException::QBException(const std::string& text)
    : std::exception(), std::stringstream(text, kTextMode), code(0) {}

// str() yields the characters written so far (from the start of the put area to the put
// position, or further if the get area reaches further), which is exactly the text to carry.
// The cached what() string is deliberately not copied: it belongs to the source's what().
QBException::QBException(const QBException& other)
    : std::basic_ios<char>(),
      std::exception(other),
      std::stringstream(other.str(), kTextMode),
      code(other.code) {}

QBException::~QBException() = default;

const char* QBException::what() const noexcept {
    try {
        whatText = str();
        if (whatText.empty()) {
            whatText = kDefaultWhat;
        }
        return whatText.c_str();
    } catch (...) {
        // Out of memory while copying the text: a literal still names the exception.
        return kDefaultWhat;
    }
}

std::ostream& operator<<(std::ostream& os, const QBException& e) {
    os << kDefaultWhat;
    const std::string text = e.text();
    if (!text.empty()) {
        os << ": " << text;
    }
    return os;
}
