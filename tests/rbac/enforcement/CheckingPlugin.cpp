#include "rbac/enforcement/AlternatingPolicies.h"

#include <platform/Logger.h>

#include <atomic>
#include <thread>
#include <vector>

// What a server program loads that has no library of its own: checks on several threads, while another one publishes.

using testing_support::AlternatingPolicies;

extern "C" __attribute__((visibility("default"))) int countWrongAnswers() {
    constexpr int READERS = 3;
    constexpr unsigned PUBLICATIONS = 5;
    AlternatingPolicies policies;
    policies.publish(0);
    const auto client = policies.client();
    std::atomic<int> wrong{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < READERS; ++i) {
        threads.emplace_back([&] {
            do {
                const auto checker = AlternatingPolicies::checkerOf(*client);
                const bool isRight =
                    policies.policyOf(*checker) != AlternatingPolicies::MIXED && policies.answersTheInvariant(*checker);
                wrong += isRight ? 0 : 1;
            } while (!stop);
        });
    }
    for (unsigned number = 1; number <= PUBLICATIONS; ++number) {
        policies.publish(number);
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    return wrong;
}
