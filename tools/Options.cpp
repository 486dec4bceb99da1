#include "tools/Options.h"

#include "InstallationPaths.h"
#include "tools/ToolFailures.h"

#include <jwt/JWTHandler.h>
#include <platform/Status.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <map>
#include <system_error>

namespace Tesmor::Arkwell::Tools {

namespace {

constexpr char PUBLISHED_CACHE[] = TARVO_ROOT "/wmc/webserver/temp/access-caches/all";
constexpr std::size_t LONGEST_TOKEN = 1U << 20U;

std::string readToken(std::istream& from) {
    std::string token;
    char c = 0;
    while (token.size() < LONGEST_TOKEN && from.get(c)) {
        token += c;
    }
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    return token;
}

std::string readTokenFile(const std::string& path) {
    if (path == "-") {
        return readToken(std::cin);
    }
    std::ifstream file(path);
    if (!file) {
        throw Unusable("cannot read " + path + ": " + std::generic_category().message(errno));
    }
    return readToken(file);
}

std::set<int> rolesOfToken(const std::string& token) {
    std::set<int> roles;
    if (const int status = Rbac::JWTHandler().getRoleIds(nullptr, token, roles); status != 0) {
        throw Unusable("the session token gives no roles: " + getECmsg(status) + " (status " + std::to_string(status) +
                       "); --verbose shows more");
    }
    return roles;
}

}  // namespace

void OutputOptions::addTo(CLI::App& command) {
    const std::map<std::string, ColorMode> modes{
        {"auto", ColorMode::AUTO}, {"always", ColorMode::ALWAYS}, {"never", ColorMode::NEVER}};
    command.add_flag("--json", json, "print JSON, for scripts");
    command.add_option("--color", color, "auto (on a terminal, unless NO_COLOR is set), always or never")
        ->transform(CLI::CheckedTransformer(modes).description(""))
        ->option_text("WHEN");
    command.add_flag("--verbose", verbose, "show what the library logs");
}

std::string CacheOptions::defaultDirectory() {
    return PUBLISHED_CACHE;
}

void CacheOptions::addTo(CLI::App& command) {
    directory = defaultDirectory();
    command.add_option("--cache", directory, "the folder of the access cache; without it, the published one")
        ->option_text("DIR");
}

void ReadingOptions::addTo(CLI::App& command) {
    command
        .add_option("--operations", operationsFile,
                    "the operations' numbers; without it, operation-cache.json in the cache's folder or in one of the "
                    "two above it")
        ->option_text("FILE");
    command.add_flag("--trust", trust, "do not look first whether the cache's files are sound");
}

void RoleOptions::addTo(CLI::App& command) {
    // Without the last, the words after the ids would be taken for ids as well.
    command.add_option("--roles", ids, "role ids, with commas between them")
        ->delimiter(',')
        ->option_text("ID,...")
        ->allow_extra_args(false);
    command.add_option("--token", tokenFile, "a file with a session token, whose roles are taken; - is standard input")
        ->option_text("FILE");
}

std::set<int> RoleOptions::roles() const {
    if (ids.empty() == tokenFile.empty()) {
        throw UsageError("say for whom: either --roles or --token");
    }
    return tokenFile.empty() ? std::set<int>(ids.begin(), ids.end()) : rolesOfToken(readTokenFile(tokenFile));
}

}  // namespace Tesmor::Arkwell::Tools
