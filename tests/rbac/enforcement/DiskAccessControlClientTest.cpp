#include "InstallationPaths.h"
#include "rbac/enforcement/ConstantAccessChecker.h"
#include "rbac/enforcement/DiskAccessChecker.h"
#include "rbac/enforcement/DiskAccessControlClient.h"
#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/EC_exception.h>
#include <rbac/OperationCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <boost/numeric/conversion/cast.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::AccessChecker;
using Tesmor::Arkwell::Rbac::AccessControlClient;
using Tesmor::Arkwell::Rbac::ConstantAccessChecker;
using Tesmor::Arkwell::Rbac::DiskAccessChecker;
using Tesmor::Arkwell::Rbac::DiskAccessControlClient;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::OperationCache;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::RawCache;
using testing_support::setWritingFlag;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;
namespace operations = Tesmor::Arkwell::Rbac::root_namespaces::operations;

namespace {

const std::string OPERATIONS_PATH = TARVO_ROOT "/wmc/webserver/temp/operation-cache.json";
const std::string TAG = "DiskAccessControlClient::createAccessChecker";
const ObjectNamespace UNKNOWN("OPERATIONS", "UNKNOWN");
const ObjectNamespace OBJECT("A", "OBJECT");
const ObjectNamespace ABSENT("NOT", "THERE");
constexpr int VIEW_BIT = 37;
constexpr int ROLE = 7;

using Checker = boost::shared_ptr<const AccessChecker>;

/// Stands in for what the caller's pointer held before.
class OldChecker : public AccessChecker {
public:
    bool checkAccess(const ObjectNamespace& /*object*/) const override { return false; }
};

class DiskAccessControlClientTest : public testing::Test {
protected:
    DiskAccessControlClientTest() {
        writeFile(OPERATIONS_PATH, R"({"|OPERATIONS|VIEW|": 37, "|OPERATIONS|ADD|": 5})");
        files_.put("|A|OBJECT|", 0, {{ROLE, {VIEW_BIT}}});
        files_.write();
        cache_ = boost::make_shared<AccessCache>(Manifest("some cache", files_.directory()));
        client_ = std::make_unique<DiskAccessControlClient>(ObjectNamespace("A"), cache_, operations_);
        log_.clear();
    }
    ~DiskAccessControlClientTest() override { std::filesystem::remove(OPERATIONS_PATH); }

    int create(const std::set<int>& roles, const ObjectNamespace& operation, int option = 0) {
        return client_->createAccessChecker(roles, operation, option, checker_);
    }

    /// A checker for the roles and the operation, which has to be made.
    Checker made(const std::set<int>& roles, const ObjectNamespace& operation = operations::VIEW, int option = 0) {
        checker_.reset();
        EXPECT_EQ(create(roles, operation, option), 0);
        EXPECT_TRUE(checker_);
        return checker_;
    }

    template <class Kind>
    bool isOf(const Checker& checker) const {
        return dynamic_cast<const Kind*>(checker.get()) != nullptr;
    }

    /// What is logged on a lookup of an operation that the cache does not know.
    static LogLine reloading(const std::string& ns) {
        return {8, "OperationCache::operator[]", "Operation " + ns + " not found in cache; reloading from disk"};
    }

    LogCapture log_;
    TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
    OperationCache operations_;
    boost::shared_ptr<AccessCache> cache_;
    std::unique_ptr<DiskAccessControlClient> client_;
    Checker checker_;
};

}  // namespace

TEST_F(DiskAccessControlClientTest, CheckerAnswersFromTheCache) {
    const Checker checker = made({ROLE});
    EXPECT_TRUE(isOf<DiskAccessChecker>(checker));
    EXPECT_TRUE(checker->checkAccess(OBJECT));
    EXPECT_FALSE(checker->checkAccess(ABSENT));
}

TEST_F(DiskAccessControlClientTest, SuccessLogsNoError) {
    made({ROLE});
    EXPECT_EQ(log_.lines(), std::vector<LogLine>{reloading("|OPERATIONS|VIEW|")});
}

TEST_F(DiskAccessControlClientTest, OperationIsTheOneAskedFor) {
    EXPECT_TRUE(made({ROLE}, operations::VIEW)->checkAccess(OBJECT));
    EXPECT_FALSE(made({ROLE}, operations::ADD)->checkAccess(OBJECT));
}

TEST_F(DiskAccessControlClientTest, RolesAreTheOnesGiven) {
    EXPECT_FALSE(made({ROLE + 1})->checkAccess(OBJECT));
    EXPECT_TRUE(made({ROLE - 1, ROLE, ROLE + 1})->checkAccess(OBJECT));
}

TEST_F(DiskAccessControlClientTest, EmptyRoleSetAllowsNothing) {
    const Checker checker = made({});
    EXPECT_TRUE(isOf<DiskAccessChecker>(checker));
    EXPECT_FALSE(checker->checkAccess(OBJECT));
    EXPECT_FALSE(checker->checkAccess(ObjectNamespace()));
}

TEST_F(DiskAccessControlClientTest, NegativeRolesAreNotSpecial) {
    EXPECT_FALSE(made({-1})->checkAccess(OBJECT));
}

TEST_F(DiskAccessControlClientTest, OptionChangesNothing) {
    for (const int option : {0, 1, -1, 12345}) {
        EXPECT_TRUE(made({ROLE}, operations::VIEW, option)->checkAccess(OBJECT)) << option;
        EXPECT_FALSE(made({ROLE + 1}, operations::VIEW, option)->checkAccess(OBJECT)) << option;
    }
}

TEST_F(DiskAccessControlClientTest, RoleZeroMayDoEverything) {
    const Checker checker = made({0});
    EXPECT_TRUE(isOf<ConstantAccessChecker<true>>(checker));
    for (const ObjectNamespace& object : {OBJECT, ABSENT, ObjectNamespace()}) {
        EXPECT_TRUE(checker->checkAccess(object)) << object;
    }
}

TEST_F(DiskAccessControlClientTest, RoleZeroAmongOthersMayDoEverything) {
    EXPECT_TRUE(made({-5, 0, ROLE + 1}, operations::ADD)->checkAccess(ABSENT));
}

TEST_F(DiskAccessControlClientTest, RoleZeroNeedsNoCache) {
    setWritingFlag(files_, 1);
    const FileLockGuard writer(FileLockManager::instance().getLock(files_.manifest()), FileLockGuard::EXCLUSIVE, -1,
                               FileLock::DEFAULT_INTERVAL);
    EXPECT_TRUE(made({0})->checkAccess(OBJECT));
}

TEST_F(DiskAccessControlClientTest, UnknownOperationIsDeniedEverywhere) {
    const Checker checker = made({ROLE}, UNKNOWN);
    EXPECT_TRUE(isOf<ConstantAccessChecker<false>>(checker));
    for (const ObjectNamespace& object : {OBJECT, ABSENT, ObjectNamespace()}) {
        EXPECT_FALSE(checker->checkAccess(object)) << object;
    }
}

TEST_F(DiskAccessControlClientTest, UnknownOperationIsDeniedToRoleZeroToo) {
    const Checker checker = made({0}, UNKNOWN);
    EXPECT_TRUE(isOf<ConstantAccessChecker<false>>(checker));
    EXPECT_FALSE(checker->checkAccess(OBJECT));
}

TEST_F(DiskAccessControlClientTest, UnknownOperationIsLoggedByTheOperationCacheOnly) {
    made({ROLE}, UNKNOWN);
    EXPECT_EQ(log_.lines(), (std::vector<LogLine>{reloading("|OPERATIONS|UNKNOWN|"),
                                                  {16, "OperationCache::operator[]",
                                                   "Operation |OPERATIONS|UNKNOWN| still not found in cache"}}));
}

TEST_F(DiskAccessControlClientTest, UnknownOperationNeedsNoCache) {
    setWritingFlag(files_, 1);
    EXPECT_FALSE(made({ROLE}, UNKNOWN)->checkAccess(OBJECT));
}

TEST_F(DiskAccessControlClientTest, UnreadableOperationCacheIsReportedWithItsStatus) {
    std::filesystem::remove(OPERATIONS_PATH);
    const Checker before = boost::make_shared<OldChecker>();
    checker_ = before;
    EXPECT_EQ(create({ROLE}, operations::VIEW), 13);
    EXPECT_EQ(checker_, before);
    const std::vector<LogLine> lines = log_.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], reloading("|OPERATIONS|VIEW|"));
    EXPECT_EQ(lines[1].tag, "OperationCache::load");
    EXPECT_EQ(lines[2], (LogLine{16, TAG, "Failed to convert operation to offset/mask, error=13"}));
}

TEST_F(DiskAccessControlClientTest, UnreadableOperationCacheStopsRoleZeroToo) {
    writeFile(OPERATIONS_PATH, "damaged");
    EXPECT_EQ(create({0}, operations::VIEW), 13);
    EXPECT_FALSE(checker_);
}

TEST_F(DiskAccessControlClientTest, OtherFailuresOfTheOperationCachePassThrough) {
    const Checker before = boost::make_shared<OldChecker>();
    checker_ = before;
    writeFile(OPERATIONS_PATH, R"({"OPERATIONS": 1})");
    EXPECT_THROW(create({ROLE}, operations::VIEW), boost::bad_lexical_cast);
    writeFile(OPERATIONS_PATH, R"({"|OPERATIONS|VIEW|": 2147483648})");
    EXPECT_THROW(create({ROLE}, operations::VIEW), boost::numeric::positive_overflow);
    writeFile(OPERATIONS_PATH, R"({"|OPERATIONS|VIEW|": -2147483649})");
    EXPECT_THROW(create({0}, operations::VIEW), boost::numeric::negative_overflow);
    EXPECT_EQ(checker_, before);
    EXPECT_EQ(log_.linesAt(16), std::vector<LogLine>());
}

TEST_F(DiskAccessControlClientTest, MakingACheckerDoesNotReadTheCache) {
    setWritingFlag(files_, 1);
    const Checker checker = made({ROLE});
    EXPECT_THROW(checker->checkAccess(OBJECT), EC_exception);
}

TEST_F(DiskAccessControlClientTest, OldCheckerIsReleased) {
    for (const auto& [roles, operation] : std::vector<std::pair<std::set<int>, ObjectNamespace>>{
             {{ROLE}, operations::VIEW}, {{0}, operations::VIEW}, {{ROLE}, UNKNOWN}}) {
        checker_ = boost::make_shared<OldChecker>();
        const boost::weak_ptr<const AccessChecker> old(checker_);
        EXPECT_EQ(create(roles, operation), 0);
        EXPECT_TRUE(old.expired());
        EXPECT_FALSE(isOf<OldChecker>(checker_));
    }
}

TEST_F(DiskAccessControlClientTest, EachCheckerIsNew) {
    const Checker first = made({ROLE});
    const Checker second = made({ROLE});
    EXPECT_NE(first, second);
}

TEST_F(DiskAccessControlClientTest, CheckerOutlivesTheClient) {
    const Checker checker = made({ROLE});
    client_.reset();
    cache_.reset();
    checker_.reset();
    EXPECT_TRUE(checker->checkAccess(OBJECT));
}

TEST_F(DiskAccessControlClientTest, ClientKeepsTheCacheOpen) {
    const boost::weak_ptr<AccessCache> watched(cache_);
    cache_.reset();
    EXPECT_FALSE(watched.expired());
    EXPECT_TRUE(made({ROLE})->checkAccess(OBJECT));
    checker_.reset();
    client_.reset();
    EXPECT_TRUE(watched.expired());
}

TEST_F(DiskAccessControlClientTest, CheckersOfOneClientShareTheCache) {
    const long before = cache_.use_count();
    const Checker first = made({ROLE});
    const Checker second = made({ROLE + 1});
    EXPECT_EQ(cache_.use_count(), before + 2);
}

TEST_F(DiskAccessControlClientTest, ScopeIsNotConsulted) {
    client_ = std::make_unique<DiskAccessControlClient>(ObjectNamespace("SOMEWHERE", "ELSE"), cache_, operations_);
    EXPECT_TRUE(made({ROLE})->checkAccess(OBJECT));
}

TEST_F(DiskAccessControlClientTest, OperationCacheIsReadOncePerOperation) {
    made({ROLE});
    std::filesystem::remove(OPERATIONS_PATH);
    log_.clear();
    made({ROLE});
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(DiskAccessControlClientTest, WorksThroughTheInterface) {
    AccessControlClient& client = *client_;
    EXPECT_EQ(client.createAccessChecker({ROLE}, operations::VIEW, 0, checker_), 0);
    EXPECT_TRUE(checker_->checkAccess(OBJECT));
}
