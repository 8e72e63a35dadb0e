// A POSIX pipe owned by a test, and helpers for descriptors: writing all bytes, reading what is
// waiting, and whether a descriptor is open.
#pragma once

#include <cstdint>
#include <functional>
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

    /// Writes all bytes into the write end (qbtest::writeAll); returns false on failure.
    bool writeAll(const std::vector<uint8_t>& bytes) const;

  private:
    int fds[2];
};

/// What writeAll() does while a non-blocking descriptor is full: wait for room (or do something
/// useful meanwhile) and return true to try again, or false to give up.
using WaitForRoom = std::function<bool()>;

/// Writes all bytes to `fd`, going on after EINTR and partial writes; returns false on failure.
/// While a non-blocking `fd` is full it calls `waitForRoom`, by default a poll() without time
/// limit until `fd` takes more.
bool writeAll(int fd, const std::vector<uint8_t>& bytes,
              const WaitForRoom& waitForRoom = WaitForRoom());

/// Reads whatever is waiting on `fd` without blocking (the descriptor's own mode is kept).
std::vector<uint8_t> readAvailable(int fd);

/// True if `fd` is an open descriptor of this process.
bool isOpen(int fd);
/// True if `fd` is not open (fcntl() fails with EBADF).
bool isClosed(int fd);

}  // namespace qbtest
