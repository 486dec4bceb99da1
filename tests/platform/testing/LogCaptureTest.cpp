#include <platform/testing/LogCapture.h>

#include <gmock/gmock.h>

#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

using platform_testing::LogCapture;
using platform_testing::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(LogCapture, KeepsLinesOfEveryLevelInOrder) {
    const LogCapture log;
    logmsg(16, "first", "an error");
    logmsgf(2, "second", "a dump of %d", 7);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, "first", "an error"}, LogLine{2, "second", "a dump of 7"}));
}

TEST(LogCapture, TellsTheLinesOfOneLevel) {
    const LogCapture log;
    logmsg(16, "tag", "a");
    logmsg(8, "tag", "b");
    logmsg(16, "tag", "c");
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, "tag", "a"}, LogLine{16, "tag", "c"}));
    EXPECT_THAT(log.linesAt(4), IsEmpty());
}

TEST(LogCapture, ForgetsLines) {
    LogCapture log;
    logmsg(16, "tag", "a");
    log.clear();
    logmsg(16, "tag", "b");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, "tag", "b"}));
}

TEST(LogCapture, TakesThePlaceOfTheLog) {
    testing::internal::CaptureStderr();
    {
        const LogCapture log;
        logmsg(16, "tag", "captured");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LogCapture, RestoresTheLog) {
    { const LogCapture log; }
    testing::internal::CaptureStderr();
    logmsg(16, "tag", "logged again");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr(" [tag] logged again\n"));
}

TEST(LogCapture, ShowsEveryLineBeforeItKeepsIt) {
    std::vector<LogLine> shown;
    const LogCapture log([&](const LogLine& line) { shown.push_back(line); });
    logmsg(16, "tag", "a");
    EXPECT_THAT(shown, ElementsAre(LogLine{16, "tag", "a"}));
    EXPECT_EQ(log.lines(), shown);
}

TEST(LogCapture, KeepsALineOutForWhichWhoLooksThrows) {
    const LogCapture log([](const LogLine& line) {
        if (line.level == 2) {
            throw std::runtime_error("not this one");
        }
    });
    logmsg(2, "tag", "a");
    logmsg(16, "tag", "b");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, "tag", "b"}));
}

TEST(LogCapture, WritesLines) {
    std::ostringstream text;
    text << LogLine{8, "Class::method", "a miss"};
    EXPECT_EQ(text.str(), "8 [Class::method] a miss");
}

TEST(LogCapture, KeepsTheLinesOfSeveralThreads) {
    constexpr int THREADS = 4;
    constexpr int LINES = 250;
    const LogCapture log;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&log] {
            for (int line = 0; line < LINES; ++line) {
                logmsg(4, "tag", "text");
                log.linesAt(16);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.linesAt(4).size(), THREADS * LINES);
}
