// Running the cantp tool to its end from a test, the way a script would, and reading its
// summary lines.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "common/Subprocess.h"

namespace qbtest {

/// What a finished cantp run left.
struct CantpRun {
    int status = -1;  ///< as Subprocess::wait() returns it: -1 if it did not exit in time
    std::string out;
    std::string err;
};

/// Writes `input` to `process`, closes its standard input and waits for it to exit (at most
/// `timeout`, a failure of the current test if it takes longer), taking all it wrote.
CantpRun finishCantp(Subprocess& process, const std::string& input = std::string(),
                     std::chrono::milliseconds timeout = std::chrono::seconds(60));

/// Runs cantp with `args` and `input` on its standard input to the end (see finishCantp()).
CantpRun runCantp(const std::vector<std::string>& args, const std::string& input = std::string(),
                  std::chrono::milliseconds timeout = std::chrono::seconds(60));

/// The first of `lines` that starts with `prefix` (a summary line by its key), or "" if none
/// does.
std::string lineStartingWith(const std::vector<std::string>& lines, const std::string& prefix);

}  // namespace qbtest
