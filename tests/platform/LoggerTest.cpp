#include "LoggerFixture.h"
#include "testing/LogCapture.h"

#include <platform/Logger.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::openDescriptorCount;
using testing_support::readFile;

/// The standard error stream goes to a file while this lives.
class StandardErrorCapture {
public:
    StandardErrorCapture() : saved_(dup(STDERR_FILENO)) {
        const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        dup2(file, STDERR_FILENO);
        close(file);
    }
    ~StandardErrorCapture() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    StandardErrorCapture(const StandardErrorCapture&) = delete;
    StandardErrorCapture& operator=(const StandardErrorCapture&) = delete;

    std::string text() const { return readFile(path_); }

private:
    testing_support::TemporaryDirectory directory_;
    std::string path_ = directory_ / "stderr";
    int saved_;
};

void clearLog(const LoggerFixture& log) {
    testing_support::writeFile(log.path(), "");
}

// What is logged before main() and after every static object's end.

std::vector<LogLine>& earlyLines() {
    static auto& lines = *new std::vector<LogLine>;
    return lines;
}

const bool LOGGED_EARLY = [] {
    setLogSink([](int level, const std::string& tag, const std::string& message) {
        earlyLines().push_back({level, tag, message});
    });
    logmsgf(16, "early", "%d before main", 1);
    setLogSink({});
    return true;
}();

bool logsAtTheEnd = false;

struct LogsWhenDestroyed {
    ~LogsWhenDestroyed() {
        if (logsAtTheEnd) {
            logmsg(16, "static", "destroyed");
        }
    }
} logsWhenDestroyed;

__attribute__((destructor)) void logAfterEveryDestructor() {
    if (logsAtTheEnd) {
        logmsg(16, "late", "the last line");
    }
}

TEST(Logger, WorksBeforeMain) {
    EXPECT_TRUE(LOGGED_EARLY);
    EXPECT_THAT(earlyLines(), ElementsAre(LogLine{16, "early", "1 before main"}));
}

TEST(LoggerDeathTest, WorksWhileAndAfterStaticObjectsAreDestroyed) {
    const SettingsFixture settings;
    EXPECT_EXIT(
        {
            logsAtTheEnd = true;
            std::exit(0);
        },
        testing::ExitedWithCode(0), "\\[static\\] destroyed\n.*\\[late\\] the last line\n");
}

// Where a message goes.

TEST(Logger, AppendsToTheFileOfTheSettings) {
    const LoggerFixture log;
    testing_support::writeFile(log.path(), "before\n");
    logmsg(16, "tag", "text");
    ASSERT_EQ(2U, log.lines().size());
    EXPECT_EQ("before", log.lines()[0]);
    EXPECT_THAT(log.lines()[1], HasSubstr("[tag] text"));
}

TEST(Logger, WritesToTheStandardErrorStreamWithoutAFile) {
    const SettingsFixture settings("{}");
    const StandardErrorCapture standardError;
    logmsg(16, "tag", "text");
    EXPECT_THAT(standardError.text(), testing::EndsWith(" [tag] text\n"));
}

TEST(Logger, WritesToTheStandardErrorStreamWhenTheFileCannotBeOpened) {
    LoggerFixture log;
    log.set("missing/folder/log", 8);
    const StandardErrorCapture standardError;
    logmsg(16, "tag", "text");
    EXPECT_THAT(standardError.text(), testing::EndsWith(" [tag] text\n"));
}

TEST(Logger, WritesToTheStandardErrorStreamWhenTheFileCannotBeWritten) {
    const SettingsFixture settings(R"({"log": {"file": "/dev/full"}})");
    const StandardErrorCapture standardError;
    logmsg(16, "tag", "text");
    EXPECT_THAT(standardError.text(), testing::EndsWith(" [tag] text\n"));
}

TEST(Logger, FollowsAChangeOfTheFile) {
    LoggerFixture log;
    logmsg(16, "tag", "first");
    log.set("other", 8);
    logmsg(16, "tag", "second");
    EXPECT_THAT(log.messages("log"), ElementsAre("16 [tag] first"));
    EXPECT_THAT(log.messages("other"), ElementsAre("16 [tag] second"));
}

TEST(Logger, StartsANewFileWhenTheOldOneIsMovedAway) {
    const LoggerFixture log;
    logmsg(16, "tag", "first");
    ASSERT_EQ(0, std::rename(log.path("log").c_str(), log.path("rotated").c_str()));
    logmsg(16, "tag", "second");
    EXPECT_THAT(log.messages("rotated"), ElementsAre("16 [tag] first"));
    EXPECT_THAT(log.messages("log"), ElementsAre("16 [tag] second"));
}

TEST(Logger, MakesAFileThatTheWorldCannotRead) {
    const LoggerFixture log;
    logmsg(16, "tag", "text");
    struct stat file {};
    ASSERT_EQ(0, stat(log.path().c_str(), &file));
    EXPECT_EQ(0U, file.st_mode & 0007U);
}

TEST(Logger, LeavesNoDescriptorOpen) {
    const LoggerFixture log;
    const int before = openDescriptorCount();
    logmsg(16, "tag", "text");
    EXPECT_EQ(before, openDescriptorCount());
}

class LoggerWithUnusableSettings : public testing::TestWithParam<const char*> {};

TEST_P(LoggerWithUnusableSettings, WritesErrorsAndMissesAndNothingElseToTheStandardErrorStream) {
    const SettingsFixture settings(GetParam());
    const StandardErrorCapture standardError;
    for (const int level : {16, 8, 7, 4, 2}) {
        logmsgf(level, "tag", "level %d", level);
    }
    logmsgv(4, 1, "tag", "verbose");
    AWLogger::defaultInstance()->debug(1, "tag", "debug");
    const std::string text = standardError.text();
    EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n')) << text;
    EXPECT_THAT(text, HasSubstr("[tag] level 16\n"));
    EXPECT_THAT(text, HasSubstr("[tag] level 8\n"));
}

INSTANTIATE_TEST_SUITE_P(Logger, LoggerWithUnusableSettings,
                         testing::Values("", "[]", R"({"log": {"level": 2, "debugLevel": "6"}})"));

TEST(Logger, WritesToTheStandardErrorStreamWithoutASettingsFile) {
    SettingsFixture settings;
    settings.remove();
    const StandardErrorCapture standardError;
    logmsg(8, "tag", "text");
    EXPECT_THAT(standardError.text(), testing::EndsWith(" [tag] text\n"));
}

// Which messages are written.

TEST(Logger, WritesLevelsFromTheSettingsLevelOn) {
    const LoggerFixture log(4);
    logmsg(2, "t", "dump");
    logmsg(3, "t", "below");
    logmsg(4, "t", "progress");
    logmsgf(2, "t", "%s", "formatted dump");
    logmsgf(16, "t", "%s", "formatted error");
    EXPECT_THAT(log.messages(), ElementsAre("4 [t] progress", "16 [t] formatted error"));
}

TEST(Logger, FollowsAChangeOfTheLevel) {
    LoggerFixture log(8);
    logmsg(4, "t", "unwanted");
    log.set("log", 4);
    logmsg(4, "t", "wanted");
    EXPECT_THAT(log.messages(), ElementsAre("4 [t] wanted"));
}

TEST(Logger, WritesVerboseMessagesOfAWrittenLevelWhateverTheirVerbosity) {
    const LoggerFixture log(8, 1);
    logmsgv(8, 6, "t", "text");
    logmsgvf(16, 6, "t", "%s", "formatted");
    EXPECT_THAT(log.messages(), ElementsAre("8 [t] text", "16 [t] formatted"));
}

TEST(Logger, WritesVerboseMessagesOfALowLevelUpToTheDebugLevel) {
    const LoggerFixture log(8, 3);
    logmsgv(4, 3, "t", "text");
    logmsgv(4, 4, "t", "unwanted text");
    logmsgvf(2, 3, "t", "%s", "formatted");
    logmsgvf(2, 4, "t", "%s", "unwanted formatted");
    EXPECT_THAT(log.messages(), ElementsAre("4 [t] text", "2 [t] formatted"));
}

TEST(AwLogger, IsOneForTheProcess) {
    ASSERT_NE(nullptr, AWLogger::defaultInstance());
    EXPECT_EQ(AWLogger::defaultInstance(), AWLogger::defaultInstance());
}

TEST(AwLogger, EnablesLevelsUpToTheDebugLevel) {
    LoggerFixture log(8, 3);
    EXPECT_TRUE(AWLogger::defaultInstance()->isDebugEnabled(1));
    EXPECT_TRUE(AWLogger::defaultInstance()->isDebugEnabled(3));
    EXPECT_FALSE(AWLogger::defaultInstance()->isDebugEnabled(6));
    log.set("log", 8, 6);
    EXPECT_TRUE(AWLogger::defaultInstance()->isDebugEnabled(6));
}

TEST(AwLogger, EnablesNoLevelByDefault) {
    const SettingsFixture settings("{}");
    EXPECT_FALSE(AWLogger::defaultInstance()->isDebugEnabled(1));
}

TEST(AwLogger, WritesEnabledLevelsWhateverTheLogsLevel) {
    const LoggerFixture log(16, 3);
    AWLogger::defaultInstance()->debug(1, "context", "one");
    AWLogger::defaultInstance()->debug(3, "context", "three");
    AWLogger::defaultInstance()->debug(6, "context", "six");
    EXPECT_THAT(log.messages(), ElementsAre("2 [context] one", "2 [context] three"));
}

TEST(AwLogger, WritesNothingThatIsNotEnabledWhateverTheLogsLevel) {
    const LoggerFixture log(0, 0);
    AWLogger::defaultInstance()->debug(1, "context", "one");
    EXPECT_FALSE(std::filesystem::exists(log.path()));
}

// What a line looks like.

TEST(Logger, WritesTimeLevelProcessThreadTagAndMessage) {
    const LoggerFixture log;
    pid_t thread = 0;
    std::thread([&] {
        thread = gettid();
        logmsg(16, "Class::method", "a message");
    }).join();
    EXPECT_THAT(
        readFile(log.path()),
        MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z 16 " +
                     std::to_string(getpid()) + "\\." + std::to_string(thread) + " \\[Class::method\\] a message\n"));
}

TEST(Logger, WritesTheTimeOfTheMessageInUtc) {
    const testing_support::ScopedEnvironment zone("TZ", "Pacific/Auckland");
    const LoggerFixture log;
    const std::time_t before = std::time(nullptr);
    logmsg(16, "tag", "text");
    const std::time_t after = std::time(nullptr);
    std::tm parts{};
    ASSERT_NE(nullptr, strptime(log.lines()[0].c_str(), "%Y-%m-%dT%H:%M:%S", &parts));
    EXPECT_LE(before - 1, timegm(&parts));  // time() runs on the coarse clock
    EXPECT_GE(after + 1, timegm(&parts));
}

TEST(Logger, WritesTheNumberOfAnyLevel) {
    const LoggerFixture log(-5);
    logmsg(-5, "t", "x");
    logmsg(12345, "t", "x");
    EXPECT_THAT(log.messages(), ElementsAre("-5 [t] x", "12345 [t] x"));
}

TEST(Logger, EscapesControlCharacters) {
    const LoggerFixture log;
    logmsg(16, "a\nb\tc",
           "1\n2\r3\t4\x01"
           "5\x1F"
           "6\x7F"
           "7\x1B[0m");
    EXPECT_THAT(log.messages(), ElementsAre("16 [a\\nb\\tc] 1\\n2\\r3\\t4\\x015\\x1F6\\x7F7\\x1B[0m"));
}

TEST(Logger, EscapesEveryControlCharacterAndNothingElse) {
    const LoggerFixture log;
    for (int byte = 1; byte < 256; ++byte) {
        clearLog(log);
        const std::string text(1, static_cast<char>(byte));
        logmsg(16, "t", text.c_str());
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned>(byte));
        const bool named = byte == '\n' || byte == '\r' || byte == '\t';
        const bool control = byte < 0x20 || byte == 0x7F;
        const std::string expected = named     ? (byte == '\n'   ? "\\n"
                                                  : byte == '\r' ? "\\r"
                                                                 : "\\t")
                                     : control ? hex
                                               : text;
        EXPECT_THAT(log.messages(), ElementsAre("16 [t] " + expected)) << byte;
    }
}

TEST(Logger, EscapesANulInsideADebugText) {
    const LoggerFixture log(8, 1);
    AWLogger::defaultInstance()->debug(1, "t", std::string("a\0b", 3));
    EXPECT_THAT(log.messages(), ElementsAre("2 [t] a\\x00b"));
}

TEST(Logger, KeepsBackslashesPercentSignsAndBraces) {
    const LoggerFixture log;
    logmsg(16, "{}", "%s \\n {0} %n");
    EXPECT_THAT(log.messages(), ElementsAre("16 [{}] %s \\n {0} %n"));
}

TEST(Logger, FormatsAsPrintfDoes) {
    const LoggerFixture log;
    logmsgf(16, "t", "%s|%5d|%-4d|%lu|%05.2f|%%|%c", "text", 42, 7, 123456789012UL, 3.14159, 'x');
    EXPECT_THAT(log.messages(), ElementsAre("16 [t] text|   42|7   |123456789012|03.14|%|x"));
}

TEST(Logger, CutsNoMessageShort) {
    const LoggerFixture log(8, 1);
    const std::string text(1 << 20, 'x');
    logmsg(16, "t", text.c_str());
    logmsgf(16, "t", "<%s>", text.c_str());
    logmsgv(16, 1, "t", text.c_str());
    logmsgvf(16, 1, "t", "<%s>", text.c_str());
    AWLogger::defaultInstance()->debug(1, "t", text);
    EXPECT_TRUE(log.messages() == (std::vector<std::string>{"16 [t] " + text, "16 [t] <" + text + ">", "16 [t] " + text,
                                                            "16 [t] <" + text + ">", "2 [t] " + text}));
}

TEST(Logger, TakesNullTextsAsEmpty) {
    const LoggerFixture log(8, 1);
    const char* const none = nullptr;
    logmsg(16, none, none);
    logmsgf(16, none, none);
    logmsgv(16, 1, none, none);
    logmsgvf(16, 1, none, none);
    AWLogger::defaultInstance()->debug(1, none, "");
    EXPECT_THAT(log.messages(), ElementsAre("16 [] ", "16 [] ", "16 [] ", "16 [] ", "2 [] "));
}

TEST(Logger, LogsTheFormatWhereItsArgumentsCannotBeFormatted) {
    const LoggerFixture log;
    const wchar_t unencodable[] = {static_cast<wchar_t>(0x20AC), 0};  // in the "C" locale
    logmsgf(16, "t", "<%ls>", unencodable);
    EXPECT_THAT(log.messages(), ElementsAre("16 [t] <%ls>"));
}

TEST(Logger, KeepsErrno) {
    LoggerFixture log;
    log.set("missing/folder/log", 8);
    const StandardErrorCapture standardError;
    errno = EDOM;
    logmsg(16, "t", "x");
    const std::string format = "%m%s";  // the compiler takes a literal "%m" for a mistake
    logmsgf(16, "t", format.c_str(), "");
    AWLogger::defaultInstance()->debug(1, "t", "x");
    EXPECT_EQ(EDOM, errno);
    EXPECT_THAT(standardError.text(), HasSubstr("[t] Numerical argument out of domain\n"));
}

// The sink.

TEST(LogSink, ReceivesEveryLevelAndVerbosityAsItIs) {
    const LoggerFixture log(16, 0);
    const LogCapture sink;
    logmsg(2, "a", "1\n");
    logmsgf(0, "b", "%d", 2);
    logmsgv(4, 99, "c", "3");
    logmsgvf(-1, 99, "d", "%d\t", 4);
    EXPECT_THAT(sink.lines(), ElementsAre(LogLine{2, "a", "1\n"}, LogLine{0, "b", "2"}, LogLine{4, "c", "3"},
                                          LogLine{-1, "d", "4\t"}));
}

TEST(LogSink, ReceivesEnabledDebugMessagesAtLevelTwo) {
    const LoggerFixture log(16, 3);
    const LogCapture sink;
    AWLogger::defaultInstance()->debug(1, "context", "one");
    AWLogger::defaultInstance()->debug(3, "context", std::string("th\0ree", 6));
    AWLogger::defaultInstance()->debug(6, "context", "six");
    EXPECT_THAT(sink.lines(),
                ElementsAre(LogLine{2, "context", "one"}, LogLine{2, "context", std::string("th\0ree", 6)}));
}

TEST(LogSink, TakesTheLogsPlace) {
    const LoggerFixture log(0, 6);
    const StandardErrorCapture standardError;
    {
        const LogCapture sink;
        logmsg(16, "t", "x");
        AWLogger::defaultInstance()->debug(1, "t", "x");
    }
    EXPECT_FALSE(std::filesystem::exists(log.path()));
    EXPECT_EQ("", standardError.text());
}

TEST(LogSink, EmptyRestoresTheLog) {
    const LoggerFixture log;
    int received = 0;
    setLogSink([&](int, const std::string&, const std::string&) { ++received; });
    setLogSink({});
    logmsg(16, "t", "x");
    EXPECT_EQ(0, received);
    EXPECT_THAT(log.messages(), ElementsAre("16 [t] x"));
}

TEST(LogSink, ReplacesTheOneBefore) {
    std::vector<std::string> received;
    setLogSink([&](int, const std::string&, const std::string& message) { received.push_back("first " + message); });
    setLogSink([&](int, const std::string&, const std::string& message) { received.push_back("second " + message); });
    logmsg(16, "t", "x");
    setLogSink({});
    EXPECT_THAT(received, ElementsAre("second x"));
}

TEST(LogSink, IsGivenUpWhenItIsReplaced) {
    const auto held = std::make_shared<int>(0);
    setLogSink([held](int, const std::string&, const std::string&) {});
    EXPECT_EQ(2, held.use_count());
    setLogSink({});
    EXPECT_EQ(1, held.use_count());
}

TEST(LogSink, MayThrow) {
    int calls = 0;
    setLogSink([&](int, const std::string&, const std::string&) {
        ++calls;
        throw std::runtime_error("a sink's own trouble");
    });
    logmsg(16, "t", "x");
    logmsgf(16, "t", "%d", 1);
    logmsgv(16, 1, "t", "x");
    logmsgvf(16, 1, "t", "%d", 1);
    setLogSink({});
    EXPECT_EQ(4, calls);
}

TEST(LogSink, MayLogAndItsMessagesGoToTheLog) {
    const LoggerFixture log(8);
    setLogSink([](int, const std::string&, const std::string& message) {
        logmsgf(16, "sink", "received %s", message.c_str());
        logmsg(4, "sink", "not written");
    });
    logmsg(2, "t", "x");
    setLogSink({});
    EXPECT_THAT(log.messages(), ElementsAre("16 [sink] received x"));
}

TEST(LogSink, GetsTheNextMessageAfterItHasLoggedOrThrown) {
    const LoggerFixture log(8);
    std::vector<std::string> received;
    setLogSink([&](int, const std::string&, const std::string& message) {
        received.push_back(message);
        logmsg(2, "sink", "x");
        throw std::runtime_error("x");
    });
    logmsg(2, "t", "first");
    logmsg(2, "t", "second");
    setLogSink({});
    EXPECT_THAT(received, ElementsAre("first", "second"));
}

TEST(LogSink, TakesNullTextsAsEmpty) {
    const LogCapture sink;
    logmsg(16, nullptr, nullptr);
    EXPECT_THAT(sink.lines(), ElementsAre(LogLine{16, "", ""}));
}

}  // namespace
