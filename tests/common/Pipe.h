// A POSIX pipe owned by a test, and helpers to read what is waiting in a descriptor.
#pragma once

#include <cstdint>
#include <vector>

namespace qbtest {

/// Owns both ends of a pipe; closes what is still open on destruction.
class Pipe {
public:
    /// Creates the pipe (fails the current test on error). `nonBlockingRead` sets O_NONBLOCK on
    /// the read end.
    explicit Pipe(bool nonBlockingRead = false);
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int readEnd() const { return fds[0]; }
    int writeEnd() const { return fds[1]; }
    void closeRead();
    void closeWrite();

    /// Writes all bytes (blocking); returns false on failure.
    bool writeAll(const std::vector<uint8_t>& bytes) const;

private:
    int fds[2];
};

/// Reads whatever is waiting on `fd` without blocking (the descriptor's own mode is kept).
std::vector<uint8_t> readAvailable(int fd);

}  // namespace qbtest
