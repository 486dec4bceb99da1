#include "HttpFixture.h"
#include "testing/FailingSystemCalls.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

// Every system call on the files of a request fails in turn: on certificates, the key, and what is sent.

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Ne;
using testing::Not;
using testing::StartsWith;
using testing_support::AroundTheWork;
using testing_support::failEachSystemCall;
using testing_support::outcomeOf;

namespace {

const std::string ANSWERED = "done +3";  // the connection is kept, with the pair by which libcurl wakes itself

class HttpSystemCalls : public testing::Test {
protected:
    std::vector<std::string> failEachOnAFile(int error) {
        AroundTheWork around;
        around.concerns = [](const std::string& file) {
            return std::set<std::string>{"ca.pem", "host.pem", "host.key", "sent"}.count(file) != 0;
        };
        return failEachSystemCall(
            error, [this] { return send(); }, around);
    }

private:
    std::string send() {
        AWClientCURL client = HttpFixture::client(server_);
        int status = 0;
        const std::string outcome = outcomeOf([&] { status = client.PostFile("a", file_); });
        return status == 0 ? outcome
                           : std::to_string(status) + outcome.substr(outcome.rfind(": ", outcome.rfind(": ") - 1));
    }

    HttpFixture fixture_;
    const std::string file_ = [this] {
        testing_support::writeFile(fixture_.directory() / "sent", "text");
        return fixture_.directory() / "sent";
    }();
    const HttpFixture::Server server_{fixture_.options(),
                                      [](HttpFixture::Connection& c) { c.answerAll(200, "received"); }};
};

}  // namespace

TEST_F(HttpSystemCalls, ThatFailAreTheStatusOfTheFile) {
    EXPECT_THAT(
        failEachOnAFile(EIO),
        ElementsAre(
            "open sent: 9552: sent: Input/output error", "stat sent: 9552: sent: Input/output error",
            "stat ca.pem: 9558: ca.pem: Input/output error", "stat host.pem: 9559: host.pem: Input/output error",
            "stat host.key: 9559: host.key: Input/output error", "open ca.pem: 9558: ca.pem: Input/output error",
            "read ca.pem: 9558: ca.pem: Input/output error", "read ca.pem: 9558: ca.pem: Input/output error",
            "close ca.pem: " + ANSWERED, "open host.pem: 9559: host.pem: Input/output error",
            "read host.pem: 9559: host.pem: Input/output error", "read host.pem: 9559: host.pem: Input/output error",
            "close host.pem: " + ANSWERED, "open host.key: 9559: host.key: Input/output error",
            "read host.key: 9559: host.key: Input/output error", "read host.key: 9559: host.key: Input/output error",
            "close host.key: " + ANSWERED, "read sent: 9552: sent: Input/output error", "close sent: " + ANSWERED));
}

TEST_F(HttpSystemCalls, ThatReadAreTriedAgainAfterASignal) {
    const std::vector<std::string> outcomes = failEachOnAFile(EINTR);
    for (const char* file : {"ca.pem", "host.pem", "host.key", "sent"}) {
        const std::string read = "read " + std::string(file) + ": ";
        EXPECT_THAT(outcomes, Contains(read + ANSWERED));
        EXPECT_THAT(outcomes, Not(Contains(AllOf(StartsWith(read), Ne(read + ANSWERED)))));
    }
}
