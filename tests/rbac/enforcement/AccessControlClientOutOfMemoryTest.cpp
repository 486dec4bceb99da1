#include "platform/SettingsFixture.h"
#include "testing/FailingAllocations.h"
#include "testing/LogCapture.h"

#include <rbac/AccessControlClient.h>

#include <gtest/gtest.h>

#include <string>

using namespace Tesmor::Arkwell::Rbac;

namespace {

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

TEST(AccessControlClientOutOfMemory, IsAStatusInTheFirstGeneration) {
    EXPECT_EQ(statusThroughFailures(R"({"accessEnforcement":"gen1"})"), 0);
}

TEST(AccessControlClientOutOfMemory, IsAStatusInTheSecondGeneration) {
    // Without "tls" the request fails before it is sent.
    EXPECT_EQ(statusThroughFailures(R"({"primaryServer":"primary.example"})"), 9513);
}
