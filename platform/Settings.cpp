#include "platform/Settings.h"

#include "InstallationPaths.h"
#include "platform/Handles.h"
#include "platform/WholeFile.h"

#include <platform/Status.h>

#include <pthread.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <system_error>
#include <tuple>
#include <utility>

namespace platform_detail {

namespace {

/// Why the settings file cannot be used; `reason` is what follows the file's name in the message.
struct Failure {
    int status;
    std::string reason;
};

[[noreturn]] void unreadable(int error) {
    throw Failure{platform_status::SETTINGS_UNREADABLE, ": " + std::generic_category().message(error)};
}

/// The members of one JSON object of the file. An absent member leaves the variable that it is read into as it is, one
/// of the wrong type or size is a Failure.
class Members {
public:
    /// @param object borrowed; null has no members.
    /// @param prefix what comes before a member's name in messages.
    Members(const json_t* object, std::string prefix) : object_(object), prefix_(std::move(prefix)) {}

    const json_t* find(const char* name) const { return json_object_get(object_, name); }

    void read(const char* name, std::string& value) const {
        if (const json_t* member = find(name)) {
            require(json_is_string(member), name, "a string");
            value = json_string_value(member);
        }
    }

    void read(const char* name, std::vector<std::string>& value) const {
        const json_t* member = find(name);
        if (member == nullptr) {
            return;
        }
        require(json_is_array(member), name, "an array of strings");
        for (std::size_t i = 0; i < json_array_size(member); ++i) {
            const json_t* element = json_array_get(member, i);
            require(json_is_string(element), name, "an array of strings");
            value.emplace_back(json_string_value(element));
        }
    }

    void read(const char* name, int& value) const {
        if (const json_t* member = find(name)) {
            const json_int_t number = json_integer_value(member);
            require(json_is_integer(member) && number >= INT_MIN && number <= INT_MAX, name, "a 32-bit integer");
            value = static_cast<int>(number);
        }
    }

    void read(const char* name, std::uint64_t& value) const {
        if (const json_t* member = find(name)) {
            require(json_integer_value(member) > 0, name, "a positive integer");
            value = static_cast<std::uint64_t>(json_integer_value(member));
        }
    }

    void read(const char* name, std::chrono::milliseconds& value) const {
        auto count = static_cast<std::uint64_t>(value.count());
        read(name, count);
        value = std::chrono::milliseconds(count);
    }

    Members object(const char* name) const {
        const json_t* member = find(name);
        require(member == nullptr || json_is_object(member), name, "an object");
        return {member, prefix_ + name + "."};
    }

private:
    void require(bool condition, const char* name, const char* expected) const {
        if (!condition) {
            throw Failure{platform_status::SETTINGS_DAMAGED, ": \"" + prefix_ + name + "\" is not " + expected};
        }
    }

    const json_t* object_;
    std::string prefix_;
};

/// Only "gen1" turns enforcement off, whatever else stands there.
bool isSecondGeneration(const json_t* setting) {
    return !json_is_string(setting) || json_string_value(setting) != std::string("gen1");
}

void parse(const std::string& text, Settings& settings) {
    json_error_t error;
    const JsonPointer document(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &error));
    if (!document) {
        throw Failure{platform_status::SETTINGS_DAMAGED,
                      " at position " + std::to_string(error.position) + ": " + error.text};
    }
    if (!json_is_object(document.get())) {
        throw Failure{platform_status::SETTINGS_DAMAGED, ": it is not a JSON object"};
    }
    const Members root(document.get(), "");
    root.read("primaryServer", settings.primaryServer);
    settings.secondGeneration = isSecondGeneration(root.find("accessEnforcement"));

    const Members tls = root.object("tls");
    tls.read("caFile", settings.tls.caFile);
    tls.read("certFile", settings.tls.certFile);
    tls.read("keyFile", settings.tls.keyFile);

    const Members authDatabase = root.object("authDatabase");
    authDatabase.read("connectionString", settings.authDatabase.connectionString);
    authDatabase.read("onConnect", settings.authDatabase.onConnect);

    const Members http = root.object("http");
    http.read("connectTimeoutMs", settings.http.connectTimeout);
    http.read("timeoutMs", settings.http.timeout);
    http.read("maxResponseBytes", settings.http.maxResponseBytes);

    const Members log = root.object("log");
    log.read("file", settings.log.file);
    log.read("level", settings.log.level);
    log.read("debugLevel", settings.log.debugLevel);
}

/// What tells one state of a file from another: device, inode, size, time of modification, time of change.
using Stamp = std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long>;

Stamp stampOf(const struct stat& file) {
    return {file.st_dev,          file.st_ino,         file.st_size,        file.st_mtim.tv_sec,
            file.st_mtim.tv_nsec, file.st_ctim.tv_sec, file.st_ctim.tv_nsec};
}

std::optional<Stamp> stampOf(const char* path) {
    struct stat file {};
    if (stat(path, &file) != 0) {
        return std::nullopt;
    }
    return stampOf(file);
}

bool isEarlier(const timespec& a, const timespec& b) {
    return std::tie(a.tv_sec, a.tv_nsec) < std::tie(b.tv_sec, b.tv_nsec);
}

/// The settings file's last state.
class SettingsFile {
public:
    std::shared_ptr<const Settings> current() {
        const std::lock_guard<std::mutex> lock(mutex_);
        const char* path = settingsPath();
        if (!stamp_ || settings_->path != path || stamp_ != stampOf(path)) {
            load(path);
        }
        return settings_;
    }

    // A fork waits for a read to end, and the child gets the lock free.
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    static const char* settingsPath() {
        const char* path = secure_getenv("TARVO_PLATFORM_CONFIG");
        return path != nullptr && *path != '\0' ? path : TARVO_ROOT "/var/global/platform.json";
    }

    void load(const char* path) {
        auto settings = std::make_shared<Settings>();
        stamp_.reset();
        std::optional<Stamp> stamp;
        try {
            parse(readFile(path, stamp), *settings);
        } catch (const Failure& failure) {
            *settings = Settings();
            settings->status = failure.status;
            settings->error = std::string("Error reading settings file ") + path + failure.reason;
        }
        settings->path = path;
        settings_ = std::move(settings);
        stamp_ = stamp;
    }

    /// @param stamp set if any later change of the file will show in its stamp.
    static std::string readFile(const char* path, std::optional<Stamp>& stamp) {
        const Descriptor file = openWithoutWaiting(path);
        struct stat opened {};
        if (!file.isOpen() || fstat(file.get(), &opened) != 0) {
            unreadable(errno);
        }
        if (!S_ISREG(opened.st_mode)) {
            throw Failure{platform_status::SETTINGS_UNREADABLE, ": it is not a regular file"};
        }
        // The kernel stamps files by the coarse clock. A file changed in the clock's present tick may change once more
        // without showing it, so it will be read again.
        timespec now{};
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        std::string text;
        if (!readAll(file, text)) {
            unreadable(errno);
        }
        if (isEarlier(opened.st_mtim, now) && isEarlier(opened.st_ctim, now)) {
            stamp = stampOf(opened);
        }
        return text;
    }

    std::mutex mutex_;
    std::shared_ptr<const Settings> settings_;
    std::optional<Stamp> stamp_;  // of what settings_ was read from; empty: to be read again
};

// Never destroyed: destructors of static objects may log.
SettingsFile& settingsFile() {
    static SettingsFile& instance = *new SettingsFile;
    return instance;
}

// Handlers run before a fork in the reverse order of their registration. Who holds a lock of their own may log, and so
// may want this one; registering ahead of everybody makes this the last lock that a fork takes.
__attribute__((constructor(101))) void registerForkHandlers() {
    settingsFile();
    pthread_atfork([] { settingsFile().lock(); }, [] { settingsFile().unlock(); }, [] { settingsFile().unlock(); });
}

}  // namespace

std::shared_ptr<const Settings> currentSettings() {
    return settingsFile().current();
}

}  // namespace platform_detail
