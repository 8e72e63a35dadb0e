// A file or standard input read a block at a time, as lines or as bytes.
#pragma once

#include <cstddef>
#include <streambuf>
#include <string>
#include <vector>

/// Buffered reading from a descriptor: a file opened by path, or standard input. It is a
/// std::streambuf, so a std::istream reads bytes from it (PcapReader), and it hands out text
/// lines (nextLine()); peek() looks at the first bytes without taking them, so that the format
/// of the input can be told before either kind of reader starts.
///
/// Read errors end the input: the stream then sees its end and readError() holds the errno.
/// Not copyable; owns the descriptor if it opened it (not standard input). Not thread-safe.
/// Memory: one buffer of BUFFER_BYTES.
class InputFile : public std::streambuf {
  public:
    enum LineResult { LINE, LONG_LINE, END, FAILED };
    static constexpr size_t BUFFER_BYTES = 65536;

    /// Standard input.
    InputFile();
    /// Opens `path`; on failure isOpen() is false and errno says why.
    explicit InputFile(const std::string& path);
    ~InputFile() override;
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    bool isOpen() const { return fd >= 0; }
    /// errno of the read that failed, 0 if none has.
    int readError() const { return error; }
    /// True if bytes can be taken without waiting for input.
    bool hasBuffered() const { return gptr() < egptr(); }

    /// Reads until at least `n` bytes (at most BUFFER_BYTES) are buffered or the input ends,
    /// and returns the buffered bytes (possibly more than `n`, fewer at the end of the input).
    /// Nothing is taken.
    std::string peek(size_t n);

    /// The next line without its '\n' (LINE). A line longer than `maxLength` is skipped to its
    /// end (LONG_LINE, `line` is empty). END at the end of the input, FAILED (readError() set)
    /// if reading fails. A last line without '\n' counts as a line.
    LineResult nextLine(std::string& line, size_t maxLength);

  protected:
    int_type underflow() override;

  private:
    /// Appends what one read() gives after the buffered bytes (moved to the front first).
    /// Returns the bytes read, 0 at the end of the input, -1 on error (errno in `error`).
    long fill();

    int fd;
    bool owned;
    int error = 0;
    std::vector<char> buffer;
};
