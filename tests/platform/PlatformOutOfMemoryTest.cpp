#include "SettingsFixture.h"
#include "testing/OutOfMemory.h"
#include "testing/SilentLog.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <platform/Installation.h>
#include <platform/Logger.h>
#include <platform/Text.h>

#include <gmock/gmock.h>
#include <jansson.h>
#include <sys/time.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>

// Every allocation of locks, texts, settings and the log fails in turn, jansson's too.

using testing::ElementsAre;
using testing::IsSubsetOf;
using testing_support::BAD_ALLOC;
using testing_support::endingsWithoutMemory;

namespace {

constexpr int WRONG = 99;
using platform_status::SETTINGS_DAMAGED;
using platform_status::SETTINGS_UNREADABLE;

[[maybe_unused]] const bool JANSSON_FAILS_TOO = [] {
    json_set_alloc_funcs(testing_support::allocateForJansson, testing_support::releaseForJansson);
    return true;
}();

int rightIf(bool isRight) {
    return isRight ? 0 : WRONG;
}

class PlatformOutOfMemory : public testing::Test {
protected:
    /// Lets the next call read the settings file.
    void readAnew() const { utimes(settings_.path().c_str(), nullptr); }

    testing_support::TemporaryDirectory directory_;
    SettingsFixture settings_{R"({"primaryServer":"primary.example"})"};
};

}  // namespace

TEST_F(PlatformOutOfMemory, LocksAreAnExceptionAndLeaveNobodyLockedOut) {
    const testing_support::SilentLog log;
    const std::string path = directory_ / "a lock with a name of some length";
    EXPECT_THAT(endingsWithoutMemory(
                    [&] {
                        const FileLock lock = FileLockManager::instance().getLock(path);
                        { const FileLockGuard shared(lock, FileLockGuard::SHARED, -1, FileLock::DEFAULT_INTERVAL); }
                        const FileLockGuard guard(lock, FileLockGuard::EXCLUSIVE, 0, FileLock::DEFAULT_INTERVAL);
                        return 0;
                    },
                    [&] {
                        EXPECT_NO_THROW(FileLockGuard(FileLockManager::instance().getLock(path),
                                                      FileLockGuard::EXCLUSIVE, 0, FileLock::DEFAULT_INTERVAL));
                    }),
                ElementsAre(BAD_ALLOC));
}

TEST_F(PlatformOutOfMemory, TextsAreRightOrAStatusOrAnException) {
    const testing_support::SilentLog log;
    const std::string plain = "a text of some length with | and %";
    EXPECT_THAT(endingsWithoutMemory([&] {
                    std::string encoded;
                    std::string decoded;
                    if (const int status = percentEncodeUriPart(plain, encoded); status != 0) {
                        return status;
                    }
                    const int status = percentDecodeUriPart(encoded, decoded);
                    return status != 0 ? status : rightIf(decoded == plain);
                }),
                ElementsAre(BAD_ALLOC));
    EXPECT_THAT(endingsWithoutMemory([] { return rightIf(!getECmsg(platform_status::LOCK_TIMED_OUT).empty()); }),
                ElementsAre(BAD_ALLOC));
}

TEST_F(PlatformOutOfMemory, ErrorCodeOfAnAnswerIsRightOrAStatus) {
    const testing_support::SilentLog log;
    const std::string body = R"({"errorCode":5003,"errorMessage":"a message of some length"})";
    EXPECT_THAT(endingsWithoutMemory([&] {
                    int code = 0;
                    const int status = extractErrorFromJSON(body, code);
                    return status != 0 ? BAD_ALLOC : rightIf(code == 5003);
                }),
                IsSubsetOf({BAD_ALLOC, 0}));
}

// The text of a failure is kept until the file is read again, so here nothing is counted.
TEST_F(PlatformOutOfMemory, SettingsAreRightOrAStatusAndKeepEnforcementOn) {
    const testing_support::SilentLog log;
    std::array<char, 100> name{};
    int status = 0;
    bool isEnforced = false;
    const auto ask = [&] {
        readAnew();
        isEnforced = true;
        status = SETTINGS_UNREADABLE;
        status = db_getservernameEx(name.data(), name.size());
        isEnforced = secondGenerationEnforcementEnabled();
    };
    const auto look = [&] {
        EXPECT_TRUE(isEnforced);
        EXPECT_THAT(status, testing::AnyOf(0, SETTINGS_UNREADABLE, SETTINGS_DAMAGED));
        EXPECT_TRUE(status != 0 || std::string(name.data()) == "primary.example");
    };
    EXPECT_GT(testing_support::failEachAllocation(ask, look), 2);
    EXPECT_GT(testing_support::failEachOnce(ask, [&](bool /*thrown*/) { look(); }), 2);
    EXPECT_EQ(status, 0);
}

TEST_F(PlatformOutOfMemory, LogThrowsNothing) {
    const std::string file = directory_ / "log";
    settings_.replace(R"({"log":{"file":")" + file + "\"}}");
    // A settings file that has just changed is read again every time, for one tick of the clock.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_THAT(endingsWithoutMemory([] {
                    logmsgf(16, "a tag of some length", "%s", "a message of some length, longer than a short string");
                    logmsg(16, "a tag", "a text");
                    return 0;
                }),
                IsSubsetOf({0}));
}
