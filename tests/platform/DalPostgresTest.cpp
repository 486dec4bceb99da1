#include "DalFixture.h"
#include "testing/ChildProcess.h"

#include <platform/Logger.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

// What a server does to the connections: it ends, starts again, stops to answer, and refuses.

namespace {

using namespace platform_status;
using namespace Tesmor::Dal;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing_support::ChildProcess;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::openDescriptorCount;
using testing_support::PostgresCluster;
using testing_support::Signal;
using testing_support::TemporaryDirectory;

const char* const ALL = "SELECT Name, Number FROM T ORDER BY Number";
const LogLine REPEATED{8, "DbConnection::Execute",
                       "Test::caller: the connection is lost; executing once more on a new one"};

class DalPostgresTest : public testing::Test {
public:
    DalPostgresTest() {
        useOptions("");
        cluster().execute(
            "DROP TABLE IF EXISTS T; CREATE TABLE T (Name TEXT, Number INT); "
            "INSERT INTO T VALUES ('name', 1)");
        ManagerNumbers numbers;
        numbers.loginTimeoutSeconds = 2;
        numbers.statementTimeoutSeconds = 1;
        manager = makeManager(numbers);
    }
    /// Waits until the threads of connections that were given up have come back and ended.
    ~DalPostgresTest() override {
        manager.reset();
        const auto giveUp = steady_clock::now() + seconds(20);
        while (threadCount() > threadsBefore && steady_clock::now() < giveUp) {
            std::this_thread::yield();
        }
        EXPECT_EQ(threadCount(), threadsBefore);
        const auto lines = log.lines();
        for (const LogLine& line : lines) {
            EXPECT_THAT(line.message, Not(HasSubstr(PostgresCluster::password())));
            EXPECT_THAT(line.message, Not(HasSubstr(PostgresCluster::user())));
        }
    }
    DalPostgresTest(const DalPostgresTest&) = delete;
    DalPostgresTest& operator=(const DalPostgresTest&) = delete;

    void useOptions(const std::string& options) {
        settings.write(databaseSettings(cluster().connectionString(options)));
    }

    static long threadCount() {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return std::distance(begin(threads), end(threads));
    }

    long threadsBefore = threadCount();
    LogCapture log;
    SettingsFixture settings;
    std::unique_ptr<DbConnectionManager> manager;
};

/// Stops the server where it is, while this lives.
class Pause {
public:
    Pause() { cluster().pause(); }
    ~Pause() { cluster().resume(); }
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

TEST_F(DalPostgresTest, ASelectIsExecutedOnceMoreAfterTheServerWasRestarted) {
    Client client(*manager);
    EXPECT_THAT(client.select(ALL), ElementsAre("name"));
    cluster().restart();
    EXPECT_THAT(client.select("SELECT Name, Number FROM T WHERE Name = ?", {"name"}), ElementsAre("name"));
    EXPECT_EQ(count(log.lines(), REPEATED), 1);
    EXPECT_TRUE(manager->connectionEstablished());
}

TEST_F(DalPostgresTest, ASelectBehindCommentsIsExecutedOnceMoreToo) {
    Client client(*manager);
    cluster().terminateConnections();
    EXPECT_THAT(client.select("-- one\n /* two */ /**/ \n\tsElEcT Name, Number FROM T"), ElementsAre("name"));
}

TEST_F(DalPostgresTest, AnythingElseIsNotExecutedOnceMore) {
    for (const char* sql :
         {"INSERT INTO T VALUES ('other', 2)", "/* SELECT */ DELETE FROM T", "SELECTED", "-- SELECT\nDELETE FROM T",
          "/* /* */ SELECT */ DELETE FROM T", "WITH Gone AS (DELETE FROM T RETURNING Name) SELECT Name, 1 FROM Gone"}) {
        Client client(*manager);
        ASSERT_EQ(client.status(), 0);
        cluster().terminateConnections();
        EXPECT_EQ(client.execute(sql), DATABASE_CONNECTION_LOST) << sql;
        EXPECT_FALSE(manager->connectionEstablished());
        EXPECT_THAT(client.select(ALL), ElementsAre("name")) << sql;
        EXPECT_TRUE(manager->connectionEstablished());
    }
    EXPECT_EQ(count(log.lines(), REPEATED), 0);
}

TEST_F(DalPostgresTest, ASelectThatIsToFailWhenTheConnectionIsLostDoes) {
    Client client(*manager);
    cluster().restart();
    EXPECT_EQ(client.execute(ALL, {}, true), DATABASE_CONNECTION_LOST);
    EXPECT_EQ(client.execute(ALL, {}, true), 0);
}

TEST_F(DalPostgresTest, ALostConnectionTakesTheIdleOnesWithIt) {
    {
        const Client first(*manager);
        const Client second(*manager);
    }
    cluster().restart();
    log.clear();
    EXPECT_THAT(Client(*manager).select(ALL), ElementsAre("name"));
    EXPECT_EQ(count(log.lines(), CLOSED), 2);
    Client first(*manager);
    Client second(*manager);
    EXPECT_EQ(first.execute("INSERT INTO T VALUES ('a', 2)"), 0);
    EXPECT_EQ(second.execute("INSERT INTO T VALUES ('b', 2)"), 0);
}

TEST_F(DalPostgresTest, AServerThatIsGoneIsUnreachableUntilItIsBack) {
    Client client(*manager);
    cluster().stop();
    EXPECT_EQ(client.execute(ALL), DATABASE_UNREACHABLE);
    EXPECT_FALSE(manager->connectionEstablished());
    EXPECT_EQ(Client(*manager).status(), DATABASE_UNREACHABLE);
    cluster().start();
    EXPECT_THAT(client.select(ALL), ElementsAre("name"));
    EXPECT_EQ(Client(*manager).status(), 0);
    EXPECT_TRUE(manager->connectionEstablished());
}

TEST_F(DalPostgresTest, AttemptsToConnectAreRepeatedUntilTheServerIsBack) {
    ManagerNumbers numbers;
    numbers.connectRetries = 600;
    numbers.retryDelaySeconds = 1;
    manager = makeManager(numbers);
    cluster().stop();
    int status = -1;
    std::thread waiting([&] { status = Client(*manager).status(); });
    while (log.linesAt(8).empty()) {
        std::this_thread::yield();
    }
    cluster().start();
    waiting.join();
    EXPECT_EQ(status, 0);
    EXPECT_THAT(log.linesAt(8), testing::Contains(LogLine{8, "DbConnectionManager::connect",
                                                          "trying again in 1 seconds, 600 more times"}));
}

TEST_F(DalPostgresTest, RowsThatAreStillAtALostServerAreLost) {
    useOptions("UseDeclareFetch=1;Fetch=1");
    cluster().execute("INSERT INTO T SELECT 'name', i FROM generate_series(2, 50) AS i");
    Client client(*manager);
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row), 0);
    cluster().terminateConnections();
    EXPECT_EQ(client.fetch(row), DATABASE_CONNECTION_LOST);
    EXPECT_EQ(client.fetch(row), DATABASE_CONNECTION_LOST);
    EXPECT_EQ(client.execute(ALL), 0);
}

TEST_F(DalPostgresTest, AServerThatDoesNotAnswerAStatementIsNotWaitedFor) {
    Client client(*manager);
    ASSERT_EQ(client.execute(ALL), 0);
    const auto begin = steady_clock::now();
    {
        const Pause pause;
        EXPECT_EQ(client.execute(ALL), DATABASE_TIMED_OUT);
    }
    EXPECT_GE(steady_clock::now() - begin, seconds(1));
    EXPECT_LT(steady_clock::now() - begin, seconds(4));
    EXPECT_THAT(log.linesAt(16),
                ElementsAre(LogLine{16, "DbConnection::Execute",
                                    "Test::caller: no answer within 1 seconds; the connection is given up"}));
    EXPECT_THAT(client.select(ALL), ElementsAre("name"));
}

TEST_F(DalPostgresTest, AServerThatDoesNotAnswerAnAttemptToConnectIsNotWaitedFor) {
    const auto begin = steady_clock::now();
    {
        const Pause pause;
        EXPECT_EQ(Client(*manager).status(), DATABASE_TIMED_OUT);
    }
    EXPECT_GE(steady_clock::now() - begin, seconds(1));
    EXPECT_LT(steady_clock::now() - begin, seconds(5));
    EXPECT_EQ(Client(*manager).status(), 0);
}

TEST_F(DalPostgresTest, AConnectionThatIsGivenUpLeavesItsPlace) {
    ManagerNumbers numbers;
    numbers.maximumConnections = 1;
    numbers.statementTimeoutSeconds = 1;
    manager = makeManager(numbers);
    {
        Client client(*manager);
        const Pause pause;
        EXPECT_EQ(client.execute(ALL), DATABASE_TIMED_OUT);
    }
    EXPECT_THAT(Client(*manager).select(ALL), ElementsAre("name"));
}

TEST_F(DalPostgresTest, AConnectionThatIsGivenUpIsClosedWhenTheServerIsBack) {
    {
        const Client first(*manager);  // what the driver opens once and for all is open now
    }
    manager.reset();
    const int before = openDescriptorCount();
    ManagerNumbers numbers;
    numbers.statementTimeoutSeconds = 1;
    manager = makeManager(numbers);
    {
        Client client(*manager);
        const Pause pause;
        EXPECT_EQ(client.execute(ALL), DATABASE_TIMED_OUT);
    }
    manager.reset();
    const auto giveUp = steady_clock::now() + seconds(20);
    while (openDescriptorCount() > before && steady_clock::now() < giveUp) {
        std::this_thread::yield();
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(DalPostgresTest, AServerThatDoesNotAnswerHoldsUpNoOtherDatabase) {
    const TemporaryDirectory directory;
    Client client(*manager);
    const Pause pause;
    std::thread held([&] { EXPECT_EQ(client.execute(ALL), DATABASE_TIMED_OUT); });
    settings.write(databaseSettings(sqliteConnectionString(directory / "database")));
    const auto begin = steady_clock::now();
    const auto other = makeManager();
    EXPECT_EQ(Client(*other).execute("SELECT 1"), 0);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(900));
    held.join();
}

TEST_F(DalPostgresTest, AStatementThatTakesTooLongIsEndedAndTheConnectionKept) {
    Client client(*manager);
    const auto begin = steady_clock::now();
    EXPECT_EQ(client.execute("SELECT 'x', pg_sleep(30)"), DATABASE_TIMED_OUT);
    EXPECT_LT(steady_clock::now() - begin, seconds(4));
    log.clear();
    EXPECT_THAT(client.select(ALL), ElementsAre("name"));
    EXPECT_EQ(count(log.lines(), OPENED), 0);
}

TEST_F(DalPostgresTest, WithoutALimitAStatementMayTakeItsTime) {
    ManagerNumbers numbers;
    numbers.loginTimeoutSeconds = 0;
    numbers.statementTimeoutSeconds = 0;
    manager = makeManager(numbers);
    Client client(*manager);
    EXPECT_EQ(client.execute("SELECT 'x', pg_sleep(0.2)"), 0);
}

TEST_F(DalPostgresTest, AWrongPasswordIsRefusedAndNotLogged) {
    settings.write(databaseSettings(cluster().connectionString() + "PWD=some-other-secret"));
    std::string wrong = cluster().connectionString();
    wrong.replace(wrong.find(PostgresCluster::password()), PostgresCluster::password().size(), "some-other-secret");
    settings.write(databaseSettings(wrong));
    EXPECT_EQ(Client(*manager).status(), DATABASE_UNREACHABLE);
    const auto errors = log.linesAt(16);
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_EQ(errors[0].tag, "DbConnectionManager::connect");
    EXPECT_THAT(errors[0].message, HasSubstr("password authentication failed for user \"***\""));
    EXPECT_THAT(errors[0].message, Not(HasSubstr("some-other-secret")));
}

TEST_F(DalPostgresTest, ABoundValueThatTheServerQuotesIsNotLogged) {
    Client client(*manager);
    EXPECT_EQ(client.execute("SELECT Name, Number FROM T WHERE Number = CAST(? AS INT)", {"secret-value"}),
              DATABASE_STATEMENT_FAILED);
    const auto errors = log.linesAt(16);
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_THAT(errors[0].message, HasSubstr("invalid input syntax for type integer: \"***\""));
}

TEST_F(DalPostgresTest, ALongBoundValueThatTheServerQuotesIsNotLogged) {
    Client client(*manager);
    EXPECT_EQ(client.execute("SELECT Name, Number FROM T WHERE Number = CAST(? AS INT)",
                             {"secret-value " + std::string(5000, 'y')}),
              DATABASE_STATEMENT_FAILED);
    for (const LogLine& line : log.linesAt(16)) {
        EXPECT_THAT(line.message, Not(HasSubstr("secret")));
        EXPECT_THAT(line.message, Not(HasSubstr("yyyy")));
    }
}

TEST_F(DalPostgresTest, BoundValuesThatTheDriverPutsIntoTheSqlAreNotLogged) {
    useOptions("UseServerSidePrepare=0");
    Client client(*manager);
    ASSERT_EQ(client.execute("INSERT INTO T VALUES (?, 2)", {"it's a \\ secret"}), 0);
    cluster().terminateConnections();
    EXPECT_EQ(client.execute("INSERT INTO T VALUES (?, 3)", {"it's a \\ secret"}), DATABASE_CONNECTION_LOST);
    for (const LogLine& line : log.linesAt(16)) {
        EXPECT_THAT(line.message, Not(HasSubstr("secret")));
    }
    EXPECT_THAT(client.select("SELECT Name, Number FROM T WHERE Name = ?", {"it's a \\ secret"}),
                ElementsAre("it's a \\ secret"));
}

TEST_F(DalPostgresTest, AForkWhileACallWaitsForTheServerIsNotHeldUp) {
    Client client(*manager);
    Signal executing;
    std::thread held([&] {
        executing.notify();
        EXPECT_EQ(client.execute("SELECT 'x', pg_sleep(0.8)"), 0);
    });
    executing.wait();
    ChildProcess child([&] {
        setLogSink({});  // the other thread may have been in the one of the parent
        const auto own = makeManager();
        return Client(*own).select(ALL) == std::vector<std::string>{"name"} ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    held.join();
}

}  // namespace
