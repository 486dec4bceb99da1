#pragma once

#include <cstddef>
#include <new>

namespace testing_support {

// Lets memory run out on purpose. A program that uses this lists testing/FailingAllocations.cpp among its sources,
// which replaces operator new for the whole program.

/// While it lives, after `granted` allocations of the calling thread the next `failing` ones throw std::bad_alloc.
class FailingAllocations {
public:
    static constexpr long ALL = -1;
    static constexpr long ALL_OF_JANSSON = -2;  ///< of its allocations; the others are granted

    explicit FailingAllocations(long granted, long failing = ALL);
    ~FailingAllocations();
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;

    /// Whether an allocation has failed since the last one of these was made in this thread.
    static bool failed();
};

/// For jansson, which takes its memory from where it is told to. Its allocations fail where all that follow fail too:
/// where a single one fails, it may read a text without noticing that a byte is missing. Not counted by
/// liveAllocations().
void* allocateForJansson(std::size_t size) noexcept;
void releaseForJansson(void* memory) noexcept;

/// How many allocations of the program are not released yet.
long liveAllocations();

/// Runs `operation` again and again, with its first, second, ... allocation failing, until it goes through without one.
/// Calls `afterwards` after each run that threw std::bad_alloc.
///
/// @return how many runs threw.
template <class Operation, class Afterwards>
int failEachAllocation(const Operation& operation, const Afterwards& afterwards) {
    for (int granted = 0;; ++granted) {
        bool thrown = false;
        {
            const FailingAllocations scarce(granted);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            if (!thrown && !FailingAllocations::failed()) {
                return granted;
            }
        }
        afterwards();
    }
}

/// Runs `operation` again and again, with only its first, second, ... allocation failing, until there is none left to
/// fail: what comes after the failure, a log line for example, has memory again. Calls `afterwards(thrown)` after each
/// run in which one failed; `thrown` is whether it threw std::bad_alloc.
///
/// @return how many failed.
template <class Operation, class Afterwards>
int failEachOnce(const Operation& operation, const Afterwards& afterwards) {
    for (int granted = 0;; ++granted) {
        bool thrown = false;
        {
            const FailingAllocations failure(granted, 1);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
        }
        if (!FailingAllocations::failed()) {
            return granted;
        }
        afterwards(thrown);
    }
}

}  // namespace testing_support
