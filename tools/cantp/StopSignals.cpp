#include "StopSignals.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "libqbutil/QBException.h"

namespace {

std::atomic<int> writeEnd{-1};
struct sigaction savedInt;
struct sigaction savedTerm;

extern "C" void stopSignalsHandler(int) {
    const int saved = errno;
    const int fd = writeEnd.load();
    if (fd >= 0) {
        const char byte = 's';
        (void)!::write(fd, &byte, 1);
    }
    errno = saved;
}

}  // namespace

StopSignals::StopSignals() {
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw QBException(std::string("pipe() failed: ") + std::strerror(errno));
    }
    ::fcntl(pipeFds[1], F_SETFL, ::fcntl(pipeFds[1], F_GETFL) | O_NONBLOCK);
    writeEnd = pipeFds[1];
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = stopSignalsHandler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &savedInt);
    sigaction(SIGTERM, &action, &savedTerm);
}

StopSignals::~StopSignals() {
    sigaction(SIGINT, &savedInt, nullptr);
    sigaction(SIGTERM, &savedTerm, nullptr);
    writeEnd = -1;
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
}

bool StopSignals::raised() const {
    pollfd p{pipeFds[0], POLLIN, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & POLLIN) != 0;
}
