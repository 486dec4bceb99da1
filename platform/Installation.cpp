#include "platform/Settings.h"

#include <platform/Installation.h>
#include <platform/Logger.h>
#include <platform/Status.h>

#include <cstring>

namespace {

using platform_detail::Settings;

std::shared_ptr<const Settings> readSettings(const char* reader) {
    std::shared_ptr<const Settings> settings = platform_detail::currentSettings();
    if (settings->status != 0) {
        logmsg(16, reader, settings->error.c_str());
    }
    return settings;
}

}  // namespace

int db_getservernameEx(char* buffer, std::size_t size) {
    static const char* const TAG = "db_getservernameEx";
    if (size > 0) {
        buffer[0] = '\0';
    }
    const std::shared_ptr<const Settings> settings = readSettings(TAG);
    if (settings->status != 0) {
        return settings->status;
    }
    const std::string& name = settings->primaryServer;
    if (name.empty()) {
        logmsgf(16, TAG, "Error reading settings file %s: \"primaryServer\" is missing", settings->path.c_str());
        return platform_status::SETTING_MISSING;
    }
    if (name.size() >= size) {
        logmsgf(16, TAG, "Error reading settings file %s: \"primaryServer\" is longer than %zu bytes",
                settings->path.c_str(), size > 0 ? size - 1 : 0);
        return platform_status::SETTING_TOO_LONG;
    }
    std::memcpy(buffer, name.c_str(), name.size() + 1);
    return 0;
}

bool secondGenerationEnforcementEnabled() {
    return readSettings("secondGenerationEnforcementEnabled")->secondGeneration;
}
