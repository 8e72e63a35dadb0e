#include "ProcessUsage.h"

#include <sys/resource.h>

ProcessUsage ProcessUsage::now() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    ProcessUsage reading;
    reading.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    reading.contextSwitches =
        static_cast<uint64_t>(usage.ru_nvcsw) + static_cast<uint64_t>(usage.ru_nivcsw);
    return reading;
}

ProcessUsage ProcessUsage::since(const ProcessUsage& earlier) const {
    ProcessUsage used;
    used.cpuSeconds = cpuSeconds - earlier.cpuSeconds;
    used.contextSwitches = contextSwitches - earlier.contextSwitches;
    return used;
}
