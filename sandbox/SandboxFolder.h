#pragma once

#include "sandbox/AuthDatabase.h"
#include "sandbox/CertificateAuthority.h"
#include "sandbox/SigningKey.h"
#include "sandbox/TlsConnection.h"

#include <platform/FileLock.h>

#include <memory>
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
    /// Where the caches are published; empty for where the library looks for them.
    std::string publicationFolder;
    /// Of the log; empty for the standard error stream.
    std::string logFile;
    int logLevel = 8;
    /// Whether a sandbox that is there already is set up anew: everything in it is lost.
    bool replace = false;
};

/// The folder where the stand-in service keeps its keys and databases. Only its owner may enter it.
class SandboxFolder {
public:
    /// TARVO_ROOT/var/sandbox
    static std::string defaultPath();

    explicit SandboxFolder(std::string path);

    /// Makes the folder with new keys, certificates and databases, and tells this host about them: the settings file
    /// and the public key file are replaced.
    ///
    /// @throws std::runtime_error (the folder is there already or is no sandbox to be replaced, others may enter it),
    /// std::system_error, EC_exception (the authorization database).
    void create(const SandboxOptions& options) const;
    /// create() without the tables of the authorization database.
    void createFiles(const SandboxOptions& options) const;

    /// Takes the right to change the state, which a running service has for as long as it runs.
    ///
    /// @param timeoutMs how long to wait at most.
    /// @return null where somebody else has it.
    /// @throws EC_exception of the lock.
    std::unique_ptr<FileLockGuard> tryToLock(long timeoutMs) const;

    /// That the folder is a sandbox that nobody but its owner can look into.
    ///
    /// @throws std::runtime_error, std::system_error.
    void requirePrivate() const;

    /// @throws std::runtime_error: there is no such folder, or others than its owner may read the key.
    SigningKey tokenKey() const;
    /// @throws std::system_error; std::runtime_error: others than its owner may read the key.
    CertificateAuthority certificateAuthority() const;
    TlsServerFiles serviceFiles() const;
    /// Where the caches are published.
    std::string publicationFolder() const;
    std::string stateFile() const { return path_ + "/state.db"; }
    const std::string& path() const { return path_; }

private:
    void createCertificates(const SandboxOptions& options) const;
    std::string tlsFile(const char* name) const { return path_ + "/tls/" + name; }
    std::string authDatabaseFile() const { return path_ + "/auth.db"; }
    /// @throws as tokenKey().
    std::string readTokenKey() const;
    std::string keyFile() const { return path_ + "/keys/jwtPrivateKey"; }
    std::string settings(const SandboxOptions& options) const;

    std::string path_;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
