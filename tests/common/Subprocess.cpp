#include "common/Subprocess.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <regex>

#include <gtest/gtest.h>

#include "common/OutputCapture.h"
#include "common/Pipe.h"
#include "common/Wait.h"

namespace qbtest {

namespace {
void setNonBlocking(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

#ifdef QB_TEST_EMULATOR
/// The bytes of an ELF header that name the machine a program is built for: class (32/64 bit),
/// byte order and e_machine. Empty if `path` is not an ELF file.
std::string elfMachine(const char* path) {
    unsigned char header[20];
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::string();
    }
    const ssize_t n = ::read(fd, header, sizeof header);
    ::close(fd);
    if (n != static_cast<ssize_t>(sizeof header) || header[0] != 0x7f || header[1] != 'E' ||
        header[2] != 'L' || header[3] != 'F') {
        return std::string();
    }
    return std::string{static_cast<char>(header[4]), static_cast<char>(header[5]),
                       static_cast<char>(header[18]), static_cast<char>(header[19])};
}
#endif
}  // namespace

std::vector<std::string> emulatedCommand(const std::string& program) {
#ifdef QB_TEST_EMULATOR
    // A program built for the same machine as this test program cannot be started directly
    // when the tests themselves run under an emulator: the build machine has no handler for
    // it. Programs of the build machine (a shell, a script interpreter) still run directly.
    static const std::string ownMachine = elfMachine("/proc/self/exe");
    if (!ownMachine.empty() && elfMachine(program.c_str()) == ownMachine) {
        return {QB_TEST_EMULATOR};
    }
#else
    (void)program;
#endif
    return {};
}

Subprocess::Subprocess(const std::string& program, const std::vector<std::string>& args,
                       const std::string& stdoutPath)
    : pid(-1), in(-1), out(-1), err(-1), exitStatus(-1) {
    // A child that exits before reading all its input must fail the write, not end the test.
    ::signal(SIGPIPE, SIG_IGN);
    int inPipe[2], outPipe[2], errPipe[2];
    if (::pipe(inPipe) != 0 || ::pipe(outPipe) != 0 || ::pipe(errPipe) != 0) {
        ADD_FAILURE() << "pipe() failed: errno " << errno;
        return;
    }
    std::vector<std::string> argvStrings = emulatedCommand(program);
    const bool emulated = !argvStrings.empty();
    argvStrings.push_back(program);
    argvStrings.insert(argvStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& s : argvStrings) {
        argv.push_back(&s[0]);
    }
    argv.push_back(nullptr);
    const bool toFile = !stdoutPath.empty();
    pid = ::fork();
    if (pid == 0) {
        ::dup2(inPipe[0], 0);
        if (toFile) {
            ::dup2(::open(stdoutPath.c_str(), O_WRONLY), 1);
        } else {
            ::dup2(outPipe[1], 1);
        }
        ::dup2(errPipe[1], 2);
        for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) {
            ::close(fd);
        }
        if (emulated) {
            ::execvp(argv[0], argv.data());  // the emulator may be named without its directory
        } else {
            ::execv(program.c_str(), argv.data());
        }
        _exit(127);
    }
    ::close(inPipe[0]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    in = inPipe[1];
    out = outPipe[0];
    err = errPipe[0];
    if (toFile) {
        ::close(out);
        out = -1;
    } else {
        setNonBlocking(out);
    }
    setNonBlocking(in);
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
    // While the input pipe is full, the child's output is taken in turns with waiting for room.
    return writeAll(in, std::vector<uint8_t>(text.begin(), text.end()), [this] {
        collect();
        pollfd p{in, POLLOUT, 0};
        ::poll(&p, 1, 10);
        return true;
    });
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
                (fd == &out ? outCollected : errCollected).append(chunk, static_cast<size_t>(n));
                continue;
            }
            if (n < 0 && errno == EINTR) {
                continue;
            }
            break;  // EAGAIN or end of file
        }
    }
}

std::string Subprocess::outText() {
    collect();
    return outCollected;
}

std::string Subprocess::errText() {
    collect();
    return errCollected;
}

std::vector<std::string> Subprocess::outLines() {
    return splitLines(outText());
}

std::vector<std::string> Subprocess::errLines() {
    return splitLines(errText());
}

template <typename Predicate>
bool Subprocess::waitForLineWhere(std::vector<std::string> (Subprocess::*lines)(),
                                  Predicate matches, std::chrono::milliseconds timeout) {
    return waitUntil(
        [&] {
            const std::vector<std::string> now = (this->*lines)();
            return std::any_of(now.begin(), now.end(), matches);
        },
        timeout);
}

bool Subprocess::waitForOutLine(const std::string& exact, std::chrono::milliseconds timeout) {
    return waitForLineWhere(
        &Subprocess::outLines, [&](const std::string& line) { return line == exact; }, timeout);
}

bool Subprocess::waitForOutLineMatching(const std::string& regex,
                                        std::chrono::milliseconds timeout) {
    const std::regex pattern(regex);
    return waitForLineWhere(
        &Subprocess::outLines,
        [&](const std::string& line) { return std::regex_match(line, pattern); }, timeout);
}

bool Subprocess::waitForErrLine(const std::string& exact, std::chrono::milliseconds timeout) {
    return waitForLineWhere(
        &Subprocess::errLines, [&](const std::string& line) { return line == exact; }, timeout);
}

bool Subprocess::waitForOutText(const std::string& text, std::chrono::milliseconds timeout) {
    return waitUntil([&] { return outText().find(text) != std::string::npos; }, timeout);
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
