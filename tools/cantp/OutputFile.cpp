#include "OutputFile.h"

#include <cerrno>
#include <cstring>
#include <iostream>

bool OutputFile::open(std::ofstream& file, const std::string& path, bool binary,
                      const std::string& command) {
    file.open(path, binary ? std::ios::out | std::ios::trunc | std::ios::binary
                           : std::ios::out | std::ios::trunc);
    if (file) {
        return true;
    }
    std::cerr << "cantp " << command << ": cannot open " << path << ": " << std::strerror(errno)
              << std::endl;
    return false;
}
