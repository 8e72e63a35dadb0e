#include "TransportProbe.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

TransportProbe::TransportProbe()
    : CANTransportThread(0), nullFd(-1), appReadFd(-1), appWriteFd(-1), scratch(64 * 1024) {
    setSendCANid(kSendId);
    open(appReadFd, appWriteFd);
    ::fcntl(appReadFd, F_SETFL, ::fcntl(appReadFd, F_GETFL) | O_NONBLOCK);
    nullFd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    setConnection(nullFd);
}

TransportProbe::~TransportProbe() {
    stop();
    if (nullFd >= 0) {
        ::close(nullFd);
    }
}

size_t TransportProbe::drainOutput() {
    size_t total = 0;
    for (;;) {
        const ssize_t n = ::read(appReadFd, scratch.data(), scratch.size());
        if (n > 0) {
            total += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        return total;  // EAGAIN: the pipe is empty
    }
}

size_t TransportProbe::framesFor(size_t length) {
    return length < 8 ? 1 : 1 + (length - 6 + 6) / 7;
}
