#include "sandbox/SandboxFolder.h"

#include "InstallationPaths.h"
#include "sandbox/JsonText.h"
#include "sandbox/PrivateFiles.h"
#include "sandbox/ServiceTables.h"
#include "sandbox/SqliteDatabase.h"
#include "sandbox/UserStore.h"

#include <platform/Status.h>

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr char PUBLIC_KEY_FILE[] = TARVO_ROOT "/var/global/tmsec/jwtkeys/jwtPublicKey";
constexpr char PUBLICATION_FOLDER[] = TARVO_ROOT "/wmc/webserver/temp";
constexpr char CA_CERTIFICATE[] = "ca.pem";
constexpr char CA_KEY[] = "caKey.pem";
constexpr char HOST_CERTIFICATE[] = "host.pem";
constexpr char HOST_KEY[] = "hostKey.pem";
constexpr char SERVICE_CERTIFICATE[] = "service.pem";
constexpr char SERVICE_KEY[] = "serviceKey.pem";

std::string settingsFile() {
    const char* const named = secure_getenv("TARVO_PLATFORM_CONFIG");
    return named != nullptr && *named != '\0' ? named : TARVO_ROOT "/var/global/platform.json";
}

std::string hostName() {
    std::array<char, 256> name{};
    const bool known = gethostname(name.data(), name.size() - 1) == 0 && name.front() != '\0';
    return known ? name.data() : "localhost";
}

/// Sets a member of the document's object `section`.
void setText(const JsonPointer& document, const char* section, const char* key, const std::string& value) {
    if (json_object_set_new(json_object_get(document.get(), section), key, json_string(value.c_str())) != 0) {
        throw std::invalid_argument("not UTF-8: " + value);
    }
}

}  // namespace

std::string SandboxFolder::defaultPath() {
    return TARVO_ROOT "/var/sandbox";
}

SandboxFolder::SandboxFolder(std::string path) : path_(std::move(path)) {}

void SandboxFolder::create(const SandboxOptions& options) const {
    createFiles(options);
    AuthDatabase().createSchema(options.server);
}

void SandboxFolder::createFiles(const SandboxOptions& options) const {
    if (std::filesystem::exists(path_)) {
        if (!options.replace) {
            throw std::runtime_error(path_ + " is there already; remove it, or pass --replace to lose what is in it");
        }
        if (!std::filesystem::exists(keyFile())) {
            throw std::runtime_error(path_ + " is no sandbox, so it is not replaced; remove it yourself");
        }
        const std::unique_ptr<FileLockGuard> lock = tryToLock(0);
        if (!lock) {
            throw std::runtime_error("a service runs on " + path_ + "; stop it first");
        }
        std::filesystem::remove_all(path_);
    }
    makePrivateFolder(path_);
    makePrivateFolder(path_ + "/keys");
    const SigningKey key = SigningKey::generate();
    replaceFile(keyFile(), key.privatePem(), Readers::OWNER);
    replaceFile(PUBLIC_KEY_FILE, key.publicPem(), Readers::EVERYBODY);

    createCertificates(options);

    SqliteDatabase state = SqliteDatabase::create(stateFile());
    const UserStore users(state);
    createServiceTables(state);
    if (!options.publicationFolder.empty()) {
        setPublicationFolder(state, std::filesystem::absolute(options.publicationFolder));
    }
    replaceFile(settingsFile(), settings(options), Readers::OWNER);
}

void SandboxFolder::createCertificates(const SandboxOptions& options) const {
    makePrivateFolder(path_ + "/tls");
    const auto write = [this](const CertifiedKey& identity, const char* certificate, const char* key) {
        replaceFile(tlsFile(key), identity.key, Readers::OWNER);
        replaceFile(tlsFile(certificate), identity.certificate, Readers::OWNER);
    };
    const CertificateAuthority authority = CertificateAuthority::generate("rbac-sandbox CA");
    write(authority.identity(), CA_CERTIFICATE, CA_KEY);
    const std::string host = hostName();
    write(authority.issue({host, {host}, true, true}), HOST_CERTIFICATE, HOST_KEY);
    const std::string& server = options.primaryServer;
    write(authority.issue({server, {server, "localhost", "127.0.0.1", "::1"}, true, false}), SERVICE_CERTIFICATE,
          SERVICE_KEY);
}

std::unique_ptr<FileLockGuard> SandboxFolder::tryToLock(long timeoutMs) const {
    try {
        return std::make_unique<FileLockGuard>(FileLockManager::instance().getLock(path_ + "/service.lck"),
                                               FileLockGuard::EXCLUSIVE, timeoutMs, FileLock::DEFAULT_INTERVAL);
    } catch (const EC_exception& failure) {
        if (failure.status == platform_status::LOCK_TIMED_OUT) {
            return nullptr;
        }
        throw;
    }
}

void SandboxFolder::requirePrivate() const {
    readTokenKey();
    for (const std::string& made : {path_, path_ + "/keys", path_ + "/tls", tlsFile(CA_KEY), tlsFile(HOST_KEY),
                                    tlsFile(SERVICE_KEY), stateFile()}) {
        Sandbox::requirePrivate(made);
    }
    // It is elsewhere where another database was given.
    if (const std::string sessions = authDatabaseFile(); std::filesystem::exists(sessions)) {
        Sandbox::requirePrivate(sessions);
    }
}

CertificateAuthority SandboxFolder::certificateAuthority() const {
    return CertificateAuthority::fromPem({readPrivateFile(tlsFile(CA_CERTIFICATE)), readPrivateFile(tlsFile(CA_KEY))});
}

TlsServerFiles SandboxFolder::serviceFiles() const {
    return {tlsFile(SERVICE_CERTIFICATE), tlsFile(SERVICE_KEY), tlsFile(CA_CERTIFICATE)};
}

std::string SandboxFolder::publicationFolder() const {
    SqliteDatabase state(stateFile());
    return Sandbox::publicationFolder(state).value_or(PUBLICATION_FOLDER);
}

SigningKey SandboxFolder::tokenKey() const {
    return SigningKey::fromPem(readTokenKey());
}

std::string SandboxFolder::readTokenKey() const {
    if (!std::filesystem::exists(keyFile())) {
        throw std::runtime_error(path_ + " is no sandbox; make one with: rbac-sandbox init --folder " + path_);
    }
    return readPrivateFile(keyFile());
}

std::string SandboxFolder::settings(const SandboxOptions& options) const {
    SqliteConnection database{options.connectionString, ""};
    if (database.connectionString.empty()) {
        const std::string file = authDatabaseFile();
        SqliteDatabase::create(file);  // for its owner only
        database = sqliteConnection(file);
    }
    const JsonPointer document(json_pack("{s:s, s:s, s:{}, s:{s:s, s:[]}, s:{s:i}}", "primaryServer",
                                         options.primaryServer.c_str(), "accessEnforcement", "gen2", "tls",
                                         "authDatabase", "connectionString", database.connectionString.c_str(),
                                         "onConnect", "log", "level", options.logLevel));
    if (!document) {
        throw std::invalid_argument("a setting is not UTF-8");
    }
    if (!database.onConnect.empty()) {
        json_array_append_new(json_object_get(json_object_get(document.get(), "authDatabase"), "onConnect"),
                              json_string(database.onConnect.c_str()));
    }
    // Absolute, whatever folder the programs that read the settings run in.
    const std::string tls = std::filesystem::absolute(path_ + "/tls/");
    setText(document, "tls", "caFile", tls + CA_CERTIFICATE);
    setText(document, "tls", "certFile", tls + HOST_CERTIFICATE);
    setText(document, "tls", "keyFile", tls + HOST_KEY);
    if (!options.logFile.empty()) {
        setText(document, "log", "file", options.logFile);
    }
    return json::dump(document, JSON_INDENT(2)) + "\n";
}

}  // namespace Tesmor::Arkwell::Sandbox
