// How long an exclusive request waits while two processes with four threads each check flat out.

#include "bench/BenchCache.h"
#include "rbac/enforcement/DiskAccessChecker.h"

#include <platform/FileLock.h>
#include <rbac/AccessCache.h>

#include <boost/make_shared.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <iomanip>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int PROCESSES = 2;
constexpr int THREADS = 4;

[[noreturn]] void checkForEver(const bench::BenchCache& cache) {
    const auto opened = boost::make_shared<AccessCache>(Manifest("bench", cache.directory()));
    const DiskAccessChecker checker(opened, {1, 2, 3, 4, 5}, Operation(0), 0);
    const auto check = [&] {
        const std::vector<ObjectNamespace> objects = cache.sample(1000, 6, 1);
        for (std::size_t i = 0;; i = (i + 1) % objects.size()) {
            checker.checkAccess(objects[i]);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back(check);
    }
    for (;;) {
        pause();
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 1 ? std::stoi(argv[1]) : 1000;
    const bench::BenchCache cache = bench::BenchCache::ofCorpus(100'000);
    const FileLock lock =
        FileLockManager::instance().getLock(cache.directory() + "/" + AccessCache::MANIFEST_FILE_NAME);

    std::vector<pid_t> children;
    for (int i = 0; i < PROCESSES; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            checkForEver(cache);
        }
        children.push_back(child);
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));

    std::vector<double> waits;
    for (int i = 0; i < requests; ++i) {
        const Clock::time_point asked = Clock::now();
        {
            const FileLockGuard guard(lock, FileLockGuard::EXCLUSIVE, -1, FileLock::DEFAULT_INTERVAL);
            waits.push_back(Milliseconds(Clock::now() - asked).count());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    for (const pid_t child : children) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }

    std::sort(waits.begin(), waits.end());
    const auto at = [&waits](double share) {
        return waits[static_cast<std::size_t>(share * static_cast<double>(waits.size() - 1))];
    };
    std::cout << std::fixed << std::setprecision(2) << waits.size() << " exclusive requests against " << PROCESSES
              << " x " << THREADS << " checking threads: median " << at(0.5) << " ms, p99 " << at(0.99)
              << " ms, maximum " << waits.back() << " ms (at most 100)\n";
    return waits.back() <= 100 ? 0 : 1;
}
