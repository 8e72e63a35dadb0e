#include "LogToStandardError.h"

#include <iostream>
#include <mutex>

#include "libqbio/LogUtil.h"

LogToStandardError::LogToStandardError() {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    std::cout.flush();
    saved = std::cout.rdbuf(std::cerr.rdbuf());
}

LogToStandardError::~LogToStandardError() {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    std::cout.rdbuf(saved);
}
