#include "rbac/enforcement/AlternatingPolicies.h"
#include "testing/ChildProcess.h"
#include "testing/ProcessState.h"
#include "testing/SharedMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// A server that makes its client and its checker once, forks its workers and replaces those that die. The parent checks
// too, on threads of its own, and all the while a writer publishes.

using testing_support::AlternatingPolicies;
using testing_support::ChildProcess;
using testing_support::openDescriptorCount;
using testing_support::SharedMemory;

namespace {

constexpr std::size_t WORKERS = 6;
constexpr int THREADS = 2;
constexpr int DEATHS = 40;
constexpr std::chrono::milliseconds LIFE{25};
constexpr int KEPT_OPEN = 16;  // descriptors of one lock file, at the most; threads may use each other's

struct Tally {
    std::atomic<bool> stop{false};
    std::atomic<long> answers{0};
    std::atomic<long> wrong{0};
    std::atomic<int> grown{0};  // workers that end with more descriptors than they should have
};

class PreforkingServer : public testing::Test {
protected:
    bool looksRight(const AlternatingPolicies::AccessChecker& checker) {
        return policies_.policyOf(checker) != AlternatingPolicies::MIXED && policies_.answersTheInvariant(checker) &&
               policies_.policyOfList(*client_) != AlternatingPolicies::MIXED;
    }

    /// Checks with the checker that the server made before it forked, and with new ones.
    void checkUntilStopped() {
        while (!tally_->stop) {
            tally_->wrong += looksRight(*checker_) && looksRight(*AlternatingPolicies::checkerOf(*client_)) ? 0 : 1;
            tally_->answers += 1;
        }
    }

    std::vector<std::thread> startChecking() {
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([this] { checkUntilStopped(); });
        }
        return threads;
    }

    static void join(std::vector<std::thread>& threads) {
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    std::unique_ptr<ChildProcess> startWorker() {
        return std::make_unique<ChildProcess>([this] {
            const int before = openDescriptorCount();
            auto threads = startChecking();
            join(threads);
            tally_->grown += openDescriptorCount() > before + KEPT_OPEN ? 1 : 0;
            return 0;
        });
    }

    AlternatingPolicies policies_;
    boost::shared_ptr<AlternatingPolicies::AccessControlClient> client_ = [this] {
        policies_.publish(0);
        return policies_.client();
    }();
    boost::shared_ptr<const AlternatingPolicies::AccessChecker> checker_ = AlternatingPolicies::checkerOf(*client_);
    const SharedMemory<Tally> tally_;
};

}  // namespace

TEST_F(PreforkingServer, WorkersThatDieAndAreReplacedHarmNobodysAnswers) {
    ChildProcess writer([this] {
        for (unsigned number = 1; !tally_->stop; ++number) {
            policies_.publish(number);
        }
        return 0;
    });
    auto threads = startChecking();
    std::array<std::unique_ptr<ChildProcess>, WORKERS> workers;
    std::generate(workers.begin(), workers.end(), [this] { return startWorker(); });
    for (std::size_t i = 0; i < DEATHS; ++i) {
        std::this_thread::sleep_for(LIFE);
        workers[i % WORKERS]->kill(SIGKILL);
        EXPECT_EQ(workers[i % WORKERS]->wait(), -SIGKILL);
        workers[i % WORKERS] = startWorker();
    }
    tally_->stop = true;
    for (const auto& worker : workers) {
        EXPECT_EQ(worker->wait(), 0);
    }
    EXPECT_EQ(writer.wait(), 0);
    join(threads);
    EXPECT_EQ(tally_->wrong, 0);
    EXPECT_EQ(tally_->grown, 0);
    EXPECT_GT(tally_->answers, DEATHS);
    EXPECT_TRUE(testing_support::fileLockIsFree(policies_.cacheDirectory() + "/manifest.json"));
}

TEST_F(PreforkingServer, WorkersGoOnWhenTheServerHasGivenUpItsOwnClient) {
    auto worker = startWorker();
    checker_.reset();
    client_.reset();
    policies_.publish(1);
    std::this_thread::sleep_for(LIFE);
    tally_->stop = true;
    EXPECT_EQ(worker->wait(), 0);
    EXPECT_EQ(tally_->wrong, 0);
    EXPECT_GT(tally_->answers, 0);
}

TEST_F(PreforkingServer, AWorkerMayGiveUpWhatItInherited) {
    ChildProcess worker([this] {
        checker_.reset();
        client_.reset();
        return 0;
    });
    EXPECT_EQ(worker.wait(), 0);
    EXPECT_TRUE(looksRight(*checker_));
}
