// Waiting for an event with a deadline, instead of sleeping for a fixed time.
#pragma once

#include <chrono>
#include <thread>

#ifndef QB_TEST_TIME_SCALE
#define QB_TEST_TIME_SCALE 1
#endif

namespace qbtest {

/// How much slower than the build machine the tests run: the CMake cache variable
/// QB_TEST_TIME_SCALE, 1 natively, larger on a slow target (the armv7 preset runs the tests
/// under user-mode emulation). See docs/armv7.md.
constexpr int timeScale = QB_TEST_TIME_SCALE;
static_assert(timeScale >= 1, "QB_TEST_TIME_SCALE must be at least 1");

/// A time limit of a timing check, stretched for a slow target: `limit` natively. Only for
/// limits that bound how long the code under test may take (a wait for an event, the upper
/// tolerance of a measured duration); a duration the code itself must keep, or a lower bound,
/// is never scaled.
template <typename Rep, typename Period>
constexpr std::chrono::duration<Rep, Period> scaled(std::chrono::duration<Rep, Period> limit) {
    return limit * timeScale;
}

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
