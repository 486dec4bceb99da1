#pragma once

#include "tools/Terminal.h"

#include <set>
#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace Tesmor::Arkwell::Tools {

/// How the answer is given; every subcommand has these.
struct OutputOptions {
    bool json = false;
    bool verbose = false;
    ColorMode color = ColorMode::AUTO;

    void addTo(CLI::App& command);
    Colors colors() const { return Colors(json ? ColorMode::NEVER : color); }
};

/// Which access cache is looked at.
struct CacheOptions {
    std::string directory;

    void addTo(CLI::App& command);
    static std::string defaultDirectory();
};

/// How the cache is read where its contents are asked for.
struct ReadingOptions {
    std::string operationsFile;
    bool trust = false;

    void addTo(CLI::App& command);
};

/// For whom is asked.
struct RoleOptions {
    std::vector<int> ids;
    std::string tokenFile;

    void addTo(CLI::App& command);
    /// @throws UsageError: neither is given, or both; Unusable: the token gives no roles.
    std::set<int> roles() const;
};

}  // namespace Tesmor::Arkwell::Tools
