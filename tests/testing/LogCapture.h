#pragma once

#include <platform/testing/LogCapture.h>

namespace testing_support {

using platform_testing::LogLine;

/// Collects what the process logs. A line with a secret ends the program.
class LogCapture : public platform_testing::LogCapture {
public:
    LogCapture();
};

}  // namespace testing_support
