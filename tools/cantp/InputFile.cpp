#include "InputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

InputFile::InputFile() : fd(STDIN_FILENO), owned(false), buffer(BUFFER_BYTES) {
    setg(buffer.data(), buffer.data(), buffer.data());
}

InputFile::InputFile(const std::string& path)
    : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), owned(true), buffer(BUFFER_BYTES) {
    setg(buffer.data(), buffer.data(), buffer.data());
}

InputFile::~InputFile() {
    // Not retried on EINTR: on Linux the descriptor is released even then.
    if (owned && fd >= 0) {
        ::close(fd);
    }
}

long InputFile::fill() {
    if (error != 0 || fd < 0) {
        return -1;
    }
    const size_t kept = static_cast<size_t>(egptr() - gptr());
    if (gptr() != buffer.data()) {
        std::memmove(buffer.data(), gptr(), kept);
        setg(buffer.data(), buffer.data(), buffer.data() + kept);
    }
    if (kept == buffer.size()) {
        return 0;
    }
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data() + kept, buffer.size() - kept);
        if (n >= 0) {
            setg(buffer.data(), buffer.data(), buffer.data() + kept + static_cast<size_t>(n));
            return static_cast<long>(n);
        }
        if (errno != EINTR) {
            error = errno;
            return -1;
        }
    }
}

InputFile::int_type InputFile::underflow() {
    if (gptr() < egptr()) {
        return traits_type::to_int_type(*gptr());
    }
    if (fill() <= 0) {
        return traits_type::eof();
    }
    return traits_type::to_int_type(*gptr());
}

std::string InputFile::peek(size_t n) {
    if (n > buffer.size()) {
        n = buffer.size();
    }
    while (static_cast<size_t>(egptr() - gptr()) < n) {
        if (fill() <= 0) {
            break;
        }
    }
    return std::string(gptr(), egptr());
}

InputFile::LineResult InputFile::nextLine(std::string& line, size_t maxLength) {
    line.clear();
    bool any = false;
    bool tooLong = false;
    for (;;) {
        if (gptr() == egptr()) {
            const long n = fill();
            if (n < 0) {
                return FAILED;
            }
            if (n == 0) {
                if (!any) {
                    return END;
                }
                return tooLong ? LONG_LINE : LINE;
            }
        }
        any = true;
        const char* start = gptr();
        const size_t available = static_cast<size_t>(egptr() - start);
        const void* found = std::memchr(start, '\n', available);
        const size_t take = found != nullptr
                                ? static_cast<size_t>(static_cast<const char*>(found) - start)
                                : available;
        if (!tooLong) {
            if (line.size() + take > maxLength) {
                tooLong = true;
                line.clear();
            } else {
                line.append(start, take);
            }
        }
        gbump(static_cast<int>(take));
        if (found != nullptr) {
            gbump(1);
            return tooLong ? LONG_LINE : LINE;
        }
    }
}
