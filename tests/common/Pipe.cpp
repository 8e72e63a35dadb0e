#include "common/Pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace qbtest {

Pipe::Pipe(bool nonBlockingRead) : fds{-1, -1} {
    if (::pipe(fds) != 0) {
        ADD_FAILURE() << "pipe() failed, errno " << errno;
        fds[0] = fds[1] = -1;
        return;
    }
    if (nonBlockingRead) {
        ::fcntl(fds[0], F_SETFL, ::fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    }
}

Pipe::~Pipe() {
    closeRead();
    closeWrite();
}

void Pipe::closeRead() {
    if (fds[0] >= 0) {
        ::close(fds[0]);
        fds[0] = -1;
    }
}

void Pipe::closeWrite() {
    if (fds[1] >= 0) {
        ::close(fds[1]);
        fds[1] = -1;
    }
}

bool Pipe::writeAll(const std::vector<uint8_t>& bytes) const {
    return qbtest::writeAll(fds[1], bytes);
}

bool writeAll(int fd, const std::vector<uint8_t>& bytes, const WaitForRoom& waitForRoom) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (waitForRoom) {
                if (!waitForRoom()) {
                    return false;
                }
                continue;
            }
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, -1) < 0 && errno != EINTR) {
                return false;
            }
            continue;
        }
        return false;
    }
    return true;
}

std::vector<uint8_t> readAvailable(int fd) {
    std::vector<uint8_t> bytes;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 0) <= 0 || (p.revents & POLLIN) == 0) {
            return bytes;
        }
        uint8_t chunk[4096];
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) {
            return bytes;
        }
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

bool isClosed(int fd) {
    return ::fcntl(fd, F_GETFD) == -1 && errno == EBADF;
}

}  // namespace qbtest
