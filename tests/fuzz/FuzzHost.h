#pragma once

#include "platform/SettingsFixture.h"

#include <platform/Logger.h>

#include <cstdlib>

/// A host with a primary server, and nobody who reads its log.
class FuzzHost {
public:
    FuzzHost() {
        setLogSink([](int, const std::string&, const std::string&) {});
    }

private:
    SettingsFixture settings_{R"({"primaryServer": "primary.example"})"};
};

/// Ends the run with the input as a finding.
inline void require(bool condition) {
    if (!condition) {
        abort();
    }
}
