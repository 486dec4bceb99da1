#pragma once

#include "sandbox/AuthDatabase.h"
#include "sandbox/SigningKey.h"

#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// How an installation for development is set up.
struct SandboxOptions {
    std::string primaryServer = "localhost";
    /// Of the authorization database; empty for a SQLite file in the folder.
    std::string connectionString;
    DatabaseServer server = DatabaseServer::SQLITE;
    /// Of the log; empty for the standard error stream.
    std::string logFile;
    int logLevel = 8;
    /// Whether a folder that is there already is set up anew: everything in it is lost.
    bool replace = false;
};

/// The folder where the stand-in service keeps its keys and databases. Only its owner may enter it.
class SandboxFolder {
public:
    /// TARVO_ROOT/var/sandbox
    static std::string defaultPath();

    explicit SandboxFolder(std::string path);

    /// Makes the folder with a new token key and databases, and tells this host about them: the settings file and the
    /// public key file are replaced.
    ///
    /// @throws std::runtime_error (the folder is there already, others may enter it), std::system_error, EC_exception
    /// (the authorization database).
    void create(const SandboxOptions& options) const;

    /// @throws std::runtime_error: there is no such folder, or others than its owner may read the key.
    SigningKey tokenKey() const;
    std::string stateFile() const { return path_ + "/state.db"; }
    const std::string& path() const { return path_; }

private:
    std::string keyFile() const { return path_ + "/keys/jwtPrivateKey"; }
    std::string settings(const SandboxOptions& options) const;

    std::string path_;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
