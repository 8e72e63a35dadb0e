#include "common/Subprocess.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>

#include <gtest/gtest.h>

#include "common/OutputCapture.h"
#include "common/Wait.h"

namespace qbtest {

namespace {
void setNonBlocking(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}
}  // namespace

Subprocess::Subprocess(const std::string& program, const std::vector<std::string>& args)
    : pid(-1), in(-1), out(-1), err(-1), exitStatus(-1) {
    int inPipe[2], outPipe[2], errPipe[2];
    if (::pipe(inPipe) != 0 || ::pipe(outPipe) != 0 || ::pipe(errPipe) != 0) {
        ADD_FAILURE() << "pipe() failed: errno " << errno;
        return;
    }
    std::vector<std::string> argvStrings;
    argvStrings.push_back(program);
    argvStrings.insert(argvStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& s : argvStrings) {
        argv.push_back(&s[0]);
    }
    argv.push_back(nullptr);
    pid = ::fork();
    if (pid == 0) {
        ::dup2(inPipe[0], 0);
        ::dup2(outPipe[1], 1);
        ::dup2(errPipe[1], 2);
        for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) {
            ::close(fd);
        }
        ::execv(program.c_str(), argv.data());
        _exit(127);
    }
    ::close(inPipe[0]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    in = inPipe[1];
    out = outPipe[0];
    err = errPipe[0];
    setNonBlocking(out);
    setNonBlocking(err);
    if (pid < 0) {
        ADD_FAILURE() << "fork() failed: errno " << errno;
    }
}

Subprocess::~Subprocess() {
    if (pid > 0 && exitStatus == -1) {
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
    }
    for (int fd : {in, out, err}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool Subprocess::write(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(in, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

void Subprocess::closeInput() {
    if (in >= 0) {
        ::close(in);
        in = -1;
    }
}

void Subprocess::signal(int sig) {
    if (pid > 0) {
        ::kill(pid, sig);
    }
}

void Subprocess::collect() {
    char chunk[4096];
    for (int* fd : {&out, &err}) {
        if (*fd < 0) {
            continue;
        }
        for (;;) {
            const ssize_t n = ::read(*fd, chunk, sizeof chunk);
            if (n > 0) {
                (fd == &out ? outText : errText).append(chunk, static_cast<size_t>(n));
                continue;
            }
            if (n < 0 && errno == EINTR) {
                continue;
            }
            break;  // EAGAIN or end of file
        }
    }
}

std::vector<std::string> Subprocess::outLines() {
    collect();
    return splitLines(outText);
}

std::vector<std::string> Subprocess::errLines() {
    collect();
    return splitLines(errText);
}

bool Subprocess::waitForOutLine(const std::string& exact, std::chrono::milliseconds timeout) {
    return waitUntil(
        [&] {
            for (const std::string& line : outLines()) {
                if (line == exact) {
                    return true;
                }
            }
            return false;
        },
        timeout);
}

bool Subprocess::waitForOutLineMatching(const std::string& regex,
                                        std::chrono::milliseconds timeout) {
    const std::regex pattern(regex);
    return waitUntil(
        [&] {
            for (const std::string& line : outLines()) {
                if (std::regex_match(line, pattern)) {
                    return true;
                }
            }
            return false;
        },
        timeout);
}

bool Subprocess::waitForErrLine(const std::string& exact, std::chrono::milliseconds timeout) {
    return waitUntil(
        [&] {
            for (const std::string& line : errLines()) {
                if (line == exact) {
                    return true;
                }
            }
            return false;
        },
        timeout);
}

int Subprocess::wait(std::chrono::milliseconds timeout) {
    if (pid <= 0) {
        return -1;
    }
    if (exitStatus != -1) {
        return exitStatus;
    }
    int status = 0;
    const bool exited = waitUntil(
        [&] {
            collect();
            return ::waitpid(pid, &status, WNOHANG) == pid;
        },
        timeout);
    if (!exited) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        exitStatus = -2;
        collect();
        return -1;
    }
    collect();
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return exitStatus;
}

std::string cantpPath() {
#ifdef QB_CANTP_PATH
    return QB_CANTP_PATH;
#else
    const char* env = std::getenv("QB_CANTP_PATH");
    return env != nullptr ? env : "cantp";
#endif
}

}  // namespace qbtest
