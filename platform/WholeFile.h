#pragma once

#include "platform/Handles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace platform_detail {

/// Opens a file to read it. A named pipe in its place does not hold up the caller.
inline Descriptor openWithoutWaiting(const std::string& path) {
    return Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

/// Appends to `text` what is left of the file. False, with errno, where reading fails.
inline bool readAll(const Descriptor& file, std::string& text) {
    char chunk[4096];
    for (;;) {
        const ssize_t count = read(file.get(), chunk, sizeof chunk);
        if (count > 0) {
            text.append(chunk, static_cast<std::size_t>(count));
        } else if (count == 0) {
            return true;
        } else if (errno != EINTR) {
            return false;
        }
    }
}

}  // namespace platform_detail
