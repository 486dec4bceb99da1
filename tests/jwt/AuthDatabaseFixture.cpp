#include "jwt/AuthDatabaseFixture.h"

#include <platform/Dal.h>

#include <stdexcept>

namespace testing_support {

using Tesmor::Arkwell::Sandbox::AuthDatabase;
using Tesmor::Arkwell::Sandbox::DatabaseServer;

namespace {

std::string quoted(const std::string& text) {
    std::string json = "\"";
    for (const char c : text) {
        json += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    }
    return json + '"';
}

}  // namespace

// Making one takes a second.
PostgresCluster& AuthDatabaseFixture::cluster() {
    static PostgresCluster running;
    return running;
}

AuthDatabaseFixture::AuthDatabaseFixture() {
    if (GetParam() == DatabaseServer::SQLITE) {
        const auto connection = Tesmor::Arkwell::Sandbox::sqliteConnection(settings_.directory() / "auth.db");
        connectionString_ = connection.connectionString;
        onConnect_ = connection.onConnect;
    } else {
        connectionString_ = cluster().connectionString();
    }
    setDebugLevel(1);
    database_ = std::make_unique<AuthDatabase>();
    if (GetParam() == DatabaseServer::POSTGRESQL) {
        execute("DROP SCHEMA IF EXISTS AUTH_MAIN CASCADE");
    }
    database_->createSchema(GetParam());
}

AuthDatabaseFixture::~AuthDatabaseFixture() = default;

std::string AuthDatabaseFixture::settings(const std::string& connectionString, const std::string& onConnect,
                                          int debugLevel) {
    return R"({"authDatabase":{"connectionString":)" + quoted(connectionString) + R"(,"onConnect":[)" +
           (onConnect.empty() ? "" : quoted(onConnect)) + R"(]},"log":{"debugLevel":)" + std::to_string(debugLevel) +
           "}}";
}

void AuthDatabaseFixture::setDebugLevel(int level) {
    settings_.replace(settings(connectionString_, onConnect_, level));
}

void AuthDatabaseFixture::execute(const std::string& sql) {
    Tesmor::Dal::DbConnectionManager manager(0, 1, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false);
    Tesmor::Dal::SSRGuard guard(&manager);
    Tesmor::Dal::DbConnectionView view(guard.connection());
    if (guard.status() != 0 ||
        guard.connection()->Execute(view.view(), sql.c_str(), nullptr, 6, "test", false, false) != 0) {
        throw std::runtime_error("not executed: " + sql);
    }
}

std::string AuthDatabaseFixture::login(const std::string& id, const std::string& azToken) {
    database_->addSession(id, azToken);
    return signedToken(sessionClaims(id));
}

}  // namespace testing_support
