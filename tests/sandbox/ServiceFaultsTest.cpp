#include "RawConnection.h"

#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <utility>

// Requests that the service answers wrongly because it was told to.

using namespace testing_support;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

class ServiceFaultsTest : public testing::Test {
protected:
    void set(const std::string& fault) const { ASSERT_EQ(folder_.run("faults set '" + fault + "'").status, 0); }

    ServiceFolder folder_;
    ServiceProcess service_{folder_};
    ServiceClient client_{"localhost", service_.port(), folder_.hostFiles()};
};

constexpr char ROLES[] = "/arkwell/access-control/roles";

}  // namespace

TEST_F(ServiceFaultsTest, MakesNoneUnasked) {
    EXPECT_EQ(folder_.run("faults list").output, "");
    EXPECT_EQ(client_.get("roles").status, 200);
}

TEST_F(ServiceFaultsTest, AnswersLate) {
    set(std::string(ROLES) + "=delay:200");
    const auto begin = steady_clock::now();
    EXPECT_EQ(client_.get("roles").status, 200);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(200));
}

TEST_F(ServiceFaultsTest, EndsTheConnectionInsteadOfAnswering) {
    const Context context = contextFor(folder_.hostFiles());
    const std::string body = roleDocument("operators");
    const std::string request =
        std::string("POST ") + ROLES +
        " HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
        body;
    for (const auto& [kind, failure] : {std::pair{"close", SSL_ERROR_ZERO_RETURN}, {"refuse", SSL_ERROR_SYSCALL}}) {
        set(std::string("POST ") + ROLES + "=" + kind);
        RawConnection connection(context.get(), service_.port());
        EXPECT_EQ(connection.ask(request), "") << kind;
        EXPECT_EQ(connection.failure(), failure) << kind;
        folder_.run("faults clear");
        EXPECT_EQ(client_.get("roles/2").status, 404) << kind;
    }
}

TEST_F(ServiceFaultsTest, EndsTheConnectionAfterTheWorkIsDone) {
    set(std::string("POST ") + ROLES + "=close-after");
    EXPECT_EQ(client_.post("roles", roleDocument("operators")).status, 0);
    EXPECT_EQ(client_.get("roles/2").status, 200);
}

TEST_F(ServiceFaultsTest, AnswersWithAnotherStatus) {
    set(std::string(ROLES) + "=status:418");
    const Answer answer = client_.get("roles");
    EXPECT_EQ(answer.status, 418);
    EXPECT_EQ(answer.errorCode(), 5900);
}

TEST_F(ServiceFaultsTest, AnswersWithHalfADocument) {
    set(std::string(ROLES) + "=malformed");
    const Answer answer = client_.get("roles");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, R"({"data": {"type")");
}

TEST_F(ServiceFaultsTest, AnswersWithAHugeDocument) {
    set(std::string(ROLES) + "=huge:10000000");
    const Answer answer = client_.get("roles");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body.size(), 10'000'000U);
    EXPECT_EQ(answer.body.substr(0, 12), R"({"data":"xxx)");
    EXPECT_EQ(answer.body.substr(answer.body.size() - 5), R"(xxx"})");
}

TEST_F(ServiceFaultsTest, ConcernsOnePathOneMethodAndOneRequest) {
    set(std::string("GET ") + ROLES + "/1=status:500@2");
    EXPECT_EQ(client_.get("roles/0").status, 200);
    EXPECT_EQ(client_.get("roles/1").status, 200);
    EXPECT_EQ(client_.send("PUT", "roles/1", roleDocument("everybody")).status, 204);
    EXPECT_EQ(client_.get("roles/1").status, 500);
    EXPECT_EQ(client_.get("roles/1").status, 200);
}

TEST_F(ServiceFaultsTest, AreSetTogetherOrNotAtAll) {
    const CommandResult result = folder_.run("faults set /a=close /b=explode");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: no fault, \"explode\" is not known: /b=explode\n");
    EXPECT_EQ(folder_.run("faults list").output, "");
}

TEST_F(ServiceFaultsTest, IsListedWithWhatItHasDone) {
    set(std::string(ROLES) + "=status:500@2");
    client_.get("roles");
    EXPECT_EQ(folder_.run("faults list").output, std::string(ROLES) + "=status:500@2 (1 requests)\n");
    folder_.run("faults clear");
    EXPECT_EQ(folder_.run("faults list").output, "");
}

TEST_F(ServiceFaultsTest, NeedsARunningService) {
    service_.signal(SIGTERM);
    service_.wait();
    const CommandResult result = folder_.run("faults list");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: no service runs on " + folder_.path() + "\n");
}
