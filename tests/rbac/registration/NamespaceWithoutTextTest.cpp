#include "RegistrationFixture.h"

#include <boost/lexical_cast.hpp>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;

// This program puts its own encode_component in front of the library's, which has no text for one component.

namespace {

constexpr char WITHOUT_TEXT[] = "?";
constexpr char CONVERSION_FAILED[] = "[conversion failed]";

}  // namespace

std::string Tesmor::Arkwell::Rbac::ObjectNamespace::encode_component(const std::string& component) {
    if (component == WITHOUT_TEXT) {
        throw EC_exception(4711);
    }
    return component;
}

namespace {

class SucceedingBulkCallback : public BulkObjectRegistrationCallback {
public:
    int process(std::set<ObjectNamespace>& /*succeeded*/) override {
        logmsg(0, CALLBACK_TAG, "process");
        return 0;
    }
    void failed(int status) override { logmsgf(0, CALLBACK_TAG, "failed %d", status); }
};

class NamespaceWithoutTextTest : public RegistrationFixture {
protected:
    using Service = DefaultObjectRegistrationService;

    const ObjectNamespace object_{"ASSETS", WITHOUT_TEXT};
};

}  // namespace

TEST_F(NamespaceWithoutTextTest, IsInNoRequest) {
    EXPECT_THROW(Service::buildNamespaceStatePair(object_, READY_STR), boost::bad_lexical_cast);
    EXPECT_THROW(Service::buildBulkStateUpdateRequest({ObjectNamespace("A")}, {}, {object_}), boost::bad_lexical_cast);
    EXPECT_THROW(Service::buildRegistrationJSON(dataOf(object_)), boost::bad_lexical_cast);
    EXPECT_THROW(Service::buildRegistrationRequest(dataOf(ObjectNamespace("A"), "HOST", {object_})),
                 boost::bad_lexical_cast);
    EXPECT_THROW(Service::buildBulkRegistrationRequest({dataOf(ObjectNamespace("A")), dataOf(object_)}),
                 boost::bad_lexical_cast);
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(NamespaceWithoutTextTest, ChangesNoState) {
    EXPECT_THROW(service_.changeObjectState(object_, READY), boost::bad_lexical_cast);
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(NamespaceWithoutTextTest, IsNotRegistered) {
    const auto callback = boost::make_shared<LoggedCallback<ObjectRegistrationCallback> >();
    EXPECT_EQ(service_.registerObject(dataOf(object_), callback), 114);
    EXPECT_THAT(http_->requests(), IsEmpty());
    EXPECT_THAT(story(), ElementsAre(LogLine{16, "DefaultObjectRegistrationService::registerObject",
                                             std::string("Registration threw exception: ") + BAD_CAST},
                                     called("failed 114")));
}

TEST_F(NamespaceWithoutTextTest, LetsNoOtherObjectBeRegisteredWithIt) {
    constexpr char TAG[] = "DefaultObjectRegistrationService::bulkRegisterObjects";
    EXPECT_EQ(service_.bulkRegisterObjects({dataOf(ObjectNamespace("A")), dataOf(object_)},
                                           boost::make_shared<SucceedingBulkCallback>()),
              114);
    EXPECT_THAT(http_->requests(), IsEmpty());
    EXPECT_THAT(story(), ElementsAre(LogLine{4, TAG, "Registering 2 objects"},
                                     LogLine{16, TAG, std::string("Registration failed with exception: ") + BAD_CAST},
                                     called("failed 114")));
}

// Its text for the log stays with it, so that is what the service gets: the name of no object, which it refuses.
TEST_F(NamespaceWithoutTextTest, IsUnregisteredByATextThatIsNoName) {
    constexpr char TAG[] = "DefaultObjectRegistrationService::unregisterObject";
    http_->answer(409, CONFLICT);
    const auto callback = boost::make_shared<LoggedCallback<ObjectUnregistrationCallback> >();
    EXPECT_EQ(service_.unregisterObject(object_, callback), 5003);
    EXPECT_THAT(http_->requests(), ElementsAre(stateUpdate({{CONVERSION_FAILED, "PENDING"}})));
    EXPECT_THROW(boost::lexical_cast<ObjectNamespace>(CONVERSION_FAILED), boost::bad_lexical_cast);
    EXPECT_THAT(story(), ElementsAre(LogLine{4, TAG, "Unregistering [conversion failed]"}, updating(0, 1, 0),
                                     sending(UPDATES), LogLine{16, SEND_TAG, CONFLICT_LOG},
                                     LogLine{16, TAG, "Failed to update object to pending, status=5003"},
                                     called("failed 5003")));
}
