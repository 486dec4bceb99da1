#pragma once

#include <cstdint>
#include <ctime>

namespace platform_detail {

/// The monotonic clock as of the kernel's last timer tick, in nanoseconds: it steps every 1 to 10 ms and costs a few
/// nanoseconds to read.
inline std::int64_t coarseNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// The longest step of that clock on any kernel, in nanoseconds.
constexpr std::int64_t LONGEST_TICK = 10'000'000;

}  // namespace platform_detail
