#pragma once

#include "platform/Handles.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// Reads a JSON file as json_load_file() does.
///
/// @return null, with what jansson has to say about it in `error`, where that fails.
inline platform_detail::JsonPointer loadJsonFile(const std::string& path, json_error_t& error) {
    error = {};
    const platform_detail::FilePointer file = platform_detail::openToRead(path);
    if (!file) {
        const std::string reason = std::generic_category().message(errno);
        // The last byte is the error's code, as jansson keeps it.
        std::snprintf(error.text, sizeof error.text - 1, "unable to open %s: %s", path.c_str(), reason.c_str());
        error.text[sizeof error.text - 1] = json_error_cannot_open_file;
        return nullptr;
    }
    return platform_detail::JsonPointer(json_loadf(file.get(), 0, &error));
}

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
