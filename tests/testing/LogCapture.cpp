#include "testing/LogCapture.h"

#include "testing/SecretScan.h"

namespace testing_support {

LogCapture::LogCapture()
    : platform_testing::LogCapture([](const LogLine& line) { refuseSecrets(line.tag, line.message); }) {}

}  // namespace testing_support
