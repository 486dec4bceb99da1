#include "DalFixture.h"
#include "testing/ChildProcess.h"

#include <platform/Logger.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <stdexcept>
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
        EXPECT_EQ(threadCountWithin(seconds(20), threadsBefore), threadsBefore);
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

    /// The number of threads as soon as it is `most`, or after the time.
    static long threadCountWithin(steady_clock::duration time, long most) {
        const auto giveUp = steady_clock::now() + time;
        while (threadCount() > most && steady_clock::now() < giveUp) {
            std::this_thread::yield();
        }
        return threadCount();
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

/// Waits until the server executes a pg_sleep() for somebody.
void awaitSleeper() {
    const auto giveUp = steady_clock::now() + seconds(20);
    while (cluster().query("SELECT COUNT(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'") != "1") {
        ASSERT_LT(steady_clock::now(), giveUp);
    }
}

/// Stops the server where it is, while this lives.
class Pause {
public:
    Pause() { cluster().pause(); }
    ~Pause() { cluster().resume(); }
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

/// A port on which connections come about and nobody ever says anything.
class SilentServer {
public:
    SilentServer() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), size) != 0 || listen(listener_, 100) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw std::runtime_error("cannot listen");
        }
        port_ = ntohs(address.sin_port);
    }
    ~SilentServer() { close(listener_); }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;

    int port() const { return port_; }
    /// Waits until somebody has connected.
    void awaitClient() const {
        pollfd client{listener_, POLLIN, 0};
        ASSERT_EQ(poll(&client, 1, 20'000), 1);
    }

private:
    int listener_;
    int port_ = 0;
};

/// The cluster's connection string with another port.
std::string connectionStringOf(int port) {
    std::string text = cluster().connectionString();
    const std::string own = "Port=" + std::to_string(cluster().port());
    return text.replace(text.find(own), own.size(), "Port=" + std::to_string(port));
}

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

TEST_F(DalPostgresTest, ASelectThatEndsInASemicolonIsExecutedOnceMoreToo) {
    Client client(*manager);
    cluster().terminateConnections();
    EXPECT_THAT(client.select("SELECT Name, Number FROM T ; \n"), ElementsAre("name"));
}

TEST_F(DalPostgresTest, AnythingElseIsNotExecutedOnceMore) {
    for (const char* sql :
         {"INSERT INTO T VALUES ('other', 2)", "/* SELECT */ DELETE FROM T", "SELECTED", "-- SELECT\nDELETE FROM T",
          "/* /* */ SELECT */ DELETE FROM T", "WITH Gone AS (DELETE FROM T RETURNING Name) SELECT Name, 1 FROM Gone",
          "SELECT 1; DELETE FROM T", "SELECT 1;DELETE FROM T;", "SELECT 1 AS A, 2 AS B InTo Other"}) {
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
    log.clear();
    EXPECT_EQ(client.fetch(row), DATABASE_CONNECTION_LOST);
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, "DbConnection::Fetch",
                                                     "the connection on which the statement was executed is gone"}));
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

TEST_F(DalPostgresTest, AnAttemptToConnectHoldsUpNoDatabaseOfThisProcess) {
    const TemporaryDirectory directory;
    const SilentServer silent;
    settings.write(databaseSettings(connectionStringOf(silent.port())));
    std::thread held([&] { EXPECT_EQ(Client(*manager).status(), DATABASE_TIMED_OUT); });
    silent.awaitClient();
    settings.write(databaseSettings(sqliteConnectionString(directory / "database")));
    const auto begin = steady_clock::now();
    const auto other = makeManager();
    EXPECT_EQ(Client(*other).execute("SELECT 1"), 0);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(900));
    held.join();
}

TEST_F(DalPostgresTest, AttemptsThatWereGivenUpHoldUpNoOthers) {
    const SilentServer silent;
    settings.write(databaseSettings(connectionStringOf(silent.port())));
    ManagerNumbers numbers;
    numbers.maximumConnections = 6;
    numbers.loginTimeoutSeconds = 1;
    const auto impatient = makeManager(numbers);
    for (int round = 0; round < 2; ++round) {
        std::vector<std::thread> threads;
        for (int i = 0; i < 6; ++i) {
            threads.emplace_back([&] { EXPECT_EQ(Client(*impatient).status(), DATABASE_TIMED_OUT); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    // The driver may still be with one of the twelve.
    EXPECT_LE(threadCountWithin(milliseconds(300), threadsBefore + 1), threadsBefore + 1);
    useOptions("");
    manager = makeManager();
    const auto begin = steady_clock::now();
    EXPECT_THAT(Client(*manager).select(ALL), ElementsAre("name"));
    EXPECT_LT(steady_clock::now() - begin, seconds(3));
}

TEST_F(DalPostgresTest, WhoNeverGetsATurnToConnectIsToldSo) {
    const SilentServer silent;
    settings.write(databaseSettings(connectionStringOf(silent.port())));
    std::thread held([&] { EXPECT_EQ(Client(*manager).status(), DATABASE_TIMED_OUT); });
    silent.awaitClient();
    ManagerNumbers numbers;
    numbers.loginTimeoutSeconds = 1;
    EXPECT_EQ(Client(*makeManager(numbers)).status(), DATABASE_TIMED_OUT);
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, "DbConnectionManager::connect",
                                                     "other attempts to connect did not end within 1 seconds"}));
    held.join();
}

TEST_F(DalPostgresTest, ARefusalAfterWaitingForOtherAttemptsIsNoTimeout) {
    const SilentServer silent;
    settings.write(databaseSettings(connectionStringOf(silent.port())));
    std::thread held([&] { EXPECT_EQ(Client(*manager).status(), DATABASE_TIMED_OUT); });
    silent.awaitClient();
    settings.write(databaseSettings(connectionStringOf(1)));
    ManagerNumbers numbers;
    numbers.loginTimeoutSeconds = 3;
    const auto begin = steady_clock::now();
    EXPECT_EQ(Client(*makeManager(numbers)).status(), DATABASE_UNREACHABLE);
    EXPECT_GE(steady_clock::now() - begin, seconds(1));
    held.join();
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
    std::thread held([&] { EXPECT_EQ(client.execute("SELECT 'x', pg_sleep(30)"), DATABASE_TIMED_OUT); });
    awaitSleeper();
    const Pause pause;
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

TEST_F(DalPostgresTest, ABoundValueThatTheServerQuotesWhileRowsAreFetchedIsNotLogged) {
    useOptions("UseDeclareFetch=1;Fetch=1");
    cluster().execute("INSERT INTO T VALUES ('second', 2)");
    Client client(*manager);
    ASSERT_EQ(client.execute("SELECT Name, CASE WHEN Number = 1 THEN 1 ELSE CAST(Name || ? AS INT) END FROM T",
                             {"secret-value"}),
              0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(client.fetch(row), DATABASE_FETCH_FAILED);
    const auto errors = log.linesAt(16);
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_EQ(errors[0].tag, "DbConnection::Fetch");
    EXPECT_THAT(errors[0].message, HasSubstr("invalid input syntax for type integer: \"second***\""));
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
    ManagerNumbers numbers;
    numbers.statementTimeoutSeconds = 30;
    manager = makeManager(numbers);
    Client client(*manager);
    std::atomic<int> status{-1};
    std::thread held([&] { status = client.execute("SELECT 'x', pg_sleep(30)", {}, true); });
    awaitSleeper();
    const auto begin = steady_clock::now();
    ChildProcess child([&] {
        setLogSink({});  // the other thread may have been in the one of the parent
        const auto own = makeManager();
        return Client(*own).select(ALL) == std::vector<std::string>{"name"} ? 0 : 1;
    });
    EXPECT_LT(steady_clock::now() - begin, seconds(2));
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(status, -1);
    cluster().terminateConnections();
    held.join();
    EXPECT_EQ(status, DATABASE_CONNECTION_LOST);
}

}  // namespace
