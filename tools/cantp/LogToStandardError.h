// Keeps the library's log lines off a command's standard output.
#pragma once

#include <streambuf>

/// Points std::cout, where the library writes its log lines, at standard error while alive,
/// so that standard output carries only what the command produces (payloads, decoded
/// traffic). Anything already written to std::cout is flushed first. Both switches take
/// LogUtil::logMutex, so no log line is cut by them.
class LogToStandardError {
  public:
    LogToStandardError();
    ~LogToStandardError();
    LogToStandardError(const LogToStandardError&) = delete;
    LogToStandardError& operator=(const LogToStandardError&) = delete;

  private:
    std::streambuf* saved = nullptr;
};
