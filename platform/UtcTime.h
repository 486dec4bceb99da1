#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

namespace platform_detail {

/// The UTC time in ISO 8601 with milliseconds, such as 2026-11-21T09:30:08.123Z; an earlier time than 1970 counts as
/// its beginning.
///
/// The C library's own conversions take a lock that is not given back in a child made by fork() while another thread
/// holds it, so they would hang there.
inline std::string utcText(std::chrono::system_clock::time_point time) {
    using std::chrono::duration_cast;
    const auto isLeap = [](int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; };
    const auto daysInMonth = [&](int year, int month) {
        static constexpr int DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        return month == 2 && isLeap(year) ? 29 : DAYS[month - 1];
    };

    const long long milliseconds = std::max(
        0LL, static_cast<long long>(duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count()));
    const auto inDay = static_cast<int>(milliseconds % 86'400'000);
    long long day = milliseconds / 86'400'000;
    int year = 1970;
    for (; day >= (isLeap(year) ? 366 : 365); ++year) {
        day -= isLeap(year) ? 366 : 365;
    }
    int month = 1;
    for (; day >= daysInMonth(year, month); ++month) {
        day -= daysInMonth(year, month);
    }

    char text[64];
    const int length =
        std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", year, month, static_cast<int>(day) + 1,
                      inDay / 3'600'000, inDay / 60'000 % 60, inDay / 1000 % 60, inDay % 1000);
    return {text, static_cast<std::size_t>(length)};
}

}  // namespace platform_detail
