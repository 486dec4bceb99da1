#include "RegistrationFixture.h"

#include <stdexcept>
#include <tuple>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const ObjectNamespace OBJECT("ASSETS", "a b|c");
const std::string ID = "|ASSETS|a+b%7Cc|";

class ObjectStateTest : public RegistrationFixture {};

}  // namespace

TEST_F(ObjectStateTest, UpdatesTheStatesOfManyObjectsWithOneRequest) {
    http_->answer(201, "no JSON");
    service_.bulkUpdateObjectState({ObjectNamespace("B"), ObjectNamespace("A"), ObjectNamespace("B")},
                                   {OBJECT, ObjectNamespace("A")}, {ObjectNamespace("D")});
    EXPECT_THAT(http_->requests(), ElementsAre(stateUpdate({{"|B|", "READY"},
                                                            {"|A|", "READY"},
                                                            {"|B|", "READY"},
                                                            {ID, "PENDING"},
                                                            {"|A|", "PENDING"},
                                                            {"|D|", "DELETED"}})));
    EXPECT_THAT(story(), ElementsAre(updating(3, 2, 1), sending(UPDATES)));
}

TEST_F(ObjectStateTest, UpdatesNoStatesWithARequestAllTheSame) {
    http_->answer(201);
    service_.bulkUpdateObjectState({}, {}, {});
    EXPECT_THAT(http_->requests(), ElementsAre(stateUpdate({})));
    EXPECT_THAT(story(), ElementsAre(updating(0, 0, 0), sending(UPDATES)));
}

TEST_F(ObjectStateTest, ThrowsWhatAnUpdateFailsWith) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(statusOf([this] { service_.bulkUpdateObjectState({OBJECT}, {}, {}); }), 5003);
    http_->fail(9554);
    EXPECT_EQ(statusOf([this] { service_.bulkUpdateObjectState({OBJECT}, {}, {}); }), 9554);
    http_->raise(std::runtime_error("no socket"));
    EXPECT_STREQ(thrownBy<std::runtime_error>([this] { service_.bulkUpdateObjectState({OBJECT}, {}, {}); }).what(),
                 "no socket");
}

TEST_F(ObjectStateTest, TakesNoOtherSuccessForAnUpdate) {
    http_->answer(204);
    EXPECT_EQ(statusOf([this] { service_.bulkUpdateObjectState({OBJECT}, {}, {}); }), 9103);
}

TEST_F(ObjectStateTest, ChangesTheStateOfOneObject) {
    for (const auto& [state, name, logged] :
         {std::tuple(READY, "READY", updating(1, 0, 0)), std::tuple(PENDING, "PENDING", updating(0, 1, 0)),
          std::tuple(DELETED, "DELETED", updating(0, 0, 1))}) {
        log_.clear();
        http_->forgetRequests();
        http_->answer(201);
        service_.changeObjectState(OBJECT, state);
        EXPECT_THAT(http_->requests(), ElementsAre(stateUpdate({{ID, name}})));
        EXPECT_THAT(story(), ElementsAre(logged, sending(UPDATES)));
    }
}

TEST_F(ObjectStateTest, RefusesAStateThatThereIsNot) {
    for (const int state : {3, -1}) {
        log_.clear();
        const auto unknown = static_cast<ManagedObjectState>(state);
        const auto thrown = thrownBy<EC_exception>([&] { service_.changeObjectState(OBJECT, unknown); });
        EXPECT_EQ(thrown.status, 20);
        EXPECT_EQ(thrown.what(), getECmsg(20));
        EXPECT_THAT(log_.lines(), ElementsAre(LogLine{16, "DefaultObjectRegistrationService::changeObjectState",
                                                      "Unknown object state, " + std::to_string(state)}));
    }
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(ObjectStateTest, DeletesAnObjectByItsState) {
    http_->answer(201);
    service_.deleteObject(OBJECT);
    EXPECT_THAT(http_->requests(), ElementsAre(stateUpdate({{ID, "DELETED"}})));
    EXPECT_THAT(story(), ElementsAre(updating(0, 0, 1), sending(UPDATES)));
}

TEST_F(ObjectStateTest, ThrowsWhatADeletionFailsWith) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(statusOf([this] { service_.deleteObject(OBJECT); }), 5003);
}
