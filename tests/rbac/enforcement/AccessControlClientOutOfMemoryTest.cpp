#include "InstallationPaths.h"
#include "platform/HttpFixture.h"
#include "platform/SettingsFixture.h"
#include "rbac/enforcement/StubAccessControlClient.h"
#include "testing/LogCapture.h"
#include "testing/OutOfMemory.h"
#include "testing/RawCache.h"
#include "testing/SilentLog.h"

#include <platform/Status.h>
#include <rbac/AccessControlClient.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <jansson.h>

#include <filesystem>
#include <set>
#include <string>

// Every allocation of the way from a service that answers over TLS to a client over the cache that it names fails in
// turn, jansson's too. The connection is kept and the server works in this process, so nothing is counted.

using namespace Tesmor::Arkwell::Rbac;
using testing::IsSubsetOf;
using testing_support::BAD_ALLOC;
using testing_support::FailingAllocations;
using testing_support::RawCache;
using testing_support::TlsServer;

namespace {

const std::string CACHES = TARVO_ROOT "/wmc/webserver/temp/access-caches";
constexpr int CACHE_INVALID = 12;
constexpr int REQUEST_FAILED = 114;
constexpr int RESPONSE_INVALID = 7610;

[[maybe_unused]] const bool JANSSON_FAILS_TOO = [] {
    json_set_alloc_funcs(testing_support::allocateForJansson, testing_support::releaseForJansson);
    return true;
}();

class AccessControlClientOutOfMemory : public testing::Test {
protected:
    AccessControlClientOutOfMemory() {
        https_.useSettings("{}", R"("primaryServer":"localhost","accessEnforcement":"gen2")");
        RawCache files(CACHES + "/abc");
        files.put("|A|", 0, {{7, {37}}});
        files.write();
    }
    ~AccessControlClientOutOfMemory() override { std::filesystem::remove_all(CACHES); }

    TlsServer::Options options() const {
        TlsServer::Options options = https_.options();
        options.port = 1556;
        options.clientAuthority = https_.authority.certificate();
        return options;
    }

    testing_support::SilentLog log_;
    HttpFixture https_;
    TlsServer server_{options(), [](testing_support::TlsConnection& connection) {
                          connection.answerAll(200, R"({"data":{"type":"accessCache","id":"abc"}})");
                      }};
};

/// Makes a client, failing each allocation in turn, and expects each failure to be a status that leaves the client
/// alone.
///
/// @return the status where none fails.
int statusThroughFailures(const std::string& settingsText) {
    const SettingsFixture settings(settingsText);
    const testing_support::LogCapture log;
    const ObjectNamespace scope("A scope whose text is longer than what a string holds inside itself");
    boost::shared_ptr<AccessControlClient> client;
    int status = 0;
    const int failures = testing_support::failEachOnce(
        [&] {
            client.reset();
            status = AccessControlClient::create(scope, client);
        },
        [&](bool thrown) {
            EXPECT_FALSE(thrown);
            EXPECT_EQ(client == nullptr, status != 0) << status;
        });
    EXPECT_GT(failures, 0);
    return status;
}

}  // namespace

TEST_F(AccessControlClientOutOfMemory, CreationIsAStatusOrAnExceptionAndLeavesTheClientAlone) {
    const boost::shared_ptr<AccessControlClient> before = boost::make_shared<StubAccessControlClient>();
    std::set<int> endings;
    for (const long failing : {FailingAllocations::ALL, 1L, FailingAllocations::ALL_OF_JANSSON}) {
        for (long granted = 0;; ++granted) {
            boost::shared_ptr<AccessControlClient> client = before;
            int ending = 0;
            {
                const FailingAllocations scarce(granted, failing);
                ending = testing_support::endingOf(
                    [&] { return AccessControlClient::create(ObjectNamespace("A", "rather long scope"), client); });
            }
            EXPECT_EQ(client == before, ending != 0);
            if (!FailingAllocations::failed()) {
                EXPECT_EQ(ending, 0);
                EXPECT_GT(granted, 0);
                break;
            }
            endings.insert(ending);
        }
    }
    EXPECT_THAT(endings, IsSubsetOf({BAD_ALLOC, 0, CACHE_INVALID, REQUEST_FAILED, RESPONSE_INVALID,
                                     +platform_status::HTTP_OUT_OF_MEMORY, +platform_status::SETTINGS_UNREADABLE,
                                     +platform_status::SETTINGS_DAMAGED}));
    EXPECT_THAT(endings, testing::Contains(+platform_status::HTTP_OUT_OF_MEMORY));
}

TEST(AccessControlClientWithoutServiceOutOfMemory, IsAStatusInTheFirstGeneration) {
    EXPECT_EQ(statusThroughFailures(R"({"accessEnforcement":"gen1"})"), 0);
}

TEST(AccessControlClientWithoutServiceOutOfMemory, IsAStatusInTheSecondGeneration) {
    // Without "tls" the request fails before it is sent.
    EXPECT_EQ(statusThroughFailures(R"({"primaryServer":"primary.example"})"), 9513);
}
