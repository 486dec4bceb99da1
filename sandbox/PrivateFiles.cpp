#include "sandbox/PrivateFiles.h"

#include "platform/Handles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace Tesmor::Arkwell::Sandbox {

namespace {

using platform_detail::Descriptor;

constexpr mode_t FOR_OTHERS = 077;

[[noreturn]] void throwSystemError(const char* verb, const std::string& path) {
    throw std::system_error(errno, std::generic_category(), std::string("cannot ") + verb + " " + path);
}

void refuseOthers(const struct stat& status, const std::string& path) {
    if ((status.st_mode & FOR_OTHERS) != 0) {
        throw std::runtime_error(path + " is open to others than its owner; take their permissions away first");
    }
}

void writeAll(const Descriptor& file, std::string_view contents, const std::string& path) {
    while (!contents.empty()) {
        const ssize_t count = write(file.get(), contents.data(), contents.size());
        if (count >= 0) {
            contents.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            throwSystemError("write", path);
        }
    }
}

void syncFolder(const std::string& path) {
    const Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.isOpen() || fsync(folder.get()) != 0) {
        throwSystemError("sync", path);
    }
}

}  // namespace

void makePrivateFolder(const std::string& path) {
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) {
        std::filesystem::create_directories(parent);
    }
    if (mkdir(path.c_str(), S_IRWXU) == 0) {
        return;
    }
    if (errno != EEXIST) {
        throwSystemError("create", path);
    }
    requirePrivate(path);
}

void requirePrivate(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        throwSystemError("look at", path);
    }
    refuseOthers(status, path);
}

void replaceFile(const std::string& path, const std::string& contents, Readers readers) {
    const std::filesystem::path folder = std::filesystem::absolute(path).parent_path();
    std::filesystem::create_directories(folder);
    const mode_t mode = readers == Readers::OWNER ? 0600 : 0644;
    const std::string next = path + ".new";
    unlink(next.c_str());
    {
        const Descriptor file(open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
        if (!file.isOpen()) {
            throwSystemError("create", next);
        }
        writeAll(file, contents, next);
        if (fchmod(file.get(), mode) != 0 || fsync(file.get()) != 0) {
            throwSystemError("write", next);
        }
    }
    if (std::rename(next.c_str(), path.c_str()) != 0) {
        throwSystemError("replace", path);
    }
    syncFolder(folder);
}

std::string readPrivateFile(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0) {
        throwSystemError("read", path);
    }
    refuseOthers(status, path);
    std::string contents;
    char chunk[4096];
    for (;;) {
        const ssize_t count = read(file.get(), chunk, sizeof chunk);
        if (count == 0) {
            return contents;
        }
        if (count > 0) {
            contents.append(chunk, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            throwSystemError("read", path);
        }
    }
}

}  // namespace Tesmor::Arkwell::Sandbox
