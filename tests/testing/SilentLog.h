#pragma once

#include <platform/Logger.h>

#include <string>

namespace testing_support {

/// Keeps log lines away while it lives, without keeping them.
class SilentLog {
public:
    SilentLog() {
        setLogSink([](int, const std::string&, const std::string&) {});
    }
    ~SilentLog() { setLogSink({}); }
    SilentLog(const SilentLog&) = delete;
    SilentLog& operator=(const SilentLog&) = delete;
};

}  // namespace testing_support
