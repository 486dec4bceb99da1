#include "InstallationPaths.h"
#include "SettingsFixture.h"
#include "testing/LogCapture.h"

#include <platform/Installation.h>
#include <platform/Status.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::ScopedEnvironment;

const std::string NAME = "primary.example";
const char* const NAMED = R"({"primaryServer": "primary.example"})";

std::string enforcement(const std::string& json) {
    return R"({"accessEnforcement": )" + json + "}";
}

TEST(PrimaryServerName, IsWrittenIntoTheBuffer) {
    const SettingsFixture file(NAMED);
    const LogCapture log;
    char buffer[257];
    EXPECT_EQ(0, db_getservernameEx(buffer, sizeof buffer));
    EXPECT_STREQ("primary.example", buffer);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(PrimaryServerName, MayFillTheBufferExactly) {
    const SettingsFixture file(NAMED);
    char buffer[32];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(0, db_getservernameEx(buffer, NAME.size() + 1));
    EXPECT_STREQ("primary.example", buffer);
    EXPECT_EQ('#', buffer[NAME.size() + 1]);
}

TEST(PrimaryServerName, TooLongForTheBufferLeavesAnEmptyText) {
    const SettingsFixture file(NAMED);
    const LogCapture log;
    char buffer[32];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(platform_status::SETTING_TOO_LONG, db_getservernameEx(buffer, NAME.size()));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(std::string(sizeof buffer - 1, '#'), std::string(buffer + 1, sizeof buffer - 1));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, "db_getservernameEx",
                                                 "Error reading settings file " + file.path() +
                                                     ": \"primaryServer\" is longer than 14 bytes"}));
}

TEST(PrimaryServerName, DoesNotFitIntoABufferOfNoSize) {
    const SettingsFixture file(NAMED);
    const LogCapture log;
    char untouched = '#';
    EXPECT_EQ(platform_status::SETTING_TOO_LONG, db_getservernameEx(&untouched, 0));
    EXPECT_EQ('#', untouched);
    EXPECT_EQ(platform_status::SETTING_TOO_LONG, db_getservernameEx(nullptr, 0));
}

TEST(PrimaryServerName, FollowsTheFile) {
    SettingsFixture file(NAMED);
    char buffer[257];
    EXPECT_EQ(0, db_getservernameEx(buffer, sizeof buffer));
    file.write(R"({"primaryServer": "another.example"})");
    EXPECT_EQ(0, db_getservernameEx(buffer, sizeof buffer));
    EXPECT_STREQ("another.example", buffer);
}

TEST(PrimaryServerName, IsFoundInTheInstallationWhereTheEnvironmentNamesNoFile) {
    const std::string path = TARVO_ROOT "/var/global/platform.json";
    for (const char* unnamed : {static_cast<const char*>(nullptr), ""}) {
        const ScopedEnvironment environment("TARVO_PLATFORM_CONFIG", unnamed);
        testing_support::writeFile(path, NAMED);
        char buffer[257];
        EXPECT_EQ(0, db_getservernameEx(buffer, sizeof buffer));
        EXPECT_STREQ("primary.example", buffer);
        std::remove(path.c_str());
    }
}

class UnnamedServer : public testing::TestWithParam<const char*> {};

TEST_P(UnnamedServer, IsASettingMissing) {
    const SettingsFixture file(GetParam());
    const LogCapture log;
    char buffer[257] = "before";
    EXPECT_EQ(platform_status::SETTING_MISSING, db_getservernameEx(buffer, sizeof buffer));
    EXPECT_STREQ("", buffer);
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{16, "db_getservernameEx",
                                    "Error reading settings file " + file.path() + ": \"primaryServer\" is missing"}));
}

INSTANTIATE_TEST_SUITE_P(PrimaryServerName, UnnamedServer, testing::Values("{}", R"({"primaryServer": ""})"));

TEST(SecondGenerationEnforcement, IsDisabledByGen1) {
    const SettingsFixture file(enforcement(R"("gen1")"));
    const LogCapture log;
    EXPECT_FALSE(secondGenerationEnforcementEnabled());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(SecondGenerationEnforcement, FollowsTheFile) {
    SettingsFixture file(enforcement(R"("gen1")"));
    EXPECT_FALSE(secondGenerationEnforcementEnabled());
    file.write(enforcement(R"("gen2")"));
    EXPECT_TRUE(secondGenerationEnforcementEnabled());
}

class OtherEnforcement : public testing::TestWithParam<const char*> {};

TEST_P(OtherEnforcement, IsTheSecondGeneration) {
    const SettingsFixture file(GetParam());
    const LogCapture log;
    EXPECT_TRUE(secondGenerationEnforcementEnabled());
    EXPECT_THAT(log.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(SecondGenerationEnforcement, OtherEnforcement,
                         testing::Values("{}", R"({"accessEnforcement": "gen2"})", R"({"accessEnforcement": "gen3"})",
                                         R"({"accessEnforcement": "GEN1"})", R"({"accessEnforcement": "gen1 "})",
                                         R"({"accessEnforcement": "gen"})", R"({"accessEnforcement": ""})",
                                         R"({"accessEnforcement": 1})", R"({"accessEnforcement": null})",
                                         R"({"accessEnforcement": false})", R"({"accessEnforcement": ["gen1"]})",
                                         R"({"tls": {"accessEnforcement": "gen1"}})",
                                         R"({"accessenforcement": "gen1"})"));

TEST(SecondGenerationEnforcement, AnOddValueDoesNotHideTheServersName) {
    const SettingsFixture file(R"({"accessEnforcement": 1, "primaryServer": "a"})");
    char buffer[257];
    EXPECT_EQ(0, db_getservernameEx(buffer, sizeof buffer));
    EXPECT_STREQ("a", buffer);
}

struct Unusable {
    const char* contents;  // null: no file
    int status;
    const char* complaint;
};
void PrintTo(const Unusable& unusable, std::ostream* out) {
    *out << (unusable.contents != nullptr ? unusable.contents : "(none)");
}

class UnusableSettings : public testing::TestWithParam<Unusable> {
protected:
    UnusableSettings() {
        if (GetParam().contents == nullptr) {
            file_.remove();
        } else {
            file_.write(GetParam().contents);
        }
    }

    LogLine line(const char* tag) const {
        return {16, tag, "Error reading settings file " + file_.path() + GetParam().complaint};
    }

private:
    SettingsFixture file_;
};

TEST_P(UnusableSettings, KeepEnforcementOnAndAreLogged) {
    const LogCapture log;
    EXPECT_TRUE(secondGenerationEnforcementEnabled());
    EXPECT_THAT(log.lines(), ElementsAre(line("secondGenerationEnforcementEnabled")));
}

TEST_P(UnusableSettings, NameNoServerAndAreLogged) {
    const LogCapture log;
    char buffer[257] = "before";
    EXPECT_EQ(GetParam().status, db_getservernameEx(buffer, sizeof buffer));
    EXPECT_STREQ("", buffer);
    EXPECT_THAT(log.lines(), ElementsAre(line("db_getservernameEx")));
}

TEST_P(UnusableSettings, AreLoggedEveryTime) {
    const LogCapture log;
    EXPECT_TRUE(secondGenerationEnforcementEnabled());
    EXPECT_TRUE(secondGenerationEnforcementEnabled());
    EXPECT_THAT(log.lines(),
                ElementsAre(line("secondGenerationEnforcementEnabled"), line("secondGenerationEnforcementEnabled")));
}

INSTANTIATE_TEST_SUITE_P(
    Installation, UnusableSettings,
    testing::Values(Unusable{nullptr, platform_status::SETTINGS_UNREADABLE, ": No such file or directory"},
                    Unusable{"", platform_status::SETTINGS_DAMAGED,
                             " at position 0: '[' or '{' expected near end of file"},
                    Unusable{R"({"accessEnforcement": "gen1")", platform_status::SETTINGS_DAMAGED,
                             " at position 28: '}' expected near end of file"},
                    Unusable{R"(["gen1"])", platform_status::SETTINGS_DAMAGED, ": it is not a JSON object"},
                    Unusable{R"({"accessEnforcement": "gen1", "primaryServer": ["a"]})",
                             platform_status::SETTINGS_DAMAGED, ": \"primaryServer\" is not a string"},
                    Unusable{R"({"accessEnforcement": "gen1", "primaryServer": "a", "log": 8})",
                             platform_status::SETTINGS_DAMAGED, ": \"log\" is not an object"}));

}  // namespace
