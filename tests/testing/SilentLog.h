#pragma once

#include "testing/SecretScan.h"

#include <platform/Logger.h>

#include <string>

namespace testing_support {

/// Keeps log lines away while it lives, without keeping them, but not without looking for secrets in them.
class SilentLog {
public:
    SilentLog() {
        setLogSink([](int, const std::string& tag, const std::string& message) { refuseSecrets(tag, message); });
    }
    ~SilentLog() { setLogSink({}); }
    SilentLog(const SilentLog&) = delete;
    SilentLog& operator=(const SilentLog&) = delete;
};

}  // namespace testing_support
