#pragma once

#include <string>

namespace Tesmor::Arkwell::Tools {

/// Takes the library's log while it lives: what goes wrong is said in the command's own words.
class LibraryLog {
public:
    LibraryLog();
    ~LibraryLog();
    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;

    /// From now on, every message is also written to the standard error stream.
    static void show();
    /// What a status means, and what the library said of its last error.
    static std::string describe(int status);
};

}  // namespace Tesmor::Arkwell::Tools
