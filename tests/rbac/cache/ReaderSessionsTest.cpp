#include "testing/ChildProcess.h"
#include "testing/CoarseClock.h"
#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <rbac/AccessCache.h>
#include <rbac/EC_exception.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::ManagedObject;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using testing_support::ChildProcess;
using testing_support::fileLockIsFree;
using testing_support::lockCount;
using testing_support::LogCapture;
using testing_support::mappingCount;
using testing_support::RawCache;
using testing_support::resizeFile;
using testing_support::setWritingFlag;
using testing_support::Signal;
using testing_support::StoppedCoarseClock;
using testing_support::TemporaryDirectory;
using Reader = AccessCache::Reader;

namespace {

const ObjectNamespace A("A");
const ObjectNamespace B("B");

/// A thread that does one thing after the other, as it is told, and may have one reader in its hands.
class Worker {
public:
    ~Worker() {
        release();
        start(nullptr);
        thread_.join();
    }

    /// Runs something, which must not throw, on the thread and waits for its end.
    void run(const std::function<void()>& task) {
        start(task);
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return !pending_; });
    }

    void take(const AccessCache& cache) { EXPECT_EQ(tryTake(cache), 0); }
    /// 0, or the status that lock() threw.
    int tryTake(const AccessCache& cache) {
        int status = 0;
        run([&] {
            held_.reset();
            try {
                held_ = std::make_unique<Held>(cache);
            } catch (const EC_exception& failure) {
                status = failure.status;
            }
        });
        return status;
    }
    void release() {
        run([this] { held_.reset(); });
    }
    const Reader& reader() const { return held_->reader; }

private:
    /// The very reader that lock() returned, not a copy.
    struct Held {
        explicit Held(const AccessCache& cache) : reader(cache.lock()) {}
        Reader reader;
    };

    void start(std::function<void()> task) {
        const std::lock_guard<std::mutex> lock(mutex_);
        task_ = std::move(task);
        pending_ = true;
        changed_.notify_all();
    }

    void loop() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return pending_; });
            if (!task_) {
                return;
            }
            task_();
            pending_ = false;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> task_;  // empty: the end
    bool pending_ = false;
    std::unique_ptr<Held> held_;
    std::thread thread_{[this] { loop(); }};
};

class ReaderSessionsTest : public testing::Test {
protected:
    ReaderSessionsTest() {
        files_.put("|A|", 0, {{1, {1}}});
        files_.write();
        cache_ = std::make_unique<AccessCache>(Manifest("some cache", files_.directory()));
        first_ = std::make_unique<Worker>();
        second_ = std::make_unique<Worker>();
    }

    /// How often this process holds the cache's lock.
    int holdings() const { return lockCount(files_.manifest()); }
    bool lockIsFree() const { return fileLockIsFree(files_.manifest()); }
    int objectMappings() const { return mappingCount(files_.objectFile()); }

    /// Adds an object beyond what is mapped so far, without asking for the lock.
    void addObject(const std::string& text) {
        files_.objects.resize(files_.objects.size() + 1000);
        files_.nodes.resize(files_.nodes.size() + 1000);
        files_.segments.resize(files_.segments.size() + 1000);
        files_.put(text, 0, {{1, {1}}});
        files_.write();
    }

    StoppedCoarseClock clock_;
    LogCapture log_;
    TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
    std::unique_ptr<AccessCache> cache_;
    // Last, so that their readers go before the cache.
    std::unique_ptr<Worker> first_;
    std::unique_ptr<Worker> second_;
};

}  // namespace

// One holding of the lock for several threads.

TEST_F(ReaderSessionsTest, ThreadsThatReadAtTheSameTimeShareOneHoldingOfTheLock) {
    first_->take(*cache_);
    second_->take(*cache_);
    EXPECT_EQ(holdings(), 1);
    EXPECT_NE(first_->reader().lookup(A), nullptr);
    EXPECT_NE(second_->reader().lookup(A), nullptr);
}

TEST_F(ReaderSessionsTest, SharedHoldingIsReleasedWithTheLastReader) {
    first_->take(*cache_);
    second_->take(*cache_);
    first_->release();
    EXPECT_EQ(holdings(), 1);
    EXPECT_FALSE(lockIsFree());
    second_->release();
    EXPECT_EQ(holdings(), 0);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, SharedHoldingIsReleasedByItsOpenerTooWhereHeIsLast) {
    first_->take(*cache_);
    second_->take(*cache_);
    second_->release();
    EXPECT_FALSE(lockIsFree());
    first_->release();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, HoldingThatIsGoneIsNotJoined) {
    first_->take(*cache_);
    first_->release();
    ASSERT_TRUE(lockIsFree());
    second_->take(*cache_);
    EXPECT_EQ(holdings(), 1);
    EXPECT_FALSE(lockIsFree());
}

TEST_F(ReaderSessionsTest, HoldingIsNotJoinedInALaterTick) {
    first_->take(*cache_);
    clock_.tick();
    second_->take(*cache_);
    EXPECT_EQ(holdings(), 2);
    first_->release();
    EXPECT_FALSE(lockIsFree());
    second_->release();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, JoinedHoldingIsNotYoungerForThat) {
    first_->take(*cache_);
    second_->take(*cache_);
    first_->release();
    clock_.tick();
    first_->take(*cache_);
    EXPECT_EQ(holdings(), 2);
}

TEST_F(ReaderSessionsTest, CopiesCountAsReadersOfTheSharedHolding) {
    first_->take(*cache_);
    std::optional<Reader> copy(first_->reader());
    second_->take(*cache_);
    EXPECT_EQ(holdings(), 1);
    first_->release();
    second_->release();
    EXPECT_FALSE(lockIsFree());
    copy.reset();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, ManyThreadsShareOneHolding) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 20; ++i) {
        workers.push_back(std::make_unique<Worker>());
        workers.back()->take(*cache_);
    }
    EXPECT_EQ(holdings(), 1);
    while (workers.size() > 1) {
        workers.erase(workers.begin());
        EXPECT_FALSE(lockIsFree());
    }
    workers.clear();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, ThreadsThatEachLookAnewHoldTheLockEach) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 20; ++i) {
        workers.push_back(std::make_unique<Worker>());
        workers.back()->take(*cache_);
        clock_.tick();
    }
    EXPECT_EQ(holdings(), 20);
    workers.clear();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, CachesDoNotShare) {
    const AccessCache other(Manifest("same files", files_.directory()));
    first_->take(*cache_);
    second_->take(other);
    EXPECT_EQ(holdings(), 2);
    second_->release();
}

TEST_F(ReaderSessionsTest, ReaderThatWasRefusedIsNotJoined) {
    setWritingFlag(files_, 1);
    EXPECT_EQ(first_->tryTake(*cache_), 12);
    EXPECT_EQ(second_->tryTake(*cache_), 12);
    setWritingFlag(files_, 0);
    first_->take(*cache_);
    second_->take(*cache_);
    EXPECT_EQ(holdings(), 1);
}

TEST_F(ReaderSessionsTest, JoiningReaderIsRefusedWhereTheFlagIsSet) {
    first_->take(*cache_);
    setWritingFlag(files_, 1);
    log_.clear();
    EXPECT_EQ(second_->tryTake(*cache_), 12);
    EXPECT_EQ(log_.linesAt(16).size(), 1U);
    setWritingFlag(files_, 0);
    first_->release();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, ConstructorOfAReaderIsNotJoined) {
    // It has not brought the mappings up to date.
    addObject("|B|");
    std::optional<Reader> direct;
    first_->run([&] { direct.emplace(*cache_); });
    second_->take(*cache_);
    EXPECT_EQ(holdings(), 2);
    EXPECT_NE(second_->reader().lookup(B), nullptr);
    first_->run([&] { direct.reset(); });
}

TEST_F(ReaderSessionsTest, ThreadLooksAnewThoughItHoldsAReader) {
    first_->take(*cache_);
    addObject("|B|");
    first_->run([this] {
        const Reader again = cache_->lock();
        EXPECT_EQ(holdings(), 2);
        EXPECT_NE(again.lookup(B), nullptr);
    });
    EXPECT_EQ(holdings(), 1);
}

TEST_F(ReaderSessionsTest, ThreadThatHoldsAReaderLooksAnewEveryTime) {
    first_->take(*cache_);
    first_->run([this] {
        for (const char* component : {"B", "C", "D"}) {
            addObject("|" + std::string(component) + "|");
            EXPECT_NE(cache_->lock().lookup(ObjectNamespace(component)), nullptr) << component;
        }
    });
}

TEST_F(ReaderSessionsTest, ThreadLooksAnewAfterItsReaderIsGone) {
    first_->take(*cache_);
    first_->release();
    addObject("|B|");
    first_->take(*cache_);
    EXPECT_NE(first_->reader().lookup(B), nullptr);
}

TEST_F(ReaderSessionsTest, ReaderOpenedElsewhereIsDestroyedHere) {
    // The thread that opened it goes on with readers of its own.
    std::optional<Reader> handedOver;
    first_->run([&] { handedOver.emplace(cache_->lock()); });
    second_->run([&] { handedOver.reset(); });
    EXPECT_TRUE(lockIsFree());
    first_->take(*cache_);
    EXPECT_NE(first_->reader().lookup(A), nullptr);
    EXPECT_EQ(holdings(), 1);
    second_->take(*cache_);
    first_->release();
    EXPECT_FALSE(lockIsFree());
    second_->release();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, ReaderOutlivesTheThreadThatMadeIt) {
    std::optional<Reader> reader;
    std::thread([&] { reader.emplace(cache_->lock()); }).join();
    first_->take(*cache_);
    EXPECT_NE(reader->lookup(A), nullptr);
    reader.reset();
    EXPECT_FALSE(lockIsFree());
    first_->release();
    EXPECT_TRUE(lockIsFree());
}

// Mappings that are replaced while others read.

TEST_F(ReaderSessionsTest, RemapLeavesOthersTheMappingThatTheyRead) {
    first_->take(*cache_);
    const ManagedObject* const record = first_->reader().lookup(A);
    ASSERT_NE(record, nullptr);
    const ManagedObject before = *record;
    clock_.tick();
    resizeFile(files_.objectFile(), 100'000);
    second_->take(*cache_);

    EXPECT_EQ(objectMappings(), 2);
    EXPECT_EQ(cache_->managedObjectCount(), 100'000 / sizeof(ManagedObject));
    EXPECT_EQ(std::memcmp(record, &before, sizeof before), 0);
    EXPECT_NE(second_->reader().lookup(A), record);
    EXPECT_TRUE(first_->reader().getOperationBit(*record, 1, Operation(1)));
}

TEST_F(ReaderSessionsTest, OldMappingIsRemovedWhenNobodyCanReadItAnyMore) {
    first_->take(*cache_);
    clock_.tick();
    resizeFile(files_.objectFile(), 100'000);
    second_->take(*cache_);
    ASSERT_EQ(objectMappings(), 2);
    first_->release();
    second_->release();
    EXPECT_EQ(objectMappings(), 1);
}

TEST_F(ReaderSessionsTest, OldMappingIsRemovedInTheOtherOrderToo) {
    first_->take(*cache_);
    const ManagedObject* const record = first_->reader().lookup(A);
    clock_.tick();
    resizeFile(files_.objectFile(), 100'000);
    second_->take(*cache_);
    second_->release();
    EXPECT_EQ(record->inherit, 0);
    EXPECT_EQ(objectMappings(), 2);
    first_->release();
    EXPECT_EQ(objectMappings(), 1);
}

TEST_F(ReaderSessionsTest, CopyKeepsTheMappingThatItReads) {
    first_->take(*cache_);
    const ManagedObject* const record = first_->reader().lookup(A);
    std::optional<Reader> copy(first_->reader());
    first_->release();
    clock_.tick();
    resizeFile(files_.objectFile(), 100'000);
    second_->take(*cache_);
    second_->release();
    EXPECT_EQ(record->inherit, 0);
    copy.reset();
    EXPECT_EQ(objectMappings(), 1);
}

TEST_F(ReaderSessionsTest, SeveralRemapsLeaveEveryReaderItsMapping) {
    std::vector<std::unique_ptr<Worker>> workers;
    std::vector<const ManagedObject*> records;
    for (std::size_t i = 1; i <= 5; ++i) {
        resizeFile(files_.objectFile(), i * 10'000);
        workers.push_back(std::make_unique<Worker>());
        workers.back()->take(*cache_);
        records.push_back(workers.back()->reader().lookup(A));
        ASSERT_NE(records.back(), nullptr);
        clock_.tick();
    }
    EXPECT_EQ(objectMappings(), 5);
    workers.erase(workers.begin() + 2);
    for (const std::size_t kept : {0U, 1U, 3U, 4U}) {
        EXPECT_EQ(records[kept]->inherit, 0);
    }
    while (!workers.empty()) {
        workers.pop_back();
    }
    EXPECT_EQ(objectMappings(), 1);
}

TEST_F(ReaderSessionsTest, EveryFilesOldMappingIsKeptAndRemoved) {
    first_->take(*cache_);
    const Reader& reader = first_->reader();
    const ManagedObject* const record = reader.lookup(A);
    clock_.tick();
    const std::vector<std::string> paths{files_.objectFile(), files_.nodeFile(), files_.segmentFile()};
    for (const std::string& path : paths) {
        resizeFile(path, 100'000);
    }
    second_->take(*cache_);
    for (const std::string& path : paths) {
        EXPECT_EQ(mappingCount(path), 2) << path;
    }
    EXPECT_TRUE(reader.getOperationBit(*record, 1, Operation(1)));
    first_->release();
    second_->release();
    for (const std::string& path : paths) {
        EXPECT_EQ(mappingCount(path), 1) << path;
    }
}

TEST_F(ReaderSessionsTest, OneThreadsTwoReadersMayLieInDifferentMappings) {
    first_->run([this] {
        const Reader before = cache_->lock();
        const ManagedObject* const record = before.lookup(A);
        addObject("|B|");
        {
            const Reader after = cache_->lock();
            EXPECT_NE(after.lookup(B), nullptr);
        }
        EXPECT_EQ(record->inherit, 0);
        EXPECT_EQ(objectMappings(), 2);
    });
    EXPECT_EQ(objectMappings(), 1);
}

TEST_F(ReaderSessionsTest, DestroyedCacheLeavesNoOldMappings) {
    first_->take(*cache_);
    clock_.tick();
    resizeFile(files_.objectFile(), 100'000);
    second_->take(*cache_);
    first_->release();
    second_->release();
    cache_.reset();
    EXPECT_EQ(objectMappings(), 0);
}

// Forks.

TEST_F(ReaderSessionsTest, ForkChildDoesNotJoinTheHoldingsOfItsParent) {
    first_->take(*cache_);
    Signal held;
    Signal release;
    ChildProcess child([&] {
        const Reader r = cache_->lock();
        if (lockCount(files_.manifest()) != 1 || r.lookup(A) == nullptr) {
            return 1;
        }
        held.notify();
        release.wait();
        return 0;
    });
    held.wait();
    first_->release();
    // Now it is the child's alone.
    EXPECT_FALSE(lockIsFree());
    release.notify();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderSessionsTest, ForkChildDoesNotHoldItsParentsLock) {
    first_->take(*cache_);
    Signal checked;
    Signal release;
    ChildProcess child([&] {
        const bool found = cache_->lock().lookup(A) != nullptr;
        const bool holds = lockCount(files_.manifest()) != 0;
        checked.notify();
        release.wait();
        return found && !holds ? 0 : 1;
    });
    checked.wait();
    first_->release();
    EXPECT_TRUE(lockIsFree());
    release.notify();
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(ReaderSessionsTest, ForkChildRemapsWhileReadersOfItsParentAreCutOff) {
    first_->take(*cache_);
    second_->take(*cache_);
    ChildProcess child([&] {
        addObject("|B|");
        {
            const Reader r = cache_->lock();
            if (r.lookup(B) == nullptr) {
                return 1;
            }
        }
        // The parent's readers do not read here.
        return objectMappings() == 1 ? 0 : 2;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_NE(first_->reader().lookup(A), nullptr);
}

TEST_F(ReaderSessionsTest, ReadersCopiedIntoTheChildDisturbNobody) {
    first_->take(*cache_);
    std::optional<Reader> copy(first_->reader());
    ChildProcess child([&] {
        const Reader own = cache_->lock();
        copy.reset();
        return own.lookup(A) != nullptr && lockCount(files_.manifest()) == 1 ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(holdings(), 1);
    first_->release();
    EXPECT_FALSE(lockIsFree());
    copy.reset();
    EXPECT_TRUE(lockIsFree());
}
