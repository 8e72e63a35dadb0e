// Captures what the code under test writes to std::cout and std::cerr, line by line.
#pragma once

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

namespace qbtest {

/// While alive, std::cout and std::cerr write into in-memory buffers instead of the terminal.
///
/// The library writes every log line under LogUtil::logMutex; this class swaps the stream
/// buffers and reads them under the same mutex, so a reader never sees half a line of another
/// thread. Construct it before starting threads that log, destroy it after they have stopped.
/// One capture at a time per process (GoogleTest runs each test in its own process under CTest).
class OutputCapture {
  public:
    OutputCapture();
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    /// Everything written so far.
    std::string outText() const;
    std::string errText() const;
    /// The complete lines written so far (without their '\n'); a partial last line is left out.
    std::vector<std::string> outLines() const;
    std::vector<std::string> errLines() const;
    /// Forgets what was captured so far.
    void clear();

    /// Waits until some complete line of std::cout equals `line`, at most `timeout`.
    bool waitForOutLine(const std::string& line, std::chrono::milliseconds timeout) const;
    /// Waits until some complete line of std::cout contains `text`, at most `timeout`.
    bool waitForOutLineContaining(const std::string& text, std::chrono::milliseconds timeout) const;
    /// Waits until some complete line of std::cerr contains `text`, at most `timeout`.
    bool waitForErrLineContaining(const std::string& text, std::chrono::milliseconds timeout) const;

  private:
    std::stringbuf out;
    std::stringbuf err;
    std::streambuf* savedOut;
    std::streambuf* savedErr;
};

/// Splits text into complete lines (a trailing piece without '\n' is left out).
std::vector<std::string> splitLines(const std::string& text);
/// Number of lines equal to `line`.
size_t countLines(const std::vector<std::string>& lines, const std::string& line);

}  // namespace qbtest
