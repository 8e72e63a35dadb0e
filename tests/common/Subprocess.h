// Runs a program as a child process with pipes on its standard streams, for tests that drive a
// tool the way a script would.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace qbtest {

/// A child process with standard input, output and error connected to pipes.
/// Output is collected by reading the pipes on demand (readAvailable()/waitFor...()).
class Subprocess {
  public:
    /// Starts `program` with `args` (argv[1..]); fails the current test if it cannot.
    Subprocess(const std::string& program, const std::vector<std::string>& args);
    /// Kills the child if it still runs and reaps it.
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    /// Writes text to the child's standard input.
    bool write(const std::string& text);
    /// Closes the child's standard input (end of input).
    void closeInput();
    /// Sends a signal to the child.
    void signal(int sig);

    /// Reads what the child has written so far into the collected output.
    void collect();
    /// The complete lines of standard output / error collected so far.
    std::vector<std::string> outLines();
    std::vector<std::string> errLines();

    /// Waits until a complete output line satisfies `pred` (or `timeout` passes).
    bool waitForOutLine(const std::string& exact, std::chrono::milliseconds timeout);
    bool waitForOutLineMatching(const std::string& regex, std::chrono::milliseconds timeout);
    bool waitForErrLine(const std::string& exact, std::chrono::milliseconds timeout);

    /// Waits for the child to exit, at most `timeout`; returns its exit status, or -1 if it did
    /// not exit in time (it is then killed), or 128 + signal number if a signal ended it.
    int wait(std::chrono::milliseconds timeout);

  private:
    pid_t pid;
    int in;
    int out;
    int err;
    std::string outText;
    std::string errText;
    int exitStatus;
};

/// Path of the cantp binary under test (from the build).
std::string cantpPath();

}  // namespace qbtest
