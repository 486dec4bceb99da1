#include "RegistrationFixture.h"

#include <set>
#include <stdexcept>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char TAG[] = "DefaultObjectRegistrationService::bulkRegisterObjects";

const ObjectNamespace A("A");
const ObjectNamespace B("B");
const ObjectNamespace C("C");

class LoggedBulkCallback : public BulkObjectRegistrationCallback {
public:
    int process(std::set<ObjectNamespace>& succeeded) override {
        logmsgf(0, CALLBACK_TAG, "process %zu", succeeded.size());
        return work(succeeded);
    }
    void failed(int status) override {
        logmsgf(0, CALLBACK_TAG, "failed %d", status);
        afterFailure();
    }

    std::function<int(std::set<ObjectNamespace>&)> work = [](std::set<ObjectNamespace>& /*succeeded*/) { return 0; };
    std::function<void()> afterFailure = [] {};
};

class BulkRegisterObjectsTest : public RegistrationFixture {
protected:
    int run() { return service_.bulkRegisterObjects(data_, callback_); }

    /// The service registers the objects, each with others; their order is not that of the namespaces.
    void acceptRegistration() {
        http_->answer(201, answerOf("[" + registered("|B|", {"|B|", "|B|1|"}) + "," + registered("|C|", {}) + "," +
                                    registered("|A|", {"|A|2|", "|A|", "|A|1|"}) + "]"));
    }
    void succeedWith(const std::set<ObjectNamespace>& objects) {
        callback_->work = [objects](std::set<ObjectNamespace>& succeeded) {
            succeeded = objects;
            return 0;
        };
    }

    static LogLine line(int level, const std::string& message) { return {level, TAG, message}; }
    static LogLine registering(int count) { return line(4, "Registering " + std::to_string(count) + " objects"); }
    static LogLine pending() { return line(2, "Successfully registered the objects in PENDING state."); }
    static LogLine committing() { return line(2, "Callback success. Committing objects."); }
    static LogLine splitting(const std::string& successful, const std::string& failed) {
        return line(16, "Callback failed. successful=" + successful + ", failed=" + failed +
                            ". Committing successful, rolling back failed.");
    }
    static LogLine updated() { return line(2, "Successfully updated object states."); }

    /// The request that commits B and rolls the others back.
    static HttpRequest onlyB() {
        return stateUpdate(
            {{"|B|", "READY"}, {"|B|1|", "READY"}, {"|A|2|", "DELETED"}, {"|A|", "DELETED"}, {"|A|1|", "DELETED"}});
    }

    static std::string object(const std::string& id) {
        return R"({"id":")" + id +
               R"(","type":"objectRegistrationData","attributes":{"objectType":"DATABASE","ignoreAlreadyRegistered":)"
               R"(false,"accessControlAttributes":{"owner":"o"},"relativeChildNamespaces":[]}})";
    }
    /// The request that registers data_ as it is made.
    static HttpRequest registration() {
        return post(BULK_REGISTRATIONS,
                    R"({"data":[)" + object("|C|") + "," + object("|A|") + "," + object("|B|") + "]}");
    }

    std::list<boost::shared_ptr<Data> > data_ = {dataOf(C), dataOf(A), dataOf(B)};
    boost::shared_ptr<LoggedBulkCallback> callback_ = boost::make_shared<LoggedBulkCallback>();
};

/// The first request fails.
class FailedBulkRegistrationTest : public BulkRegisterObjectsTest {
protected:
    void expectStory(const std::string& failure, int status) const {
        EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), line(16, failure),
                                         called("failed " + std::to_string(status))));
        EXPECT_THAT(http_->requests(), ElementsAre(registration()));
        EXPECT_EQ(http_->liveClients(), 0);
    }
};
/// The objects' states cannot be updated after the callback.
class FailedStateUpdateTest : public BulkRegisterObjectsTest {
protected:
    void SetUp() override {
        acceptRegistration();
        succeedWith({A, B, C});
    }
    void expectStory(const std::string& failure) const {
        EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                         committing(), updating(5, 0, 0), sending(UPDATES), line(16, failure)));
    }
};

}  // namespace

TEST_F(BulkRegisterObjectsTest, CommitsWhatTheServiceRegisteredInTheOrderOfTheObjects) {
    acceptRegistration();
    http_->answer(201);
    succeedWith({A, B, C});
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(
        http_->requests(),
        ElementsAre(
            registration(),
            stateUpdate(
                {{"|A|2|", "READY"}, {"|A|", "READY"}, {"|A|1|", "READY"}, {"|B|", "READY"}, {"|B|1|", "READY"}})));
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     committing(), updating(5, 0, 0), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, SendsWhatTheBuilderOfTheRequestBuilds) {
    data_ = {dataOf(C, "\xC3\xA9[]", {ObjectNamespace("x")}), dataOf(A)};
    http_->fail(9554);
    EXPECT_EQ(run(), 9554);
    const std::string built =
        json_dumps_shared(DefaultObjectRegistrationService::buildBulkRegistrationRequest(data_)).get();
    EXPECT_THAT(built, testing::HasSubstr(R"("objectType":"\u00E9[]")"));
    EXPECT_THAT(http_->requests(), ElementsAre(post(BULK_REGISTRATIONS, built)));
}

TEST_F(BulkRegisterObjectsTest, CommitsWhatSucceededAndRollsBackTheRest) {
    acceptRegistration();
    http_->answer(201);
    succeedWith({B, C});
    EXPECT_EQ(run(), 8022);
    EXPECT_THAT(http_->requests(), ElementsAre(registration(), onlyB()));
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     splitting("2", "1"), updating(2, 0, 3), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, RollsEverythingBackWhereNothingSucceeded) {
    acceptRegistration();
    http_->answer(201);
    EXPECT_EQ(run(), 8022);
    EXPECT_THAT(http_->requests(), ElementsAre(registration(), stateUpdate({{"|A|2|", "DELETED"},
                                                                            {"|A|", "DELETED"},
                                                                            {"|A|1|", "DELETED"},
                                                                            {"|B|", "DELETED"},
                                                                            {"|B|1|", "DELETED"}})));
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     splitting("0", "3"), updating(0, 0, 5), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, CountsWhatSucceededWhateverItIs) {
    acceptRegistration();
    http_->answer(201);
    succeedWith({ObjectNamespace("X"), ObjectNamespace("Y"), B});
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(http_->requests(), ElementsAre(registration(), onlyB()));
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     committing(), updating(2, 0, 3), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, TakesMoreSuccessesThanObjectsForAFailure) {
    acceptRegistration();
    http_->answer(201);
    succeedWith({A, B, C, ObjectNamespace("X")});
    EXPECT_EQ(run(), 8022);
    EXPECT_THAT(story(),
                ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                            splitting("4", "18446744073709551615"), updating(5, 0, 0), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, CountsTheDataNotWhatTheServiceRegistered) {
    http_->answer(201, answerOf("[" + registered("|A|", {"|A|"}) + "]"));
    http_->answer(201);
    succeedWith({A});
    EXPECT_EQ(run(), 8022);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     splitting("1", "2"), updating(1, 0, 0), sending(UPDATES), updated()));
    EXPECT_THAT(http_->requests(), ElementsAre(registration(), stateUpdate({{"|A|", "READY"}})));
}

TEST_F(BulkRegisterObjectsTest, IgnoresWhatTheCallbackReturns) {
    acceptRegistration();
    http_->answer(201);
    callback_->work = [](std::set<ObjectNamespace>& succeeded) {
        succeeded = {A, B, C};
        return 5;
    };
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     committing(), updating(5, 0, 0), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, RefusesNoData) {
    data_.clear();
    EXPECT_EQ(run(), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "bulkRegistrationData must not be empty")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(BulkRegisterObjectsTest, RefusesAMissingCallback) {
    callback_.reset();
    EXPECT_EQ(run(), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "callback is required")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(BulkRegisterObjectsTest, NamesTheDataWhereTheCallbackIsMissingToo) {
    data_.clear();
    callback_.reset();
    EXPECT_EQ(run(), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "bulkRegistrationData must not be empty")));
}

TEST_F(FailedBulkRegistrationTest, HasTheStatusThatIsThrown) {
    http_->raise(EC_exception(77));
    EXPECT_EQ(run(), 77);
    expectStory("Registration failed, status=77", 77);
}

TEST_F(FailedBulkRegistrationTest, HasTheServicesErrorCode) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(run(), 5003);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), LogLine{16, SEND_TAG, CONFLICT_LOG},
                                     line(16, "Registration failed, status=5003"), called("failed 5003")));
}

TEST_F(FailedBulkRegistrationTest, HasTheTransportsStatus) {
    http_->fail(9554);
    EXPECT_EQ(run(), 9554);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), unsent(BULK_REGISTRATIONS),
                                     line(16, "Registration failed, status=9554"), called("failed 9554")));
    EXPECT_THAT(http_->requests(), ElementsAre(registration()));
}

TEST_F(FailedBulkRegistrationTest, HasTheGeneralStatusWhereThereIsNoClient) {
    loseHttp();
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(), ElementsAre(registering(3), line(16, "Registration failed with exception: no client"),
                                     called("failed 114")));
}

TEST_F(FailedBulkRegistrationTest, HasAStatusForAnswersThatAreNoJson) {
    http_->answer(201, "no JSON");
    EXPECT_EQ(run(), 9103);
    EXPECT_THAT(story(),
                ElementsAre(registering(3), sending(BULK_REGISTRATIONS),
                            LogLine{16, "DefaultObjectRegistrationService::extractBulkRegisteredNamespaces",
                                    "Error parsing JSON response at position 2: '[' or '{' expected near 'no'"},
                            line(16, "Registration failed, status=9103"), called("failed 9103")));
    EXPECT_THAT(http_->requests(), ElementsAre(registration()));
}

TEST_F(FailedBulkRegistrationTest, HasAStatusForAnswersThatCannotBeRead) {
    http_->answer(201, answerOf("{}"));
    EXPECT_EQ(run(), 9103);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS),
                                     LogLine{16, "DefaultObjectRegistrationService::extractBulkRegisteredNamespaces",
                                             "Invalid bulk registration response. data is not an array"},
                                     line(16, "Registration failed, status=9103"), called("failed 9103")));
    EXPECT_THAT(http_->requests(), ElementsAre(registration()));
}

TEST_F(FailedBulkRegistrationTest, HasTheGeneralStatusForAnotherException) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_EQ(run(), 114);
    expectStory("Registration failed with exception: no socket", 114);
}

TEST_F(FailedBulkRegistrationTest, HasTheGeneralStatusForAnIdThatIsNoNamespace) {
    http_->answer(201, answerOf("[" + registered("|A|", {"|A|"}) + "," + registered("B", {}) + "]"));
    EXPECT_EQ(run(), 114);
    expectStory(
        "Registration failed with exception: bad lexical cast: source type value could not be interpreted as target",
        114);
}

TEST_F(FailedBulkRegistrationTest, HasTheGeneralStatusForAnObjectTypeThatIsNoText) {
    data_.back()->objectType = "\xFF";
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(
        story(),
        ElementsAre(registering(3), LogLine{16, "json_pack_shared", "Error generating JSON: Invalid UTF-8 string"},
                    line(16, "Registration failed with exception: std::bad_alloc"), called("failed 114")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(FailedBulkRegistrationTest, HasTheGeneralStatusForDataWithoutAccessControlAttributes) {
    data_.back()->accessControlAttributes.reset();
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(),
                ElementsAre(registering(3), LogLine{16, "json_pack_shared", "Error generating JSON: NULL object"},
                            line(16, "Registration failed with exception: std::bad_alloc"), called("failed 114")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(FailedBulkRegistrationTest, HasTheGeneralStatusForDataThatIsNotThere) {
    data_.emplace_back();
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(), ElementsAre(registering(4),
                                     line(16, "Registration failed with exception: registration data is required"),
                                     called("failed 114")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(FailedBulkRegistrationTest, HasTheGeneralStatusForWhatIsNoException) {
    http_->raise(7);
    EXPECT_EQ(run(), 114);
    expectStory("Registration failed with unknown exception.", 114);
}

TEST_F(FailedBulkRegistrationTest, PassesOnWhatTheCallbackThrowsWhenItIsTold) {
    http_->raise(EC_exception(77));
    callback_->afterFailure = [] { throw std::runtime_error("no disk"); };
    EXPECT_STREQ(thrownBy<std::runtime_error>([this] { run(); }).what(), "no disk");
    expectStory("Registration failed, status=77", 77);
}

TEST_F(BulkRegisterObjectsTest, CarriesOnAfterStatusZeroWithNothingRegistered) {
    http_->answer(500, R"({"errorCode":0})");
    http_->answer(201);
    succeedWith({A, B, C});
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(http_->requests(), ElementsAre(registration(), stateUpdate({})));
    EXPECT_THAT(story(),
                ElementsAre(registering(3), sending(BULK_REGISTRATIONS),
                            LogLine{16, SEND_TAG, "Failed to register object. HTTP response code = 500. error = 0"},
                            line(16, "Registration failed, status=0"), pending(), called("process 0"), committing(),
                            updating(0, 0, 0), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, FailsAfterStatusZeroWhereNothingSucceeded) {
    http_->raise(EC_exception(0));
    http_->answer(201);
    EXPECT_EQ(run(), 8022);
    EXPECT_THAT(http_->requests(), ElementsAre(registration(), stateUpdate({})));
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS),
                                     line(16, "Registration failed, status=0"), pending(), called("process 0"),
                                     splitting("0", "3"), updating(0, 0, 0), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, DoesNotReadTheAnswerToTheStateUpdate) {
    acceptRegistration();
    http_->answer(201, "no JSON");
    succeedWith({A, B, C});
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     committing(), updating(5, 0, 0), sending(UPDATES), updated()));
}

TEST_F(FailedStateUpdateTest, IsTheResultOfAFailedTransport) {
    http_->fail(9554);
    EXPECT_EQ(run(), 8030);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     committing(), updating(5, 0, 0), sending(UPDATES), unsent(UPDATES),
                                     line(16, "State update failed, status=9554")));
}

TEST_F(FailedStateUpdateTest, IsTheResultThoughTheCallbackSucceeded) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(run(), 8030);
    EXPECT_THAT(story(),
                ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"), committing(),
                            updating(5, 0, 0), sending(UPDATES), LogLine{16, SEND_TAG, CONFLICT_LOG},
                            line(16, "State update failed, status=5003")));
    EXPECT_EQ(http_->requests().size(), 2U);
}

TEST_F(FailedStateUpdateTest, IsTheResultAlsoWhereTheCallbackFailed) {
    http_->raise(EC_exception(77));
    succeedWith({});
    EXPECT_EQ(run(), 8030);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     splitting("0", "3"), updating(0, 0, 5), sending(UPDATES),
                                     line(16, "State update failed, status=77")));
}

TEST_F(FailedStateUpdateTest, IsLoggedWithItsStatus) {
    http_->raise(EC_exception(77));
    EXPECT_EQ(run(), 8030);
    expectStory("State update failed, status=77");
}

TEST_F(FailedStateUpdateTest, IsNoSuccessWithStatusZero) {
    http_->raise(EC_exception(0));
    EXPECT_EQ(run(), 8030);
    expectStory("State update failed, status=0");
}

TEST_F(FailedStateUpdateTest, IsLoggedWithTheTextOfAnException) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_EQ(run(), 8030);
    expectStory("State update failed with exception: no socket");
}

TEST_F(FailedStateUpdateTest, IsLoggedWithoutATextForWhatIsNoException) {
    http_->raise(7);
    EXPECT_EQ(run(), 8030);
    expectStory("State update failed with unknown exception.");
}

TEST_F(BulkRegisterObjectsTest, SettlesWhatSucceededBeforeAnExceptionOfTheCallbackArrives) {
    acceptRegistration();
    http_->answer(201);
    callback_->work = [](std::set<ObjectNamespace>& succeeded) -> int {
        succeeded.insert(B);
        throw std::runtime_error("no disk");
    };
    EXPECT_STREQ(thrownBy<std::runtime_error>([this] { run(); }).what(), "no disk");
    EXPECT_THAT(http_->requests(), ElementsAre(registration(), onlyB()));
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     line(8, "Callback threw exception: no disk"), splitting("1", "2"),
                                     updating(2, 0, 3), sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, SettlesBeforeAStatusThatTheCallbackThrowsArrives) {
    acceptRegistration();
    http_->answer(201);
    callback_->work = [](std::set<ObjectNamespace>& succeeded) -> int {
        succeeded = {A, B, C};
        throw EC_exception(0);
    };
    EXPECT_EQ(thrownBy<EC_exception>([this] { run(); }).status, 0);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     line(8, "Callback threw exception: success"), committing(), updating(5, 0, 0),
                                     sending(UPDATES), updated()));
}

TEST_F(BulkRegisterObjectsTest, SettlesBeforeWhatIsNoExceptionArrivesFromTheCallback) {
    acceptRegistration();
    http_->answer(201);
    callback_->work = [](std::set<ObjectNamespace>& /*succeeded*/) -> int { throw 7; };
    EXPECT_EQ(thrownBy<int>([this] { run(); }), 7);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     line(8, "Callback threw unknown exception."), splitting("0", "3"),
                                     updating(0, 0, 5), sending(UPDATES), updated()));
}

TEST_F(FailedStateUpdateTest, LeavesTheCallbacksExceptionAsItIs) {
    http_->raise(EC_exception(77));
    callback_->work = [](std::set<ObjectNamespace>& succeeded) -> int {
        succeeded = {A, B, C};
        throw EC_exception(9);
    };
    EXPECT_EQ(thrownBy<EC_exception>([this] { run(); }).status, 9);
    EXPECT_THAT(story(), ElementsAre(registering(3), sending(BULK_REGISTRATIONS), pending(), called("process 0"),
                                     line(8, "Callback threw exception: " + getECmsg(9)), committing(),
                                     updating(5, 0, 0), sending(UPDATES), line(16, "State update failed, status=77")));
}
