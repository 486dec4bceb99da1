#include <rbac/AccessExplanation.h>
#include <rbac/AccessLists.h>
#include <rbac/BulkAccess.h>
#include <rbac/testing/FakeAccessControlClient.h>
#include <rbac/testing/TableAccessChecker.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
namespace operations = root_namespaces::operations;

namespace {

const ObjectNamespace DB("ASSETS", "db");
const ObjectNamespace BELOW("ASSETS", "db", "t");
const ObjectNamespace OTHER("ASSETS", "other");

class FakeAccessControlClientTest : public testing::Test {
protected:
    using Checker = boost::shared_ptr<const AccessChecker>;

    Checker checkerOf(const std::set<int>& roleIds, const ObjectNamespace& operation = operations::VIEW) {
        Checker checker;
        EXPECT_EQ(client_->createAccessChecker(roleIds, operation, 0, checker), 0);
        return checker;
    }
    Checker checkerOfSession(const std::string& sessionToken) {
        Checker checker;
        EXPECT_EQ(client_->createAccessChecker(nullptr, sessionToken, operations::VIEW, 0, checker), 0);
        return checker;
    }
    int statusOf(const std::string& sessionToken) {
        Checker checker;
        return client_->createAccessChecker(nullptr, sessionToken, operations::VIEW, 0, checker);
    }
    /// The status that a check throws, or 0.
    static int statusOfCheck(const AccessChecker& checker) {
        try {
            checker.checkAccess(DB);
        } catch (const EC_exception& failure) {
            return failure.status;
        }
        return 0;
    }

    std::unique_ptr<FakeAccessControlClient> client_ = std::make_unique<FakeAccessControlClient>();
};

}  // namespace

TEST_F(FakeAccessControlClientTest, DeniesWhatIsNotGranted) {
    EXPECT_FALSE(checkerOf({5})->checkAccess(DB));
}

TEST_F(FakeAccessControlClientTest, AllowsWhatIsGrantedToOneOfTheRoles) {
    client_->grant(5, operations::VIEW, DB);
    EXPECT_TRUE(checkerOf({4, 5, 6})->checkAccess(DB));
    EXPECT_FALSE(checkerOf({4, 6})->checkAccess(DB));
    EXPECT_FALSE(checkerOf(std::set<int>{})->checkAccess(DB));
}

TEST_F(FakeAccessControlClientTest, GrantsAnOperationOnAnObjectAndNothingElse) {
    client_->grant(5, operations::VIEW, DB);
    EXPECT_FALSE(checkerOf({5}, operations::UPDATE)->checkAccess(DB));
    EXPECT_FALSE(checkerOf({5})->checkAccess(OTHER));
    EXPECT_FALSE(checkerOf({5})->checkAccess(BELOW));
}

TEST_F(FakeAccessControlClientTest, AllowsEverythingToRoleZero) {
    EXPECT_TRUE(checkerOf({0})->checkAccess(DB));
}

TEST_F(FakeAccessControlClientTest, ShowsCheckersChangesAtOnce) {
    const Checker checker = checkerOf({5});
    client_->grant(5, operations::VIEW, DB);
    EXPECT_TRUE(checker->checkAccess(DB));
    client_->revoke(5, operations::VIEW, DB);
    EXPECT_FALSE(checker->checkAccess(DB));
}

TEST_F(FakeAccessControlClientTest, MayBeGoneBeforeItsCheckers) {
    client_->grant(5, operations::VIEW, DB);
    const Checker checker = checkerOf({5});
    client_.reset();
    EXPECT_TRUE(checker->checkAccess(DB));
    EXPECT_FALSE(checker->checkAccess(OTHER));
}

TEST_F(FakeAccessControlClientTest, TakesTheRolesOfASession) {
    client_->addSession("alice's", {4, 5});
    client_->grant(5, operations::VIEW, DB);
    EXPECT_TRUE(checkerOfSession("alice's")->checkAccess(DB));
}

TEST_F(FakeAccessControlClientTest, DoesNotKnowASessionThatItWasNotTold) {
    EXPECT_EQ(statusOf("somebody's"), 117);
}

TEST_F(FakeAccessControlClientTest, RefusesASessionWithItsStatus) {
    client_->addSession("alice's", {5});
    client_->refuseSession("alice's", 8001);
    EXPECT_EQ(statusOf("alice's"), 8001);
    client_->addSession("alice's", {5});
    EXPECT_EQ(statusOf("alice's"), 0);
}

TEST_F(FakeAccessControlClientTest, MakesNoCheckerWhileCreationsFail) {
    client_->failCreations(13);
    Checker checker;
    EXPECT_EQ(client_->createAccessChecker({5}, operations::VIEW, 0, checker), 13);
    client_->failCreations(0);
    EXPECT_EQ(client_->createAccessChecker({5}, operations::VIEW, 0, checker), 0);
}

TEST_F(FakeAccessControlClientTest, LooksAtTheSessionFirst) {
    client_->addSession("alice's", {5});
    client_->failCreations(13);
    EXPECT_EQ(statusOf("somebody's"), 117);
    EXPECT_EQ(statusOf("alice's"), 13);
}

TEST_F(FakeAccessControlClientTest, LeavesTheCallersCheckerAloneWhereItFails) {
    const Checker before = boost::make_shared<TableAccessChecker>();
    Checker checker = before;
    client_->createAccessChecker(nullptr, "somebody's", operations::VIEW, 0, checker);
    EXPECT_EQ(checker, before);
}

TEST_F(FakeAccessControlClientTest, ReplacesTheCallersChecker) {
    const Checker before = boost::make_shared<TableAccessChecker>();
    Checker checker = before;
    client_->createAccessChecker({5}, operations::VIEW, 0, checker);
    EXPECT_TRUE(checker);
    EXPECT_NE(checker, before);
}

TEST_F(FakeAccessControlClientTest, ThrowsFromChecksWhileTheyFail) {
    const Checker checker = checkerOf({0});
    client_->failChecks(12);
    EXPECT_EQ(statusOfCheck(*checker), 12);
    client_->failChecks(0);
    EXPECT_EQ(statusOfCheck(*checker), 0);
}

TEST_F(FakeAccessControlClientTest, RemembersCreations) {
    Checker checker;
    client_->addSession("alice's", {4, 5});
    client_->createAccessChecker(nullptr, "alice's", operations::ADD, 3, checker);
    client_->createAccessChecker({9}, operations::VIEW, 0, checker);
    client_->createAccessChecker(nullptr, "somebody's", operations::VIEW, 0, checker);
    std::vector<std::string> creations;
    for (const FakeAccessControlClient::Creation& made : client_->creations()) {
        creations.push_back(made.sessionToken + " " + testing::PrintToString(made.roleIds) + " " +
                            made.operation.str() + " " + std::to_string(made.option) + " " +
                            std::to_string(made.status));
    }
    EXPECT_THAT(creations, ElementsAre("alice's { 4, 5 } |OPERATIONS|ADD| 3 0", " { 9 } |OPERATIONS|VIEW| 0 0",
                                       "somebody's {} |OPERATIONS|VIEW| 0 117"));
}

TEST_F(FakeAccessControlClientTest, RemembersChecksAlsoThoseThatThrew) {
    checkerOf({9}, operations::ADD)->checkAccess(OTHER);
    client_->failChecks(12);
    statusOfCheck(*checkerOf({5}));
    std::vector<std::string> checks;
    for (const FakeAccessControlClient::Check& check : client_->checks()) {
        checks.push_back(testing::PrintToString(check.roleIds) + " " + check.operation.str() + " " +
                         check.object.str());
    }
    EXPECT_THAT(checks, ElementsAre("{ 9 } |OPERATIONS|ADD| |ASSETS|other|", "{ 5 } |OPERATIONS|VIEW| |ASSETS|db|"));
}

TEST_F(FakeAccessControlClientTest, AnswersForManyObjectsAtOnce) {
    client_->grant(5, operations::VIEW, DB);
    EXPECT_THAT(checkAccessToAll(*checkerOf({5}), {OTHER, DB}), ElementsAre(false, true));
}

TEST_F(FakeAccessControlClientTest, IsRefusedByExplanations) {
    AccessExplanation why;
    EXPECT_THROW(explainAccess(*client_, {5}, operations::VIEW, DB, why), std::invalid_argument);
    EXPECT_THROW(whatWouldAllow(*client_, why), std::invalid_argument);
}

TEST_F(FakeAccessControlClientTest, IsRefusedByLists) {
    const auto ignore = [](const auto& /*element*/) { return true; };
    EXPECT_THROW(forEachAllowedObject(*client_, {5}, operations::VIEW, DB, ignore), std::invalid_argument);
    EXPECT_THROW(forEachAllowedRole(*client_, operations::VIEW, DB, ignore), std::invalid_argument);
    EXPECT_THROW(forEachAllowedOperation(*client_, {5}, DB, ignore), std::invalid_argument);
}

TEST_F(FakeAccessControlClientTest, ServesSeveralThreads) {
    constexpr int THREADS = 4;
    constexpr int CHECKS = 250;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([this, i] {
            const ObjectNamespace own("ASSETS", "own");
            client_->addSession(std::to_string(i), {i + 1});
            for (int check = 0; check < CHECKS; ++check) {
                client_->grant(i + 1, operations::VIEW, own);
                EXPECT_TRUE(checkerOfSession(std::to_string(i))->checkAccess(own));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(client_->creations().size(), THREADS * CHECKS);
    EXPECT_EQ(client_->checks().size(), THREADS * CHECKS);
}
