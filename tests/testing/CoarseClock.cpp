#include "testing/CoarseClock.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdint>
#include <ctime>

namespace {

constexpr std::int64_t SECOND = 1'000'000'000;
constexpr std::int64_t TICK = 4'000'000;

std::atomic<std::int64_t> stoppedAt{0};  // in nanoseconds; 0: the clock goes

int realTime(clockid_t clock, timespec* time) {
    static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
    return real(clock, time);
}

}  // namespace

namespace testing_support {

StoppedCoarseClock::StoppedCoarseClock() {
    timespec now{};
    realTime(CLOCK_MONOTONIC_COARSE, &now);
    stoppedAt = now.tv_sec * SECOND + now.tv_nsec;
}

StoppedCoarseClock::~StoppedCoarseClock() {
    stoppedAt = 0;
}

void StoppedCoarseClock::tick() {
    stoppedAt += TICK;
}

}  // namespace testing_support

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const std::int64_t stopped = stoppedAt;
    if (clock != CLOCK_MONOTONIC_COARSE || stopped == 0) {
        return realTime(clock, time);
    }
    time->tv_sec = stopped / SECOND;
    time->tv_nsec = stopped % SECOND;
    return 0;
}
