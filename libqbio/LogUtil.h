// The log line of the library family.
//
// Every line has one shape: a level tag ("[DEBUG] ", "[INFO] ", "[ERROR] "), the class name,
// "::", the name of the writing function, "() " and the message, ended by std::endl. It is
// written under the process-wide LogUtil::logMutex, one line per lock, so lines of different
// threads never mix. Debug, info and protocol-error lines go to std::cout; a line reporting a
// failed system call goes to std::cerr and is followed by LogUtil::printError(errno).
//
// A log site is one statement inside a member function of a class that declares
//     static const char* logName() { return "ClassName"; }
// for example
//     QB_DEBUG(debug > 1, "select timeout set to " << selectTimeout);
//     QB_ERROR("reached end of vector - be confused :-/");
//     QB_SYSERROR("failed to open pipe: ");
// The function name comes from __func__, so a line carries the name of the function that
// writes it. The gate of a debug line is evaluated before the lock is taken: a suppressed line
// costs that one comparison.
#pragma once

#include <cerrno>
#include <iostream>
#include <mutex>
#include <string>

namespace LogUtil {

/// The one lock of every log line in the process. Not recursive: never log while holding it.
extern std::mutex logMutex;

/// Writes one line describing the system error `errnum` to std::cerr:
/// "[ERROR] errno <n>: <text of the error>". Called right after a system-call error line while
/// logMutex is held; it takes no lock itself.
void printError(int errnum);

/// The text of the system error `errnum` as the C library describes it (for example
/// "Too many open files" for EMFILE). Thread-safe (strerror_r); takes no lock.
std::string errorText(int errnum);

}  // namespace LogUtil

/// Writes one log line to `stream` under LogUtil::logMutex. Internal to the macros below.
#define QB_LOG_LINE_(stream, tag, pieces)                                                 \
    do {                                                                                  \
        std::lock_guard<std::mutex> log_qb_locker(LogUtil::logMutex);                     \
        (stream) << tag << logName() << "::" << __func__ << "() " << pieces << std::endl; \
    } while (0)

/// A debug line to std::cout, written only if `gate` (e.g. `debug > 1`) holds.
#define QB_DEBUG(gate, pieces)                           \
    do {                                                 \
        if (gate) {                                      \
            QB_LOG_LINE_(std::cout, "[DEBUG] ", pieces); \
        }                                                \
    } while (0)

/// An info line to std::cout.
#define QB_INFO(pieces) QB_LOG_LINE_(std::cout, "[INFO] ", pieces)

/// A protocol or logic error line to std::cout.
#define QB_ERROR(pieces) QB_LOG_LINE_(std::cout, "[ERROR] ", pieces)

/// A failed system call: the error line to std::cerr, then LogUtil::printError with the errno
/// of the failed call. errno is saved before anything else runs, so that the stream insertions
/// cannot change the number that is reported.
#define QB_SYSERROR(pieces)                                                                       \
    do {                                                                                          \
        const int qb_saved_errno_ = errno;                                                        \
        std::lock_guard<std::mutex> log_qb_locker(LogUtil::logMutex);                             \
        std::cerr << "[ERROR] " << logName() << "::" << __func__ << "() " << pieces << std::endl; \
        LogUtil::printError(qb_saved_errno_);                                                     \
    } while (0)
