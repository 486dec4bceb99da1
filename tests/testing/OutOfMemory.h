#pragma once

#include "testing/FailingAllocations.h"

#include <platform/Status.h>

#include <gtest/gtest.h>

#include <exception>
#include <new>
#include <set>

namespace testing_support {

// How a call ends that is not told by a status.
constexpr int BAD_ALLOC = -1;
constexpr int OTHER_EXCEPTION = -2;

/// The status that a call returns or throws.
template <class Call>
int endingOf(const Call& call) {
    try {
        return call();
    } catch (const EC_exception& failure) {
        return failure.status;
    } catch (const std::bad_alloc&) {
        return BAD_ALLOC;
        // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): as the JSON helpers throw it
    } catch (const std::bad_alloc* failure) {
        delete failure;
        return BAD_ALLOC;
    } catch (const std::exception&) {
        return OTHER_EXCEPTION;
    }
}

/// Runs a call that returns a status, and keeps nothing, with its first, second, ... allocation failing: with all that
/// follow, with these granted again, and with only those failing that jansson makes from then on, if it is told to take
/// its memory from here. Expects that nothing is left of any run, and that it succeeds (0) in the
/// end. `Afterwards` is called after each run that failed to get memory.
///
/// @return the different endings of the runs in which an allocation failed; with 0 where it could be done without.
template <class Call, class Afterwards>
std::set<int> endingsWithoutMemory(const Call& call, const Afterwards& afterwards) {
    std::set<int> endings;
    // What is made once, and tables that grow.
    EXPECT_EQ(endingOf(call), 0);
    EXPECT_EQ(endingOf(call), 0);
    const long before = liveAllocations();
    for (const long failing : {FailingAllocations::ALL, 1L, FailingAllocations::ALL_OF_JANSSON}) {
        for (long granted = 0;; ++granted) {
            int ending = 0;
            {
                const FailingAllocations scarce(granted, failing);
                ending = endingOf(call);
            }
            if (!FailingAllocations::failed()) {
                EXPECT_EQ(ending, 0);
                break;
            }
            const long left =
                liveAllocations() - before - static_cast<long>(endings.size());  // but for the set's nodes
            if (left != 0) {
                ADD_FAILURE() << left << " allocations are left where " << granted << " were granted";
                return endings;
            }
            afterwards();
            endings.insert(ending);
        }
    }
    EXPECT_FALSE(endings.empty()) << "nothing is allocated";
    return endings;
}

template <class Call>
std::set<int> endingsWithoutMemory(const Call& call) {
    return endingsWithoutMemory(call, [] {});
}

}  // namespace testing_support
