#include "InstallationPaths.h"
#include "rbac/enforcement/DiskAccessChecker.h"
#include "rbac/enforcement/DiskAccessControlClient.h"
#include "testing/FailingAllocations.h"
#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/OperationCache.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <filesystem>
#include <new>
#include <set>
#include <string>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::AccessChecker;
using Tesmor::Arkwell::Rbac::DiskAccessChecker;
using Tesmor::Arkwell::Rbac::DiskAccessControlClient;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using Tesmor::Arkwell::Rbac::OperationCache;
using testing_support::failEachOnce;
using testing_support::fileLockIsFree;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::mappingCount;
using testing_support::RawCache;
using testing_support::resizeFile;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;
namespace operations = Tesmor::Arkwell::Rbac::root_namespaces::operations;

namespace {

const std::string OPERATIONS_PATH = TARVO_ROOT "/wmc/webserver/temp/operation-cache.json";

const LogLine FAILED{16, "DiskAccessControlClient::createAccessChecker", "Failed to create AccessChecker, error=36"};

class DiskAccessControlClientOutOfMemory : public testing::Test {
protected:
    DiskAccessControlClientOutOfMemory() {
        writeFile(OPERATIONS_PATH, R"({"|OPERATIONS|VIEW|": 1})");
        operations_.load();
        std::string text = "|";
        for (int depth = 0; depth < 100; ++depth) {
            text += "c|";
            deep_ = deep_ | "c";
            files_.put(text, 1);
        }
        files_.put("|", 0, {}, {{7, {1}}});
        files_.write();
        cache_ = boost::make_shared<AccessCache>(Manifest("some cache", files_.directory()));
        log_.clear();
    }
    ~DiskAccessControlClientOutOfMemory() override { std::filesystem::remove(OPERATIONS_PATH); }

    /// Makes a checker, failing each allocation in turn, and expects each failure to be logged, and nothing else.
    void expectLoggedOnly(const std::set<int>& roles) {
        const boost::shared_ptr<const AccessChecker> before = made({0});
        boost::shared_ptr<const AccessChecker> checker = before;
        int status = -1;
        const int failures =
            failEachOnce([&] { status = client_.createAccessChecker(roles, operations::VIEW, 0, checker); },
                         [&](bool thrown) {
                             EXPECT_FALSE(thrown);
                             EXPECT_EQ(status, 0);
                             EXPECT_EQ(checker, before);
                             EXPECT_EQ(log_.lines(), std::vector<LogLine>{FAILED});
                             log_.clear();
                         });
        EXPECT_GT(failures, 0);
        EXPECT_NE(checker, before);
    }

    boost::shared_ptr<const AccessChecker> made(const std::set<int>& roles) {
        boost::shared_ptr<const AccessChecker> checker;
        EXPECT_EQ(client_.createAccessChecker(roles, operations::VIEW, 0, checker), 0);
        return checker;
    }

    LogCapture log_;
    TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
    ObjectNamespace deep_;
    OperationCache operations_;
    boost::shared_ptr<AccessCache> cache_;
    DiskAccessControlClient client_{ObjectNamespace(), nullptr, operations_};
};

}  // namespace

TEST_F(DiskAccessControlClientOutOfMemory, CheckerThatReadsTheCache) {
    expectLoggedOnly({1, 2, 3});
}

TEST_F(DiskAccessControlClientOutOfMemory, CheckerForRoleZero) {
    expectLoggedOnly({0});
}

TEST_F(DiskAccessControlClientOutOfMemory, CheckerForAnUnknownOperation) {
    boost::shared_ptr<const AccessChecker> checker;
    int status = -1;
    int loggedOnly = 0;
    failEachOnce(
        [&] {
            checker.reset();
            status = client_.createAccessChecker({7}, ObjectNamespace("X"), 0, checker);
        },
        [&](bool thrown) {
            // Memory that the operation cache has to have is not this failure.
            if (!thrown && !checker) {
                EXPECT_EQ(status, 0);
                EXPECT_EQ(log_.lines().back(), FAILED);
                ++loggedOnly;
            }
            log_.clear();
        });
    EXPECT_EQ(loggedOnly, 1);
    EXPECT_TRUE(checker);
}

TEST_F(DiskAccessControlClientOutOfMemory, FailedLookupOfTheOperationPassesThrough) {
    boost::shared_ptr<const AccessChecker> checker;
    int thrownTimes = 0;
    failEachOnce([&] { client_.createAccessChecker({7}, ObjectNamespace("X"), 0, checker); },
                 [&](bool thrown) {
                     if (thrown) {
                         EXPECT_FALSE(checker);
                         EXPECT_EQ(log_.linesAt(16), std::vector<LogLine>());
                         ++thrownTimes;
                     }
                     checker.reset();
                     log_.clear();
                 });
    EXPECT_GT(thrownTimes, 0);
}

TEST_F(DiskAccessControlClientOutOfMemory, FailedCheckThrowsAndReleasesTheLock) {
    const DiskAccessChecker checker(cache_, {7}, Operation(1), 0);
    const ObjectNamespace object = deep_ | "absent";
    bool answer = false;
    int thrownTimes = 0;
    failEachOnce(
        [&] {
            answer = false;
            answer = checker.checkAccess(ObjectNamespace(object));
        },
        [&](bool thrown) {
            EXPECT_NE(answer, thrown);
            EXPECT_TRUE(fileLockIsFree(files_.manifest()));
            thrownTimes += thrown ? 1 : 0;
        });
    EXPECT_GT(thrownTimes, 2);
    EXPECT_TRUE(answer);
}

TEST_F(DiskAccessControlClientOutOfMemory, FailedRemapLosesNoMappingAndIsMadeUpFor) {
    const DiskAccessChecker checker(cache_, {7}, Operation(1), 0);
    const ObjectNamespace object("c");
    object.str();
    std::size_t size = 50'000;
    resizeFile(files_.objectFile(), size);
    bool answer = false;
    int thrownTimes = 0;
    failEachOnce(
        [&] {
            answer = false;
            answer = checker.checkAccess(object);
        },
        [&](bool thrown) {
            EXPECT_NE(answer, thrown);
            EXPECT_TRUE(fileLockIsFree(files_.manifest()));
            EXPECT_TRUE(checker.checkAccess(object));
            EXPECT_EQ(cache_->managedObjectCount(), size / 16);
            EXPECT_EQ(mappingCount(files_.objectFile()), 1);
            size += 5'000;
            resizeFile(files_.objectFile(), size);
            thrownTimes += thrown ? 1 : 0;
        });
    EXPECT_GT(thrownTimes, 0);
    EXPECT_TRUE(answer);
}
