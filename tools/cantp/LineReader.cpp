#include "LineReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

LineReader::LineReader() : LineReader(STDIN_FILENO, false, BLOCK_SIZE) {}

LineReader::LineReader(const std::string& path)
    : LineReader(::open(path.c_str(), O_RDONLY | O_CLOEXEC), true, BLOCK_SIZE) {}

LineReader::LineReader(int fdIn, bool ownedIn, size_t blockSize)
    : fd(fdIn), owned(ownedIn), buffer(blockSize > 0 ? blockSize : 1) {}

LineReader LineReader::fromDescriptor(int fd, size_t blockSize) {
    return LineReader(fd, false, blockSize);
}

LineReader::~LineReader() {
    // Not retried on EINTR: on Linux the descriptor is released even then.
    if (owned && fd >= 0) {
        ::close(fd);
    }
}

LineReader::Result LineReader::next(std::string& line) {
    line.clear();
    bool any = false;
    bool tooLong = false;
    for (;;) {
        if (begin == end) {
            const ssize_t n = readSome();
            if (n < 0) {
                return FAILED;
            }
            if (n == 0) {
                if (!any) {
                    return END;
                }
                return tooLong ? LONG_LINE : LINE;
            }
            begin = 0;
            end = static_cast<size_t>(n);
        }
        any = true;
        const char* start = buffer.data() + begin;
        const void* found = std::memchr(start, '\n', end - begin);
        const size_t take = found != nullptr
                                ? static_cast<size_t>(static_cast<const char*>(found) - start)
                                : end - begin;
        if (!tooLong) {
            if (line.size() + take > MAX_LINE_LENGTH) {
                tooLong = true;
                line.clear();
            } else {
                line.append(start, take);
            }
        }
        begin += take;
        if (found != nullptr) {
            ++begin;
            return tooLong ? LONG_LINE : LINE;
        }
    }
}

ssize_t LineReader::readSome() {
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n >= 0 || errno != EINTR) {
            return n;
        }
    }
}
