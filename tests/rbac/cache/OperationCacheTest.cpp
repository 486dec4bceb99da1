#include "InstallationPaths.h"
#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <platform/Logger.h>
#include <rbac/EC_exception.h>
#include <rbac/OperationCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/numeric/conversion/cast.hpp>
#include <gtest/gtest.h>
#include <jansson.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <future>
#include <limits>
#include <string>
#include <thread>
#include <vector>

using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using Tesmor::Arkwell::Rbac::OperationCache;
using testing_support::ChildProcess;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::openDescriptorCount;
using testing_support::Signal;
using testing_support::writeFile;
namespace operations = Tesmor::Arkwell::Rbac::root_namespaces::operations;

namespace {

const std::string FOLDER = TARVO_ROOT "/wmc/webserver/temp";
const std::string PATH = FOLDER + "/operation-cache.json";
const std::string LOCK_PATH = PATH + ".lck";
constexpr int THREADS = 8;

LogLine reloading(const std::string& ns) {
    return {8, "OperationCache::operator[]", "Operation " + ns + " not found in cache; reloading from disk"};
}

LogLine stillMissing(const std::string& ns) {
    return {16, "OperationCache::operator[]", "Operation " + ns + " still not found in cache"};
}

LogLine loadError(const std::string& reason) {
    return {16, "OperationCache::load", "Error loading operation cache: " + reason};
}

std::string lookupText(OperationCache& cache, const ObjectNamespace& ns) {
    const boost::optional<Operation> operation = cache[ns];
    return operation ? std::to_string(operation->bitNumber()) : "none";
}

/// What the JSON library says about the file as it is now.
std::string parserText() {
    json_error_t error{};
    EXPECT_EQ(json_load_file(PATH.c_str(), 0, &error), nullptr);
    return error.text;
}

int statusOfLoad(OperationCache& cache) {
    try {
        cache.load();
    } catch (const EC_exception& failure) {
        return failure.status;
    }
    return 0;
}

/// Whether nobody holds the file's lock.
bool lockIsFree() {
    try {
        const FileLockGuard exclusive(FileLockManager::instance().getLock(LOCK_PATH), FileLockGuard::EXCLUSIVE, 0,
                                      FileLock::DEFAULT_INTERVAL);
        return true;
    } catch (const EC_exception&) {
        return false;
    }
}

template <class Duration, class Result>
bool endsWithin(const Duration& duration, const std::future<Result>& running) {
    return running.wait_for(duration) == std::future_status::ready;
}

/// Another process that holds the file's lock until it is told to let go.
class LockHolder {
public:
    explicit LockHolder(int mode)
        : child_([this, mode] {
              const FileLockGuard guard(FileLockManager::instance().getLock(LOCK_PATH), mode, -1,
                                        FileLock::DEFAULT_INTERVAL);
              held_.notify();
              release_.wait();
              return 0;
          }) {
        held_.wait();
    }

    void release() {
        release_.notify();
        EXPECT_EQ(child_.wait(), 0);
    }

    void kill() {
        child_.kill(SIGKILL);
        EXPECT_EQ(child_.wait(), -SIGKILL);
    }

private:
    Signal held_;
    Signal release_;
    ChildProcess child_;
};

class OperationCacheTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(FOLDER);
        std::filesystem::remove(PATH);
        std::filesystem::remove(LOCK_PATH);
    }
    void TearDown() override {
        std::filesystem::remove(PATH);
        std::filesystem::remove(LOCK_PATH);
    }

    /// Runs `run` in several threads at once.
    template <class Run>
    static void inThreads(const Run& run) {
        std::atomic<int> arrived{0};
        std::vector<std::thread> threads;
        threads.reserve(THREADS);
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&arrived, &run, i] {
                ++arrived;
                while (arrived < THREADS) {
                    std::this_thread::yield();
                }
                run(i);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    LogCapture log_;
    OperationCache cache_;
};

}  // namespace

TEST(Operation, CarriesItsBitNumber) {
    EXPECT_EQ(Operation(42).bitNumber(), 42);
    EXPECT_EQ(Operation(-1).bitNumber(), -1);
}

TEST_F(OperationCacheTest, ConstructionReadsNothing) {
    const OperationCache cache;
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
    EXPECT_FALSE(std::filesystem::exists(LOCK_PATH));
}

TEST_F(OperationCacheTest, FirstLookupLogsLoadsAndFinds) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    EXPECT_EQ(lookupText(cache_, operations::VIEW), "7");
    EXPECT_EQ(log_.lines(), std::vector<LogLine>{reloading("|OPERATIONS|VIEW|")});
}

TEST_F(OperationCacheTest, KnownOperationNeedsNoFile) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7, "|OPERATIONS|ADD|": 8})");
    cache_.load();
    std::filesystem::remove(PATH);
    EXPECT_EQ(lookupText(cache_, operations::VIEW), "7");
    EXPECT_EQ(lookupText(cache_, operations::ADD), "8");
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(OperationCacheTest, UnknownOperationIsNone) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("OPERATIONS", "a b")), "none");
    EXPECT_EQ(log_.lines(), (std::vector<LogLine>{reloading("|OPERATIONS|a+b|"), stillMissing("|OPERATIONS|a+b|")}));
}

TEST_F(OperationCacheTest, AncestorOfAnOperationIsNotThatOperation) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("OPERATIONS")), "none");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace()), "none");
}

TEST_F(OperationCacheTest, EveryMissReadsTheFileAgain) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    ASSERT_EQ(lookupText(cache_, operations::ADD), "none");
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7, "|OPERATIONS|ADD|": 9})");
    log_.clear();
    EXPECT_EQ(lookupText(cache_, operations::ADD), "9");
    EXPECT_EQ(log_.lines(), std::vector<LogLine>{reloading("|OPERATIONS|ADD|")});
}

TEST_F(OperationCacheTest, ReloadKeepsTheOldNumber) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    cache_.load();
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 99, "|OPERATIONS|ADD|": 8})");
    cache_.load();
    EXPECT_EQ(lookupText(cache_, operations::VIEW), "7");
    EXPECT_EQ(lookupText(cache_, operations::ADD), "8");
}

TEST_F(OperationCacheTest, ReloadRemovesNothing) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    cache_.load();
    writeFile(PATH, R"({"|OPERATIONS|ADD|": 8})");
    cache_.load();
    EXPECT_EQ(lookupText(cache_, operations::VIEW), "7");
}

TEST_F(OperationCacheTest, KeysAreTextFormsOfNamespaces) {
    writeFile(PATH, R"({"|": 1, "||": 2, "|a+b%7Cc|": 3})");
    cache_.load();
    EXPECT_EQ(lookupText(cache_, ObjectNamespace()), "1");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("")), "2");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("a b|c")), "3");
}

TEST_F(OperationCacheTest, FirstOfTwoSpellingsOfANamespaceCounts) {
    writeFile(PATH, R"({"|a%7cb|": 1, "|a%7Cb|": 2})");
    cache_.load();
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("a|b")), "1");
}

TEST_F(OperationCacheTest, NumbersReachBothEndsOf32Bits) {
    writeFile(PATH, R"({"|MAX|": 2147483647, "|MIN|": -2147483648})");
    cache_.load();
    EXPECT_EQ(cache_[ObjectNamespace("MAX")]->bitNumber(), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(cache_[ObjectNamespace("MIN")]->bitNumber(), std::numeric_limits<std::int32_t>::min());
}

TEST_F(OperationCacheTest, NumberAbove32BitsOverflows) {
    writeFile(PATH, R"({"|A|": 2147483648})");
    try {
        cache_.load();
        FAIL() << "the number was accepted";
    } catch (const boost::numeric::positive_overflow& failure) {
        EXPECT_STREQ(failure.what(), "bad numeric conversion: positive overflow");
    }
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(OperationCacheTest, NumberBelow32BitsOverflows) {
    writeFile(PATH, R"({"|A|": -2147483649})");
    try {
        cache_.load();
        FAIL() << "the number was accepted";
    } catch (const boost::numeric::negative_overflow& failure) {
        EXPECT_STREQ(failure.what(), "bad numeric conversion: negative overflow");
    }
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(OperationCacheTest, ValuesOfOtherTypesCountAsZero) {
    writeFile(PATH,
              R"({"|S|": "5", "|N|": null, "|T|": true, "|F|": false, "|R|": 5.9, "|A|": [5], "|O|": {"|X|": 5}})");
    cache_.load();
    for (const char* component : {"S", "N", "T", "F", "R", "A", "O"}) {
        EXPECT_EQ(lookupText(cache_, ObjectNamespace(component)), "0") << component;
    }
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(OperationCacheTest, KeyThatIsNoNamespaceEndsTheLoad) {
    for (const char* key : {"A", "", "|A", " |A|", "|A| ", "|%4|"}) {
        writeFile(PATH, "{\"" + std::string(key) + "\": 1}");
        EXPECT_THROW(cache_.load(), boost::bad_lexical_cast) << key;
    }
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(OperationCacheTest, EntriesBeforeABadKeyStay) {
    writeFile(PATH, R"({"|A|": 1, "|B|": 2, "C": 3, "|D|": 4})");
    EXPECT_THROW(cache_.load(), boost::bad_lexical_cast);
    std::filesystem::remove(PATH);
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "1");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("B")), "2");
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
    EXPECT_THROW(cache_[ObjectNamespace("D")], EC_exception);
}

TEST_F(OperationCacheTest, EntriesBeforeAnOverflowStay) {
    writeFile(PATH, R"({"|A|": 1, "|B|": 2147483648, "|C|": 3})");
    EXPECT_THROW(cache_.load(), boost::numeric::positive_overflow);
    std::filesystem::remove(PATH);
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "1");
    EXPECT_THROW(cache_[ObjectNamespace("B")], EC_exception);
    EXPECT_THROW(cache_[ObjectNamespace("C")], EC_exception);
}

TEST_F(OperationCacheTest, KnownOperationIsCheckedAllTheSame) {
    writeFile(PATH, R"({"|A|": 1})");
    cache_.load();
    writeFile(PATH, R"({"|A|": 2147483648})");
    EXPECT_THROW(cache_.load(), boost::numeric::positive_overflow);
}

TEST_F(OperationCacheTest, MissingFileIsAFailureWithStatus13) {
    const std::string reason = parserText();
    try {
        cache_.load();
        FAIL() << "a missing file was loaded";
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 13);
        EXPECT_EQ(failure.what(), getECmsg(13));
    }
    EXPECT_EQ(log_.lines(), std::vector<LogLine>{loadError(reason)});
    EXPECT_NE(reason.find(PATH), std::string::npos);
}

TEST_F(OperationCacheTest, TextThatIsNotJsonIsAFailureWithStatus13) {
    for (const char* text :
         {"", "not json", "{", R"({"|A|": 1)", R"({"|A|": 1} x)", "7", R"("text")", R"({"|A|": 01})"}) {
        writeFile(PATH, text);
        log_.clear();
        EXPECT_EQ(statusOfLoad(cache_), 13) << text;
        EXPECT_EQ(log_.lines(), std::vector<LogLine>{loadError(parserText())}) << text;
    }
}

TEST_F(OperationCacheTest, DamagedFileAddsNothing) {
    writeFile(PATH, R"({"|A|": 1, "|B|": )");
    EXPECT_EQ(statusOfLoad(cache_), 13);
    writeFile(PATH, "{}");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "none");
}

TEST_F(OperationCacheTest, FailedLoadKeepsWhatIsKnown) {
    writeFile(PATH, R"({"|A|": 1})");
    cache_.load();
    writeFile(PATH, "damaged");
    EXPECT_EQ(statusOfLoad(cache_), 13);
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "1");
}

TEST_F(OperationCacheTest, TopLevelArrayHoldsNoOperations) {
    writeFile(PATH, R"([{"|A|": 1}])");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "none");
    EXPECT_EQ(log_.lines(), (std::vector<LogLine>{reloading("|A|"), stillMissing("|A|")}));
}

TEST_F(OperationCacheTest, EmptyObjectHoldsNoOperations) {
    writeFile(PATH, "{}");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "none");
}

TEST_F(OperationCacheTest, LookupThrowsWhatTheLoadThrows) {
    const std::string reason = parserText();
    try {
        cache_[operations::VIEW];
        FAIL() << "a missing file was loaded";
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 13);
    }
    EXPECT_EQ(log_.lines(), (std::vector<LogLine>{reloading("|OPERATIONS|VIEW|"), loadError(reason)}));
}

TEST_F(OperationCacheTest, LookupWorksAgainAfterAFailure) {
    ASSERT_THROW(cache_[operations::VIEW], EC_exception);
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    EXPECT_EQ(lookupText(cache_, operations::VIEW), "7");
}

TEST_F(OperationCacheTest, MissingFolderIsAFailureWithStatus13) {
    const std::string aside = FOLDER + ".aside";
    std::filesystem::remove_all(aside);
    std::filesystem::rename(FOLDER, aside);
    EXPECT_EQ(statusOfLoad(cache_), 13);
    std::filesystem::rename(aside, FOLDER);

    const std::string reason = EC_exception(platform_status::LOCK_UNAVAILABLE).what();
    ASSERT_FALSE(log_.lines().empty());
    EXPECT_EQ(log_.lines().back(), loadError(reason));
}

TEST_F(OperationCacheTest, LockFileIsNamedAfterTheFile) {
    writeFile(PATH, "{}");
    cache_.load();
    EXPECT_TRUE(std::filesystem::exists(TARVO_ROOT "/wmc/webserver/temp/operation-cache.json.lck"));
}

TEST_F(OperationCacheTest, LockIsReleasedAfterASuccessfulLoad) {
    writeFile(PATH, R"({"|A|": 1})");
    cache_.load();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(OperationCacheTest, LockIsReleasedAfterEveryFailure) {
    EXPECT_EQ(statusOfLoad(cache_), 13);
    EXPECT_TRUE(lockIsFree());
    writeFile(PATH, "not json");
    EXPECT_EQ(statusOfLoad(cache_), 13);
    EXPECT_TRUE(lockIsFree());
    writeFile(PATH, R"({"A": 1})");
    EXPECT_THROW(cache_.load(), boost::bad_lexical_cast);
    EXPECT_TRUE(lockIsFree());
    writeFile(PATH, R"({"|A|": 2147483648})");
    EXPECT_THROW(cache_.load(), boost::numeric::positive_overflow);
    EXPECT_TRUE(lockIsFree());
    writeFile(PATH, R"({"|A|": -2147483649})");
    EXPECT_THROW(cache_.load(), boost::numeric::negative_overflow);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(OperationCacheTest, LoadWaitsForTheWriter) {
    writeFile(PATH, R"({"|A|": 1})");
    LockHolder writer(FileLockGuard::EXCLUSIVE);
    auto loading = std::async(std::launch::async, [this] { cache_.load(); });
    EXPECT_FALSE(endsWithin(std::chrono::milliseconds(200), loading));
    writeFile(PATH, R"({"|A|": 2})");
    writer.release();
    loading.get();
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "2");
}

TEST_F(OperationCacheTest, LookupThatMissesWaitsForTheWriter) {
    writeFile(PATH, "{}");
    LockHolder writer(FileLockGuard::EXCLUSIVE);
    auto lookup = std::async(std::launch::async, [this] { return lookupText(cache_, ObjectNamespace("A")); });
    EXPECT_FALSE(endsWithin(std::chrono::milliseconds(200), lookup));
    writeFile(PATH, R"({"|A|": 2})");
    writer.release();
    EXPECT_EQ(lookup.get(), "2");
}

TEST_F(OperationCacheTest, LoadDoesNotWaitForOtherReaders) {
    writeFile(PATH, R"({"|A|": 1})");
    LockHolder reader(FileLockGuard::SHARED);
    auto loading = std::async(std::launch::async, [this] { cache_.load(); });
    EXPECT_TRUE(endsWithin(std::chrono::seconds(30), loading));
    reader.release();
    loading.get();
}

TEST_F(OperationCacheTest, DyingWriterLetsTheLoadThrough) {
    writeFile(PATH, R"({"|A|": 1})");
    LockHolder writer(FileLockGuard::EXCLUSIVE);
    auto loading = std::async(std::launch::async, [this] { cache_.load(); });
    writer.kill();
    loading.get();
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "1");
}

TEST_F(OperationCacheTest, LoadsKeepNoDescriptors) {
    writeFile(PATH, R"({"A": 1})");
    EXPECT_THROW(cache_.load(), boost::bad_lexical_cast);
    const int before = openDescriptorCount();
    for (int i = 0; i < 20; ++i) {
        EXPECT_THROW(cache_.load(), boost::bad_lexical_cast);
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(OperationCacheTest, FirstLookupsOfSeveralThreadsAllFind) {
    std::string json = "{";
    for (int i = 0; i < 200; ++i) {
        json += "\"|FILLER|" + std::to_string(i) + "|\": 0, ";
    }
    writeFile(PATH, json + R"("|OPERATIONS|VIEW|": 7, "|OPERATIONS|ADD|": 8})");
    std::atomic<int> right{0};
    inThreads([this, &right](int i) {
        const bool even = i % 2 == 0;
        right += lookupText(cache_, even ? operations::VIEW : operations::ADD) == (even ? "7" : "8") ? 1 : 0;
    });
    EXPECT_EQ(right, THREADS);
}

TEST_F(OperationCacheTest, MissesOfSeveralThreadsAllComeBack) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    std::atomic<int> right{0};
    inThreads([this, &right](int i) {
        right += lookupText(cache_, ObjectNamespace("UNKNOWN", std::to_string(i))) == "none" ? 1 : 0;
    });
    EXPECT_EQ(right, THREADS);
    EXPECT_EQ(log_.linesAt(16).size(), static_cast<std::size_t>(THREADS));
}

TEST_F(OperationCacheTest, MissSearchesAgainBeforeItReadsTheFile) {
    writeFile(PATH, R"({"|A|": 1})");
    // Between the miss and the reading, the operation becomes known and the file goes away.
    setLogSink([this](int /*level*/, const std::string& /*tag*/, const std::string& /*message*/) {
        cache_.load();
        std::filesystem::remove(PATH);
    });
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "1");
    EXPECT_FALSE(std::filesystem::exists(PATH));
}

TEST_F(OperationCacheTest, LookupsGoOnWhileOthersLoad) {
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7})");
    cache_.load();
    std::string json = R"({"|OPERATIONS|VIEW|": 99)";
    for (int i = 0; i < 500; ++i) {
        json += ", \"|NEW|" + std::to_string(i) + "|\": " + std::to_string(i);
    }
    writeFile(PATH, json + "}");
    std::atomic<int> wrong{0};
    inThreads([this, &wrong](int i) {
        if (i < 2) {
            cache_.load();
        }
        for (int n = 0; n < 500; ++n) {
            wrong += lookupText(cache_, operations::VIEW) == "7" ? 0 : 1;
            wrong += lookupText(cache_, ObjectNamespace("NEW", std::to_string(n))) == std::to_string(n) ? 0 : 1;
        }
    });
    EXPECT_EQ(wrong, 0);
}

TEST_F(OperationCacheTest, FailureInOneThreadDoesNotBlockTheOthers) {
    std::atomic<int> failures{0};
    inThreads([this, &failures](int) { failures += statusOfLoad(cache_) == 13 ? 1 : 0; });
    EXPECT_EQ(failures, THREADS);
    writeFile(PATH, R"({"|A|": 1})");
    EXPECT_EQ(lookupText(cache_, ObjectNamespace("A")), "1");
}

TEST_F(OperationCacheTest, ReadsTheFileThatItIsMadeFor) {
    const testing_support::TemporaryDirectory directory;
    writeFile(directory / "copy.json", R"({"|OPERATIONS|VIEW|": 9})");
    OperationCache copy(directory / "copy.json");
    EXPECT_EQ(lookupText(copy, operations::VIEW), "9");
    EXPECT_FALSE(std::filesystem::exists(LOCK_PATH));
}

TEST_F(OperationCacheTest, KnownOperationsAreInTheOrderOfTheirNamespaces) {
    EXPECT_TRUE(cache_.known().empty());
    writeFile(PATH, R"({"|OPERATIONS|VIEW|": 7, "|OPERATIONS|ADD|": 8, "|OPERATIONS|": 1})");
    cache_.load();
    std::vector<std::string> texts;
    for (const auto& [name, operation] : cache_.known()) {
        texts.push_back(name.str() + " " + std::to_string(operation.bitNumber()));
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"|OPERATIONS| 1", "|OPERATIONS|ADD| 8", "|OPERATIONS|VIEW| 7"}));
}
