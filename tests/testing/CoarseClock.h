#pragma once

namespace testing_support {

// Stops the coarse monotonic clock. A program that uses this lists testing/CoarseClock.cpp among its sources, which
// puts its own clock_gettime() in front of the C library's.

/// While it lives, the coarse clock stands still but for what tick() does. One at a time.
class StoppedCoarseClock {
public:
    StoppedCoarseClock();
    ~StoppedCoarseClock();
    StoppedCoarseClock(const StoppedCoarseClock&) = delete;
    StoppedCoarseClock& operator=(const StoppedCoarseClock&) = delete;

    /// Lets the clock make its next step.
    void tick();
};

}  // namespace testing_support
