#include "testing/FailingSystemCalls.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/OperationCache.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

// Every system call of those who read caches fails in turn. What jansson and the C library do themselves is not tried
// again after a signal; the files are local ones, where signals interrupt nothing.

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using Tesmor::Arkwell::Rbac::OperationCache;
using testing::ElementsAre;
using testing_support::AroundTheWork;
using testing_support::failEachSystemCall;
using testing_support::outcomeOf;
using testing_support::RawCache;

namespace {

const ObjectNamespace A("A");

class CacheSystemCalls : public testing::Test {
protected:
    CacheSystemCalls() {
        A.str();
        files_.put("|A|", 0, {{7, {37}}});
        files_.write();
        testing_support::writeFile(operationsFile(), R"({"|OPERATIONS|VIEW|": 1})");
        OperationCache(operationsFile()).load();  // what jansson needs once is there
    }

    std::string operationsFile() const { return directory_ / "operations"; }

    std::string open() const {
        return outcomeOf([this] { const AccessCache cache(Manifest("some cache", files_.directory())); });
    }
    std::string loadOperations() const {
        return outcomeOf([this] { OperationCache(operationsFile()).load(); });
    }

    /// What a look comes to: "yes" where it finds what is there, otherwise the failure.
    static std::string look(const AccessCache& cache) {
        bool yes = false;
        const std::string outcome = outcomeOf([&] { yes = cache.lock().getOperationBit(A, 7, Operation(37)); });
        return yes ? "yes" : outcome;
    }

    /// That nobody has been left locked out, and the next look finds everything.
    AroundTheWork nextLook(const AccessCache& cache) const {
        AroundTheWork around;
        around.after = [this, &cache] {
            const std::string next = look(cache);
            return std::string(testing_support::isUnlocked(files_.manifest()) ? "" : ", still locked") +
                   (next == "yes" ? "" : ", and then: " + next);
        };
        return around;
    }

    testing_support::TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
};

}  // namespace

TEST_F(CacheSystemCalls, FailWhileACacheIsOpened) {
    const std::string atManifest = "status 12 [Manifest constructor] Error loading manifest.json at position 0: ";
    EXPECT_THAT(failEachSystemCall(EIO, [this] { return open(); }),
                ElementsAre("open manifest.json: " + atManifest + "unable to open manifest.json: Input/output error",
                            "stat manifest.json: done",
                            "read manifest.json: " + atManifest + "'[' or '{' expected near end of file",
                            "read manifest.json: done", "close manifest.json: done",
                            "open metadata: error opening file / error opening metadata: Input/output error",
                            "stat metadata: error statting file / error statting metadata: Input/output error",
                            "map metadata: error mapping file / error mapping metadata: Input/output error",
                            "open objects: error opening file / error opening objects: Input/output error",
                            "stat objects: error statting file / error statting objects: Input/output error",
                            "map objects: error mapping file / error mapping objects: Input/output error",
                            "open nodes: error opening file / error opening nodes: Input/output error",
                            "stat nodes: error statting file / error statting nodes: Input/output error",
                            "map nodes: error mapping file / error mapping nodes: Input/output error",
                            "open segments: error opening file / error opening segments: Input/output error",
                            "stat segments: error statting file / error statting segments: Input/output error",
                            "map segments: error mapping file / error mapping segments: Input/output error",
                            "unmap: done", "close segments: done", "unmap: done", "close nodes: done", "unmap: done",
                            "close objects: done", "unmap: done", "close metadata: done"));
}

TEST_F(CacheSystemCalls, ThatOpenFilesAreTriedAgainAfterASignal) {
    const std::vector<std::string> outcomes = failEachSystemCall(EINTR, [this] { return open(); });
    EXPECT_THAT(outcomes, testing::IsSupersetOf({"open metadata: done", "open objects: done", "open nodes: done",
                                                 "open segments: done"}));
    EXPECT_THAT(outcomes, testing::Contains("open manifest.json: status 12 [Manifest constructor] Error loading "
                                            "manifest.json at position 0: unable to open manifest.json: Interrupted "
                                            "system call"));
}

TEST_F(CacheSystemCalls, FailWhileTheOperationsAreLoaded) {
    const std::string failed = "[OperationCache::load] Error loading operation cache: ";
    const std::string noLock = failed + "the lock file cannot be opened, made or locked";
    EXPECT_THAT(failEachSystemCall(EIO, [this] { return loadOperations(); }),
                ElementsAre("open operations.lck: status 13 [FileLockGuard] cannot open lock file operations.lck: "
                            "Input/output error " +
                                noLock,
                            "stat operations.lck: status 13 [FileLockGuard] cannot examine lock file operations.lck: "
                            "Input/output error " +
                                noLock,
                            "fcntl operations.lck: done",
                            "lock operations.lck: status 13 [FileLockGuard] cannot lock lock file operations.lck: "
                            "Input/output error " +
                                noLock,
                            "stat operations.lck: done",
                            "open operations: status 13 " + failed + "unable to open operations: Input/output error",
                            "stat operations: done",
                            "read operations: status 13 " + failed + "'[' or '{' expected near end of file",
                            "read operations: done", "close operations: done", "lock operations.lck: done",
                            "close operations.lck: done"));
}

TEST_F(CacheSystemCalls, FailOnTheFirstLook) {
    const AccessCache cache(Manifest("some cache", files_.directory()));
    const std::string failed = "status 9502 [FileLockGuard] cannot ";
    EXPECT_THAT(failEachSystemCall(
                    EIO, [&] { return look(cache); }, nextLook(cache)),
                ElementsAre("open manifest.json: " + failed + "open lock file manifest.json: Input/output error",
                            "stat manifest.json: " + failed + "examine lock file manifest.json: Input/output error",
                            "fcntl manifest.json: yes +1",
                            "lock manifest.json: " + failed + "lock lock file manifest.json: Input/output error +1",
                            "stat manifest.json: yes +1",
                            "stat objects: error statting file / error statting objects: Input/output error +1",
                            "stat nodes: error statting file / error statting nodes: Input/output error +1",
                            "stat segments: error statting file / error statting segments: Input/output error +1",
                            "lock manifest.json: yes"));
}

TEST_F(CacheSystemCalls, OfTheLockAreTriedAgainAfterASignal) {
    const AccessCache cache(Manifest("some cache", files_.directory()));
    const std::vector<std::string> outcomes = failEachSystemCall(
        EINTR, [&] { return look(cache); }, nextLook(cache));
    ASSERT_EQ(outcomes.size(), 9U);
    EXPECT_EQ(outcomes[0], "open manifest.json: yes +1");
    EXPECT_EQ(outcomes[3], "lock manifest.json: yes +1");
    EXPECT_EQ(outcomes[8], "lock manifest.json: yes +1");
}

TEST_F(CacheSystemCalls, FailOnALaterLookAndAreMadeUpForByTheNextOne) {
    const AccessCache cache(Manifest("some cache", files_.directory()));
    AroundTheWork around = nextLook(cache);
    around.before = [&] { look(cache); };
    const std::vector<std::string> outcomes = failEachSystemCall(
        EIO, [&] { return look(cache); }, around);
    // Whether a lock file still has its name is looked at once in every tick of the clock.
    EXPECT_THAT(outcomes, testing::Each(testing::AnyOf(
                              "lock manifest.json: status 9502 [FileLockGuard] cannot lock lock file manifest.json: "
                              "Input/output error",
                              "fcntl manifest.json: yes", "stat manifest.json: yes",
                              "stat objects: error statting file / error statting objects: Input/output error",
                              "stat nodes: error statting file / error statting nodes: Input/output error",
                              "stat segments: error statting file / error statting segments: Input/output error",
                              "lock manifest.json: yes -1")));
    EXPECT_GE(outcomes.size(), 3U);
}

TEST_F(CacheSystemCalls, FailWhileFilesThatHaveGrownAreMappedAnew) {
    const AccessCache cache(Manifest("some cache", files_.directory()));
    files_.put("|B|", 0, {{7, {37}}});
    files_.write();
    const std::vector<std::string> outcomes = failEachSystemCall(
        EIO, [&] { return look(cache); }, nextLook(cache));
    std::vector<std::string> expected = {
        "open manifest.json: status 9502 [FileLockGuard] cannot open lock file manifest.json: Input/output error",
        "stat manifest.json: status 9502 [FileLockGuard] cannot examine lock file manifest.json: Input/output error",
        "fcntl manifest.json: yes +1",
        "lock manifest.json: status 9502 [FileLockGuard] cannot lock lock file manifest.json: Input/output error +1",
        "stat manifest.json: yes +1"};
    const auto failure = [](const char* call, const char* doing, const std::string& file) {
        std::ostringstream text;
        text << call << " " << file << ": error " << doing << " file / error " << doing << " " << file
             << ": Input/output error +1";
        return text.str();
    };
    for (const char* const file : {"objects", "nodes", "segments"}) {
        expected.insert(expected.end(), 3, failure("stat", "statting", file));
        expected.push_back(failure("map", "mapping", file));
        expected.emplace_back("unmap: yes +1");
    }
    expected.emplace_back("lock manifest.json: yes");
    EXPECT_EQ(outcomes, expected);
}
