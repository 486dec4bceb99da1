#include "platform/UtcTime.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>

namespace {

using platform_detail::utcText;
using TimePoint = std::chrono::system_clock::time_point;

TimePoint at(long long milliseconds) {
    return TimePoint(std::chrono::milliseconds(milliseconds));
}

std::string textOfTheCLibrary(std::time_t seconds) {
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    return std::string(text, length) + ".000Z";
}

TEST(UtcText, BeginsWithTheEpoch) {
    EXPECT_EQ("1970-01-01T00:00:00.000Z", utcText(at(0)));
}

TEST(UtcText, HasMilliseconds) {
    EXPECT_EQ("2026-11-21T09:30:08.123Z", utcText(at(1795253408123)));
}

TEST(UtcText, CutsOffWhatIsSmaller) {
    EXPECT_EQ("1970-01-01T00:00:00.001Z", utcText(TimePoint(std::chrono::microseconds(1999))));
}

TEST(UtcText, CountsEarlierTimesAsTheEpoch) {
    EXPECT_EQ("1970-01-01T00:00:00.000Z", utcText(at(-1)));
}

TEST(UtcText, AgreesWithTheCLibraryUntil2260) {
    constexpr std::time_t DAY = 86400;  // a time point ends in 2262
    for (std::time_t day = 0; day < 106'000; ++day) {
        ASSERT_EQ(textOfTheCLibrary(day * DAY), utcText(at(day * DAY * 1000)));
        ASSERT_EQ(textOfTheCLibrary(day * DAY + DAY - 1), utcText(at((day * DAY + DAY - 1) * 1000)));
    }
}

}  // namespace
