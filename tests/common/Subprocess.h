// Runs a program as a child process with pipes on its standard streams, for tests that drive a
// tool the way a script would.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace qbtest {

/// A child process with standard input, output and error connected to pipes.
/// Output is collected by reading the pipes on demand (collect(), the queries and waitFor...()).
/// SIGPIPE is ignored in the test process, so that writing to a child that has exited fails the
/// write instead of ending the test.
class Subprocess {
  public:
    /// Starts `program` with `args` (argv[1..]), through emulatedCommand(program) in a cross
    /// build; fails the current test if it cannot. With a
    /// `stdoutPath`, standard output goes to that file (opened for writing) instead of a pipe.
    Subprocess(const std::string& program, const std::vector<std::string>& args,
               const std::string& stdoutPath = std::string());
    /// Kills the child if it still runs and reaps it.
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    /// Writes text to the child's standard input. While the input pipe is full it collects the
    /// child's output, so that a child blocked on writing its output can go on reading.
    bool write(const std::string& text);
    /// Closes the child's standard input (end of input).
    void closeInput();
    /// Sends a signal to the child.
    void signal(int sig);

    /// Reads what the child has written so far into the collected output.
    void collect();
    /// Everything the child has written to standard output / error so far.
    std::string outText();
    std::string errText();
    /// The complete lines of standard output / error collected so far.
    std::vector<std::string> outLines();
    std::vector<std::string> errLines();

    /// Waits until a complete output line satisfies `pred` (or `timeout` passes).
    bool waitForOutLine(const std::string& exact, std::chrono::milliseconds timeout);
    bool waitForOutLineMatching(const std::string& regex, std::chrono::milliseconds timeout);
    bool waitForErrLine(const std::string& exact, std::chrono::milliseconds timeout);
    /// Waits until standard output contains `text` anywhere (also within a line).
    bool waitForOutText(const std::string& text, std::chrono::milliseconds timeout);

    /// Waits for the child to exit, at most `timeout`; returns its exit status, or -1 if it did
    /// not exit in time (it is then killed), or 128 + signal number if a signal ended it.
    int wait(std::chrono::milliseconds timeout);

  private:
    /// Waits until some line that `lines` returns satisfies `matches`.
    template <typename Predicate>
    bool waitForLineWhere(std::vector<std::string> (Subprocess::*lines)(), Predicate matches,
                          std::chrono::milliseconds timeout);

    pid_t pid;
    int in;
    int out;
    int err;
    std::string outCollected;
    std::string errCollected;
    int exitStatus;
};

/// The command that has to come before `program` to start it: empty natively. In a cross
/// build whose tests run under an emulator (CMAKE_CROSSCOMPILING_EMULATOR, see
/// docs/armv7.md), the emulator's command line when `program` is built for the target, so
/// that every test starts the project's programs the way CTest starts the test itself.
/// Subprocess uses it for every child; it is the one place that knows about emulation.
std::vector<std::string> emulatedCommand(const std::string& program);

/// The GoogleTest death-test style for a test whose process runs threads: "threadsafe" (the
/// child re-executes the test program) natively; "fast" (the child is forked without exec)
/// under an emulator, where the kernel cannot execute the target's program by itself. Use it as
/// GTEST_FLAG_SET(death_test_style, qbtest::deathTestStyle()).
inline const char* deathTestStyle() {
#ifdef QB_TEST_EMULATOR
    return "fast";
#else
    return "threadsafe";
#endif
}

/// Path of the cantp binary under test (from the build).
std::string cantpPath();

}  // namespace qbtest
