#include "platform/DalConnectionString.h"
#include "platform/DalForkGate.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Tesmor::Dal::detail::ConnectTurn;
using Tesmor::Dal::detail::namesSqlite;

TEST(DalConnectTest, ATurnThatIsFreeIsTaken) {
    EXPECT_TRUE(ConnectTurn(steady_clock::now() + seconds(5)));
}

TEST(DalConnectTest, ATurnThatComesTooLateIsNotTaken) {
    EXPECT_FALSE(ConnectTurn(steady_clock::now() - milliseconds(1)));
    EXPECT_TRUE(ConnectTurn(steady_clock::now() + seconds(5)));
}

TEST(DalConnectTest, TheTurnOfAnotherThreadIsWaitedForUntilTheTimeIsOver) {
    const ConnectTurn own(steady_clock::now() + seconds(5));
    std::thread([] {
        const auto giveUp = steady_clock::now() + milliseconds(50);
        EXPECT_FALSE(ConnectTurn(giveUp));
        EXPECT_GE(steady_clock::now(), giveUp);
    }).join();
}

TEST(DalConnectTest, ATurnIsPassedOn) {
    { const ConnectTurn first(steady_clock::now() + seconds(5)); }
    std::thread([] { EXPECT_TRUE(ConnectTurn(steady_clock::now() + seconds(5))); }).join();
}

TEST(DalConnectTest, SqliteIsKnownByTheNameOfItsDriver) {
    EXPECT_TRUE(namesSqlite("Driver=/usr/lib/odbc/libsqlite3odbc.so;Database=x"));
    EXPECT_TRUE(namesSqlite("Database=x; DRIVER = {SQLite3}"));
}

TEST(DalConnectTest, NothingElseIsTakenForSqlite) {
    for (const char* text : {"", "DSN=sqlite", "Driver=/opt/sqlite/psqlodbcw.so;Database=sqlite",
                             "Driver=psqlodbcw.so;Driver=libsqlite3odbc.so", "Driver"}) {
        EXPECT_FALSE(namesSqlite(text)) << text;
    }
}
