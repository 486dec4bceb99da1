#include "RegistrationFixture.h"

#include <stdexcept>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const ObjectNamespace OBJECT("ASSETS", "a b|c");
constexpr char TAG[] = "DefaultObjectRegistrationService::registerObject";

class RegisterObjectTest : public RegistrationFixture {
protected:
    using Callback = LoggedCallback<ObjectRegistrationCallback>;

    int run() { return service_.registerObject(data_, callback_); }

    /// The service registers the object with another, under a name of its own, so that each name shows where it is
    /// from.
    void acceptRegistration() { http_->answer(201, answerOf(registered("|I|", {"|ASSETS|a+b%7Cc|", "|O|"}))); }

    static LogLine line(int level, const std::string& message) { return {level, TAG, message}; }
    static LogLine committing() { return line(2, "Callback success. Committing the object."); }
    static LogLine rollingBack(int status) {
        return line(2, "Callback failed. Rolling back the object. callbackStatus=" + std::to_string(status));
    }
    static LogLine committed() { return line(4, "Object successfully registered [|ASSETS|a+b%7Cc|]"); }
    static LogLine rolledBack() { return line(16, "Object successfully rolled back [|ASSETS|a+b%7Cc|]"); }

    HttpRequest registration() const {
        return post(REGISTRATIONS,
                    R"({"data":{"id":"|ASSETS|a+b%7Cc|","type":"objectRegistrationData","attributes":{)"
                    R"("objectType":"DATABASE","ignoreAlreadyRegistered":false,)"
                    R"("accessControlAttributes":{"owner":"o"},"relativeChildNamespaces":["|x|","|y|"]}}})");
    }
    static HttpRequest rollback() { return stateUpdate({{"|ASSETS|a+b%7Cc|", "DELETED"}, {"|O|", "DELETED"}}); }

    /// What was told of an exception of the callback.
    void expectRollback(const std::string& thrown, int status) const {
        EXPECT_THAT(http_->requests(), ElementsAre(registration(), rollback()));
        EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), line(8, thrown),
                                         rollingBack(status), updating(0, 0, 2), sending(UPDATES), rolledBack()));
    }

    /// The registration succeeds, and the callback throws this; the object is taken back.
    template <class Thrown>
    Thrown thrownThrough(const Thrown& thrown) {
        acceptRegistration();
        http_->answer(201);
        callback_->work = [&]() -> int { throw thrown; };
        return thrownBy<Thrown>([this] { run(); });
    }

    boost::shared_ptr<Data> data_ = dataOf(OBJECT, "DATABASE", {ObjectNamespace("x"), ObjectNamespace("y")});
    boost::shared_ptr<Callback> callback_ = boost::make_shared<Callback>();
};

/// The first request fails.
class FailedRegistrationTest : public RegisterObjectTest {};
/// The callback succeeds; the request that commits fails.
class FailedCommitTest : public RegisterObjectTest {
protected:
    void SetUp() override { acceptRegistration(); }
    void expectStory(const std::string& failure) const {
        EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), committing(), updating(2, 0, 0),
                                         sending(UPDATES), line(16, failure)));
    }
};
/// The callback fails, and so does the request that rolls back.
class FailedRollbackTest : public RegisterObjectTest {
protected:
    void SetUp() override {
        acceptRegistration();
        callback_->work = [] { return 9; };
    }
    void expectStory(const std::string& failure) const {
        EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), rollingBack(9), updating(0, 0, 2),
                                         sending(UPDATES), line(16, failure)));
    }
};

}  // namespace

TEST_F(RegisterObjectTest, CommitsWhatTheServiceRegisteredWhenTheCallbackSucceeds) {
    acceptRegistration();
    http_->answer(201);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(http_->requests(),
                ElementsAre(registration(), stateUpdate({{"|ASSETS|a+b%7Cc|", "READY"}, {"|O|", "READY"}})));
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), committing(), updating(2, 0, 0),
                                     sending(UPDATES), committed()));
}

TEST_F(RegisterObjectTest, DoesNotReadTheAnswerToTheCommit) {
    acceptRegistration();
    http_->answer(201, "no JSON");
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), committing(), updating(2, 0, 0),
                                     sending(UPDATES), committed()));
}

TEST_F(RegisterObjectTest, RollsBackWhatTheServiceRegisteredWhenTheCallbackFails) {
    for (const int status : {5, -3}) {
        log_.clear();
        http_->forgetRequests();
        acceptRegistration();
        http_->answer(201);
        callback_->work = [status] { return status; };
        EXPECT_EQ(run(), 8022);
        EXPECT_THAT(http_->requests(), ElementsAre(registration(), rollback()));
        EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), rollingBack(status),
                                         updating(0, 0, 2), sending(UPDATES), rolledBack()));
    }
}

TEST_F(RegisterObjectTest, CommitsNothingWhereTheServiceRegisteredNothing) {
    http_->answer(201, answerOf(R"({"id":"|O|"})"));
    http_->answer(201);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(http_->requests(), ElementsAre(registration(), stateUpdate({})));
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), committing(), updating(0, 0, 0),
                                     sending(UPDATES), committed()));
}

TEST_F(RegisterObjectTest, RefusesMissingData) {
    data_.reset();
    EXPECT_EQ(run(), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "ObjectRegistrationData and AccessControlAttributes are required")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(RegisterObjectTest, RefusesDataWithoutAccessControlAttributes) {
    data_->accessControlAttributes.reset();
    EXPECT_EQ(run(), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "ObjectRegistrationData and AccessControlAttributes are required")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(RegisterObjectTest, RefusesAMissingCallback) {
    callback_.reset();
    EXPECT_EQ(run(), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "ObjectRegistrationCallback is required")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(RegisterObjectTest, NamesTheDataWhereTheCallbackIsMissingToo) {
    data_.reset();
    callback_.reset();
    EXPECT_EQ(run(), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "ObjectRegistrationData and AccessControlAttributes are required")));
}

TEST_F(FailedRegistrationTest, HasTheStatusThatIsThrown) {
    http_->raise(EC_exception(77));
    EXPECT_EQ(run(), 77);
    EXPECT_THAT(story(),
                ElementsAre(sending(REGISTRATIONS), line(16, "Registration failed, status=77"), called("failed 77")));
    EXPECT_THAT(http_->requests(), ElementsAre(registration()));
    EXPECT_EQ(http_->liveClients(), 0);
}

TEST_F(FailedRegistrationTest, HasTheServicesErrorCode) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(run(), 5003);
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), LogLine{16, SEND_TAG, CONFLICT_LOG},
                                     line(16, "Registration failed, status=5003"), called("failed 5003")));
}

TEST_F(FailedRegistrationTest, HasTheTransportsStatus) {
    http_->fail(9554);
    EXPECT_EQ(run(), 9554);
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), unsent(REGISTRATIONS),
                                     line(16, "Registration failed, status=9554"), called("failed 9554")));
}

TEST_F(FailedRegistrationTest, HasTheGeneralStatusWhereThereIsNoClient) {
    loseHttp();
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(), ElementsAre(line(16, "Registration threw exception: no client"), called("failed 114")));
}

TEST_F(FailedRegistrationTest, IsNoSuccessWithStatusZero) {
    http_->raise(EC_exception(0));
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(story(),
                ElementsAre(sending(REGISTRATIONS), line(16, "Registration failed, status=0"), called("failed 0")));
    EXPECT_THAT(http_->requests(), ElementsAre(registration()));
}

TEST_F(FailedRegistrationTest, HasAStatusForAnswersThatCannotBeRead) {
    http_->answer(201, "no JSON");
    EXPECT_EQ(run(), 9103);
    EXPECT_THAT(story(),
                ElementsAre(sending(REGISTRATIONS),
                            LogLine{16, "DefaultObjectRegistrationService::extractRegisteredNamespaces",
                                    "Error parsing JSON response at position 2: '[' or '{' expected near 'no'"},
                            line(16, "Registration failed, status=9103"), called("failed 9103")));
    EXPECT_THAT(http_->requests(), ElementsAre(registration()));
}

TEST_F(FailedRegistrationTest, HasTheGeneralStatusForAnotherException) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), line(16, "Registration threw exception: no socket"),
                                     called("failed 114")));
}

TEST_F(FailedRegistrationTest, HasTheGeneralStatusForAnIdThatIsNoNamespace) {
    http_->answer(201, answerOf(registered("|A|", {"B"})));
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS),
                                     line(16,
                                          "Registration threw exception: bad lexical cast: source type value could not "
                                          "be interpreted as target"),
                                     called("failed 114")));
    EXPECT_THAT(http_->requests(), ElementsAre(registration()));
}

TEST_F(FailedRegistrationTest, HasTheGeneralStatusForAnObjectTypeThatIsNoText) {
    data_->objectType = "\xFF";
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(), ElementsAre(LogLine{16, "json_pack_shared", "Error generating JSON: Invalid UTF-8 string"},
                                     line(16, "Registration threw exception: std::bad_alloc"), called("failed 114")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(FailedRegistrationTest, HasTheGeneralStatusForWhatIsNoException) {
    http_->raise(7);
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), line(16, "Registration threw unknown exception."),
                                     called("failed 114")));
    EXPECT_EQ(http_->liveClients(), 0);
}

TEST_F(FailedCommitTest, IsTheResultThoughTheCallbackSucceeded) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(run(), 8024);
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), committing(), updating(2, 0, 0),
                                     sending(UPDATES), LogLine{16, SEND_TAG, CONFLICT_LOG},
                                     line(16, "Failed to commit [|ASSETS|a+b%7Cc|]. exception: " + getECmsg(5003))));
    EXPECT_EQ(http_->requests().size(), 2U);
}

TEST_F(FailedCommitTest, IsLoggedWithTheTextOfAStatus) {
    http_->raise(EC_exception(114));
    EXPECT_EQ(run(), 8024);
    expectStory("Failed to commit [|ASSETS|a+b%7Cc|]. exception: the request failed unexpectedly");
}

TEST_F(FailedCommitTest, IsNoSuccessWithStatusZero) {
    http_->raise(EC_exception(0));
    EXPECT_EQ(run(), 8024);
    expectStory("Failed to commit [|ASSETS|a+b%7Cc|]. exception: success");
}

TEST_F(FailedCommitTest, IsLoggedWithTheTextOfAnException) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_EQ(run(), 8024);
    expectStory("Failed to commit [|ASSETS|a+b%7Cc|]. exception: no socket");
}

TEST_F(FailedCommitTest, IsLoggedWithoutATextForWhatIsNoException) {
    http_->raise(7);
    EXPECT_EQ(run(), 8024);
    expectStory("Failed to commit [|ASSETS|a+b%7Cc|]. Unknown exception thrown.");
}

TEST_F(FailedRollbackTest, IsTheResult) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(run(), 8025);
    EXPECT_THAT(story(), ElementsAre(sending(REGISTRATIONS), called("process"), rollingBack(9), updating(0, 0, 2),
                                     sending(UPDATES), LogLine{16, SEND_TAG, CONFLICT_LOG},
                                     line(16, "Failed to rollback [|ASSETS|a+b%7Cc|]. exception: " + getECmsg(5003))));
    EXPECT_EQ(http_->requests().size(), 2U);
}

TEST_F(FailedRollbackTest, IsLoggedWithTheTextOfAStatus) {
    http_->raise(EC_exception(114));
    EXPECT_EQ(run(), 8025);
    expectStory("Failed to rollback [|ASSETS|a+b%7Cc|]. exception: the request failed unexpectedly");
}

TEST_F(FailedRollbackTest, IsNoSuccessWithStatusZero) {
    http_->raise(EC_exception(0));
    EXPECT_EQ(run(), 8025);
    expectStory("Failed to rollback [|ASSETS|a+b%7Cc|]. exception: success");
}

TEST_F(FailedRollbackTest, IsLoggedWithTheTextOfAnException) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_EQ(run(), 8025);
    expectStory("Failed to rollback [|ASSETS|a+b%7Cc|]. exception: no socket");
}

TEST_F(FailedRollbackTest, IsLoggedWithoutATextForWhatIsNoException) {
    http_->raise(7);
    EXPECT_EQ(run(), 8025);
    expectStory("Failed to rollback [|ASSETS|a+b%7Cc|]. Unknown exception thrown.");
}

TEST_F(RegisterObjectTest, RollsBackBeforeAnExceptionOfTheCallbackArrives) {
    EXPECT_STREQ(thrownThrough(std::runtime_error("no disk")).what(), "no disk");
    expectRollback("Callback threw exception: no disk", 114);
}

TEST_F(RegisterObjectTest, RollsBackBeforeAStatusThatTheCallbackThrowsArrives) {
    EXPECT_EQ(thrownThrough(EC_exception(77)).status, 77);
    expectRollback("Callback threw exception: " + getECmsg(77), 77);
}

TEST_F(RegisterObjectTest, TakesStatusZeroThatTheCallbackThrowsForAFailure) {
    EXPECT_EQ(thrownThrough(EC_exception(0)).status, 0);
    expectRollback("Callback threw exception: success", 0);
}

TEST_F(RegisterObjectTest, RollsBackBeforeWhatIsNoExceptionArrivesFromTheCallback) {
    EXPECT_EQ(thrownThrough(7), 7);
    expectRollback("Callback threw unknown exception.", 114);
}

TEST_F(FailedRollbackTest, LeavesTheCallbacksExceptionAsItIs) {
    http_->raise(std::runtime_error("no socket"));
    callback_->work = []() -> int { throw EC_exception(9); };
    EXPECT_EQ(thrownBy<EC_exception>([this] { run(); }).status, 9);
    EXPECT_THAT(story(),
                ElementsAre(sending(REGISTRATIONS), called("process"),
                            line(8, "Callback threw exception: " + getECmsg(9)), rollingBack(9), updating(0, 0, 2),
                            sending(UPDATES), line(16, "Failed to rollback [|ASSETS|a+b%7Cc|]. exception: no socket")));
}

TEST_F(FailedRegistrationTest, PassesOnWhatTheCallbackThrowsWhenItIsTold) {
    http_->raise(EC_exception(77));
    callback_->afterFailure = [] { throw std::runtime_error("no disk"); };
    EXPECT_STREQ(thrownBy<std::runtime_error>([this] { run(); }).what(), "no disk");
    EXPECT_THAT(story(),
                ElementsAre(sending(REGISTRATIONS), line(16, "Registration failed, status=77"), called("failed 77")));
    EXPECT_THAT(http_->requests(), ElementsAre(registration()));
}
