#include "rbac/enforcement/ConstantAccessChecker.h"
#include "rbac/enforcement/StubAccessControlClient.h"
#include "testing/FailingAllocations.h"
#include "testing/LogCapture.h"

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessChecker;
using Tesmor::Arkwell::Rbac::AccessControlClient;
using Tesmor::Arkwell::Rbac::ConstantAccessChecker;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::StubAccessControlClient;
using Tesmor::Arkwell::Rbac::root_namespaces::operations::VIEW;
using testing_support::failEachAllocation;
using testing_support::LogCapture;
namespace root_namespaces = Tesmor::Arkwell::Rbac::root_namespaces;

namespace {

using Checker = boost::shared_ptr<const AccessChecker>;

int createByToken(AccessControlClient& client, Checker& checker) {
    return client.createAccessChecker(nullptr, "token", VIEW, 0, checker);
}

int createByRoles(AccessControlClient& client, Checker& checker) {
    return client.createAccessChecker(std::set<int>{1, 2}, VIEW, 0, checker);
}

bool allowsEverything(const Checker& checker) {
    return checker && checker->checkAccess(ObjectNamespace()) && checker->checkAccess(root_namespaces::SECURITY) &&
           checker->checkAccess(ObjectNamespace("no", "such", "object"));
}

class StubAccessControlClientTest : public testing::Test {
protected:
    StubAccessControlClient client_;
    Checker checker_;
};

}  // namespace

TEST_F(StubAccessControlClientTest, CheckerByTokenAllowsEverything) {
    EXPECT_EQ(createByToken(client_, checker_), 0);
    EXPECT_TRUE(allowsEverything(checker_));
}

TEST_F(StubAccessControlClientTest, CheckerByRolesAllowsEverything) {
    EXPECT_EQ(createByRoles(client_, checker_), 0);
    EXPECT_TRUE(allowsEverything(checker_));
}

TEST_F(StubAccessControlClientTest, TokenIsNotLookedAt) {
    for (const char* token : {"", "no token", "a.b.c"}) {
        checker_.reset();
        EXPECT_EQ(client_.createAccessChecker(nullptr, token, root_namespaces::operations::ADD, 0, checker_), 0);
        EXPECT_TRUE(allowsEverything(checker_)) << token;
    }
}

TEST_F(StubAccessControlClientTest, EmptyRoleSetIsEnough) {
    EXPECT_EQ(client_.createAccessChecker(std::set<int>(), VIEW, 0, checker_), 0);
    EXPECT_TRUE(allowsEverything(checker_));
}

TEST_F(StubAccessControlClientTest, OperationIsNotLookedAt) {
    const ObjectNamespace unknown("OPERATIONS", "NO SUCH OPERATION");
    EXPECT_EQ(client_.createAccessChecker(std::set<int>{1}, unknown, 0, checker_), 0);
    EXPECT_TRUE(allowsEverything(checker_));
    checker_.reset();
    EXPECT_EQ(client_.createAccessChecker(nullptr, "token", ObjectNamespace(), 0, checker_), 0);
    EXPECT_TRUE(allowsEverything(checker_));
}

TEST_F(StubAccessControlClientTest, OptionIsNotLookedAt) {
    for (const int option : {-1, 0, 1, 2147483647}) {
        checker_.reset();
        EXPECT_EQ(client_.createAccessChecker(std::set<int>{1}, VIEW, option, checker_), 0);
        EXPECT_TRUE(allowsEverything(checker_)) << option;
    }
}

TEST_F(StubAccessControlClientTest, CheckerIsTheConstantOne) {
    createByRoles(client_, checker_);
    EXPECT_NE(dynamic_cast<const ConstantAccessChecker<true>*>(checker_.get()), nullptr);
}

TEST_F(StubAccessControlClientTest, EveryCallMakesANewChecker) {
    Checker another;
    createByRoles(client_, checker_);
    createByRoles(client_, another);
    EXPECT_NE(checker_, another);
    createByToken(client_, another);
    EXPECT_NE(checker_, another);
}

TEST_F(StubAccessControlClientTest, FilledArgumentIsReplacedAndReleased) {
    for (const auto create : {createByToken, createByRoles}) {
        checker_ = boost::make_shared<ConstantAccessChecker<false>>();
        const boost::weak_ptr<const AccessChecker> old = checker_;
        EXPECT_EQ(create(client_, checker_), 0);
        EXPECT_TRUE(old.expired());
        EXPECT_TRUE(allowsEverything(checker_));
    }
}

TEST_F(StubAccessControlClientTest, CheckerOutlivesItsClient) {
    boost::shared_ptr<AccessControlClient> client = boost::make_shared<StubAccessControlClient>();
    createByRoles(*client, checker_);
    client.reset();
    EXPECT_TRUE(allowsEverything(checker_));
}

TEST_F(StubAccessControlClientTest, NothingIsLogged) {
    const LogCapture log;
    createByToken(client_, checker_);
    createByRoles(client_, checker_);
    checker_->checkAccess(root_namespaces::ARKWELL);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(StubAccessControlClientTest, OutOfMemoryThrowsAndLeavesTheArgument) {
    const Checker before = boost::make_shared<ConstantAccessChecker<false>>();
    const std::string token = "token";
    const std::set<int> roles = {1};
    const auto byToken = [&] { client_.createAccessChecker(nullptr, token, VIEW, 0, checker_); };
    const auto byRoles = [&] { client_.createAccessChecker(roles, VIEW, 0, checker_); };
    const auto unchanged = [&] { EXPECT_EQ(checker_, before); };
    checker_ = before;
    EXPECT_EQ(failEachAllocation(byToken, unchanged), 1);
    checker_ = before;
    EXPECT_EQ(failEachAllocation(byRoles, unchanged), 1);
}

TEST_F(StubAccessControlClientTest, ThreadsShareOneClient) {
    std::atomic<int> allowed{0};
    constexpr int THREADS = 8;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([this, &allowed, i] {
            Checker checker;
            const int status = i % 2 == 0 ? createByToken(client_, checker) : createByRoles(client_, checker);
            allowed += status == 0 && allowsEverything(checker) ? 1 : 0;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(allowed, THREADS);
}
