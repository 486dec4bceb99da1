#include "rbac/enforcement/DiskAccessChecker.h"
#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/Sanitized.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <rbac/AccessCache.h>
#include <rbac/BulkAccess.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

constexpr int PUBLICATIONS = testing_support::lessIfSanitized(160);

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::AccessChecker;
using Tesmor::Arkwell::Rbac::DiskAccessChecker;
using Tesmor::Arkwell::Rbac::ManagedObject;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using testing_support::ChildProcess;
using testing_support::fileLockIsFree;
using testing_support::Grants;
using testing_support::LogCapture;
using testing_support::mappingCount;
using testing_support::RawCache;
using testing_support::setWritingFlag;
using testing_support::Signal;
using testing_support::TemporaryDirectory;

namespace {

constexpr int THREADS = 4;
constexpr int ROLE = 7;
constexpr int OPERATION = 37;
const Grants NOTHING;
const Grants GRANTED{{ROLE, {OPERATION}}};

const ObjectNamespace A("A");
const ObjectNamespace B("B");
// Allowed, and denied, by every policy, but never for the same reasons: a mixture of two would answer wrongly.
const ObjectNamespace ALWAYS("P", "ALWAYS", "DEEPER");
const ObjectNamespace NEVER("Q", "NEVER", "DEEPER");

class CheckWhileWriting : public testing::Test {
protected:
    CheckWhileWriting() {
        for (const ObjectNamespace* ns : {&A, &B, &ALWAYS, &NEVER}) {
            ns->str();
        }
        policy(0).write();
        cache_ = boost::make_shared<AccessCache>(Manifest("some cache", directory_ / "cache"));
        checker_ = boost::make_shared<DiskAccessChecker>(cache_, std::set<int>{ROLE}, Operation(OPERATION), 0);
    }

    /// The files after publication `number`: of one of two policies that contradict each other, among more or less of
    /// other things, so that all sizes and places differ.
    RawCache policy(int number) const {
        const bool even = number % 2 == 0;
        RawCache files(directory_ / "cache");
        const int others = number * 37 % 11 * 60;
        for (int i = 0; i < others; ++i) {
            files.put("|OTHER|" + std::to_string(i * 7919 % 1000) + "|", 1, {{i, {i % 100}}}, GRANTED);
        }
        files.put(even ? "|A|" : "|B|", 0, GRANTED);
        files.put(even ? "|B|" : "|A|", 0, NOTHING);
        files.put("|P|ALWAYS|DEEPER|", even ? 0 : 1, even ? GRANTED : NOTHING);
        files.put("|P|", 0, NOTHING, even ? NOTHING : GRANTED);
        files.put("|Q|NEVER|DEEPER|", even ? 1 : 0);
        files.put("|Q|", 0, NOTHING, even ? NOTHING : GRANTED);
        return files;
    }

    /// Rewrites the files as their writer does.
    void publish(int number) const {
        const RawCache files = policy(number);
        const FileLockGuard exclusive(FileLockManager::instance().getLock(files.manifest()), FileLockGuard::EXCLUSIVE,
                                      -1, FileLock::DEFAULT_INTERVAL);
        publishLocked(files);
    }

    static void publishLocked(RawCache files) {
        files.header.writing = 1;
        files.write();
        setWritingFlag(files, 0);
    }

    /// One look at the cache. Every answer has to be of one policy.
    bool looksRight() const {
        const AccessCache::Reader reader = cache_->lock();
        const bool a = reader.getOperationBit(A, ROLE, Operation(OPERATION));
        const bool b = reader.getOperationBit(B, ROLE, Operation(OPERATION));
        const ManagedObject* const p = reader.lookup(ObjectNamespace("P"));
        return a != b && p != nullptr && reader.getChildOperationBit(*p, ROLE, Operation(OPERATION)) == b;
    }

    /// The same of many objects that are answered at once: from the first to the last they are of one policy.
    bool manyLookRight() const {
        std::vector<ObjectNamespace> objects(200, ALWAYS);
        objects.front() = A;
        objects.back() = B;
        const std::vector<bool> allowed = Tesmor::Arkwell::Rbac::checkAccessToAll(*checker_, objects);
        return allowed.front() != allowed.back() &&
               std::count(allowed.begin(), allowed.end(), true) == static_cast<long>(objects.size()) - 1;
    }

    bool answersRight() const { return checker_->checkAccess(ALWAYS) && !checker_->checkAccess(NEVER); }

    /// Runs `check` on several threads until `stop`, and counts the wrong answers.
    template <class Check>
    class Checkers {
    public:
        explicit Checkers(Check check) {
            for (int i = 0; i < THREADS; ++i) {
                threads_.emplace_back([this, check] {
                    do {
                        wrong_ += check() ? 0 : 1;
                        ++checks_;
                    } while (!stop_);
                });
            }
        }
        ~Checkers() { stop(); }

        void stop() {
            stop_ = true;
            for (std::thread& thread : threads_) {
                if (thread.joinable()) {
                    thread.join();
                }
            }
        }
        int wrong() const { return wrong_; }
        long checks() const { return checks_; }

    private:
        std::atomic<bool> stop_{false};
        std::atomic<int> wrong_{0};
        std::atomic<long> checks_{0};
        std::vector<std::thread> threads_;
    };

    int mappings() const {
        const RawCache files = policy(0);
        return mappingCount(files.objectFile()) + mappingCount(files.nodeFile()) + mappingCount(files.segmentFile());
    }

    LogCapture log_;
    TemporaryDirectory directory_;
    boost::shared_ptr<AccessCache> cache_;
    boost::shared_ptr<const AccessChecker> checker_;
};

}  // namespace

TEST_F(CheckWhileWriting, PoliciesContradictEachOther) {
    for (int number = 0; number < 22; ++number) {
        publish(number);
        EXPECT_TRUE(looksRight()) << number;
        EXPECT_TRUE(answersRight()) << number;
        EXPECT_EQ(cache_->lock().getOperationBit(A, ROLE, Operation(OPERATION)), number % 2 == 0) << number;
    }
}

TEST_F(CheckWhileWriting, EveryReaderSeesOnePolicy) {
    Signal start;
    ChildProcess writer([&] {
        start.wait();
        for (int number = 1; number <= PUBLICATIONS; ++number) {
            publish(number);
        }
        return 0;
    });
    Checkers checkers([this] { return looksRight() && answersRight() && manyLookRight(); });
    start.notify();
    EXPECT_EQ(writer.wait(), 0);
    checkers.stop();
    EXPECT_EQ(checkers.wrong(), 0);
    EXPECT_GE(checkers.checks(), THREADS);
    EXPECT_TRUE(log_.linesAt(16).empty());
    EXPECT_TRUE(fileLockIsFree(cache_->manifest_filename()));
    EXPECT_EQ(cache_->lock().getOperationBit(A, ROLE, Operation(OPERATION)), PUBLICATIONS % 2 == 0);
    EXPECT_EQ(mappings(), 3);
}

TEST_F(CheckWhileWriting, ReadersThatOverlapWithoutEndLetTheWriterIn) {
    std::atomic<int> inside{0};
    Checkers checkers([this, &inside] {
        constexpr int PATIENCE = 1000;
        const AccessCache::Reader reader = cache_->lock();
        ++inside;
        // Not before another one is there, if that can be.
        for (int i = 0; i < PATIENCE && inside < 2; ++i) {
            std::this_thread::yield();
        }
        --inside;
        return true;
    });
    constexpr long LIMIT_MS = 20'000;
    const FileLock lock = FileLockManager::instance().getLock(cache_->manifest_filename());
    for (int i = 0; i < 20; ++i) {
        EXPECT_NO_THROW(FileLockGuard(lock, FileLockGuard::EXCLUSIVE, LIMIT_MS, FileLock::DEFAULT_INTERVAL)) << i;
    }
}

TEST_F(CheckWhileWriting, ForkChildrenOfAProcessThatChecksCheckToo) {
    Checkers checkers([this] { return looksRight() && answersRight(); });
    for (int i = 0; i < 20; ++i) {
        ChildProcess child([this] { return looksRight() && answersRight() ? 0 : 1; });
        EXPECT_EQ(child.wait(), 0) << i;
    }
    checkers.stop();
    EXPECT_EQ(checkers.wrong(), 0);
    EXPECT_TRUE(fileLockIsFree(cache_->manifest_filename()));
}
