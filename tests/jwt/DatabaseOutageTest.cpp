#include "InstallationPaths.h"
#include "jwt/AuthDatabaseFixture.h"
#include "rbac/enforcement/ConstantAccessChecker.h"
#include "rbac/enforcement/DiskAccessControlClient.h"
#include "sandbox/SqliteDatabase.h"
#include "testing/RawCache.h"

#include <jwt/JWTHandler.h>
#include <jwt/RBACDbQueryMgr.h>
#include <platform/Dal.h>
#include <platform/Logger.h>
#include <platform/Status.h>
#include <rbac/OperationCache.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <thread>

// What becomes of those who ask the authorization database when it goes away, and when it is back.

using namespace platform_status;
using namespace Tesmor::Arkwell::Rbac;
using Tesmor::Arkwell::RBACDbConnectionMgr;
using Tesmor::Arkwell::RBACDbQueryMgr;
using Tesmor::Arkwell::Sandbox::AuthDatabase;
using Tesmor::Arkwell::Sandbox::DatabaseServer;
using Tesmor::Arkwell::Sandbox::SqliteDatabase;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing_support::AuthDatabaseFixture;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::PostgresCluster;
using testing_support::RawCache;
using testing_support::unsignedToken;

namespace {

const std::string OPERATIONS_PATH = TARVO_ROOT "/wmc/webserver/temp/operation-cache.json";
const ObjectNamespace OBJECT("A", "OBJECT");
const std::string AUTHORIZATION = unsignedToken(R"({"roles":[1,2]})");
constexpr int DATABASE_FAILED = 220;
constexpr int VIEW_BIT = 37;
constexpr int ROLE = 2;

class DatabaseOutage : public AuthDatabaseFixture {
protected:
    DatabaseOutage() {
        testing_support::writeFile(OPERATIONS_PATH, R"({"|OPERATIONS|VIEW|": 37})");
        files_.put("|A|OBJECT|", 0, {{ROLE, {VIEW_BIT}}});
        files_.write();
        client_ = boost::make_shared<DiskAccessControlClient>(
            ObjectNamespace(), boost::make_shared<AccessCache>(Manifest("some cache", files_.directory())),
            operations_);
        refill();
    }
    ~DatabaseOutage() override { std::filesystem::remove(OPERATIONS_PATH); }

    void refill() {
        session_ = login("session", AUTHORIZATION);
        database_->addCriteria(1, 3, "host", "criteria");
    }

    int fetchToken(std::string& token) { return RBACDbQueryMgr(connection_).fetchAzToken(session_, token); }
    int fetchCriteria(std::list<std::string>& criteria) {
        return RBACDbQueryMgr(connection_).fetchCollectionCriteria({3}, "host", criteria);
    }
    int makeChecker(boost::shared_ptr<const AccessChecker>& checker) {
        return client_->createAccessChecker(&manager_, session_, root_namespaces::operations::VIEW, 0, checker);
    }

    void expectAnswers() {
        std::string token;
        EXPECT_EQ(fetchToken(token), 0);
        EXPECT_EQ(token, AUTHORIZATION);
        std::list<std::string> criteria;
        EXPECT_EQ(fetchCriteria(criteria), 0);
        EXPECT_THAT(criteria, ElementsAre("criteria"));
        std::set<int> roles;
        EXPECT_EQ(JWTHandler().getRoleIds(&manager_, session_, roles), 0);
        EXPECT_THAT(roles, ElementsAre(1, 2));
        boost::shared_ptr<const AccessChecker> checker;
        EXPECT_EQ(makeChecker(checker), 0);
        EXPECT_TRUE(checker && checker->checkAccess(OBJECT));
    }

    /// That everybody is told of the failure, that what it came of is logged as this status of the data-access layer,
    /// and that nobody gets anything. All ask at once: some failures take as long as the limits say.
    void expectFailures(const std::set<int>& reasons) {
        const LogCapture log;
        std::thread asking[] = {
            std::thread([this] { expectNoToken(); }),
            std::thread([this] { expectNoCriteria(); }),
            std::thread([this] { expectNoRoles(); }),
            std::thread([this] { expectNoChecker(); }),
        };
        for (std::thread& thread : asking) {
            thread.join();
        }
        expectReason(log, reasons);
    }

    void expectNoToken() {
        std::string token = "before";
        EXPECT_EQ(fetchToken(token), DATABASE_FAILED);
        EXPECT_EQ(token, "before");
    }
    void expectNoCriteria() {
        std::list<std::string> criteria;
        EXPECT_EQ(fetchCriteria(criteria), DATABASE_FAILED);
        EXPECT_THAT(criteria, IsEmpty());
    }
    void expectNoRoles() {
        std::set<int> roles{7};
        EXPECT_EQ(JWTHandler().getRoleIds(&manager_, session_, roles), DATABASE_FAILED);
        EXPECT_THAT(roles, ElementsAre(7));
    }
    void expectNoChecker() {
        const boost::shared_ptr<const AccessChecker> before = boost::make_shared<ConstantAccessChecker<false>>();
        boost::shared_ptr<const AccessChecker> checker = before;
        EXPECT_EQ(makeChecker(checker), DATABASE_FAILED);
        EXPECT_EQ(checker, before);
    }

    static void expectReason(const LogCapture& log, const std::set<int>& reasons) {
        int told = 0;
        for (const LogLine& line : log.linesAt(2)) {
            if (line.tag.rfind("RBACDbQueryMgr::", 0) == 0) {
                ++told;
                EXPECT_TRUE(std::any_of(reasons.begin(), reasons.end(), [&line](int reason) {
                    return line.message.find("error=" + std::to_string(reason) + "(") != std::string::npos;
                })) << line.message;
            }
        }
        EXPECT_EQ(told, 4);
        for (const LogLine& line : log.lines()) {
            EXPECT_THAT(line.message, AllOf(Not(HasSubstr(PostgresCluster::password())), Not(HasSubstr(SECRET))));
        }
    }

    /// The status that recording a session fails with, or 0.
    int statusOfLogin(const std::string& id, const std::string& token) {
        try {
            login(id, token);
            return 0;
        } catch (const EC_exception& failure) {
            return failure.status;
        }
    }

    static constexpr char SECRET[] = "readers-secret";

    testing_support::TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
    OperationCache operations_{OPERATIONS_PATH};
    boost::shared_ptr<DiskAccessControlClient> client_;
    Tesmor::Dal::DbConnectionManager manager_{0, 4, 0, 0, 1, 1, 1, Tesmor::Dal::USERID_AUTHORIZATION, false};
    boost::shared_ptr<RBACDbConnectionMgr> connection_ = boost::make_shared<RBACDbConnectionMgr>(&manager_);
    std::string session_;
};

class PostgresOutageTest : public DatabaseOutage {};

INSTANTIATE_TEST_SUITE_P(Servers, PostgresOutageTest, testing::Values(DatabaseServer::POSTGRESQL),
                         [](const auto& /*server*/) { return std::string("PostgreSql"); });

TEST_P(PostgresOutageTest, AServerThatIsKilledIsUnreachableUntilItHasRecovered) {
    expectAnswers();
    cluster().crash();
    expectFailures({DATABASE_UNREACHABLE});
    expectFailures({DATABASE_UNREACHABLE});
    cluster().start();
    expectAnswers();
}

TEST_P(PostgresOutageTest, AServerThatIsKilledIsReportedToThoseWithoutAManagerToo) {
    cluster().crash();
    {
        const LogCapture log;
        std::set<int> roles;
        EXPECT_EQ(JWTHandler().getRoleIds(nullptr, session_, roles), DATABASE_FAILED);
        EXPECT_THAT(roles, IsEmpty());
    }
    cluster().start();
    std::set<int> roles;
    EXPECT_EQ(JWTHandler().getRoleIds(nullptr, session_, roles), 0);
}

TEST_P(PostgresOutageTest, AServerThatWasRestartedIsNotNoticed) {
    expectAnswers();
    cluster().restart();
    expectAnswers();
}

TEST_P(PostgresOutageTest, AServerThatIsKilledWhileRowsAreReadLosesTheOthers) {
    connectionString_ = cluster().connectionString("UseDeclareFetch=1;Fetch=1");
    setDebugLevel(6);
    for (int id = 2; id < 20; ++id) {
        database_->addCriteria(id, 3, "host", "criteria");
    }
    bool killed = false;
    std::string reason;
    setLogSink([&](int, const std::string&, const std::string& message) {
        if (message.rfind("fetched collection criteria=", 0) == 0 && !killed) {
            killed = true;
            cluster().crash();
        } else if (message.rfind("failed to fetch collection criteria record", 0) == 0) {
            reason = message;
        }
    });
    std::list<std::string> criteria;
    const int status = fetchCriteria(criteria);
    setLogSink({});
    EXPECT_EQ(status, DATABASE_FAILED);
    EXPECT_EQ(reason, "failed to fetch collection criteria record from database, error=9536(RBACDbQueryMgr:120)");
    EXPECT_GE(criteria.size(), 1U);
    EXPECT_LT(criteria.size(), 19U);
    cluster().start();
    criteria.clear();
    EXPECT_EQ(fetchCriteria(criteria), 0);
    EXPECT_EQ(criteria.size(), 19U);
}

TEST_P(PostgresOutageTest, AServerThatHangsIsNotWaitedFor) {
    expectAnswers();
    const auto begin = std::chrono::steady_clock::now();
    cluster().pause();
    expectFailures({DATABASE_TIMED_OUT});
    cluster().resume();
    // An attempt to connect and a statement at most, with a second's limit and half a second's grace each.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    expectAnswers();
}

TEST_P(PostgresOutageTest, ATableThatSomebodyHoldsIsNotWaitedFor) {
    expectAnswers();
    // Its connection is cut in the end.
    std::thread holder([] {
        EXPECT_ANY_THROW(cluster().query(
            "BEGIN; LOCK AUTH_MAIN.AUTH_Access_Token_Details, AUTH_MAIN.ACTL_CollectionCriteria IN ACCESS EXCLUSIVE "
            "MODE; SELECT pg_sleep(60)"));
    });
    while (cluster().query("SELECT COUNT(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'") != "1") {
    }
    expectFailures({DATABASE_TIMED_OUT});
    cluster().execute("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE wait_event = 'PgSleep'");
    holder.join();
    expectAnswers();
}

TEST_P(PostgresOutageTest, AFullDiskEndsLoginsAndNothingElse) {
    constexpr unsigned long LARGEST_FILE = 17UL * 1024 * 1024;  // a segment of the server's log needs 16
    cluster().stop();
    cluster().start(LARGEST_FILE);
    database_ = std::make_unique<AuthDatabase>();
    execute("ALTER TABLE AUTH_MAIN.AUTH_Access_Token_Details ALTER AzTokenValue SET STORAGE EXTERNAL");
    EXPECT_ANY_THROW(
        execute("INSERT INTO AUTH_MAIN.AUTH_Access_Token_Details SELECT 'filler ' || i, repeat('x', 32000) "
                "FROM generate_series(1, 1000) AS i"));
    EXPECT_EQ(statusOfLogin("other", std::string(32000, 'y')), DATABASE_STATEMENT_FAILED);
    expectAnswers();
    cluster().restart();
    database_ = std::make_unique<AuthDatabase>();
    EXPECT_EQ(statusOfLogin("other", std::string(32000, 'y')), 0);
    expectAnswers();
}

TEST_P(PostgresOutageTest, ASchemaThatIsMissingIsReportedUntilItIsThere) {
    expectAnswers();
    cluster().execute("ALTER SCHEMA AUTH_MAIN RENAME TO elsewhere");
    expectFailures({DATABASE_STATEMENT_FAILED});
    cluster().execute("ALTER SCHEMA elsewhere RENAME TO AUTH_MAIN");
    expectAnswers();
}

TEST_P(PostgresOutageTest, TablesThatAreMissingAreReportedUntilTheyAreThere) {
    expectAnswers();
    cluster().execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details, AUTH_MAIN.ACTL_CollectionCriteria");
    expectFailures({DATABASE_STATEMENT_FAILED});
    database_->createSchema(DatabaseServer::POSTGRESQL);
    refill();
    expectAnswers();
}

/// Asks as somebody who may do nothing but read.
class ReaderOutageTest : public DatabaseOutage {
protected:
    ReaderOutageTest() {
        const std::string password = SECRET;
        cluster().execute("DROP ROLE IF EXISTS reader; CREATE ROLE reader LOGIN PASSWORD '" + password + "'");
        grant("USAGE ON SCHEMA AUTH_MAIN");
        grant("SELECT ON ALL TABLES IN SCHEMA AUTH_MAIN");
        connectionString_ = cluster().connectionString();
        replace("UID=" + PostgresCluster::user(), "UID=reader");
        replace("PWD=" + PostgresCluster::password(), "PWD=" + password);
        setDebugLevel(1);
    }
    ~ReaderOutageTest() override { cluster().execute("DROP OWNED BY reader; DROP ROLE reader"); }

    static void grant(const std::string& what) { cluster().execute("GRANT " + what + " TO reader"); }
    static void revoke(const std::string& what) { cluster().execute("REVOKE " + what + " FROM reader"); }
    static void alter(const std::string& how) { cluster().execute("ALTER ROLE reader " + how); }

    /// That what is taken from the account does not touch those who are connected, and is reported to who connects
    /// anew.
    void expectToLockOut(const std::string& take, const std::string& giveBack) {
        expectAnswers();
        alter(take);
        expectAnswers();
        cluster().terminateConnections();
        expectFailures({DATABASE_UNREACHABLE});
        alter(giveBack);
        expectAnswers();
    }

private:
    void replace(const std::string& old, const std::string& text) {
        connectionString_.replace(connectionString_.find(old), old.size(), text);
    }
};

INSTANTIATE_TEST_SUITE_P(Servers, ReaderOutageTest, testing::Values(DatabaseServer::POSTGRESQL),
                         [](const auto& /*server*/) { return std::string("PostgreSql"); });

TEST_P(ReaderOutageTest, APermissionThatIsRevokedIsReportedUntilItIsGranted) {
    expectAnswers();
    revoke("SELECT ON ALL TABLES IN SCHEMA AUTH_MAIN");
    expectFailures({DATABASE_STATEMENT_FAILED});
    grant("SELECT ON ALL TABLES IN SCHEMA AUTH_MAIN");
    expectAnswers();
}

TEST_P(ReaderOutageTest, ASchemaThatIsClosedIsReportedUntilItIsOpened) {
    expectAnswers();
    revoke("USAGE ON SCHEMA AUTH_MAIN");
    expectFailures({DATABASE_STATEMENT_FAILED});
    grant("USAGE ON SCHEMA AUTH_MAIN");
    expectAnswers();
}

TEST_P(ReaderOutageTest, AnAccountThatIsClosedLocksOutWhoConnectsAnew) {
    expectToLockOut("NOLOGIN", "LOGIN");
}

TEST_P(ReaderOutageTest, AnotherPasswordLocksOutWhoConnectsAnew) {
    expectToLockOut("PASSWORD 'another'", std::string("PASSWORD '") + SECRET + "'");
}

TEST_P(ReaderOutageTest, AnAccountWithoutConnectionsLeftLocksOutWhoConnectsAnew) {
    expectToLockOut("CONNECTION LIMIT 0", "CONNECTION LIMIT -1");
}

class SqliteOutageTest : public DatabaseOutage {
protected:
    std::string file() const { return settings_.directory() / "auth.db"; }
    /// Without the log of changes beside the file, all there is is in the file.
    void settle() {
        database_.reset();
        execute("PRAGMA AUTH_MAIN.journal_mode = DELETE");
        database_ = std::make_unique<AuthDatabase>();
    }
};

INSTANTIATE_TEST_SUITE_P(Servers, SqliteOutageTest, testing::Values(DatabaseServer::SQLITE),
                         [](const auto& /*server*/) { return std::string("Sqlite"); });

TEST_P(SqliteOutageTest, AFileThatSomebodyHoldsIsNotWaitedFor) {
    settle();
    expectAnswers();
    {
        SqliteDatabase holder(file());
        holder.execute("PRAGMA journal_mode = DELETE; BEGIN EXCLUSIVE");
        expectFailures({DATABASE_TIMED_OUT});
    }
    expectAnswers();
}

TEST_P(SqliteOutageTest, AFileThatIsDamagedIsReportedUntilItIsMended) {
    settle();
    expectAnswers();
    const std::string intact = testing_support::readFile(file());
    testing_support::writeFile(file(), std::string(intact.size(), 'x'));
    // A connection that is there finds it out by its statement, a new one cannot attach the file.
    expectFailures({DATABASE_STATEMENT_FAILED, DATABASE_UNREACHABLE});
    testing_support::writeFile(file(), intact);
    expectAnswers();
}

TEST_P(SqliteOutageTest, AFolderThatIsMissingIsReportedUntilItIsThere) {
    const std::string folder = settings_.directory() / "moved";
    std::filesystem::create_directory(folder);
    settle();
    std::filesystem::rename(file(), folder + "/auth.db");
    const auto connection = Tesmor::Arkwell::Sandbox::sqliteConnection(folder + "/auth.db");
    connectionString_ = connection.connectionString;
    onConnect_ = connection.onConnect;
    setDebugLevel(1);
    std::filesystem::rename(folder, folder + " away");
    expectFailures({DATABASE_UNREACHABLE});
    std::filesystem::rename(folder + " away", folder);
    expectAnswers();
}

TEST_P(SqliteOutageTest, AFullDiskEndsLoginsAndNothingElse) {
    settle();
    expectAnswers();
    const int pages = static_cast<int>(std::filesystem::file_size(file()) / 4096);
    settings_.replace(R"({"authDatabase":{"connectionString":")" + connectionString_ + R"(","onConnect":[")" +
                      onConnect_ + R"(","PRAGMA AUTH_MAIN.max_page_count = )" + std::to_string(pages) +
                      R"("]},"log":{"debugLevel":1}})");
    EXPECT_EQ(statusOfLogin("other", std::string(32000, 'y')), DATABASE_STATEMENT_FAILED);
    expectAnswers();
    setDebugLevel(1);
    EXPECT_EQ(statusOfLogin("other", std::string(32000, 'y')), 0);
    expectAnswers();
}

}  // namespace
