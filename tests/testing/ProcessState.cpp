#include "testing/ProcessState.h"

#include <platform/FileLock.h>
#include <platform/Status.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace testing_support {

namespace {

struct MapsLine {
    std::string permissions;
    std::string path;
};

std::vector<MapsLine> mapsLines() {
    std::vector<MapsLine> lines;
    std::ifstream in("/proc/self/maps");
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        MapsLine parsed;
        std::string skipped;
        fields >> skipped >> parsed.permissions >> skipped >> skipped >> skipped >> std::ws;
        std::getline(fields, parsed.path);
        lines.push_back(parsed);
    }
    return lines;
}

/// The numbers of the file's descriptors.
std::vector<std::string> descriptorsOf(const std::string& path) {
    std::vector<std::string> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) == path) {
            numbers.push_back(entry.path().filename().string());
        }
    }
    return numbers;
}

bool holdsLock(const std::string& descriptor) {
    std::ifstream in("/proc/self/fdinfo/" + descriptor);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("lock:", 0) == 0 && line.find("FLOCK") != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

int mappingCount(const std::string& path) {
    const std::vector<MapsLine> lines = mapsLines();
    return static_cast<int>(
        std::count_if(lines.begin(), lines.end(), [&path](const MapsLine& line) { return line.path == path; }));
}

std::string mappingPermissions(const std::string& path) {
    for (const MapsLine& line : mapsLines()) {
        if (line.path == path) {
            return line.permissions;
        }
    }
    return {};
}

int descriptorCount(const std::string& path) {
    return static_cast<int>(descriptorsOf(path).size());
}

int lockCount(const std::string& path) {
    const std::vector<std::string> descriptors = descriptorsOf(path);
    return static_cast<int>(std::count_if(descriptors.begin(), descriptors.end(), holdsLock));
}

long peakMemory() {
    std::ifstream in("/proc/self/status");
    for (std::string word; in >> word;) {
        long kilobytes = 0;
        if (word == "VmHWM:" && in >> kilobytes) {
            return kilobytes * 1024;
        }
    }
    throw std::runtime_error("the kernel does not tell the peak of the memory");
}

void forgetPeakMemory() {
    std::ofstream("/proc/self/clear_refs") << "5\n";
}

bool fileLockIsFree(const std::string& path) {
    try {
        const FileLockGuard exclusive(FileLockManager::instance().getLock(path), FileLockGuard::EXCLUSIVE, 0,
                                      FileLock::DEFAULT_INTERVAL);
        return true;
    } catch (const EC_exception& failure) {
        if (failure.status != platform_status::LOCK_TIMED_OUT) {
            throw;
        }
        return false;
    }
}

}  // namespace testing_support
