#include "DalFixture.h"
#include "testing/ChildProcess.h"

#include <platform/Logger.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

// What holds for every database; each test runs against SQLite, in the process, and PostgreSQL, a server.

namespace {

using namespace platform_status;
using namespace Tesmor::Dal;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing_support::ChildProcess;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::openDescriptorCount;
using testing_support::TemporaryDirectory;

enum class Kind { SQLITE, POSTGRES, POSTGRES_ANSI };

class DalTest : public testing::TestWithParam<Kind> {
public:
    DalTest() {
        use("");
        manager = makeManager();
        Client client(*manager);
        EXPECT_EQ(client.execute("DROP TABLE IF EXISTS T"), 0);
        EXPECT_EQ(client.execute("CREATE TABLE T (Name TEXT, Number BIGINT)"), 0);
        log.clear();
    }

    std::string connectionString() const {
        switch (GetParam()) {
            case Kind::SQLITE:
                return sqliteConnectionString(directory / "database") + ";SyncPragma=OFF";
            case Kind::POSTGRES:
                return cluster().connectionString();
            default:
                return cluster().connectionString("", "psqlodbca.so");
        }
    }
    void use(const std::string& onConnect) { settings.write(databaseSettings(connectionString(), onConnect)); }

    static void insert(Client& client, const std::string& name, const std::string& number = "1") {
        ASSERT_EQ(client.execute("INSERT INTO T VALUES (?, " + number + ")", {name}), 0);
    }

    LogCapture log;
    TemporaryDirectory directory;
    SettingsFixture settings;
    std::unique_ptr<DbConnectionManager> manager;
};

const char* const ALL = "SELECT Name, Number FROM T ORDER BY Number";

TEST_P(DalTest, FetchesWhatWasInserted) {
    Client client(*manager);
    insert(client, "name", "5");
    ASSERT_EQ(client.execute("SELECT Name, Number FROM T WHERE Name = ?", {"name"}), 0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(row.text(), "name");
    EXPECT_EQ(row.number(), 5);
    EXPECT_EQ(client.fetch(row), DATABASE_END_OF_ROWS);
}

TEST_P(DalTest, FetchesAllRowsInOrder) {
    Client client(*manager);
    std::vector<std::string> names;
    for (int i = 0; i < 150; ++i) {
        names.push_back("row " + std::to_string(i));
        insert(client, names.back(), std::to_string(i));
    }
    EXPECT_EQ(client.select(ALL), names);
}

TEST_P(DalTest, TheEndOfTheRowsIsReportedAgainAndAgain) {
    Client client(*manager);
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row;
    EXPECT_EQ(client.fetch(row), DATABASE_END_OF_ROWS);
    EXPECT_EQ(client.fetch(row), DATABASE_END_OF_ROWS);
}

TEST_P(DalTest, BoundValuesAreNotTakenForSql) {
    Client client(*manager);
    const std::string name = R"(it's "x"'; DROP TABLE T; -- \' ? $1 {fn now()})";
    insert(client, name);
    EXPECT_THAT(client.select("SELECT Name, Number FROM T WHERE Name = ?", {name}), ElementsAre(name));
}

TEST_P(DalTest, BytesOfUtf8ComeBackAsTheyWere) {
    Client client(*manager);
    const std::string name = "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80 e\xCC\x81";
    insert(client, name);
    EXPECT_THAT(client.select("SELECT Name, Number FROM T WHERE Name = ?", {name}), ElementsAre(name));
}

TEST_P(DalTest, OnlyTheGivenLengthOfAParameterIsBound) {
    Client client(*manager);
    ParameterBinder binder;
    binder.bindInputString("name and more", 4, false);
    ASSERT_EQ(client.execute("INSERT INTO T VALUES (?, 1)", binder), 0);
    EXPECT_THAT(client.select(ALL), ElementsAre("name"));
}

TEST_P(DalTest, AParameterThatEndsInANulIsBoundUpToIt) {
    Client client(*manager);
    ParameterBinder binder;
    binder.bindInputString("name", -3, false);
    ASSERT_EQ(client.execute("INSERT INTO T VALUES (?, 1)", binder), 0);
    EXPECT_THAT(client.select(ALL), ElementsAre("name"));
}

/// Inserts by this binder, and counts the rows that have no name.
void expectNulls(Client& client, ParameterBinder& binder, std::int32_t expected) {
    ASSERT_EQ(client.execute("INSERT INTO T VALUES (?, 1)", binder), 0);
    ASSERT_EQ(client.execute("SELECT 'x', COUNT(*) FROM T WHERE Name IS NULL"), 0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(row.number(), expected);
}

TEST_P(DalTest, EmptyTextIsBoundAsNullWhereThatIsAskedFor) {
    Client client(*manager);
    ParameterBinder binder;
    binder.bindInputString("", -3, true);
    expectNulls(client, binder, 1);
}

TEST_P(DalTest, EmptyTextIsOtherwiseBoundAsItIs) {
    Client client(*manager);
    ParameterBinder binder;
    binder.bindInputString("", -3, false);
    expectNulls(client, binder, 0);
}

TEST_P(DalTest, ANullPointerIsBoundAsNull) {
    Client client(*manager);
    ParameterBinder binder;
    binder.bindInputString(nullptr, -3, false);
    expectNulls(client, binder, 1);
}

TEST_P(DalTest, AnotherNegativeLengthIsBoundAsNull) {
    Client client(*manager);
    ParameterBinder binder;
    binder.bindInputString("name", -1, false);
    expectNulls(client, binder, 1);
}

TEST_P(DalTest, NullIsFetchedAsEmptyTextAndZero) {
    Client client(*manager);
    ASSERT_EQ(client.execute("INSERT INTO T VALUES (NULL, NULL)"), 0);
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(row.text(), "");
    EXPECT_EQ(row.number(), 0);
}

TEST_P(DalTest, EmptyTextIsFetchedAsEmptyText) {
    Client client(*manager);
    insert(client, "");
    EXPECT_THAT(client.select(ALL), ElementsAre(""));
}

TEST_P(DalTest, ALongTextComesBackWhole) {
    Client client(*manager);
    std::string name;
    for (int i = 0; name.size() < 31980; ++i) {
        name += std::to_string(i) + " \xC3\xA4,";
    }
    name.resize(32000, 'x');
    insert(client, name);
    ASSERT_EQ(client.execute("SELECT Name, Number FROM T WHERE Name = ?", {name}), 0);
    TwoColumns row(32001);
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_TRUE(row.text() == name);
    EXPECT_TRUE(row.isIntactOutside());
}

TEST_P(DalTest, ATextThatLeavesNoRoomForItsNulIsTooLong) {
    Client client(*manager);
    insert(client, std::string(32001, 'x'));
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row(32001);
    log.clear();
    EXPECT_EQ(client.fetch(row), DATABASE_VALUE_TOO_LONG);
    EXPECT_TRUE(row.isIntactOutside());
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, "DbConnection::Fetch",
                                                     "Test::caller: column 1 (Name) does not fit into 32001 bytes"}));
}

TEST_P(DalTest, ATextCutShortIsAFailureAlsoIfWholeValuesAreNotAskedFor) {
    Client client(*manager);
    insert(client, "0123456789");
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row(10);
    EXPECT_EQ(client.connection().Fetch(client.view(), row.buffer.data(), row.buffer.size(), row.columns.data(), 2,
                                        nullptr, false, true),
              DATABASE_VALUE_TOO_LONG);
    EXPECT_TRUE(row.isIntactOutside());
}

TEST_P(DalTest, ATextThatJustFitsIsFetched) {
    Client client(*manager);
    insert(client, "0123456789");
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row(11);
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(row.text(), "0123456789");
    EXPECT_TRUE(row.isIntactOutside());
}

TEST_P(DalTest, TheLimitsOfAnIntegerAreFetched) {
    Client client(*manager);
    insert(client, "least", "-2147483648");
    insert(client, "most", "2147483647");
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(row.number(), INT32_MIN);
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(row.number(), INT32_MAX);
}

TEST_P(DalTest, AnIntegerOutOfRangeIsUnusable) {
    for (const char* number :
         {"2147483648", "-2147483649", "9223372036854775807", "'0000000000000000000000000000000000000017'"}) {
        Client client(*manager);
        ASSERT_EQ(client.execute("SELECT 'x', " + std::string(number)), 0);
        TwoColumns row;
        log.clear();
        EXPECT_EQ(client.fetch(row), DATABASE_VALUE_UNUSABLE) << number;
        EXPECT_TRUE(row.isIntactOutside());
        EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, "DbConnection::Fetch",
                                                         "Test::caller: column 2 (Number) is not a 32-bit integer"}));
    }
}

TEST_P(DalTest, AnythingElseIsNotAnInteger) {
    for (const char* value : {"'abc'", "'5 '", "''", "'5x'", "1.5", "'+5'"}) {
        Client client(*manager);
        ASSERT_EQ(client.execute("SELECT 'x', " + std::string(value)), 0);
        TwoColumns row;
        EXPECT_EQ(client.fetch(row), DATABASE_VALUE_UNUSABLE) << value;
    }
}

TEST_P(DalTest, AnUnknownTableIsAFailedStatement) {
    Client client(*manager);
    EXPECT_EQ(client.execute("SELECT Name, Number FROM Nowhere"), DATABASE_STATEMENT_FAILED);
    const std::vector<LogLine> errors = log.linesAt(16);
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_EQ(errors[0].tag, "DbConnection::Execute");
    EXPECT_THAT(errors[0].message, testing::StartsWith(GetParam() == Kind::SQLITE ? "Test::caller: HY000 [SQLite]"
                                                                                  : "Test::caller: 42P01 ERROR:"));
}

TEST_P(DalTest, AConnectionIsUsableAfterAFailedStatement) {
    Client client(*manager);
    insert(client, "name");
    EXPECT_EQ(client.execute("SELECT Name, Number FROM Nowhere WHERE X = ?", {"x"}), DATABASE_STATEMENT_FAILED);
    EXPECT_THAT(client.select(ALL), ElementsAre("name"));
    EXPECT_EQ(count(log.lines(), OPENED), 0);
}

TEST_P(DalTest, AStatementThatTouchesNoRowSucceeds) {
    Client client(*manager);
    EXPECT_EQ(client.execute("DELETE FROM T WHERE Name = ?", {"nobody"}), 0);
    EXPECT_EQ(client.execute("UPDATE T SET Number = 2"), 0);
}

TEST_P(DalTest, AStatementIsCommittedAtOnce) {
    Client client(*manager);
    insert(client, "name");
    Client other(*manager);
    EXPECT_THAT(other.select(ALL), ElementsAre("name"));
}

TEST_P(DalTest, AViewIsGoodForOneStatementAfterAnother) {
    Client client(*manager);
    insert(client, "a", "1");
    insert(client, "b", "2");
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_THAT(client.select("SELECT Name, Number FROM T WHERE Name = ?", {"b"}), ElementsAre("b"));
    EXPECT_THAT(client.select(ALL), ElementsAre("a", "b"));
}

TEST_P(DalTest, TwoViewsOfOneConnectionHaveTheirOwnRows) {
    Client client(*manager);
    insert(client, "a", "1");
    insert(client, "b", "2");
    DbConnectionView second(client.connection().Execute(client.view(), ALL, nullptr, 6, "first", false, true) == 0
                                ? &client.connection()
                                : nullptr);
    ASSERT_EQ(second.status(), 0);
    ASSERT_EQ(client.connection().Execute(second.view(), "SELECT 'x', 9", nullptr, 6, "second", false, true), 0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(row.text(), "a");
    unsigned long fetched = 0;
    ASSERT_EQ(client.connection().Fetch(second.view(), row.buffer.data(), row.buffer.size(), row.columns.data(), 2,
                                        &fetched, true, true),
              0);
    EXPECT_EQ(row.text(), "x");
    ASSERT_EQ(client.fetch(row), 0);
    EXPECT_EQ(row.text(), "b");
}

TEST_P(DalTest, RowsDroppedAfterTheFirstAreNotFetched) {
    Client client(*manager);
    insert(client, "a", "1");
    insert(client, "b", "2");
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row;
    ASSERT_EQ(client.fetch(row, true), 0);
    EXPECT_EQ(row.text(), "a");
    EXPECT_EQ(client.fetch(row), DATABASE_END_OF_ROWS);
}

TEST_P(DalTest, RowsLeftByAViewDoNotKeepOthersFromWriting) {
    Client client(*manager);
    insert(client, "a", "1");
    insert(client, "b", "2");
    {
        Client reader(*manager);
        ASSERT_EQ(reader.execute(ALL), 0);
        TwoColumns row;
        ASSERT_EQ(reader.fetch(row), 0);
    }
    EXPECT_EQ(client.execute("DROP TABLE T"), 0);
}

TEST_P(DalTest, DescribingAnotherNumberOfColumnsIsMisuse) {
    Client client(*manager);
    insert(client, "a");
    ASSERT_EQ(client.execute("SELECT Name FROM T"), 0);
    TwoColumns row;
    log.clear();
    EXPECT_EQ(client.fetch(row), DATABASE_MISUSED);
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, "DbConnection::Fetch",
                                                     "Test::caller: 2 columns are described, the result has 1"}));
}

TEST_P(DalTest, FetchingFromAStatementWithoutResultIsMisuse) {
    Client client(*manager);
    insert(client, "a");
    TwoColumns row;
    EXPECT_EQ(client.fetch(row), DATABASE_MISUSED);
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, "DbConnection::Fetch",
                                                     "Test::caller: 2 columns are described, the result has 0"}));
}

const LogLine NOTHING_EXECUTED{16, "DbConnection::Fetch", "no statement was executed"};

TEST_P(DalTest, FetchingBeforeAnythingIsExecutedIsMisuse) {
    Client client(*manager);
    TwoColumns row;
    EXPECT_EQ(client.fetch(row), DATABASE_MISUSED);
    EXPECT_THAT(log.linesAt(16), ElementsAre(NOTHING_EXECUTED));
}

TEST_P(DalTest, FetchingAfterAFailedStatementIsMisuse) {
    Client client(*manager);
    ASSERT_EQ(client.execute("SELECT Name, Number FROM Nowhere"), DATABASE_STATEMENT_FAILED);
    TwoColumns row;
    log.clear();
    EXPECT_EQ(client.fetch(row), DATABASE_MISUSED);
    EXPECT_THAT(log.linesAt(16), ElementsAre(NOTHING_EXECUTED));
}

TEST_P(DalTest, AColumnThatIsNotWithinTheRowIsMisuse) {
    Client client(*manager);
    insert(client, "a");
    const std::uint32_t size = 132 + 32;
    const auto statusWith = [&](std::size_t column, std::uint32_t offset, std::uint32_t columnSize) {
        EXPECT_EQ(client.execute(ALL), 0);
        TwoColumns row;
        EXPECT_EQ(row.buffer.size(), size);
        row.columns[column].offset = offset;
        row.columns[column].size = columnSize;
        return client.fetch(row);
    };
    EXPECT_EQ(statusWith(0, size - 10, 10), 0);
    EXPECT_EQ(statusWith(0, size - 10, 11), DATABASE_MISUSED);
    EXPECT_EQ(statusWith(0, size, 0), DATABASE_MISUSED);
    EXPECT_EQ(statusWith(0, UINT32_MAX, 10), DATABASE_MISUSED);
    EXPECT_EQ(statusWith(0, 10, UINT32_MAX), DATABASE_MISUSED);
    EXPECT_EQ(statusWith(1, size - 4, 4), 0);
    EXPECT_EQ(statusWith(1, size - 3, 4), DATABASE_MISUSED);
    EXPECT_EQ(statusWith(1, 0, 3), DATABASE_MISUSED);
    const auto misuse = [](const std::string& column) {
        return LogLine{16, "DbConnection::Fetch", "column " + column + " is of an unknown kind or not within the row"};
    };
    EXPECT_THAT(log.linesAt(16),
                ElementsAre(misuse("1"), misuse("1"), misuse("1"), misuse("1"), misuse("2"), misuse("2")));
}

TEST_P(DalTest, AnUnknownKindIsMisuse) {
    Client client(*manager);
    ASSERT_EQ(client.execute(ALL), 0);
    TwoColumns row;
    row.columns[0].kind = 993U << 16;
    EXPECT_EQ(client.fetch(row), DATABASE_MISUSED);
    ParameterBinder binder;
    binder.bindInputString("x", -3, false);
    binder.get()->kind = DalOdbcView::KIND_INT32 << 16;
    EXPECT_EQ(client.execute("SELECT ?, 1", binder), DATABASE_MISUSED);
    EXPECT_THAT(log.linesAt(16),
                ElementsAre(LogLine{16, "DbConnection::Fetch", "column 1 is of an unknown kind or not within the row"},
                            LogLine{16, "DbConnection::Execute", "a parameter is of an unknown kind"}));
}

TEST_P(DalTest, NullPointersAreMisuse) {
    Client client(*manager);
    DbConnection& connection = client.connection();
    TwoColumns row;
    EXPECT_EQ(connection.Execute(nullptr, ALL, nullptr, 6, "x", false, true), DATABASE_MISUSED);
    EXPECT_EQ(connection.Execute(client.view(), nullptr, nullptr, 6, "x", false, true), DATABASE_MISUSED);
    EXPECT_EQ(connection.Execute(client.view(), ALL, nullptr, 6, nullptr, false, true), 0);
    EXPECT_EQ(connection.Fetch(nullptr, row.buffer.data(), 10, row.columns.data(), 0, nullptr, true, true),
              DATABASE_MISUSED);
    EXPECT_EQ(connection.Fetch(client.view(), nullptr, 10, row.columns.data(), 2, nullptr, true, true),
              DATABASE_MISUSED);
    EXPECT_EQ(connection.Fetch(client.view(), row.buffer.data(), 10, nullptr, 2, nullptr, true, true),
              DATABASE_MISUSED);
    EXPECT_EQ(SSRGuard(nullptr).status(), DATABASE_MISUSED);
    EXPECT_EQ(SSRGuard(nullptr).connection(), nullptr);
    EXPECT_EQ(DbConnectionView(nullptr).status(), DATABASE_MISUSED);
    EXPECT_EQ(DbConnectionView(nullptr).view(), nullptr);
    const auto misuse = [](const char* tag) { return LogLine{16, tag, "a null pointer is passed"}; };
    EXPECT_THAT(log.linesAt(16), ElementsAre(misuse("DbConnection::Execute"), misuse("DbConnection::Execute"),
                                             misuse("DbConnection::Fetch"), misuse("DbConnection::Fetch"),
                                             misuse("DbConnection::Fetch"), misuse("SSRGuard"), misuse("SSRGuard"),
                                             misuse("DbConnectionView"), misuse("DbConnectionView")));
}

TEST_P(DalTest, AConnectionIsUsedAgain) {
    log.clear();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Client(*manager).status(), 0);
    }
    EXPECT_EQ(count(log.lines(), OPENED), 0);
    EXPECT_EQ(count(log.lines(), CLOSED), 0);
}

TEST_P(DalTest, WhoWaitsInVainForAConnectionIsToldSo) {
    const Client first(*manager);
    const Client second(*manager);
    const auto begin = steady_clock::now();
    const Client third(*manager);
    EXPECT_EQ(third.status(), DATABASE_BUSY);
    EXPECT_GE(steady_clock::now() - begin, seconds(1));
    EXPECT_LT(steady_clock::now() - begin, seconds(3));
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, "DbConnectionManager::acquire",
                                                     "none of 2 connections became free within 1 seconds"}));
}

TEST_P(DalTest, WhoWaitsGetsTheConnectionThatBecomesFree) {
    ManagerNumbers numbers;
    numbers.maximumConnections = 1;
    numbers.acquireTimeoutSeconds = 0;
    manager = makeManager(numbers);
    auto first = std::make_unique<Client>(*manager);
    ASSERT_EQ(first->status(), 0);
    auto second = std::async(std::launch::async, [&] { return Client(*manager).status(); });
    EXPECT_EQ(second.wait_for(milliseconds(50)), std::future_status::timeout);
    first.reset();
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(count(log.lines(), OPENED), 1);
}

TEST_P(DalTest, InitialConnectionsAreOpenedAtOnce) {
    ManagerNumbers numbers;
    numbers.initialConnections = 2;
    const auto eager = makeManager(numbers);
    EXPECT_EQ(count(log.lines(), OPENED), 2);
    EXPECT_TRUE(eager->connectionEstablished());
}

TEST_P(DalTest, WithoutInitialConnectionsNoneIsEstablished) {
    const auto lazy = makeManager();
    EXPECT_FALSE(lazy->connectionEstablished());
    EXPECT_EQ(Client(*lazy).status(), 0);
    EXPECT_TRUE(lazy->connectionEstablished());
}

TEST_P(DalTest, ConnectionsAreClosedWithTheirManager) {
    const int before = openDescriptorCount();
    {
        ManagerNumbers numbers;
        numbers.initialConnections = 2;
        const auto brief = makeManager(numbers);
        EXPECT_GT(openDescriptorCount(), before);
    }
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_EQ(count(log.lines(), CLOSED), 2);
}

TEST_P(DalTest, WhatIsExecutedOnEveryConnectionIsExecutedInOrder) {
    use(R"sql("CREATE TEMPORARY TABLE Mine (Name TEXT, Number INT)", "INSERT INTO Mine VALUES ('own', 3)")sql");
    Client first(*manager);
    Client second(*manager);
    EXPECT_THAT(first.select("SELECT Name, Number FROM Mine"), ElementsAre("own"));
    EXPECT_THAT(second.select("SELECT Name, Number FROM Mine"), ElementsAre("own"));
}

TEST_P(DalTest, WithoutWhatIsExecutedOnEveryConnectionThereIsNone) {
    use(R"sql("SELECT 1", "SELECT * FROM Nowhere_Secret")sql");
    EXPECT_EQ(Client(*manager).status(), DATABASE_UNREACHABLE);
    EXPECT_FALSE(manager->connectionEstablished());
    const std::vector<LogLine> errors = log.linesAt(16);
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_EQ(errors[0].tag, "DbConnectionManager::connect");
    EXPECT_THAT(errors[0].message, testing::StartsWith(R"(statement 2 of "authDatabase.onConnect": )"));
}

TEST_P(DalTest, ConnectionsOfOldSettingsAreReplaced) {
    {
        const Client first(*manager);
        const Client second(*manager);
    }
    use(R"sql("CREATE TEMPORARY TABLE Mine (Name TEXT, Number INT)")sql");
    log.clear();
    Client client(*manager);
    EXPECT_THAT(client.select("SELECT Name, Number FROM Mine"), IsEmpty());
    EXPECT_EQ(count(log.lines(), CLOSED), 2);
    EXPECT_EQ(count(log.lines(), OPENED), 1);
}

TEST_P(DalTest, SettingsWithoutAConnectionStringAreReported) {
    settings.write("{}");
    EXPECT_EQ(Client(*manager).status(), DATABASE_NOT_CONFIGURED);
    EXPECT_THAT(log.linesAt(16),
                ElementsAre(LogLine{16, "DbConnectionManager::acquire",
                                    "settings file " + settings.path() + " has no \"authDatabase.connectionString\""}));
}

TEST_P(DalTest, SettingsThatCannotBeUsedAreReported) {
    settings.write("[]");
    EXPECT_EQ(Client(*manager).status(), SETTINGS_DAMAGED);
    EXPECT_THAT(log.linesAt(16),
                ElementsAre(LogLine{16, "DbConnectionManager::acquire",
                                    "Error reading settings file " + settings.path() + ": it is not a JSON object"}));
}

TEST_P(DalTest, ADriverThatIsNotThereIsUnreachable) {
    settings.write(databaseSettings("Driver=/nowhere/libnone.so;Database=x;PWD=some-secret"));
    ManagerNumbers numbers;
    numbers.connectRetries = 2;
    numbers.retryDelaySeconds = 0;
    manager = makeManager(numbers);
    EXPECT_EQ(Client(*manager).status(), DATABASE_UNREACHABLE);
    EXPECT_FALSE(manager->connectionEstablished());
    const std::vector<LogLine> errors = log.linesAt(16);
    EXPECT_THAT(errors, SizeIs(3));
    for (const LogLine& line : errors) {
        EXPECT_THAT(line.message, Not(HasSubstr("some-secret")));
    }
    EXPECT_THAT(log.linesAt(8),
                ElementsAre(LogLine{8, "DbConnectionManager::connect", "trying again in 0 seconds, 2 more times"},
                            LogLine{8, "DbConnectionManager::connect", "trying again in 0 seconds, 1 more times"}));
}

TEST_P(DalTest, TheStatementIsLogged) {
    Client client(*manager);
    ParameterBinder binder;
    binder.bindInputString("name", -3, false);
    binder.bindInputString(nullptr, -3, false);
    log.clear();
    ASSERT_EQ(client.connection().Execute(client.view(), "INSERT INTO T VALUES (?, CAST(? AS INT))", binder.get(), 6,
                                          "Test::caller", false, false),
              0);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(LogLine{2, "DbConnection::Execute", "Test::caller: INSERT INTO T VALUES (?, CAST(? AS INT))"},
                    LogLine{2, "DbConnection::Execute", "Test::caller: with parameters of these lengths: 4, NULL"}));
}

TEST_P(DalTest, OfConfidentialParametersNotEvenTheLengthIsLogged) {
    Client client(*manager);
    log.clear();
    insert(client, "name");
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{2, "DbConnection::Execute", "Test::caller: INSERT INTO T VALUES (?, 1)"}));
}

TEST_P(DalTest, AChildHasConnectionsOfItsOwn) {
    {
        Client client(*manager);
        insert(client, "name");
    }
    ChildProcess child([&] {
        Client client(*manager);
        const bool isRight = client.status() == 0 && client.select(ALL) == std::vector<std::string>{"name"};
        return isRight && count(log.lines(), OPENED) == 1 ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_THAT(Client(*manager).select(ALL), ElementsAre("name"));
    EXPECT_EQ(count(log.lines(), OPENED), 0);
}

TEST_P(DalTest, ChildrenForkedWhileThreadsQueryHaveConnectionsOfTheirOwn) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's allocator stays locked in a child of several threads";
#endif
    manager = makeManager({0, 3, 0, 0, 0, 30, 30, true});
    std::atomic<bool> isDone{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (!isDone) {
                EXPECT_THAT(Client(*manager).select(ALL), IsEmpty());
            }
        });
    }
    for (int n = 0; n < 10; ++n) {
        ChildProcess child([&] {
            setLogSink({});  // another thread may have been in the one of the parent
            return Client(*manager).execute(ALL);
        });
        EXPECT_EQ(child.wait(), 0);
    }
    isDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_P(DalTest, AChildMayDestroyItsParentsManager) {
    { const Client client(*manager); }
    ChildProcess child([&] {
        manager.reset();
        return count(log.lines(), CLOSED) == 0 ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_THAT(Client(*manager).select(ALL), IsEmpty());
}

TEST_P(DalTest, AGuardOfTheParentsIsOfNoUseToAChild) {
    auto client = std::make_unique<Client>(*manager);
    insert(*client, "name");
    ChildProcess child([&] {
        log.clear();
        if (client->execute(ALL) != DATABASE_CONNECTION_LOST) {
            return 1;
        }
        TwoColumns row;
        if (client->fetch(row) != DATABASE_CONNECTION_LOST) {
            return 2;
        }
        const LogLine notExecuted{16, "DbConnection::Execute",
                                  "Test::caller: the connection belongs to the parent process"};
        const LogLine notFetched{16, "DbConnection::Fetch",
                                 "the connection on which the statement was executed is gone"};
        if (log.linesAt(16) != std::vector<LogLine>{notExecuted, notFetched}) {
            return 3;
        }
        client.reset();
        return Client(*manager).status();
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_THAT(client->select(ALL), ElementsAre("name"));
}

INSTANTIATE_TEST_SUITE_P(Databases, DalTest, testing::Values(Kind::SQLITE, Kind::POSTGRES, Kind::POSTGRES_ANSI),
                         [](const testing::TestParamInfo<Kind>& kind) {
                             switch (kind.param) {
                                 case Kind::SQLITE:
                                     return "Sqlite";
                                 case Kind::POSTGRES:
                                     return "Postgres";
                                 default:
                                     return "PostgresAnsi";
                             }
                         });

}  // namespace
