#include "common/CantpRun.h"

#include <gtest/gtest.h>

namespace qbtest {

CantpRun finishCantp(Subprocess& process, const std::string& input,
                     std::chrono::milliseconds timeout) {
    process.write(input);
    process.closeInput();
    CantpRun result;
    result.status = process.wait(timeout);
    if (result.status == -1) {
        ADD_FAILURE() << "cantp did not finish within " << timeout.count() << " ms";
    }
    result.out = process.outText();
    result.err = process.errText();
    return result;
}

CantpRun runCantp(const std::vector<std::string>& args, const std::string& input,
                  std::chrono::milliseconds timeout) {
    Subprocess process(cantpPath(), args);
    return finishCantp(process, input, timeout);
}

std::string lineStartingWith(const std::vector<std::string>& lines, const std::string& prefix) {
    for (const std::string& line : lines) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return line;
        }
    }
    return std::string();
}

}  // namespace qbtest
