// The library family's general exception. It is also an output string stream: whatever is
// inserted into it is appended to its text, so a thrower can describe the failure with the
// ordinary insertion operators.
#pragma once

#include <cstdint>
#include <exception>
#include <ostream>
#include <sstream>
#include <string>

/// General exception of the library family.
///
/// Layout: std::exception (primary base), then std::stringstream, then `code` and `whatText`.
/// The stream is opened in output, append-at-end mode on an empty text, so every insertion
/// appends. Thrown by value, caught by reference.
///
/// Copying (which a throw of a local object does) carries the text written so far and `code`;
/// the copy's `whatText` starts empty again (it is only a cache of what()'s result).
///
/// Thread rules: what() may be called from several threads at once (it takes a process-wide
/// lock of its own). Insertions are not synchronised: build the text before the exception is
/// shared.
class QBException : public std::exception, public std::stringstream {
  public:
    QBException();
    /// Convenience: an exception whose text starts as `text`.
    explicit QBException(const std::string& text);
    QBException(const QBException& other);
    QBException& operator=(const QBException&) = delete;
    ~QBException() override;

    /// The text inserted so far, or "QBException" if none was inserted. Every pointer it
    /// returns stays valid, and keeps its text, for the lifetime of this exception: `whatText`
    /// keeps the text of the first call; should text be inserted after that, the later texts
    /// are kept in a process-wide table until the exception is destroyed.
    const char* what() const noexcept override;

    /// The text inserted so far (empty for a default-constructed exception).
    std::string text() const { return str(); }

    /// A number the thrower may attach (for example an errno value); 0 by default.
    uint32_t getCode() const { return code; }
    void setCode(uint32_t value) { code = value; }

    /// Reads the string field (for tests of the copy rule; the first what() fills it). Not to be
    /// called while another thread calls what().
    const std::string& cachedWhat() const { return whatText; }

  private:
    uint32_t code;
    mutable std::string whatText;
};

/// Writes "QBException" and, if the exception holds text, ": " and the text.
std::ostream& operator<<(std::ostream& os, const QBException& e);
