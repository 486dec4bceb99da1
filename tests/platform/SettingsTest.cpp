#include "SettingsFixture.h"
#include "platform/Settings.h"

#include <platform/Status.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

namespace {

using namespace std::chrono_literals;
using platform_detail::currentSettings;
using platform_detail::Settings;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::ScopedEnvironment;

struct stat statusOf(const std::string& path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) {
        throw std::runtime_error("cannot stat " + path);
    }
    return file;
}

/// Whether the clock that files are stamped by is still in the tick in which the file was changed.
bool isJustChanged(const std::string& path) {
    const timespec changed = statusOf(path).st_ctim;
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return now.tv_sec < changed.tv_sec || (now.tv_sec == changed.tv_sec && now.tv_nsec <= changed.tv_nsec);
}

void outliveTheTick(const std::string& path) {
    while (isJustChanged(path)) {
        sched_yield();
    }
}

std::string server(const std::string& name) {
    return R"({"primaryServer": ")" + name + R"("})";
}

void expectDefaults(const Settings& settings) {
    EXPECT_EQ("", settings.primaryServer);
    EXPECT_TRUE(settings.secondGeneration);
    EXPECT_EQ("", settings.tls.caFile);
    EXPECT_EQ("", settings.tls.certFile);
    EXPECT_EQ("", settings.tls.keyFile);
    EXPECT_EQ("", settings.authDatabase.connectionString);
    EXPECT_THAT(settings.authDatabase.onConnect, IsEmpty());
    EXPECT_EQ(10000ms, settings.http.connectTimeout);
    EXPECT_EQ(60000ms, settings.http.timeout);
    EXPECT_EQ(268435456U, settings.http.maxResponseBytes);
    EXPECT_EQ("", settings.log.file);
    EXPECT_EQ(8, settings.log.level);
    EXPECT_EQ(0, settings.log.debugLevel);
}

TEST(Settings, HaveTheirDefaultsInAnEmptyObject) {
    const SettingsFixture file("{}");
    const auto settings = currentSettings();
    EXPECT_EQ(0, settings->status);
    EXPECT_EQ("", settings->error);
    expectDefaults(*settings);
}

TEST(Settings, AreReadFromEveryMember) {
    const SettingsFixture file(R"({
        "primaryServer": "primary.example",
        "accessEnforcement": "gen1",
        "tls": { "caFile": "/ca.pem", "certFile": "/cert.pem", "keyFile": "/key.pem" },
        "authDatabase": { "connectionString": "Driver=x;", "onConnect": ["ATTACH 1", "ATTACH 2"] },
        "http": { "connectTimeoutMs": 1, "timeoutMs": 2, "maxResponseBytes": 4294967296 },
        "log": { "file": "/log", "level": 2, "debugLevel": 6 }
    })");
    const auto settings = currentSettings();
    EXPECT_EQ(0, settings->status);
    EXPECT_EQ(file.path(), settings->path);
    EXPECT_EQ("primary.example", settings->primaryServer);
    EXPECT_FALSE(settings->secondGeneration);
    EXPECT_EQ("/ca.pem", settings->tls.caFile);
    EXPECT_EQ("/cert.pem", settings->tls.certFile);
    EXPECT_EQ("/key.pem", settings->tls.keyFile);
    EXPECT_EQ("Driver=x;", settings->authDatabase.connectionString);
    EXPECT_THAT(settings->authDatabase.onConnect, ElementsAre("ATTACH 1", "ATTACH 2"));
    EXPECT_EQ(1ms, settings->http.connectTimeout);
    EXPECT_EQ(2ms, settings->http.timeout);
    EXPECT_EQ(4294967296U, settings->http.maxResponseBytes);
    EXPECT_EQ("/log", settings->log.file);
    EXPECT_EQ(2, settings->log.level);
    EXPECT_EQ(6, settings->log.debugLevel);
}

TEST(Settings, IgnoreMembersThatTheyDoNotKnow) {
    const SettingsFixture file(R"({"primaryServer": "a", "extra": [1], "log": {"extra": null}})");
    EXPECT_EQ(0, currentSettings()->status);
    EXPECT_EQ("a", currentSettings()->primaryServer);
}

TEST(Settings, AreTheSameWhileTheFileDoesNotChange) {
    const SettingsFixture file(server("a"));
    outliveTheTick(file.path());
    const auto before = currentSettings();
    EXPECT_EQ(before, currentSettings());
}

TEST(Settings, AreReadAgainWhenTheFileChanges) {
    SettingsFixture file(server("a"));
    EXPECT_EQ("a", currentSettings()->primaryServer);
    file.write(server("other"));
    EXPECT_EQ("other", currentSettings()->primaryServer);
}

TEST(Settings, AreReadAgainAfterAChangeOfTheSameSizeInTheSameInstant) {
    SettingsFixture file;
    for (int i = 100; i < 400; ++i) {
        file.write(server(std::to_string(i)));
        ASSERT_EQ(std::to_string(i), currentSettings()->primaryServer);
    }
}

TEST(Settings, AreReadAgainAsLongAsAnotherChangeCouldGoUnseen) {
    SettingsFixture file;
    std::shared_ptr<const Settings> early;
    do {
        file.write(server("a"));
        early = currentSettings();
    } while (!isJustChanged(file.path()));
    EXPECT_NE(early, currentSettings());
}

TEST(Settings, AreReadAgainAfterAChangeThatKeepsSizeAndTimeOfModification) {
    SettingsFixture file(server("a"));
    outliveTheTick(file.path());
    EXPECT_EQ("a", currentSettings()->primaryServer);

    const struct stat before = statusOf(file.path());
    file.write(server("b"));
    const timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(0, utimensat(AT_FDCWD, file.path().c_str(), times, 0));

    EXPECT_EQ("b", currentSettings()->primaryServer);
}

TEST(Settings, AreReadAgainWhenAnotherFileTakesThePlace) {
    SettingsFixture file(server("a"));
    outliveTheTick(file.path());
    EXPECT_EQ("a", currentSettings()->primaryServer);
    file.replace(server("b"));
    EXPECT_EQ("b", currentSettings()->primaryServer);
}

TEST(Settings, AreReadAgainWhenAnotherFileIsNamed) {
    const SettingsFixture first(server("a"));
    EXPECT_EQ("a", currentSettings()->primaryServer);
    const SettingsFixture second(server("b"));
    EXPECT_EQ("b", currentSettings()->primaryServer);
}

TEST(Settings, AreReadAgainWhenTheFileIsNamedDifferently) {
    const SettingsFixture file(server("a"));
    outliveTheTick(file.path());
    EXPECT_EQ(file.path(), currentSettings()->path);
    const std::string otherName = file.directory() / "./platform.json";
    const ScopedEnvironment named("TARVO_PLATFORM_CONFIG", otherName.c_str());
    EXPECT_EQ(otherName, currentSettings()->path);
}

TEST(Settings, ComeBackWhenAFileThatWasMissingAppears) {
    SettingsFixture file;
    file.remove();
    EXPECT_EQ(platform_status::SETTINGS_UNREADABLE, currentSettings()->status);
    file.write(server("a"));
    EXPECT_EQ(0, currentSettings()->status);
    EXPECT_EQ("a", currentSettings()->primaryServer);
}

TEST(Settings, AreLostWhenTheFileIsRemoved) {
    SettingsFixture file(R"({"accessEnforcement": "gen1"})");
    outliveTheTick(file.path());
    EXPECT_FALSE(currentSettings()->secondGeneration);
    file.remove();
    EXPECT_EQ(platform_status::SETTINGS_UNREADABLE, currentSettings()->status);
    EXPECT_TRUE(currentSettings()->secondGeneration);
}

TEST(Settings, OfADamagedFileAreTheSameUntilItChanges) {
    SettingsFixture file("[]");
    outliveTheTick(file.path());
    const auto damaged = currentSettings();
    EXPECT_EQ(platform_status::SETTINGS_DAMAGED, damaged->status);
    EXPECT_EQ(damaged, currentSettings());
    file.write("{}");
    EXPECT_EQ(0, currentSettings()->status);
}

TEST(Settings, StayValidForWhoeverHoldsThem) {
    SettingsFixture file(server("a"));
    const auto before = currentSettings();
    file.write(server("b"));
    EXPECT_EQ("b", currentSettings()->primaryServer);
    EXPECT_EQ("a", before->primaryServer);
}

TEST(Settings, LeaveNoDescriptorOpen) {
    SettingsFixture file;
    currentSettings();
    const int before = testing_support::openDescriptorCount();
    file.write(server("a"));
    EXPECT_EQ("a", currentSettings()->primaryServer);
    file.write("damaged");
    EXPECT_EQ(platform_status::SETTINGS_DAMAGED, currentSettings()->status);
    EXPECT_EQ(before, testing_support::openDescriptorCount());
}

TEST(Settings, LongerThanOneReadAreReadWhole) {
    const SettingsFixture file(server(std::string(100000, 'x')));
    EXPECT_EQ(std::string(100000, 'x'), currentSettings()->primaryServer);
}

struct Damage {
    const char* contents;
    const char* complaint;
};
void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.contents;
}

class DamagedSettings : public testing::TestWithParam<Damage> {};

TEST_P(DamagedSettings, SayWhatIsWrongAndLeaveTheDefaults) {
    const SettingsFixture file(GetParam().contents);
    const auto settings = currentSettings();
    EXPECT_EQ(platform_status::SETTINGS_DAMAGED, settings->status);
    EXPECT_EQ("Error reading settings file " + file.path() + GetParam().complaint, settings->error);
    EXPECT_EQ(file.path(), settings->path);
    expectDefaults(*settings);
}

INSTANTIATE_TEST_SUITE_P(
    NotAnObject, DamagedSettings,
    testing::Values(Damage{"", " at position 0: '[' or '{' expected near end of file"},
                    Damage{"{", " at position 1: string or '}' expected near end of file"},
                    Damage{R"({"primaryServer": "a")", " at position 21: '}' expected near end of file"},
                    Damage{R"({"primaryServer": "a"} x)", " at position 24: end of file expected near 'x'"},
                    Damage{R"({"accessEnforcement": "gen1", "accessEnforcement": "gen1"})",
                           " at position 49: duplicate object key near '\"accessEnforcement\"'"},
                    Damage{"[]", ": it is not a JSON object"}));

INSTANTIATE_TEST_SUITE_P(StringMember, DamagedSettings,
                         testing::Values(Damage{R"({"accessEnforcement": "gen1", "primaryServer": 5})",
                                                ": \"primaryServer\" is not a string"},
                                         Damage{R"({"primaryServer": null})", ": \"primaryServer\" is not a string"},
                                         Damage{R"({"tls": {"caFile": 1}})", ": \"tls.caFile\" is not a string"},
                                         Damage{R"({"tls": {"certFile": []}})", ": \"tls.certFile\" is not a string"},
                                         Damage{R"({"tls": {"keyFile": true}})", ": \"tls.keyFile\" is not a string"},
                                         Damage{R"({"authDatabase": {"connectionString": {}}})",
                                                ": \"authDatabase.connectionString\" is not a string"},
                                         Damage{R"({"primaryServer": "a", "log": {"level": 2, "file": 1}})",
                                                ": \"log.file\" is not a string"}));

INSTANTIATE_TEST_SUITE_P(ArrayMember, DamagedSettings,
                         testing::Values(Damage{R"({"authDatabase": {"onConnect": "x"}})",
                                                ": \"authDatabase.onConnect\" is not an array of strings"},
                                         Damage{R"({"authDatabase": {"onConnect": ["x", 1]}})",
                                                ": \"authDatabase.onConnect\" is not an array of strings"}));

INSTANTIATE_TEST_SUITE_P(
    NumberMember, DamagedSettings,
    testing::Values(
        Damage{R"({"http": {"connectTimeoutMs": "1"}})", ": \"http.connectTimeoutMs\" is not a positive integer"},
        Damage{R"({"http": {"connectTimeoutMs": 0}})", ": \"http.connectTimeoutMs\" is not a positive integer"},
        Damage{R"({"http": {"timeoutMs": 1.5}})", ": \"http.timeoutMs\" is not a positive integer"},
        Damage{R"({"http": {"timeoutMs": -1}})", ": \"http.timeoutMs\" is not a positive integer"},
        Damage{R"({"http": {"maxResponseBytes": null}})", ": \"http.maxResponseBytes\" is not a positive integer"},
        Damage{R"({"log": {"level": "8"}})", ": \"log.level\" is not a 32-bit integer"},
        Damage{R"({"log": {"level": 2147483648}})", ": \"log.level\" is not a 32-bit integer"},
        Damage{R"({"log": {"debugLevel": false}})", ": \"log.debugLevel\" is not a 32-bit integer"},
        Damage{R"({"log": {"debugLevel": -2147483649}})", ": \"log.debugLevel\" is not a 32-bit integer"}));

INSTANTIATE_TEST_SUITE_P(ObjectMember, DamagedSettings,
                         testing::Values(Damage{R"({"tls": "x"})", ": \"tls\" is not an object"},
                                         Damage{R"({"authDatabase": []})", ": \"authDatabase\" is not an object"},
                                         Damage{R"({"http": 1})", ": \"http\" is not an object"},
                                         Damage{R"({"log": null})", ": \"log\" is not an object"}));

TEST(UnreadableSettings, SayThatTheFileIsMissing) {
    SettingsFixture file;
    file.remove();
    const auto settings = currentSettings();
    EXPECT_EQ(platform_status::SETTINGS_UNREADABLE, settings->status);
    EXPECT_EQ("Error reading settings file " + file.path() + ": No such file or directory", settings->error);
    EXPECT_EQ(file.path(), settings->path);
    expectDefaults(*settings);
}

TEST(UnreadableSettings, SayThatADirectoryIsNoFile) {
    const SettingsFixture file;
    const ScopedEnvironment named("TARVO_PLATFORM_CONFIG", file.directory().path().c_str());
    EXPECT_EQ(platform_status::SETTINGS_UNREADABLE, currentSettings()->status);
    EXPECT_EQ("Error reading settings file " + file.directory().path() + ": it is not a regular file",
              currentSettings()->error);
}

TEST(UnreadableSettings, DoNotWaitForTheWriterOfAPipe) {
    SettingsFixture file;
    file.remove();
    ASSERT_EQ(0, mkfifo(file.path().c_str(), 0600));
    EXPECT_EQ(platform_status::SETTINGS_UNREADABLE, currentSettings()->status);
    EXPECT_EQ("Error reading settings file " + file.path() + ": it is not a regular file", currentSettings()->error);
}

}  // namespace
