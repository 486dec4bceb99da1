#pragma once

#include <pthread.h>

#include <atomic>

namespace platform_detail {

inline std::atomic<unsigned long> forkCount{1};

/// Counted in every child made by fork(): state that was in use by the parent's threads when it forked belongs to
/// nobody in the child, and is known by its older number. Never 0. Each shared library counts for itself.
inline unsigned long forkGeneration() {
    return forkCount.load(std::memory_order_relaxed);
}

inline const int forkCounting = pthread_atfork(nullptr, nullptr, [] { forkCount.fetch_add(1); });

}  // namespace platform_detail
