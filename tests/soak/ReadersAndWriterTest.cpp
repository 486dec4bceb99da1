#include "rbac/enforcement/AlternatingPolicies.h"
#include "testing/ChildProcess.h"
#include "testing/ProcessState.h"
#include "testing/Sanitized.h"
#include "testing/SharedMemory.h"
#include "testing/Soak.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

// Processes that check on several threads, while a writer alternates two policies that contradict each other.

constexpr std::chrono::seconds IN_CHECK{testing_support::lessIfSanitized(20)};

using std::chrono::steady_clock;
using testing_support::AlternatingPolicies;
using testing_support::ChildProcess;
using testing_support::SharedMemory;
using testing_support::soakSeconds;

namespace {

constexpr int THREADS = 4;

/// What the reading processes tell the writing one.
struct Tally {
    std::atomic<bool> stop{false};
    std::atomic<long> looks{0};  // each of several thousand answers or of one
    std::atomic<long> mixed{0};
    std::atomic<long> seen[2]{};  // by policy
    std::atomic<long> exceptions{0};
};

void note(Tally& tally, int policy) {
    ++tally.looks;
    ++(policy == AlternatingPolicies::MIXED ? tally.mixed : tally.seen[policy]);
}

void readUntilStopped(AlternatingPolicies& policies, AlternatingPolicies::AccessControlClient& client, Tally& tally) {
    while (!tally.stop) {
        try {
            const auto checker = AlternatingPolicies::checkerOf(client);
            for (int i = 0; i < 100 && !tally.stop; ++i) {
                note(tally, policies.policyOf(*checker));
                tally.mixed += policies.answersTheInvariant(*checker) ? 0 : 1;
            }
            note(tally, policies.policyOfList(client));
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "%s\n", failure.what());
            ++tally.exceptions;
        }
    }
}

int readOnSeveralThreads(AlternatingPolicies& policies, Tally& tally) {
    const auto client = policies.client();
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] { readUntilStopped(policies, *client, tally); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}

/// How long a writer waited for readers each time.
class Waits {
public:
    void isAt(const char* step) {
        const auto now = steady_clock::now();
        if (waiting_) {
            waits_.push_back(now - since_);
        }
        waiting_ = step == std::string("lock manifest.json");
        since_ = now;
    }

    std::size_t count() const { return waits_.size(); }
    /// The share of the waits that are no longer than this, in milliseconds.
    double milliseconds(double share) {
        std::sort(waits_.begin(), waits_.end());
        const auto index = static_cast<std::size_t>(share * static_cast<double>(waits_.size() - 1));
        return std::chrono::duration<double, std::milli>(waits_[index]).count();
    }

private:
    bool waiting_ = false;
    steady_clock::time_point since_;
    std::vector<steady_clock::duration> waits_;
};

}  // namespace

TEST(ReadersAndWriter, NoAnswerIsMadeOfTwoPolicies) {
    AlternatingPolicies policies;
    policies.publish(0);
    const SharedMemory<Tally> tally;
    ChildProcess one([&] { return readOnSeveralThreads(policies, *tally); });
    ChildProcess other([&] { return readOnSeveralThreads(policies, *tally); });

    Waits waits;
    const auto end = steady_clock::now() + soakSeconds(IN_CHECK);
    for (unsigned number = 1; steady_clock::now() < end; ++number) {
        policies.publish(number, [&waits](const char* step) { waits.isAt(step); });
    }
    tally->stop = true;
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(other.wait(), 0);

    EXPECT_EQ(tally->mixed, 0);
    EXPECT_EQ(tally->exceptions, 0);
    EXPECT_GT(tally->seen[0], 0);
    EXPECT_GT(tally->seen[1], 0);
    EXPECT_GT(waits.count(), 20U);
    EXPECT_TRUE(testing_support::fileLockIsFree(policies.cacheDirectory() + "/manifest.json"));
    std::printf(
        "%ld looks (policy 0: %ld, policy 1: %ld), %ld mixed; %zu publications waited for readers: "
        "median %.2f ms, 99 %% within %.2f ms, longest %.2f ms\n",
        tally->looks.load(), tally->seen[0].load(), tally->seen[1].load(), tally->mixed.load(), waits.count(),
        waits.milliseconds(0.5), waits.milliseconds(0.99), waits.milliseconds(1));
}
