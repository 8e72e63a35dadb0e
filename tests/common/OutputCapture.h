// Captures what the code under test writes to std::cout and std::cerr, line by line.
#pragma once

#include <chrono>
#include <mutex>
#include <streambuf>
#include <string>
#include <vector>

namespace qbtest {

/// An in-memory stream buffer that several threads may write into while another reads it: every
/// write and every read takes the buffer's own mutex. A log line is written under
/// LogUtil::logMutex, but not everything is (the dump of an unknown trace message is written
/// after its error line has released that mutex), so the capture cannot rely on it alone.
class LockedStringBuf : public std::streambuf {
  public:
    std::string str() const;
    void clear();

  protected:
    int_type overflow(int_type ch) override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;

  private:
    mutable std::mutex mutex;
    std::string text;
};

/// While alive, std::cout and std::cerr write into in-memory buffers instead of the terminal.
///
/// The library writes every log line under LogUtil::logMutex; this class swaps the stream
/// buffers and reads them under the same mutex, so a reader never sees half a line of another
/// thread; the buffers lock themselves too, for what is written without that mutex. Construct it
/// before starting threads that log, destroy it after they have stopped. One capture at a time per
/// process (GoogleTest runs each test in its own process under CTest).
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
    LockedStringBuf out;
    LockedStringBuf err;
    std::streambuf* savedOut;
    std::streambuf* savedErr;
};

/// Splits text into complete lines (a trailing piece without '\n' is left out).
std::vector<std::string> splitLines(const std::string& text);
/// Number of lines equal to `line`.
size_t countLines(const std::vector<std::string>& lines, const std::string& line);

}  // namespace qbtest
