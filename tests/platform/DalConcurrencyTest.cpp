#include "DalFixture.h"

#include <atomic>
#include <thread>

namespace {

using namespace Tesmor::Dal;
using testing::ElementsAre;
using testing_support::LogCapture;
using testing_support::TemporaryDirectory;

constexpr int THREADS = 8;

class DalConcurrencyTest : public testing::TestWithParam<bool> {
public:
    DalConcurrencyTest() {
        const std::string sqlite = sqliteConnectionString(directory / "database");
        settings.write(databaseSettings(GetParam() ? cluster().connectionString("", "psqlodbca.so") : sqlite));
        ManagerNumbers numbers;
        numbers.maximumConnections = 3;
        numbers.acquireTimeoutSeconds = 0;
        numbers.loginTimeoutSeconds = 30;
        numbers.statementTimeoutSeconds = 30;
        manager = makeManager(numbers);
        Client client(*manager);
        EXPECT_EQ(client.execute("DROP TABLE IF EXISTS T"), 0);
        EXPECT_EQ(client.execute("CREATE TABLE T (Name TEXT, Number INT)"), 0);
        for (int i = 0; i < THREADS; ++i) {
            EXPECT_EQ(client.execute("INSERT INTO T VALUES (?, 1)", {nameOf(i)}), 0);
        }
    }

    static std::string nameOf(int i) { return "name " + std::to_string(i); }
    void query(int i) const {
        Client client(*manager);
        ASSERT_EQ(client.status(), 0);
        EXPECT_THAT(client.select("SELECT Name, Number FROM T WHERE Name = ?", {nameOf(i)}), ElementsAre(nameOf(i)));
    }

    LogCapture log;
    TemporaryDirectory directory;
    SettingsFixture settings;
    std::unique_ptr<DbConnectionManager> manager;
};

TEST_P(DalConcurrencyTest, ThreadsShareTheConnectionsOfAManager) {
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([this, i] {
            for (int n = 0; n < 100; ++n) {
                query(i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LE(count(log.lines(), OPENED), 3);
}

TEST_P(DalConcurrencyTest, SettingsMayChangeWhileThreadsQuery) {
    std::atomic<bool> isDone{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            while (!isDone) {
                query(i);
            }
        });
    }
    const std::string before = testing_support::readFile(settings.path());
    for (int n = 0; n < 20; ++n) {
        const std::string name = std::to_string(n);
        std::string changed = before;
        std::string onConnect = "\"CREATE TEMPORARY TABLE Mine AS SELECT '";
        onConnect.append(name).append("' AS Name, 1 AS Number\"");
        changed.insert(changed.find("[]") + 1, onConnect);
        settings.replace(changed);
        EXPECT_THAT(Client(*manager).select("SELECT Name, Number FROM Mine"), ElementsAre(name));
    }
    isDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

INSTANTIATE_TEST_SUITE_P(Databases, DalConcurrencyTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& server) {
                             return server.param ? "Postgres" : "Sqlite";
                         });

}  // namespace
