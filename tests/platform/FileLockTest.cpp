#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <platform/Status.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing_support::ChildProcess;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::openDescriptorCount;
using testing_support::Signal;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

constexpr int SHARED = 0;
constexpr int EXCLUSIVE = 1;
constexpr long WITHOUT_LIMIT = -1;

FileLock lockOf(const std::string& path) {
    return FileLockManager::instance().getLock(path);
}

std::unique_ptr<FileLockGuard> take(const std::string& path, int mode, long timeoutMs = WITHOUT_LIMIT) {
    return std::make_unique<FileLockGuard>(lockOf(path), mode, timeoutMs, FileLock::DEFAULT_INTERVAL);
}

/// Whether the lock can be had within the time.
bool canTake(const std::string& path, int mode, long timeoutMs = 0) {
    try {
        take(path, mode, timeoutMs);
        return true;
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, platform_status::LOCK_TIMED_OUT);
        return false;
    }
}

/// A process that holds the lock until it is told to let go or is destroyed.
class Holder {
public:
    Holder(const std::string& path, int mode)
        : child_([this, path, mode] {
              const auto guard = take(path, mode);
              holds_.notify();
              letGo_.wait();
              return 0;
          }) {
        holds_.wait();
    }

    void letGo() {
        letGo_.notify();
        EXPECT_EQ(child_.wait(), 0);
    }
    void kill() {
        child_.kill(SIGKILL);
        EXPECT_EQ(child_.wait(), -SIGKILL);
    }

private:
    Signal holds_;
    Signal letGo_;
    ChildProcess child_;
};

class FileLockTest : public testing::Test {
protected:
    TemporaryDirectory directory_;
    std::string path_ = directory_ / "some.lock";
};

TEST_F(FileLockTest, SharedHoldersInOtherProcessesAreNotExcluded) {
    Holder holder(path_, SHARED);
    EXPECT_TRUE(canTake(path_, SHARED));
    holder.letGo();
}

TEST_F(FileLockTest, SharedHoldersInOneProcessAreNotExcluded) {
    const auto first = take(path_, SHARED);
    EXPECT_TRUE(canTake(path_, SHARED));
}

TEST_F(FileLockTest, ASharedHolderInAnotherProcessExcludesAnExclusiveOne) {
    Holder holder(path_, SHARED);
    EXPECT_FALSE(canTake(path_, EXCLUSIVE));
    holder.letGo();
    EXPECT_TRUE(canTake(path_, EXCLUSIVE));
}

TEST_F(FileLockTest, AnExclusiveHolderInAnotherProcessExcludesEverybody) {
    Holder holder(path_, EXCLUSIVE);
    EXPECT_FALSE(canTake(path_, SHARED));
    EXPECT_FALSE(canTake(path_, EXCLUSIVE));
    holder.letGo();
    EXPECT_TRUE(canTake(path_, SHARED));
}

TEST_F(FileLockTest, AnExclusiveHolderExcludesOtherThreadsOfItsProcess) {
    const auto held = take(path_, EXCLUSIVE);
    bool shared = true;
    bool exclusive = true;
    std::thread([&] {
        shared = canTake(path_, SHARED);
        exclusive = canTake(path_, EXCLUSIVE);
    }).join();
    EXPECT_FALSE(shared);
    EXPECT_FALSE(exclusive);
}

TEST_F(FileLockTest, OnlyOneThreadAtATimeIsInsideTheExclusiveLock) {
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 200; ++round) {
                const auto guard = take(path_, EXCLUSIVE);
                most = std::max(most.load(), ++inside);
                --inside;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(most, 1);
}

TEST_F(FileLockTest, LocksOfDifferentPathsAreIndependent) {
    const auto held = take(path_, EXCLUSIVE);
    EXPECT_TRUE(canTake(directory_ / "other.lock", EXCLUSIVE));
}

TEST_F(FileLockTest, AGuardMayBeDestroyedByAnotherThread) {
    auto guard = take(path_, EXCLUSIVE);
    std::thread([&guard] { guard.reset(); }).join();
    EXPECT_TRUE(canTake(path_, EXCLUSIVE));
}

TEST_F(FileLockTest, AGuardOutlivesTheHandleThatItWasMadeFrom) {
    auto guard = std::make_unique<FileLockGuard>(FileLockManager::instance().getLock(path_), EXCLUSIVE, 0, 1);
    EXPECT_FALSE(canTake(path_, SHARED));
    guard.reset();
    EXPECT_TRUE(canTake(path_, SHARED));
}

TEST_F(FileLockTest, ATimeoutThatPassesThrowsItsStatus) {
    Holder holder(path_, EXCLUSIVE);
    const auto begin = steady_clock::now();
    try {
        take(path_, SHARED, 50);
        FAIL() << "the lock was granted";
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, platform_status::LOCK_TIMED_OUT);
        EXPECT_EQ(failure.what(), getECmsg(platform_status::LOCK_TIMED_OUT));
        EXPECT_GE(steady_clock::now() - begin, milliseconds(50));
    }
}

TEST_F(FileLockTest, AWaitWithALimitIsGrantedWhenTheHolderLetsGo) {
    Holder holder(path_, EXCLUSIVE);
    std::atomic<bool> granted{false};
    std::thread waiter([&] { granted = canTake(path_, SHARED, 60'000); });
    holder.letGo();
    waiter.join();
    EXPECT_TRUE(granted);
}

TEST_F(FileLockTest, AWaitWithoutLimitLastsUntilTheHolderLetsGo) {
    Holder holder(path_, EXCLUSIVE);
    std::atomic<bool> granted{false};
    std::thread waiter([&] {
        take(path_, SHARED);
        granted = true;
    });
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_FALSE(granted);
    holder.letGo();
    waiter.join();
    EXPECT_TRUE(granted);
}

TEST_F(FileLockTest, AnIntervalThatIsNotPositiveCountsAsOneMillisecond) {
    Holder holder(path_, EXCLUSIVE);
    EXPECT_THROW(FileLockGuard(lockOf(path_), SHARED, 5, 0), EC_exception);
    EXPECT_THROW(FileLockGuard(lockOf(path_), SHARED, 5, -7), EC_exception);
}

TEST_F(FileLockTest, AProcessThatIsKilledHoldsNothing) {
    Holder holder(path_, EXCLUSIVE);
    holder.kill();
    EXPECT_TRUE(canTake(path_, EXCLUSIVE));
}

TEST_F(FileLockTest, TheLockFileIsMadeWhenItIsMissing) {
    EXPECT_TRUE(canTake(path_, SHARED));
    EXPECT_EQ(std::filesystem::file_size(path_), 0U);
}

TEST_F(FileLockTest, GettingALockTouchesNoFile) {
    lockOf(path_);
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(FileLockTest, TheContentsOfTheLockFileStay) {
    writeFile(path_, "precious");
    EXPECT_TRUE(canTake(path_, EXCLUSIVE));
    EXPECT_EQ(testing_support::readFile(path_), "precious");
}

TEST_F(FileLockTest, PermissionToReadIsEnough) {
    writeFile(path_, "");
    ASSERT_EQ(chmod(path_.c_str(), 0444), 0);
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    ChildProcess reader([this] {
        if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
            return 2;
        }
        const bool writable = access(path_.c_str(), W_OK) == 0;
        return !writable && canTake(path_, SHARED) && canTake(path_, EXCLUSIVE) ? 0 : 1;
    });
    EXPECT_EQ(reader.wait(), 0);
}

TEST_F(FileLockTest, AFileThatIsDeletedAndMadeAnewIsLockedAnew) {
    EXPECT_TRUE(canTake(path_, SHARED));
    std::filesystem::remove(path_);
    writeFile(path_, "");
    Holder holder(path_, EXCLUSIVE);
    EXPECT_FALSE(canTake(path_, SHARED));
    holder.letGo();
    EXPECT_TRUE(canTake(path_, SHARED));
}

TEST_F(FileLockTest, AFileThatIsDeletedIsMadeAnewByTheNextRequest) {
    EXPECT_TRUE(canTake(path_, SHARED));
    std::filesystem::remove(path_);
    const auto held = take(path_, EXCLUSIVE);
    EXPECT_TRUE(std::filesystem::exists(path_));
    EXPECT_FALSE(canTake(path_, SHARED));
}

TEST_F(FileLockTest, AFileThatAnotherReplacesIsLockedAnew) {
    EXPECT_TRUE(canTake(path_, EXCLUSIVE));
    writeFile(directory_ / "successor", "");
    std::filesystem::rename(directory_ / "successor", path_);
    Holder holder(path_, EXCLUSIVE);
    EXPECT_FALSE(canTake(path_, EXCLUSIVE));
    holder.letGo();
}

TEST_F(FileLockTest, AnExclusiveRequestThatWaitedOnADeletedFileLocksTheNewOne) {
    auto old = take(path_, EXCLUSIVE);
    std::atomic<bool> granted{false};
    std::unique_ptr<FileLockGuard> second;
    std::thread waiter([&] {
        second = take(path_, EXCLUSIVE);
        granted = true;
    });
    std::this_thread::sleep_for(milliseconds(20));
    std::filesystem::remove(path_);
    writeFile(path_, "");
    old.reset();
    waiter.join();
    EXPECT_TRUE(granted);
    const int descriptor = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_NE(flock(descriptor, LOCK_SH | LOCK_NB), 0);
    close(descriptor);
}

TEST_F(FileLockTest, AnExclusiveHolderOfANewFileHasWaitedOutThoseWhoKnowTheOldOne) {
    // A reader looks at the path at least once in 10 ms, so after twice that time nobody enters by the old file.
    const auto begin = steady_clock::now();
    const auto held = take(path_, EXCLUSIVE, 0);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(20));
}

TEST_F(FileLockTest, AForkChildDoesNotHoldItsParentsLock) {
    auto held = take(path_, EXCLUSIVE);
    Signal end;
    ChildProcess child([&end] {
        end.wait();
        return 0;
    });
    held.reset();
    EXPECT_TRUE(canTake(path_, EXCLUSIVE));
    end.notify();
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(FileLockTest, ALockDiesWithItsProcessThoughAForkChildLives) {
    Signal forked;
    Signal end;
    ChildProcess parent([&] {
        const auto held = take(path_, EXCLUSIVE);
        if (fork() == 0) {
            forked.notify();
            end.wait();
            _exit(0);
        }
        forked.wait();
        raise(SIGKILL);
        return 1;
    });
    EXPECT_EQ(parent.wait(), -SIGKILL);
    EXPECT_TRUE(canTake(path_, EXCLUSIVE));
    end.notify();
}

TEST_F(FileLockTest, AForkChildDoesNotReleaseItsParentsLock) {
    auto held = take(path_, EXCLUSIVE);
    ChildProcess child([&held] {
        held.reset();
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(canTake(path_, SHARED));
}

TEST_F(FileLockTest, AForkChildTakesLocksOfItsOwn) {
    const auto held = take(path_, EXCLUSIVE);
    ChildProcess child([this] { return canTake(path_, SHARED) ? 1 : 0; });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(FileLockTest, AForkChildInheritsNoDescriptorOfALock) {
    const int before = openDescriptorCount();
    const auto first = take(path_, SHARED);
    const auto second = take(path_, SHARED);
    ASSERT_EQ(openDescriptorCount(), before + 2);
    ChildProcess child([before] { return openDescriptorCount() - before; });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(FileLockTest, DescriptorsAreClosedOnExec) {
    const auto held = take(path_, SHARED);
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) == path_) {
            ++found;
            EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST_F(FileLockTest, ManyHoldersAtOnceLeaveFewDescriptorsBehind) {
    const int before = openDescriptorCount();
    {
        const FileLock lock = lockOf(path_);
        std::vector<std::unique_ptr<FileLockGuard>> guards;
        for (int i = 0; i < 100; ++i) {
            guards.push_back(std::make_unique<FileLockGuard>(lock, SHARED, WITHOUT_LIMIT, 1));
        }
        EXPECT_EQ(openDescriptorCount(), before + 100);
        guards.clear();
        EXPECT_LE(openDescriptorCount(), before + 16);
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(FileLockTest, AFailedRequestLeavesNothingBehind) {
    Holder holder(path_, EXCLUSIVE);
    const int before = openDescriptorCount();
    for (int i = 0; i < 50; ++i) {
        EXPECT_FALSE(canTake(path_, SHARED));
    }
    EXPECT_EQ(openDescriptorCount(), before);
    holder.letGo();
    EXPECT_TRUE(canTake(path_, EXCLUSIVE));
}

TEST_F(FileLockTest, ALockFileThatCannotBeMadeIsAnErrorThatNamesIt) {
    const std::string path = directory_ / "missing/some.lock";
    const LogCapture log;
    try {
        take(path, SHARED);
        FAIL() << "the lock was granted";
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, platform_status::LOCK_UNAVAILABLE);
    }
    EXPECT_EQ(
        log.lines(),
        (std::vector<LogLine>{{16, "FileLockGuard", "cannot open lock file " + path + ": No such file or directory"}}));
}

TEST_F(FileLockTest, AnUnknownModeIsRefused) {
    for (const int mode : {-1, 2}) {
        try {
            take(path_, mode);
            FAIL() << "mode " << mode << " was accepted";
        } catch (const EC_exception& failure) {
            EXPECT_EQ(failure.status, platform_status::LOCK_MODE_UNKNOWN);
        }
    }
}

#ifdef __SANITIZE_THREAD__
// The thread sanitizer holds signals back while a thread is in a system call that it does not know to be a waiting one.
constexpr bool SIGNALS_ARRIVE = false;
#else
constexpr bool SIGNALS_ARRIVE = true;
#endif

/// Lets SIGUSR1 interrupt system calls while it lives.
class InterruptingSignal {
public:
    InterruptingSignal() {
        struct sigaction action {};
        action.sa_handler = [](int) { ++received; };
        sigaction(SIGUSR1, &action, &before_);
        received = 0;
    }
    ~InterruptingSignal() { sigaction(SIGUSR1, &before_, nullptr); }
    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

    static std::atomic<int> received;

private:
    struct sigaction before_ {};
};
std::atomic<int> InterruptingSignal::received{0};

TEST_F(FileLockTest, SignalsDoNotEndAWaitWithoutLimit) {
    if (!SIGNALS_ARRIVE) {
        GTEST_SKIP();
    }
    for (const int mode : {SHARED, EXCLUSIVE}) {
        const InterruptingSignal interrupting;
        Holder holder(path_, EXCLUSIVE);
        std::atomic<bool> granted{false};
        std::thread waiter([&] {
            take(path_, mode);
            granted = true;
        });
        while (InterruptingSignal::received < 5) {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(milliseconds(2));
        }
        EXPECT_FALSE(granted);
        holder.letGo();
        waiter.join();
        EXPECT_TRUE(granted);
    }
}

TEST_F(FileLockTest, SignalsDoNotChangeTheLimitOfAWait) {
    if (!SIGNALS_ARRIVE) {
        GTEST_SKIP();
    }
    const InterruptingSignal interrupting;
    Holder holder(path_, EXCLUSIVE);
    std::atomic<bool> over{false};
    steady_clock::duration waited{};
    std::thread waiter([&] {
        const auto begin = steady_clock::now();
        EXPECT_FALSE(canTake(path_, SHARED, 100));
        waited = steady_clock::now() - begin;
        over = true;
    });
    while (!over) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(milliseconds(2));
    }
    waiter.join();
    EXPECT_GT(InterruptingSignal::received, 0);
    EXPECT_GE(waited, milliseconds(100));
    EXPECT_LT(waited, milliseconds(5'000));
    holder.letGo();
}

TEST_F(FileLockTest, AnExclusiveRequestIsGrantedAgainstAStreamOfSharedOnes) {
    const auto shareForEver = [this] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([this] {
                const FileLock lock = lockOf(path_);
                for (;;) {
                    const FileLockGuard guard(lock, SHARED, WITHOUT_LIMIT, FileLock::DEFAULT_INTERVAL);
                }
            });
        }
        threads.front().join();
        return 0;
    };
    const ChildProcess first(shareForEver);
    const ChildProcess second(shareForEver);
    for (int i = 0; i < 50; ++i) {
        // Far more than is ever needed, far less than without precedence, when it is never granted.
        ASSERT_TRUE(canTake(path_, EXCLUSIVE, 20'000)) << "request " << i;
    }
}

TEST_F(FileLockTest, AThreadThatHoldsItSharedGetsItSharedAgainWhileAnExclusiveRequestWaits) {
    auto first = take(path_, SHARED);
    std::thread writer([this] { take(path_, EXCLUSIVE); });
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_TRUE(canTake(path_, SHARED, WITHOUT_LIMIT));
    first.reset();
    writer.join();
}

}  // namespace
