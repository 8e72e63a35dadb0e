// Opening the files a command writes (captures, logs, reports), with the one error line every
// command gives when that fails.
#pragma once

#include <fstream>
#include <string>

/// Opens output files for the cantp commands.
class OutputFile {
  public:
    /// Opens `path` into `file`, truncated; binary for captures. On failure writes
    /// "cantp COMMAND: cannot open PATH: REASON" to standard error and returns false (the
    /// commands then exit 1).
    static bool open(std::ofstream& file, const std::string& path, bool binary,
                     const std::string& command);
};
