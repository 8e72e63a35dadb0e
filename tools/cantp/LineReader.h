// Lines of text from a descriptor, a block at a time, with a bound on the line length.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

/// Reads lines from a descriptor a block at a time (cantp decode's input). Owns the descriptor
/// if it opened it (a path); standard input and a descriptor handed in are not closed. Not
/// copyable: one reader per input. Memory: one block buffer and at most one line of
/// MAX_LINE_LENGTH characters, whatever the input.
class LineReader {
  public:
    enum Result { LINE, LONG_LINE, END, FAILED };

    /// A candump line is below 100 characters; anything far longer is not a frame, and cutting
    /// it off keeps the memory of the reader and of the decoder bounded whatever the input.
    static constexpr size_t MAX_LINE_LENGTH = 4096;
    /// Bytes asked for per read() call.
    static constexpr size_t BLOCK_SIZE = 65536;

    /// Standard input.
    LineReader();
    /// Opens `path`; on failure isOpen() is false and errno says why.
    explicit LineReader(const std::string& path);
    /// Reads `fd`, which stays the caller's (not closed), `blockSize` bytes (at least 1) per
    /// read() call.
    static LineReader fromDescriptor(int fd, size_t blockSize = BLOCK_SIZE);

    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    bool isOpen() const { return fd >= 0; }

    /// True if the next line can be returned without waiting for input.
    bool hasBuffered() const { return begin < end; }

    /// The next line without its '\n' (LINE). A line longer than MAX_LINE_LENGTH is skipped to
    /// its end (LONG_LINE, `line` is empty). END at the end of the input, FAILED (errno set) if
    /// reading fails. A last line without '\n' counts as a line. Blocks while the descriptor
    /// has nothing to read.
    Result next(std::string& line);

  private:
    LineReader(int fd, bool owned, size_t blockSize);
    ssize_t readSome();

    int fd;
    bool owned;
    std::vector<char> buffer;
    size_t begin = 0;
    size_t end = 0;
};
