#pragma once

#include "jwt/HostKey.h"
#include "platform/SettingsFixture.h"
#include "sandbox/AuthDatabase.h"
#include "testing/LogCapture.h"
#include "testing/PostgresCluster.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace testing_support {

/// A host with a key and an authorization database that is empty, in turn on either server.
class AuthDatabaseFixture : public testing::TestWithParam<Tesmor::Arkwell::Sandbox::DatabaseServer> {
protected:
    AuthDatabaseFixture();
    ~AuthDatabaseFixture() override;

    /// The PostgreSQL server of all tests of the program.
    static PostgresCluster& cluster();
    /// The settings file's text, for a connection string and what is executed on it first.
    static std::string settings(const std::string& connectionString, const std::string& onConnect, int debugLevel);
    /// Writes debug messages of up to this level.
    void setDebugLevel(int level);
    void execute(const std::string& sql);

    /// Records a session and gives its token.
    std::string login(const std::string& id, const std::string& azToken);
    std::string login(const std::string& id) { return login(id, unsignedToken(R"({"roles":[1,2]})")); }

    SettingsFixture settings_;
    HostKeyFile key_;
    std::string connectionString_;
    std::string onConnect_;
    std::unique_ptr<Tesmor::Arkwell::Sandbox::AuthDatabase> database_;
};

}  // namespace testing_support

/// Runs the tests of a fixture on both servers.
#define INSTANTIATE_ON_BOTH_SERVERS(FIXTURE)                                                                         \
    INSTANTIATE_TEST_SUITE_P(Servers, FIXTURE,                                                                       \
                             testing::Values(Tesmor::Arkwell::Sandbox::DatabaseServer::SQLITE,                       \
                                             Tesmor::Arkwell::Sandbox::DatabaseServer::POSTGRESQL),                  \
                             [](const auto& server) {                                                                \
                                 return std::string(server.param == Tesmor::Arkwell::Sandbox::DatabaseServer::SQLITE \
                                                        ? "Sqlite"                                                   \
                                                        : "PostgreSql");                                             \
                             })
