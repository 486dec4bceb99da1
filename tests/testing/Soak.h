#pragma once

#include <chrono>
#include <cstdlib>

namespace testing_support {

/// How long a test goes on: as long as the environment variable ARKWELL_SOAK_SECONDS says, otherwise `inCheck`.
inline std::chrono::seconds soakSeconds(std::chrono::seconds inCheck) {
    const char* const asked = std::getenv("ARKWELL_SOAK_SECONDS");
    return asked != nullptr ? std::chrono::seconds(std::strtol(asked, nullptr, 10)) : inCheck;
}

}  // namespace testing_support
