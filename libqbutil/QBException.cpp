#include "libqbutil/QBException.h"

#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace {
// Output, append-at-end: every insertion lands after the text already held, also in a copy
// that was opened on the text of its source.
constexpr std::ios_base::openmode kTextMode = std::ios_base::out | std::ios_base::ate;

constexpr const char* kDefaultWhat = "QBException";

// Guards every exception's `whatText` while what() fills it, and the table below.
std::mutex& whatMutex() {
    static std::mutex m;
    return m;
}

// Texts of what() calls made after text was inserted behind an earlier what(), per exception;
// each string is allocated once and never changed, so pointers into it stay valid until the
// exception is destroyed.
std::map<const QBException*, std::vector<std::unique_ptr<const std::string>>>& laterTexts() {
    static std::map<const QBException*, std::vector<std::unique_ptr<const std::string>>> table;
    return table;
}
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

QBException::~QBException() {
    // Only an exception whose what() was called can have later texts.
    if (!whatText.empty()) {
        try {
            std::lock_guard<std::mutex> lock(whatMutex());
            laterTexts().erase(this);
        } catch (...) {
            // A failed lock leaves an entry behind: a leak, never a dangling pointer.
        }
    }
}

const char* QBException::what() const noexcept {
    try {
        std::lock_guard<std::mutex> lock(whatMutex());
        std::string current = str();
        if (current.empty()) {
            current = kDefaultWhat;
        }
        // The first call fills the string field; it is never changed afterwards, so the
        // pointer into it stays valid.
        if (whatText.empty()) {
            whatText = std::move(current);
            return whatText.c_str();
        }
        if (whatText == current) {
            return whatText.c_str();
        }
        auto& texts = laterTexts()[this];
        if (texts.empty() || *texts.back() != current) {
            texts.emplace_back(new std::string(std::move(current)));
        }
        return texts.back()->c_str();
    } catch (...) {
        // Out of memory, or the lock failed: a literal still names the exception.
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
