// The CPU time and context switches of the whole process, for figures per frame.
#pragma once

#include <cstdint>

/// A reading of getrusage(RUSAGE_SELF): it counts every thread of the process (the endpoints',
/// the bus's, the readers' and the caller's), those that have ended included.
struct ProcessUsage {
    /// User plus system CPU time, in seconds.
    double cpuSeconds = 0.0;
    /// Voluntary plus involuntary context switches: the times a thread of the process gave up
    /// or lost its CPU, each followed by a wake-up.
    uint64_t contextSwitches = 0;

    /// The process's usage now.
    static ProcessUsage now();
    /// What was used between `earlier` and this reading.
    ProcessUsage since(const ProcessUsage& earlier) const;
};
