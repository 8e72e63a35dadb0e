#include "FdStreamBuf.h"

#include <unistd.h>

#include <cerrno>

namespace {
constexpr size_t FLUSH_AT = 64 * 1024;
}

FdStreamBuf::FdStreamBuf(int fdIn) : fd(fdIn) {}

FdStreamBuf::~FdStreamBuf() {
    flushBuffer();
}

FdStreamBuf::int_type FdStreamBuf::overflow(int_type ch) {
    if (traits_type::eq_int_type(ch, traits_type::eof())) {
        return traits_type::not_eof(ch);
    }
    pending.push_back(traits_type::to_char_type(ch));
    if (pending.size() >= FLUSH_AT && !flushBuffer()) {
        return traits_type::eof();
    }
    return ch;
}

std::streamsize FdStreamBuf::xsputn(const char* s, std::streamsize n) {
    pending.append(s, static_cast<size_t>(n));
    if (pending.size() >= FLUSH_AT && !flushBuffer()) {
        return 0;
    }
    return n;
}

int FdStreamBuf::sync() {
    return flushBuffer() ? 0 : -1;
}

bool FdStreamBuf::flushBuffer() {
    size_t done = 0;
    while (done < pending.size()) {
        const ssize_t n = ::write(fd, pending.data() + done, pending.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            writeFailed = true;
            pending.clear();
            return false;
        }
        done += static_cast<size_t>(n);
    }
    pending.clear();
    return !writeFailed;
}
