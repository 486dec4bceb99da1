#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace platform_detail {

/// What the installation's settings file said when it was read. A file that cannot be used leaves every setting at its
/// default, and `status` and `error` say why.
struct Settings {
    struct Tls {
        std::string caFile;
        std::string certFile;
        std::string keyFile;
    };
    struct AuthDatabase {
        std::string connectionString;
        std::vector<std::string> onConnect;
    };
    struct Http {
        std::chrono::milliseconds connectTimeout{10000};
        std::chrono::milliseconds timeout{60000};
        std::uint64_t maxResponseBytes = 268435456;
    };
    struct Log {
        std::string file;  // empty: the standard error stream
        int level = 8;
        int debugLevel = 0;
    };

    std::string path;
    int status = 0;  // or SETTINGS_UNREADABLE or SETTINGS_DAMAGED of platform_status
    std::string error;

    std::string primaryServer;
    bool secondGeneration = true;
    Tls tls;
    AuthDatabase authDatabase;
    Http http;
    Log log;
};

/// The settings as the file has them now; it is read only when it has changed. Never null. Logs nothing, so that the
/// logger itself may ask. Safe from any thread, also while the process forks; throws nothing but std::bad_alloc.
std::shared_ptr<const Settings> currentSettings();

}  // namespace platform_detail
