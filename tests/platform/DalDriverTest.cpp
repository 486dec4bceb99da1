#include "DalFixture.h"
#include "testing/ChildProcess.h"

#include <dlfcn.h>
#include <sql.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <utility>

// When and where the driver manager is called. Its functions have others in front of them in this program.

namespace {

using namespace platform_status;
using namespace Tesmor::Dal;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing_support::ChildProcess;
using testing_support::LogCapture;
using testing_support::Signal;
using testing_support::TemporaryDirectory;

// What is done before each call.
std::function<void()> beforeDisconnecting;
std::function<void()> beforeFreeingAnEnvironment;

template <class Function>
Function* driverManagers(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

class DalDriverTest : public testing::Test {
public:
    DalDriverTest() { settings.write(databaseSettings(sqliteConnectionString(directory / "database"))); }
    ~DalDriverTest() override {
        beforeDisconnecting = nullptr;
        beforeFreeingAnEnvironment = nullptr;
    }
    DalDriverTest(const DalDriverTest&) = delete;
    DalDriverTest& operator=(const DalDriverTest&) = delete;

    LogCapture log;
    TemporaryDirectory directory;
    SettingsFixture settings;
};

/// How long a fork takes here.
steady_clock::duration timeToFork() {
    const auto begin = steady_clock::now();
    ChildProcess child([] { return 0; });
    const auto taken = steady_clock::now() - begin;
    child.wait();
    return taken;
}

}  // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the header's names are reserved or abbreviated

__attribute__((visibility("default"))) SQLRETURN SQL_API SQLDisconnect(SQLHDBC connection) {
    if (beforeDisconnecting) {
        beforeDisconnecting();
    }
    static auto* const real = driverManagers<decltype(SQLDisconnect)>("SQLDisconnect");
    return real(connection);
}

__attribute__((visibility("default"))) SQLRETURN SQL_API SQLFreeHandle(SQLSMALLINT type, SQLHANDLE handle) {
    if (type == SQL_HANDLE_ENV && beforeFreeingAnEnvironment) {
        beforeFreeingAnEnvironment();
    }
    static auto* const real = driverManagers<decltype(SQLFreeHandle)>("SQLFreeHandle");
    return real(type, handle);
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)

TEST_F(DalDriverTest, ClosingWhatCouldNotBeSetUpIsNotWaitedForWithoutEnd) {
    settings.write(databaseSettings(sqliteConnectionString(directory / "database"), "\"SELECT * FROM Nowhere\""));
    Signal isOver;
    Signal isClosed;
    std::atomic<int> calls{0};
    // The first is that of connecting.
    beforeDisconnecting = [&] {
        if (++calls == 2) {
            isOver.waitFor(20'000);
            isClosed.notify();
        }
    };
    const auto manager = makeManager();
    const auto begin = steady_clock::now();
    EXPECT_EQ(Client(*manager).status(), DATABASE_UNREACHABLE);
    EXPECT_EQ(calls, 2);
    EXPECT_LT(steady_clock::now() - begin, seconds(10));
    isOver.notify();
    EXPECT_TRUE(isClosed.waitFor(20'000));
}

TEST_F(DalDriverTest, AForkWaitsWhileAnEnvironmentIsFreed) {
    auto manager = makeManager();
    EXPECT_EQ(Client(*manager).status(), 0);
    steady_clock::duration taken{};
    beforeFreeingAnEnvironment = [&] { taken = timeToFork(); };
    manager.reset();
    EXPECT_GE(taken, milliseconds(50));
}
