// Waiting for an event with a deadline, instead of sleeping for a fixed time.
#pragma once

#include <chrono>
#include <thread>

namespace qbtest {

/// Calls `condition` until it returns true or `timeout` has passed; checks every 500 us.
/// Returns the last result, so a condition that becomes true just at the deadline counts.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
}

/// Seconds since an arbitrary fixed point, from the monotonic clock.
inline double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace qbtest
