#include "DalFixture.h"
#include "testing/FailingAllocations.h"

#include <chrono>
#include <thread>

namespace {

using namespace platform_status;
using namespace Tesmor::Dal;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing_support::failEachAllocation;
using testing_support::LogCapture;
using testing_support::TemporaryDirectory;

class DalSqliteTest : public testing::Test {
public:
    DalSqliteTest() {
        settings.write(databaseSettings(sqliteConnectionString(directory / "database"), R"("PRAGMA synchronous=OFF")"));
        ManagerNumbers numbers;
        numbers.statementTimeoutSeconds = 1;
        manager = makeManager(numbers);
        Client client(*manager);
        EXPECT_EQ(client.execute("CREATE TABLE T (Name TEXT, Number INT)"), 0);
        EXPECT_EQ(client.execute("INSERT INTO T VALUES ('name', 1)"), 0);
    }

    LogCapture log;
    TemporaryDirectory directory;
    SettingsFixture settings;
    std::unique_ptr<DbConnectionManager> manager;
};

const char* const ALL = "SELECT Name, Number FROM T";

TEST_F(DalSqliteTest, ALockOfAnotherConnectionIsNotWaitedForLongerThanTheLimit) {
    Client holder(*manager);
    Client client(*manager);
    ASSERT_EQ(holder.execute("BEGIN EXCLUSIVE"), 0);
    const auto begin = steady_clock::now();
    EXPECT_EQ(client.execute("INSERT INTO T VALUES ('other', 2)"), DATABASE_TIMED_OUT);
    EXPECT_GE(steady_clock::now() - begin, seconds(1));
    EXPECT_LT(steady_clock::now() - begin, seconds(4));
    ASSERT_EQ(holder.execute("COMMIT"), 0);
    EXPECT_EQ(client.execute("INSERT INTO T VALUES ('other', 2)"), 0);
}

TEST_F(DalSqliteTest, ConnectingDoesNotWaitForALockForLongerThanTheLimit) {
    ManagerNumbers numbers;
    numbers.loginTimeoutSeconds = 1;
    const auto other = makeManager(numbers);
    Client holder(*manager);
    ASSERT_EQ(holder.execute("BEGIN EXCLUSIVE"), 0);
    const auto begin = steady_clock::now();
    EXPECT_EQ(Client(*other).status(), DATABASE_TIMED_OUT);
    EXPECT_LT(steady_clock::now() - begin, seconds(4));
    ASSERT_EQ(holder.execute("COMMIT"), 0);
    EXPECT_EQ(Client(*other).status(), 0);
}

TEST_F(DalSqliteTest, AnAttachedDatabaseIsReadByItsName) {
    const std::string file = directory / "attached";
    settings.write(databaseSettings(sqliteConnectionString(":memory:"), "\"ATTACH DATABASE '" + file + "' AS Main2\""));
    Client client(*manager);
    ASSERT_EQ(client.execute("CREATE TABLE Main2.T (Name TEXT, Number INT)"), 0);
    ASSERT_EQ(client.execute("INSERT INTO Main2.T VALUES ('attached', 1)"), 0);
    Client other(*manager);
    EXPECT_THAT(other.select("SELECT Name, Number FROM Main2.T"), ElementsAre("attached"));
}

TEST_F(DalSqliteTest, AConnectionGoesFromThreadToThread) {
    for (int i = 0; i < 4; ++i) {
        std::thread([&] { EXPECT_THAT(Client(*manager).select(ALL), ElementsAre("name")); }).join();
    }
    EXPECT_EQ(count(log.lines(), OPENED), 1);
}

TEST_F(DalSqliteTest, WhenMemoryRunsOutNothingIsLeftBehind) {
    ManagerNumbers numbers;
    numbers.maximumConnections = 1;
    numbers.acquireTimeoutSeconds = 1;
    numbers.trace = false;
    manager = makeManager(numbers);
    const auto query = [&] {
        Client client(*manager);
        EXPECT_EQ(client.status(), 0);
        EXPECT_EQ(client.execute("SELECT Name, Number FROM T WHERE Name = ?", {"name"}), 0);
        TwoColumns row;
        EXPECT_EQ(client.fetch(row, true), 0);
        EXPECT_EQ(row.number(), 1);
    };
    EXPECT_GT(failEachAllocation(query, query), 0);
}

}  // namespace
