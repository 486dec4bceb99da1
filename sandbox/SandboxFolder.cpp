#include "sandbox/SandboxFolder.h"

#include "InstallationPaths.h"
#include "platform/Handles.h"
#include "sandbox/PrivateFiles.h"
#include "sandbox/SqliteDatabase.h"
#include "sandbox/UserStore.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

using platform_detail::JsonPointer;

constexpr char PUBLIC_KEY_FILE[] = TARVO_ROOT "/var/global/tmsec/jwtkeys/jwtPublicKey";

std::string settingsFile() {
    const char* const named = secure_getenv("TARVO_PLATFORM_CONFIG");
    return named != nullptr && *named != '\0' ? named : TARVO_ROOT "/var/global/platform.json";
}

}  // namespace

std::string SandboxFolder::defaultPath() {
    return TARVO_ROOT "/var/sandbox";
}

SandboxFolder::SandboxFolder(std::string path) : path_(std::move(path)) {}

void SandboxFolder::create(const SandboxOptions& options) const {
    if (std::filesystem::exists(path_)) {
        if (!options.replace) {
            throw std::runtime_error(path_ + " is there already; remove it, or pass --replace to lose what is in it");
        }
        std::filesystem::remove_all(path_);
    }
    makePrivateFolder(path_);
    makePrivateFolder(path_ + "/keys");
    const SigningKey key = SigningKey::generate();
    replaceFile(keyFile(), key.privatePem(), Readers::OWNER);
    replaceFile(PUBLIC_KEY_FILE, key.publicPem(), Readers::EVERYBODY);

    SqliteDatabase state(stateFile());
    const UserStore users(state);
    replaceFile(settingsFile(), settings(options), Readers::OWNER);
    AuthDatabase().createSchema(options.server);
}

SigningKey SandboxFolder::tokenKey() const {
    if (!std::filesystem::exists(keyFile())) {
        throw std::runtime_error(path_ + " is no sandbox; make one with: rbac-sandbox init --folder " + path_);
    }
    return SigningKey::fromPem(readPrivateFile(keyFile()));
}

std::string SandboxFolder::settings(const SandboxOptions& options) const {
    SqliteConnection database{options.connectionString, ""};
    if (database.connectionString.empty()) {
        const std::string file = path_ + "/auth.db";
        const SqliteDatabase made(file);  // for its owner only
        database = sqliteConnection(file);
    }
    const JsonPointer document(json_pack("{s:s, s:s, s:{s:s, s:[]}, s:{s:i}}", "primaryServer",
                                         options.primaryServer.c_str(), "accessEnforcement", "gen2", "authDatabase",
                                         "connectionString", database.connectionString.c_str(), "onConnect", "log",
                                         "level", options.logLevel));
    if (!document) {
        throw std::invalid_argument("a setting is not UTF-8");
    }
    if (!database.onConnect.empty()) {
        json_array_append_new(json_object_get(json_object_get(document.get(), "authDatabase"), "onConnect"),
                              json_string(database.onConnect.c_str()));
    }
    if (!options.logFile.empty()) {
        json_object_set_new(json_object_get(document.get(), "log"), "file", json_string(options.logFile.c_str()));
    }
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(document.get(), JSON_INDENT(2)), free);
    return std::string(text.get()) + "\n";
}

}  // namespace Tesmor::Arkwell::Sandbox
