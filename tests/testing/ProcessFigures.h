#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace testing_support {

// What the kernel counts of this process. Beside these: openDescriptorCount().

inline int threadCount() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return static_cast<int>(std::distance(begin(threads), end(threads)));
}

/// The memory that this process uses, in KiB.
inline long residentMemory() {
    std::ifstream lines("/proc/self/status");
    for (std::string word; lines >> word;) {
        long kilobytes = 0;
        if (word == "VmRSS:" && lines >> kilobytes) {
            return kilobytes;
        }
    }
    return 0;
}

}  // namespace testing_support
