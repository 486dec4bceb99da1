#include "ClientFixture.h"
#include "rbac/enforcement/StubAccessControlClient.h"
#include "testing/ProcessState.h"

#include <rbac/AccessLists.h>
#include <rbac/EC_exception.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using namespace Tesmor::Arkwell::Rbac;
using testing_support::ClientFixture;
using testing_support::Grants;
using Roles = std::vector<int>;
using Texts = std::vector<std::string>;
namespace operations = root_namespaces::operations;

namespace {

constexpr int VIEW_BIT = 37;
constexpr int ADD_BIT = 5;
const Grants NOTHING;
const Grants VIEW_FOR_5{{5, {VIEW_BIT}}};

class ListsFixture : public ClientFixture {
protected:
    Texts objects(const std::set<int>& roles, const ObjectNamespace& below) {
        Texts texts;
        EXPECT_EQ(forEachAllowedObject(client(), roles, operations::VIEW, below,
                                       [&texts](const std::string& text) {
                                           texts.push_back(text);
                                           return true;
                                       }),
                  0);
        return texts;
    }

    Roles roles(const ObjectNamespace& object, const ObjectNamespace& operation = operations::VIEW) {
        Roles ids;
        EXPECT_EQ(forEachAllowedRole(client(), operation, object,
                                     [&ids](int role) {
                                         ids.push_back(role);
                                         return true;
                                     }),
                  0);
        return ids;
    }

    Texts operationsOf(const std::set<int>& roleIds, const ObjectNamespace& object) {
        Texts texts;
        EXPECT_EQ(forEachAllowedOperation(client(), roleIds, object,
                                          [&texts](const ObjectNamespace& operation) {
                                              texts.push_back(operation.str());
                                              return true;
                                          }),
                  0);
        return texts;
    }
};

class ForEachAllowedObject : public ListsFixture {};
class ForEachAllowedRole : public ListsFixture {};
class ForEachAllowedOperation : public ListsFixture {};

}  // namespace

TEST_F(ForEachAllowedObject, VisitsInTheOrderOfTheTexts) {
    for (const char* const text : {"|B|", "|A|", "|AB|", "|A|c|", "|A|B|", "|", "|ABCDE|", "|ABCDE|x|", "|A+B|"}) {
        files.put(text, 0, VIEW_FOR_5);
    }
    EXPECT_EQ(objects({5}, {}), (Texts{"|", "|A+B|", "|ABCDE|", "|ABCDE|x|", "|AB|", "|A|", "|A|B|", "|A|c|", "|B|"}));
}

TEST_F(ForEachAllowedObject, StaysAtAndBelowTheNamespace) {
    for (const char* const text : {"|A|", "|A|B|", "|A|B|C|", "|A|BB|", "|AB|", "|B|"}) {
        files.put(text, 0, VIEW_FOR_5);
    }
    EXPECT_EQ(objects({5}, {"A", "B"}), (Texts{"|A|B|", "|A|B|C|"}));
}

TEST_F(ForEachAllowedObject, GoesBelowANamespaceThatTheCacheDoesNotHold) {
    files.put("|A|B|C|", 0, VIEW_FOR_5);
    EXPECT_EQ(objects({5}, {"A"}), (Texts{"|A|B|C|"}));
    EXPECT_EQ(objects({5}, {"A", "B"}), (Texts{"|A|B|C|"}));
    EXPECT_EQ(objects({5}, {"A", "C"}), Texts{});
    EXPECT_EQ(objects({5}, {"A", "B", "C", "D"}), Texts{});
}

TEST_F(ForEachAllowedObject, VisitsNothingInAnEmptyCache) {
    EXPECT_EQ(objects({5}, {}), Texts{});
}

TEST_F(ForEachAllowedObject, PassesRightsOnAsAncestorsGrantThem) {
    files.put("|A|", 0, NOTHING, VIEW_FOR_5);
    files.put("|A|1|", 1);
    files.put("|A|2|", 0);
    files.put("|A|2|x|", 1);
    files.put("|A|3|", 0, NOTHING, VIEW_FOR_5);
    files.put("|A|3|x|y|", 1);
    EXPECT_EQ(objects({5}, {}), (Texts{"|A|1|", "|A|3|x|y|"}));
}

TEST_F(ForEachAllowedObject, TakesRightsFromAboveTheNamespaceItBeginsAt) {
    files.put("|", 0, NOTHING, VIEW_FOR_5);
    files.put("|A|", 1);
    files.put("|A|B|", 1);
    files.put("|A|B|C|", 1);
    EXPECT_EQ(objects({5}, {"A", "B"}), (Texts{"|A|B|", "|A|B|C|"}));
}

TEST_F(ForEachAllowedObject, VisitsEverythingForRoleZero) {
    files.put("|A|", 0);
    files.put("|A|B|", 0);
    EXPECT_EQ(objects({0}, {}), (Texts{"|A|", "|A|B|"}));
}

TEST_F(ForEachAllowedObject, EndsWhenTheVisitorHasHadEnough) {
    for (const char* const text : {"|A|", "|B|", "|C|"}) {
        files.put(text, 0, VIEW_FOR_5);
    }
    Texts texts;
    EXPECT_EQ(forEachAllowedObject(client(), {5}, operations::VIEW, {},
                                   [&texts](const std::string& text) {
                                       texts.push_back(text);
                                       return texts.size() < 2;
                                   }),
              0);
    EXPECT_EQ(texts, (Texts{"|A|", "|B|"}));
}

TEST_F(ForEachAllowedObject, VisitsNothingForAnUnknownOperation) {
    files.put("|A|", 0, VIEW_FOR_5);
    EXPECT_EQ(forEachAllowedObject(client(), {0, 5}, {"OPERATIONS", "FLY"}, {},
                                   [](const std::string& text) -> bool { throw std::logic_error(text); }),
              0);
}

TEST_F(ForEachAllowedObject, ReturnsTheStatusOfAnUnreadableOperationCache) {
    AccessControlClient& broken = client();
    writeOperations("not JSON");
    EXPECT_EQ(forEachAllowedObject(broken, {5}, operations::VIEW, {}, [](const std::string&) { return true; }), 13);
}

TEST_F(ForEachAllowedObject, LetsTheVisitorsExceptionThroughAndTheLockGo) {
    files.put("|A|", 0, VIEW_FOR_5);
    AccessControlClient& asked = client();
    EXPECT_THROW(forEachAllowedObject(asked, {5}, operations::VIEW, {},
                                      [](const std::string& text) -> bool { throw std::logic_error(text); }),
                 std::logic_error);
    const FileLock lock = FileLockManager::instance().getLock(files.manifest());
    EXPECT_NO_THROW(FileLockGuard(lock, FileLockGuard::EXCLUSIVE, 0, FileLock::DEFAULT_INTERVAL));
}

TEST_F(ForEachAllowedObject, RefusesAClientWithoutACache) {
    StubAccessControlClient stub;
    EXPECT_THROW(forEachAllowedObject(stub, {5}, operations::VIEW, {}, [](const std::string&) { return true; }),
                 std::invalid_argument);
}

TEST_F(ForEachAllowedRole, VisitsAscendingWithRoleZero) {
    files.put("|A|", 0, {{9, {VIEW_BIT}}, {-3, {VIEW_BIT}}, {4, {ADD_BIT}}, {2, {ADD_BIT, VIEW_BIT}}});
    EXPECT_EQ(roles({"A"}), (Roles{-3, 0, 2, 9}));
}

TEST_F(ForEachAllowedRole, VisitsARoleOnceThatIsGrantedInSeveralPlaces) {
    files.put("|", 0, NOTHING, {{5, {VIEW_BIT}}, {7, {VIEW_BIT}}});
    files.put("|A|", 1, {{5, {VIEW_BIT}}, {7, {ADD_BIT}}});
    EXPECT_EQ(roles({"A"}), (Roles{0, 5, 7}));
}

TEST_F(ForEachAllowedRole, GoesNoFurtherThanTheSearch) {
    files.put("|", 0, NOTHING, {{7, {VIEW_BIT}}});
    files.put("|A|", 0, VIEW_FOR_5);
    EXPECT_EQ(roles({"A"}), (Roles{0, 5}));
}

TEST_F(ForEachAllowedRole, VisitsRoleZeroOnceThoughItIsGranted) {
    files.put("|A|", 0, {{0, {VIEW_BIT}}});
    EXPECT_EQ(roles({"A"}), (Roles{0}));
}

TEST_F(ForEachAllowedRole, VisitsTheGreatestAndTheSmallestRole) {
    files.put("|A|", 0, {{2147483647, {VIEW_BIT}}, {-2147483647 - 1, {VIEW_BIT}}});
    EXPECT_EQ(roles({"A"}), (Roles{-2147483647 - 1, 0, 2147483647}));
}

TEST_F(ForEachAllowedRole, VisitsOnlyRoleZeroForAnObjectThatNobodyGrants) {
    EXPECT_EQ(roles({"A"}), (Roles{0}));
}

TEST_F(ForEachAllowedRole, VisitsNobodyForAnUnknownOperation) {
    files.put("|A|", 0, VIEW_FOR_5);
    EXPECT_EQ(roles({"A"}, {"OPERATIONS", "FLY"}), Roles{});
}

TEST_F(ForEachAllowedRole, EndsWhenTheVisitorHasHadEnough) {
    files.put("|A|", 0, VIEW_FOR_5);
    Roles ids;
    EXPECT_EQ(forEachAllowedRole(client(), operations::VIEW, {"A"},
                                 [&ids](int role) {
                                     ids.push_back(role);
                                     return false;
                                 }),
              0);
    EXPECT_EQ(ids, Roles{0});
}

TEST_F(ForEachAllowedOperation, VisitsInTheOrderOfTheNamespaces) {
    files.put("|A|", 0, {{5, {VIEW_BIT, 0}}, {6, {ADD_BIT}}});
    EXPECT_EQ(operationsOf({5}, {"A"}), (Texts{"|OPERATIONS|UPDATE|", "|OPERATIONS|VIEW|"}));
    EXPECT_EQ(operationsOf({5, 6}, {"A"}), (Texts{"|OPERATIONS|ADD|", "|OPERATIONS|UPDATE|", "|OPERATIONS|VIEW|"}));
}

TEST_F(ForEachAllowedOperation, VisitsWhatAncestorsGrant) {
    files.put("|A|", 0, {{5, {ADD_BIT}}}, VIEW_FOR_5);
    EXPECT_EQ(operationsOf({5}, {"A", "B"}), (Texts{"|OPERATIONS|VIEW|"}));
}

TEST_F(ForEachAllowedOperation, VisitsAllForRoleZero) {
    EXPECT_EQ(operationsOf({0}, {"A"}), (Texts{"|OPERATIONS|ADD|", "|OPERATIONS|UPDATE|", "|OPERATIONS|VIEW|"}));
}

TEST_F(ForEachAllowedOperation, VisitsOperationsThatCameAfterTheClient) {
    AccessControlClient& asked = client();
    writeOperations(R"({"|OPERATIONS|RESTORE|": 9})");
    Texts texts;
    EXPECT_EQ(forEachAllowedOperation(asked, {0}, {"A"},
                                      [&texts](const ObjectNamespace& operation) {
                                          texts.push_back(operation.str());
                                          return true;
                                      }),
              0);
    EXPECT_EQ(texts, (Texts{"|OPERATIONS|RESTORE|"}));
}

TEST_F(ForEachAllowedOperation, ReturnsTheStatusOfAnUnreadableOperationCache) {
    AccessControlClient& broken = client();
    writeOperations("not JSON");
    EXPECT_EQ(forEachAllowedOperation(broken, {5}, {"A"}, [](const ObjectNamespace&) { return true; }), 13);
}

TEST_F(ForEachAllowedOperation, EndsWhenTheVisitorHasHadEnough) {
    int visits = 0;
    EXPECT_EQ(forEachAllowedOperation(client(), {0}, {"A"}, [&visits](const ObjectNamespace&) { return ++visits < 2; }),
              0);
    EXPECT_EQ(visits, 2);
}
