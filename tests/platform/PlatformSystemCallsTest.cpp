#include "SettingsFixture.h"
#include "testing/FailingSystemCalls.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <platform/Installation.h>
#include <platform/Logger.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

// Every system call of file locks, settings and the log fails in turn.

using testing::ElementsAre;
using testing_support::AroundTheWork;
using testing_support::failEachSystemCall;
using testing_support::outcomeOf;

namespace {

// Of the clock that files are stamped by: a file that has just changed is read again every time.
constexpr std::chrono::milliseconds LONGER_THAN_A_TICK{20};

class PlatformSystemCalls : public testing::Test {
protected:
    PlatformSystemCalls() {
        std::this_thread::sleep_for(LONGER_THAN_A_TICK);
        serverName();  // by now it is read for good, and what jansson needs once is there
    }

    /// Takes the lock on a file that is there, exclusively.
    std::string lock() const {
        return outcomeOf([this] {
            const FileLockGuard guard(FileLockManager::instance().getLock(lockFile_), FileLockGuard::EXCLUSIVE, -1,
                                      FileLock::DEFAULT_INTERVAL);
        });
    }
    AroundTheWork seesWhetherItIsUnlocked() const {
        AroundTheWork around;
        around.after = [this] { return testing_support::isUnlocked(lockFile_) ? "" : ", still locked"; };
        return around;
    }

    static std::string serverName() {
        char name[100] = "";
        int status = 0;
        const std::string outcome = outcomeOf([&] { status = db_getservernameEx(name, sizeof name); });
        return std::to_string(status) + (name[0] != 0 ? " " : "") + name + ", " + outcome;
    }
    static AroundTheWork seesTheNameAfterwards() {
        AroundTheWork around;
        around.after = [] { return serverName() == "0 primary.example, done" ? "" : ", and then: " + serverName(); };
        return around;
    }

    /// Whether the line is in the log file, and if not, on the standard error stream.
    std::vector<std::string> failEachWhileALineIsLogged(int error) const {
        AroundTheWork around;
        around.before = [this] {
            static_cast<void>(std::freopen((directory_ / "stderr").c_str(), "w", stderr));
            serverName();
            setLogSink({});
        };
        around.after = [this] {
            std::string where;
            for (const char* file : {"log", "stderr"}) {
                const std::string path = directory_ / file;
                const std::string text = std::ifstream(path).good() ? testing_support::readFile(path) : "";
                where += text.find("[tag] text\n") != std::string::npos ? file : "";
                std::remove(path.c_str());
            }
            return where;
        };
        return failEachSystemCall(
            error,
            [] {
                logmsg(16, "tag", "text");
                return "";
            },
            around);
    }

    const testing_support::TemporaryDirectory directory_;
    const std::string lockFile_ = [this] {
        testing_support::writeFile(directory_ / "lock", "");
        return directory_ / "lock";
    }();
    SettingsFixture settings_{R"({"primaryServer":"primary.example","log":{"file":")" + (directory_ / "log") + "\"}}"};
};

}  // namespace

TEST_F(PlatformSystemCalls, OfAnExclusiveLockThatFailLeaveNobodyLockedOut) {
    const std::string failed = "status 9502 [FileLockGuard] cannot ";
    EXPECT_THAT(failEachSystemCall(
                    EIO, [this] { return lock(); }, seesWhetherItIsUnlocked()),
                ElementsAre("open lock: " + failed + "open lock file lock: Input/output error",
                            "stat lock: " + failed + "examine lock file lock: Input/output error",
                            "lock lock: " + failed + "lock lock file lock: Input/output error",  //
                            "stat lock: done", "stat lock: " + failed + "examine lock file lock: Input/output error",
                            "lock lock: done", "close lock: done"));
}

TEST_F(PlatformSystemCalls, OfAnExclusiveLockThatAreInterruptedAreTriedAgain) {
    const std::vector<std::string> outcomes = failEachSystemCall(
        EINTR, [this] { return lock(); }, seesWhetherItIsUnlocked());
    ASSERT_EQ(outcomes.size(), 7U);
    EXPECT_EQ(outcomes[0], "open lock: done");
    EXPECT_EQ(outcomes[2], "lock lock: done");
    EXPECT_EQ(outcomes[5], "lock lock: done");
}

TEST_F(PlatformSystemCalls, OfTheSettingsFileThatFailAreAStatusUntilTheNextCall) {
    settings_.write(testing_support::readFile(settings_.path()));  // so that it is read again
    const std::string failed = "9511, done [db_getservernameEx] Error reading settings file platform.json: ";
    EXPECT_THAT(failEachSystemCall(EIO, serverName, seesTheNameAfterwards()),
                ElementsAre("stat platform.json: 0 primary.example, done",
                            "open platform.json: " + failed + "Input/output error",
                            "stat platform.json: " + failed + "Input/output error",
                            "read platform.json: " + failed + "Input/output error",
                            "read platform.json: " + failed + "Input/output error",
                            "close platform.json: 0 primary.example, done"));
}

TEST_F(PlatformSystemCalls, ThatReadTheSettingsFileAreTriedAgainAfterASignal) {
    settings_.write(testing_support::readFile(settings_.path()));
    const std::vector<std::string> outcomes = failEachSystemCall(EINTR, serverName, seesTheNameAfterwards());
    ASSERT_EQ(outcomes.size(), 6U);
    EXPECT_EQ(outcomes[3], "read platform.json: 0 primary.example, done");
    EXPECT_EQ(outcomes[4], "read platform.json: 0 primary.example, done");
}

TEST_F(PlatformSystemCalls, OfTheLogFileThatFailSendTheLineToTheStandardErrorStream) {
    EXPECT_THAT(failEachWhileALineIsLogged(EIO),
                ElementsAre("stat platform.json: log", "open log: stderr", "write log: stderr", "close log: log"));
}

TEST_F(PlatformSystemCalls, ThatWriteTheLogFileAreTriedAgainAfterASignal) {
    EXPECT_THAT(failEachWhileALineIsLogged(EINTR), testing::Contains("write log: log"));
}
