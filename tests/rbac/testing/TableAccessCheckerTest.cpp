#include <rbac/BulkAccess.h>
#include <rbac/EC_exception.h>
#include <rbac/testing/TableAccessChecker.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <thread>
#include <vector>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const ObjectNamespace DB("ASSETS", "db");
const ObjectNamespace BELOW("ASSETS", "db", "t");
const ObjectNamespace OTHER("ASSETS", "other");

/// The status that a check throws, or 0.
int statusOf(const AccessChecker& checker, const ObjectNamespace& object) {
    try {
        checker.checkAccess(object);
    } catch (const EC_exception& failure) {
        return failure.status;
    }
    return 0;
}

}  // namespace

TEST(TableAccessChecker, DeniesWhatItsTableDoesNotName) {
    const TableAccessChecker checker;
    EXPECT_FALSE(checker.checkAccess(DB));
    EXPECT_FALSE(checker.checkAccess(ObjectNamespace()));
}

TEST(TableAccessChecker, AllowsTheVeryObjectThatItsTableAllows) {
    TableAccessChecker checker;
    checker.allow(DB);
    EXPECT_TRUE(checker.checkAccess(DB));
    EXPECT_FALSE(checker.checkAccess(BELOW));
    EXPECT_FALSE(checker.checkAccess(OTHER));
}

TEST(TableAccessChecker, MayAllowWhatItsTableDoesNotName) {
    TableAccessChecker checker(true);
    checker.deny(DB);
    EXPECT_FALSE(checker.checkAccess(DB));
    EXPECT_TRUE(checker.checkAccess(OTHER));
}

TEST(TableAccessChecker, GoesByTheLastEntryForAnObject) {
    TableAccessChecker checker;
    checker.raise(DB, EC_exception(12)).deny(DB).allow(DB);
    EXPECT_TRUE(checker.checkAccess(DB));
    checker.deny(DB);
    EXPECT_FALSE(checker.checkAccess(DB));
}

TEST(TableAccessChecker, ThrowsWhatItsTableSays) {
    TableAccessChecker checker;
    checker.raise(DB, EC_exception(12));
    EXPECT_EQ(statusOf(checker, DB), 12);
    EXPECT_EQ(statusOf(checker, DB), 12);
    EXPECT_EQ(statusOf(checker, OTHER), 0);
}

TEST(TableAccessChecker, RemembersWhatItWasAskedAlsoWhereItThrew) {
    TableAccessChecker checker;
    checker.raise(DB, EC_exception(12));
    EXPECT_THAT(checker.asked(), IsEmpty());
    statusOf(checker, OTHER);
    statusOf(checker, DB);
    statusOf(checker, OTHER);
    EXPECT_THAT(checker.asked(), ElementsAre(OTHER, DB, OTHER));
}

TEST(TableAccessChecker, IsAskedObjectByObjectForManyAtOnce) {
    const auto checker = boost::make_shared<TableAccessChecker>();
    checker->allow(DB).allow(BELOW);
    EXPECT_THAT(checkAccessToAll(*checker, {DB, OTHER, BELOW}), ElementsAre(true, false, true));
    EXPECT_THAT(checker->asked(), ElementsAre(DB, OTHER, BELOW));
}

TEST(TableAccessChecker, AnswersSeveralThreads) {
    constexpr int THREADS = 4;
    constexpr int CHECKS = 250;
    TableAccessChecker checker;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&checker] {
            const ObjectNamespace own("ASSETS", "own");
            for (int check = 0; check < CHECKS; ++check) {
                checker.allow(own);
                checker.checkAccess(own);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(checker.asked().size(), THREADS * CHECKS);
}
