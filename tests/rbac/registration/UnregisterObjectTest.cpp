#include "RegistrationFixture.h"

#include <stdexcept>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const ObjectNamespace OBJECT("ASSETS", "a b|c");
constexpr char TAG[] = "DefaultObjectRegistrationService::unregisterObject";

class UnregisterObjectTest : public RegistrationFixture {
protected:
    using Callback = LoggedCallback<ObjectUnregistrationCallback>;

    int run(const ObjectNamespace& ns = OBJECT) { return service_.unregisterObject(ns, callback_); }

    static LogLine line(int level, const std::string& message) { return {level, TAG, message}; }
    static LogLine unregistering() { return line(4, "Unregistering |ASSETS|a+b%7Cc|"); }
    static LogLine pending() { return line(4, "Updated [|ASSETS|a+b%7Cc|] state to PENDING"); }
    static LogLine deleting() { return line(4, "Callback success. Deleting object"); }
    static LogLine undoing(int status) {
        return line(16, "Callback failed, status=" + std::to_string(status) +
                            ". Rolling back unregistration for [|ASSETS|a+b%7Cc|]");
    }
    static LogLine unregistered() { return line(4, "[|ASSETS|a+b%7Cc|] unregistered successfully."); }
    static LogLine undone() { return line(4, "Rollback successful."); }

    static HttpRequest change(const std::string& state) { return stateUpdate({{"|ASSETS|a+b%7Cc|", state}}); }

    /// What was told of an exception of the callback.
    void expectUndoing(const std::string& thrown, int status) const {
        EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING"), change("READY")));
        EXPECT_THAT(story(),
                    ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                line(8, thrown), undoing(status), updating(1, 0, 0), sending(UPDATES), undone()));
    }

    /// The callback throws this; the object is made READY again.
    template <class Thrown>
    Thrown thrownThrough(const Thrown& thrown) {
        http_->answer(201);
        http_->answer(201);
        callback_->work = [&]() -> int { throw thrown; };
        return thrownBy<Thrown>([this] { run(); });
    }

    boost::shared_ptr<Callback> callback_ = boost::make_shared<Callback>();
};

/// The object cannot be made PENDING.
class FailedPendingTest : public UnregisterObjectTest {
protected:
    void expectStory(const std::string& failure, int status) const {
        EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), line(16, failure),
                                         called("failed " + std::to_string(status))));
        EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING")));
    }
};
/// The callback succeeds; the object cannot be deleted.
class FailedDeletionTest : public UnregisterObjectTest {
protected:
    void SetUp() override { http_->answer(201); }
    void expectStory(const std::string& failure) const {
        EXPECT_THAT(story(),
                    ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                deleting(), updating(0, 0, 1), sending(UPDATES), line(16, failure)));
    }
};
/// The callback fails, and the object cannot be made READY again.
class FailedUndoingTest : public UnregisterObjectTest {
protected:
    void SetUp() override {
        http_->answer(201);
        callback_->work = [] { return 9; };
    }
    void expectStory(const std::string& failure) const {
        EXPECT_THAT(story(),
                    ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                undoing(9), updating(1, 0, 0), sending(UPDATES), line(16, failure)));
    }
};

}  // namespace

TEST_F(UnregisterObjectTest, DeletesTheObjectWhenTheCallbackSucceeds) {
    http_->answer(201);
    http_->answer(201);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING"), change("DELETED")));
    EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                     deleting(), updating(0, 0, 1), sending(UPDATES), unregistered()));
}

TEST_F(UnregisterObjectTest, DoesNotReadTheServicesAnswers) {
    http_->answer(201, "no JSON");
    http_->answer(201, "no JSON");
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                     deleting(), updating(0, 0, 1), sending(UPDATES), unregistered()));
}

TEST_F(UnregisterObjectTest, MakesTheObjectReadyAgainWhenTheCallbackFails) {
    for (const int status : {5, -3}) {
        log_.clear();
        http_->forgetRequests();
        http_->answer(201);
        http_->answer(201);
        callback_->work = [status] { return status; };
        EXPECT_EQ(run(), 8023);
        EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING"), change("READY")));
        EXPECT_THAT(story(),
                    ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                undoing(status), updating(1, 0, 0), sending(UPDATES), undone()));
    }
}

TEST_F(UnregisterObjectTest, RefusesTheRoot) {
    EXPECT_EQ(run(ObjectNamespace()), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "object Namespace is required")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(UnregisterObjectTest, RefusesAMissingCallback) {
    callback_.reset();
    EXPECT_EQ(run(), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "ObjectUnregistrationCallback is required")));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(UnregisterObjectTest, NamesTheNamespaceWhereTheCallbackIsMissingToo) {
    callback_.reset();
    EXPECT_EQ(run(ObjectNamespace()), 20);
    EXPECT_THAT(log_.lines(), ElementsAre(line(16, "object Namespace is required")));
}

TEST_F(FailedPendingTest, HasTheStatusThatIsThrown) {
    http_->raise(EC_exception(77));
    EXPECT_EQ(run(), 77);
    expectStory("Failed to update object to pending, status=77", 77);
    EXPECT_EQ(http_->liveClients(), 0);
}

TEST_F(FailedPendingTest, HasTheServicesErrorCode) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(run(), 5003);
    EXPECT_THAT(story(),
                ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), LogLine{16, SEND_TAG, CONFLICT_LOG},
                            line(16, "Failed to update object to pending, status=5003"), called("failed 5003")));
    EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING")));
}

TEST_F(FailedPendingTest, HasTheTransportsStatus) {
    http_->fail(9554);
    EXPECT_EQ(run(), 9554);
    EXPECT_THAT(story(),
                ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), unsent(UPDATES),
                            line(16, "Failed to update object to pending, status=9554"), called("failed 9554")));
    EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING")));
}

TEST_F(FailedPendingTest, HasTheGeneralStatusWhereThereIsNoClient) {
    loseHttp();
    EXPECT_EQ(run(), 114);
    EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0),
                                     line(16, "Failed to update object to pending. Exception: no client"),
                                     called("failed 114")));
}

TEST_F(FailedPendingTest, HasTheGeneralStatusForAnotherException) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_EQ(run(), 114);
    expectStory("Failed to update object to pending. Exception: no socket", 114);
}

TEST_F(FailedPendingTest, HasTheGeneralStatusForWhatIsNoException) {
    http_->raise(7);
    EXPECT_EQ(run(), 114);
    expectStory("Failed to update object to pending. Unknown exception occurred.", 114);
}

TEST_F(FailedPendingTest, PassesOnWhatTheCallbackThrowsWhenItIsTold) {
    http_->raise(EC_exception(77));
    callback_->afterFailure = [] { throw std::runtime_error("no disk"); };
    EXPECT_STREQ(thrownBy<std::runtime_error>([this] { run(); }).what(), "no disk");
    expectStory("Failed to update object to pending, status=77", 77);
}

TEST_F(UnregisterObjectTest, CarriesOnAfterStatusZeroAsAfterASuccess) {
    http_->answer(500, R"({"errorCode":0})");
    http_->answer(201);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING"), change("DELETED")));
    EXPECT_THAT(story(),
                ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES),
                            LogLine{16, SEND_TAG, "Failed to register object. HTTP response code = 500. error = 0"},
                            line(16, "Failed to update object to pending, status=0"), pending(), called("process"),
                            deleting(), updating(0, 0, 1), sending(UPDATES), unregistered()));
}

TEST_F(UnregisterObjectTest, UndoesAlsoAfterStatusZero) {
    http_->raise(EC_exception(0));
    http_->answer(201);
    callback_->work = [] { return 5; };
    EXPECT_EQ(run(), 8023);
    EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING"), change("READY")));
    EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES),
                                     line(16, "Failed to update object to pending, status=0"), pending(),
                                     called("process"), undoing(5), updating(1, 0, 0), sending(UPDATES), undone()));
}

TEST_F(FailedDeletionTest, IsTheResultThoughTheCallbackSucceeded) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(run(), 8024);
    EXPECT_THAT(story(),
                ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                            deleting(), updating(0, 0, 1), sending(UPDATES), LogLine{16, SEND_TAG, CONFLICT_LOG},
                            line(16, "Failed to delete [|ASSETS|a+b%7Cc|], status=5003")));
    EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING"), change("DELETED")));
}

TEST_F(FailedDeletionTest, IsTheResultOfAFailedTransport) {
    http_->fail(9554);
    EXPECT_EQ(run(), 8024);
    EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                     deleting(), updating(0, 0, 1), sending(UPDATES), unsent(UPDATES),
                                     line(16, "Failed to delete [|ASSETS|a+b%7Cc|], status=9554")));
}

TEST_F(FailedDeletionTest, IsLoggedWithItsStatus) {
    http_->raise(EC_exception(77));
    EXPECT_EQ(run(), 8024);
    expectStory("Failed to delete [|ASSETS|a+b%7Cc|], status=77");
}

TEST_F(FailedDeletionTest, IsNoSuccessWithStatusZero) {
    http_->raise(EC_exception(0));
    EXPECT_EQ(run(), 8024);
    expectStory("Failed to delete [|ASSETS|a+b%7Cc|], status=0");
}

TEST_F(FailedDeletionTest, IsLoggedWithTheTextOfAnException) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_EQ(run(), 8024);
    expectStory("Failed to delete [|ASSETS|a+b%7Cc|]. Exception: no socket");
}

TEST_F(FailedDeletionTest, IsLoggedWithoutATextForWhatIsNoException) {
    http_->raise(7);
    EXPECT_EQ(run(), 8024);
    expectStory("Failed to delete [|ASSETS|a+b%7Cc|]. Unknown exception occurred.");
}

TEST_F(FailedUndoingTest, IsTheResult) {
    http_->answer(409, CONFLICT);
    EXPECT_EQ(run(), 8025);
    EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                     undoing(9), updating(1, 0, 0), sending(UPDATES),
                                     LogLine{16, SEND_TAG, CONFLICT_LOG}, line(16, "Failed to rollback, status=5003")));
    EXPECT_THAT(http_->requests(), ElementsAre(change("PENDING"), change("READY")));
}

TEST_F(FailedUndoingTest, IsTheResultOfAFailedTransport) {
    http_->fail(9554);
    EXPECT_EQ(run(), 8025);
    EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                     undoing(9), updating(1, 0, 0), sending(UPDATES), unsent(UPDATES),
                                     line(16, "Failed to rollback, status=9554")));
}

TEST_F(FailedUndoingTest, IsLoggedWithItsStatus) {
    http_->raise(EC_exception(77));
    EXPECT_EQ(run(), 8025);
    expectStory("Failed to rollback, status=77");
}

TEST_F(FailedUndoingTest, IsNoSuccessWithStatusZero) {
    http_->raise(EC_exception(0));
    EXPECT_EQ(run(), 8025);
    expectStory("Failed to rollback, status=0");
}

TEST_F(FailedUndoingTest, IsLoggedWithTheTextOfAnException) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_EQ(run(), 8025);
    expectStory("Failed to rollback. Exception: no socket");
}

TEST_F(FailedUndoingTest, IsLoggedWithoutATextForWhatIsNoException) {
    http_->raise(7);
    EXPECT_EQ(run(), 8025);
    expectStory("Failed to rollback. Unknown exception occurred.");
}

TEST_F(FailedUndoingTest, LeavesTheCallbacksExceptionAsItIs) {
    http_->raise(std::runtime_error("no socket"));
    callback_->work = []() -> int { throw EC_exception(9); };
    EXPECT_EQ(thrownBy<EC_exception>([this] { run(); }).status, 9);
    EXPECT_THAT(story(), ElementsAre(unregistering(), updating(0, 1, 0), sending(UPDATES), pending(), called("process"),
                                     line(8, "Callback threw exception: " + getECmsg(9)), undoing(9), updating(1, 0, 0),
                                     sending(UPDATES), line(16, "Failed to rollback. Exception: no socket")));
}

TEST_F(UnregisterObjectTest, MakesTheObjectReadyBeforeAnExceptionOfTheCallbackArrives) {
    EXPECT_STREQ(thrownThrough(std::runtime_error("no disk")).what(), "no disk");
    expectUndoing("Callback threw exception: no disk", 114);
}

TEST_F(UnregisterObjectTest, MakesTheObjectReadyBeforeAStatusThatTheCallbackThrowsArrives) {
    EXPECT_EQ(thrownThrough(EC_exception(77)).status, 77);
    expectUndoing("Callback threw exception: " + getECmsg(77), 77);
}

TEST_F(UnregisterObjectTest, TakesStatusZeroThatTheCallbackThrowsForAFailure) {
    EXPECT_EQ(thrownThrough(EC_exception(0)).status, 0);
    expectUndoing("Callback threw exception: success", 0);
}

TEST_F(UnregisterObjectTest, MakesTheObjectReadyBeforeWhatIsNoExceptionArrivesFromTheCallback) {
    EXPECT_EQ(thrownThrough(7), 7);
    expectUndoing("Callback threw unknown exception.", 114);
}
