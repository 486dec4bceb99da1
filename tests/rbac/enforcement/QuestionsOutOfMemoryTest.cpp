#include "ClientFixture.h"
#include "testing/OutOfMemory.h"
#include "testing/SilentLog.h"

#include <rbac/AccessExplanation.h>
#include <rbac/AccessLists.h>
#include <rbac/BulkAccess.h>

#include <gmock/gmock.h>
#include <jansson.h>

#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

// Every allocation of every question about access fails in turn, jansson's too. What is answered nevertheless is right.

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing_support::BAD_ALLOC;
using testing_support::endingsWithoutMemory;
namespace operations = Tesmor::Arkwell::Rbac::root_namespaces::operations;

namespace {

constexpr int WRONG = 99;
constexpr int OPERATIONS_NOT_LOADED = 13;
constexpr int VIEW_BIT = 37;
const std::set<int> ROLES{5, 7};

[[maybe_unused]] const bool JANSSON_FAILS_TOO = [] {
    json_set_alloc_funcs(testing_support::allocateForJansson, testing_support::releaseForJansson);
    return true;
}();

class QuestionsOutOfMemory : public testing_support::ClientFixture {
protected:
    AccessControlClient& filledClient() {
        files.put("|A|", 0, {}, {{7, {VIEW_BIT}}, {9, {VIEW_BIT}}});
        files.put("|A|a+rather+long+component+of+a+name|", 1);
        files.put("|A|a+rather+long+component+of+a+name|below|", 0, {{11, {VIEW_BIT}}});
        return client();
    }

    /// Names whose texts have not been computed, so that this is done in the call.
    static ObjectNamespace allowedObject() { return {"A", "a rather long component of a name"}; }
    static ObjectNamespace deniedObject() { return allowedObject() | "below"; }

    testing_support::SilentLog log_;
    AccessControlClient& client_ = filledClient();
};

int rightIf(bool isRight) {
    return isRight ? 0 : WRONG;
}

}  // namespace

TEST_F(QuestionsOutOfMemory, ExplanationIsAnExceptionAndLeavesTheOldOneAlone) {
    AccessExplanation kept;
    kept.object = "as before";
    EXPECT_THAT(endingsWithoutMemory([this, &kept] {
                    AccessExplanation why = kept;
                    try {
                        const int status = explainAccess(client_, ROLES, operations::VIEW, allowedObject(), why);
                        return status != 0 ? status : rightIf(why.allowed && why.steps.size() == 2);
                    } catch (const std::bad_alloc&) {
                        return why.object == "as before" ? BAD_ALLOC : WRONG;
                    }
                }),
                ElementsAre(BAD_ALLOC));
}

TEST_F(QuestionsOutOfMemory, ExplanationOfANoAndItsChangesAreAnException) {
    EXPECT_THAT(endingsWithoutMemory([this] {
                    AccessExplanation why;
                    const int status = explainAccess(client_, ROLES, operations::VIEW, deniedObject(), why);
                    return status != 0 ? status : rightIf(!why.allowed && whatWouldAllow(client_, why).size() == 2);
                }),
                ElementsAre(BAD_ALLOC));
}

TEST_F(QuestionsOutOfMemory, WrittenExplanationIsCompleteOrTheStreamHasFailed) {
    AccessExplanation why;
    ASSERT_EQ(explainAccess(client_, ROLES, operations::VIEW, deniedObject(), why), 0);
    const auto changes = whatWouldAllow(client_, why);
    std::ostringstream whole;
    whole << why;
    writeChanges(whole, why, changes);
    EXPECT_THAT(endingsWithoutMemory([&] {
                    std::ostringstream text;
                    text << why;
                    writeChanges(text, why, changes);
                    return !text ? BAD_ALLOC : rightIf(text.str() == whole.str());
                }),
                ElementsAre(BAD_ALLOC));
}

TEST_F(QuestionsOutOfMemory, ListOfObjectsIsAnException) {
    EXPECT_THAT(endingsWithoutMemory([this] {
                    std::size_t length = 0;
                    const int status =
                        forEachAllowedObject(client_, ROLES, operations::VIEW, ObjectNamespace("A"),
                                             [&](const std::string& text) { return (length += text.size()) > 0; });
                    return status != 0 ? status
                                       : rightIf(length == std::string("|A|a+rather+long+component+of+a+name|").size());
                }),
                ElementsAre(BAD_ALLOC));
}

TEST_F(QuestionsOutOfMemory, ListOfRolesIsAnException) {
    EXPECT_THAT(endingsWithoutMemory([this] {
                    int sum = 0;
                    const int status = forEachAllowedRole(client_, operations::VIEW, allowedObject(), [&](int role) {
                        sum += role;
                        return true;
                    });
                    return status != 0 ? status : rightIf(sum == 7 + 9);
                }),
                ElementsAre(BAD_ALLOC));
}

TEST_F(QuestionsOutOfMemory, ListOfOperationsIsAStatusWhereTheyCannotBeReadAndOtherwiseAnException) {
    EXPECT_THAT(endingsWithoutMemory([this] {
                    int visited = 0;
                    const int status =
                        forEachAllowedOperation(client_, ROLES, allowedObject(), [&](const ObjectNamespace& operation) {
                            ++visited;
                            return operation == operations::VIEW;
                        });
                    return status != 0 ? status : rightIf(visited == 1);
                }),
                ElementsAre(BAD_ALLOC, OPERATIONS_NOT_LOADED));
}

TEST_F(QuestionsOutOfMemory, ManyAnswersAtOnceAreAnException) {
    boost::shared_ptr<const AccessChecker> checker;
    ASSERT_EQ(client_.createAccessChecker(ROLES, operations::VIEW, 0, checker), 0);
    EXPECT_THAT(endingsWithoutMemory([&] {
                    const std::vector<ObjectNamespace> objects{allowedObject(), deniedObject()};
                    return rightIf(checkAccessToAll(*checker, objects) == std::vector<bool>{true, false});
                }),
                ElementsAre(BAD_ALLOC));
    EXPECT_THAT(endingsWithoutMemory([&] {
                    const std::vector<ObjectNamespace> objects{allowedObject(), deniedObject()};
                    bool allowed[] = {false, false};
                    checkAccessToAll(*checker, objects.data(), objects.size(), std::data(allowed));
                    return rightIf(allowed[0] && !allowed[1]);
                }),
                ElementsAre(BAD_ALLOC));
}

TEST_F(QuestionsOutOfMemory, OpenedClientIsAStatusOrAnException) {
    constexpr int CACHE_INVALID = 12;
    EXPECT_THAT(endingsWithoutMemory([this] {
                    OperationCache operationCache(operationsFile());
                    DiskAccessControlClient opened(
                        ObjectNamespace(), boost::make_shared<AccessCache>(Manifest("a cache", directory_.path())),
                        operationCache);
                    boost::shared_ptr<const AccessChecker> checker;
                    const int status = opened.createAccessChecker(ROLES, operations::VIEW, 0, checker);
                    if (status != 0 || !checker) {
                        return status != 0 ? status : BAD_ALLOC;
                    }
                    return rightIf(checker->checkAccess(allowedObject()) && !checker->checkAccess(deniedObject()));
                }),
                ElementsAre(BAD_ALLOC, 0, CACHE_INVALID, OPERATIONS_NOT_LOADED));
}

TEST_F(QuestionsOutOfMemory, ReadersAndTheirCopiesAreAnException) {
    const AccessCache cache(Manifest("a cache", directory_.path()));
    EXPECT_THAT(endingsWithoutMemory([&] {
                    const AccessCache::Reader reader = cache.lock();
                    AccessCache::Reader copy(reader);
                    copy = reader;
                    const ManagedObject* const found = copy.lookup(allowedObject());
                    return rightIf(found != nullptr && found->inherit == 1 &&
                                   copy.getOperationBit(deniedObject(), 11, Operation(VIEW_BIT)));
                }),
                ElementsAre(BAD_ALLOC));
}
