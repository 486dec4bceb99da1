#include <platform/Status.h>
#include <platform/testing/ScriptedHttpFactory.h>

#include <gmock/gmock.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

using platform_testing::HttpRequest;
using platform_testing::ScriptedHttpFactory;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ScriptedHttpFactoryTest : public testing::Test {
protected:
    std::unique_ptr<AWClientCURL_Base> makeClient() {
        return std::unique_ptr<AWClientCURL_Base>(http_->create("primary.example", 1556, SESSION_SERVICE));
    }

    /// What a request came to: transport status, HTTP status and body.
    std::string outcome(int transportStatus) const {
        return std::to_string(transportStatus) + " " + std::to_string(client_->httpStatus) + " " +
               client_->responseBody;
    }

    std::unique_ptr<ScriptedHttpFactory> http_ = std::make_unique<ScriptedHttpFactory>();
    std::unique_ptr<AWClientCURL_Base> client_ = makeClient();
};

}  // namespace

TEST_F(ScriptedHttpFactoryTest, GivesAnswersInTheirOrder) {
    http_->answer(200, "a");
    http_->answer(404);
    EXPECT_EQ(outcome(client_->Get("x")), "0 200 a");
    EXPECT_EQ(outcome(client_->Get("x")), "0 404 ");
}

TEST_F(ScriptedHttpFactoryTest, LeavesNeitherStatusNorBodyAfterAFailure) {
    http_->answer(200, "a");
    http_->fail(platform_status::HTTP_TIMED_OUT);
    client_->Get("x");
    EXPECT_EQ(outcome(client_->Get("x")), "9557 0 ");
}

TEST_F(ScriptedHttpFactoryTest, ThrowsWhatItIsToThrow) {
    http_->raise(std::runtime_error("broken"));
    EXPECT_THROW(client_->Get("x"), std::runtime_error);
    EXPECT_EQ(http_->complaint(), "");
}

TEST_F(ScriptedHttpFactoryTest, FailsARequestWithoutAnAnswer) {
    http_->answer(200, "a");
    client_->Get("x");
    EXPECT_EQ(outcome(client_->Get("x")), "-1 0 ");
}

TEST_F(ScriptedHttpFactoryTest, KeepsAnAnswerForItsMethodAndUrl) {
    http_->on("POST", "x").answer(201);
    EXPECT_EQ(outcome(client_->Get("x")), "-1 0 ");
    EXPECT_EQ(outcome(client_->Post("y", "")), "-1 0 ");
    EXPECT_EQ(outcome(client_->Post("x", "")), "0 201 ");
}

TEST_F(ScriptedHttpFactoryTest, PrefersAnAnswerForTheRequestToOneForWhateverComes) {
    http_->answer(200, "whatever");
    http_->on("GET", "x").answer(200, "x").fail(platform_status::HTTP_CONNECTION_CLOSED);
    EXPECT_EQ(outcome(client_->Get("x")), "0 200 x");
    EXPECT_EQ(outcome(client_->Get("x")), "9567 0 ");
    EXPECT_EQ(outcome(client_->Get("x")), "0 200 whatever");
}

TEST_F(ScriptedHttpFactoryTest, TakesNoNoticeOfASlashThatAUrlBeginsWith) {
    http_->on("GET", "/x").answer(200, "1");
    http_->on("GET", "x").answer(200, "2");
    EXPECT_EQ(outcome(client_->Get("x")), "0 200 1");
    EXPECT_EQ(outcome(client_->Get("/x")), "0 200 2");
    EXPECT_EQ(outcome(client_->Get("//x")), "-1 0 ");
}

TEST_F(ScriptedHttpFactoryTest, RemembersRequestsAsTheyWereMade) {
    client_->Get("/a?b");
    client_->Put("x", "1");
    client_->setApiVersion("6.0");
    client_->Post("x", "2");
    client_->Patch("x", "3");
    client_->Delete("x");
    client_->PostFile("x", "/a/file");
    EXPECT_THAT(http_->requests(),
                ElementsAre(HttpRequest{"GET", "/a?b", "", ""}, HttpRequest{"PUT", "x", "1", ""},
                            HttpRequest{"POST", "x", "2", "6.0"}, HttpRequest{"PATCH", "x", "3", "6.0"},
                            HttpRequest{"DELETE", "x", "", "6.0"}, HttpRequest{"POST file", "x", "/a/file", "6.0"}));
}

TEST_F(ScriptedHttpFactoryTest, ForgetsRequests) {
    client_->Get("x");
    http_->forgetRequests();
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(ScriptedHttpFactoryTest, WritesRequests) {
    std::ostringstream text;
    text << HttpRequest{"POST", "x", "body", "6.0"};
    EXPECT_EQ(text.str(), "POST x [6.0] body");
}

TEST_F(ScriptedHttpFactoryTest, HasNothingToComplainOfWhereTheScriptWasFollowed) {
    http_->on("GET", "x").answer(200);
    http_->answer(204);
    client_->Get("x");
    client_->Delete("y");
    EXPECT_EQ(http_->complaint(), "");
}

TEST_F(ScriptedHttpFactoryTest, ComplainsOfWhatWasUnexpectedAndOfWhatIsUnused) {
    http_->on("GET", "/x").answer(200).answer(200);
    http_->answer(200);
    http_->answer(200);
    client_->Get("x");
    client_->Put("y", "");
    client_->Put("y", "");
    client_->Delete("/z");
    EXPECT_EQ(http_->complaint(), "unexpected: DELETE z\nunused: GET x\n");
}

TEST_F(ScriptedHttpFactoryTest, ComplainsOfAnUnusedAnswerToWhateverComes) {
    http_->answer(200);
    EXPECT_EQ(http_->complaint(), "unused: an answer to whatever comes\n");
}

TEST_F(ScriptedHttpFactoryTest, KnowsWhatTheLastClientWasMadeFor) {
    const std::unique_ptr<AWClientCURL_Base> second(http_->create("b.example", 2, SESSION_NONE));
    EXPECT_EQ(http_->lastServer().host, "b.example");
    EXPECT_EQ(http_->lastServer().port, 2);
    EXPECT_EQ(http_->lastServer().session, SESSION_NONE);
}

TEST_F(ScriptedHttpFactoryTest, CountsTheClientsThatAreLeft) {
    const auto second = makeClient();
    EXPECT_EQ(http_->liveClients(), 2);
    client_.reset();
    EXPECT_EQ(http_->liveClients(), 1);
}

TEST_F(ScriptedHttpFactoryTest, MayBeGoneBeforeItsClients) {
    http_->answer(200, "a");
    http_.reset();
    EXPECT_EQ(outcome(client_->Get("x")), "0 200 a");
}

TEST_F(ScriptedHttpFactoryTest, GivesEachAnswerOnceWhateverTheThread) {
    constexpr int THREADS = 4;
    constexpr int REQUESTS = 250;
    for (int i = 0; i < THREADS * REQUESTS; ++i) {
        http_->answer(200);
    }
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([this] {
            for (int request = 0; request < REQUESTS; ++request) {
                makeClient()->Get("x");
                http_->requests();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(http_->requests().size(), THREADS * REQUESTS);
    EXPECT_EQ(http_->complaint(), "");
    EXPECT_EQ(http_->liveClients(), 1);
}
