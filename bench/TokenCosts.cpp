// What it costs to make role ids, and a checker, of a session token, beside what OpenSSL, jansson and the ODBC driver
// take for it by themselves.

#include "InstallationPaths.h"
#include "bench/BenchCache.h"
#include "bench/Comparison.h"
#include "jwt/OpenSslHandles.h"
#include "rbac/enforcement/DiskAccessControlClient.h"
#include "sandbox/AuthDatabase.h"
#include "sandbox/CacheWriter.h"
#include "sandbox/TokenIssuer.h"
#include "testing/PostgresCluster.h"
#include "testing/TemporaryDirectory.h"

#include <jwt/JWTHandler.h>
#include <jwt/JWTSSLApi.h>
#include <platform/Dal.h>
#include <rbac/OperationCache.h>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <jansson.h>
#include <sql.h>
#include <sqlext.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

using namespace Tesmor::Arkwell;
using Sandbox::DatabaseServer;
using testing_support::TemporaryDirectory;

constexpr char KEY_FILE[] = TARVO_ROOT "/var/global/tmsec/jwtkeys/jwtPublicKey";
constexpr char TOKEN_QUERY[] =
    "SELECT AzTokenValue FROM AUTH_MAIN.AUTH_Access_Token_Details WHERE SessionTokenValue = ?";
constexpr int ROLES = 5;
constexpr int SESSIONS = 1000;
constexpr std::size_t TOKEN_SIZE = 1024;

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

/// A host with its key and one of the servers, with a thousand sessions.
class Installation {
public:
    explicit Installation(DatabaseServer server) {
        if (server == DatabaseServer::POSTGRESQL) {
            cluster_ = std::make_unique<testing_support::PostgresCluster>();
            connectionString = cluster_->connectionString();
        } else {
            const auto connection = Sandbox::sqliteConnection(directory_ / "auth.db");
            connectionString = connection.connectionString;
            onConnect = connection.onConnect;
        }
        use();
        fill(server);
    }

    /// Makes this the installation that the library sees.
    void use() const {
        const std::string file = directory_ / "platform.json";
        testing_support::writeFile(file, R"({"authDatabase":{"connectionString":")" + connectionString +
                                             R"(","onConnect":[)" + (onConnect.empty() ? "" : '"' + onConnect + '"') +
                                             R"(]},"log":{"level":16}})");
        setenv("TARVO_PLATFORM_CONFIG", file.c_str(), 1);
    }

    std::string connectionString;
    std::string onConnect;
    Sandbox::SessionTokens session;

private:
    void fill(DatabaseServer server) {
        const auto key = Sandbox::SigningKey::generate();
        testing_support::writeFile(KEY_FILE + std::string(server == DatabaseServer::SQLITE ? ".sqlite" : ".postgresql"),
                                   key.publicPem());
        const Sandbox::TokenIssuer issuer(key);
        Sandbox::AuthDatabase database;
        database.createSchema(server);
        std::set<int> roles;
        for (int i = 0; i < ROLES; ++i) {
            roles.insert(i + 1);
        }
        // As long a subject as it takes to make a token of a kilobyte.
        std::string subject = "user:example.com:directory";
        const auto expiry = std::chrono::system_clock::now() + std::chrono::hours(24);
        while (session.sessionToken.size() < TOKEN_SIZE) {
            session = issuer.issue({subject += 'x', false, roles}, expiry);
        }
        database.addSession(session.id, session.azToken);
        for (int i = 1; i < SESSIONS; ++i) {
            database.addSession("other-" + std::to_string(i), session.azToken);
        }
    }

    TemporaryDirectory directory_;
    std::unique_ptr<testing_support::PostgresCluster> cluster_;
};

Installation& installation(DatabaseServer server) {
    static Installation sqlite(DatabaseServer::SQLITE);
    static Installation postgresql(DatabaseServer::POSTGRESQL);
    Installation& chosen = server == DatabaseServer::SQLITE ? sqlite : postgresql;
    chosen.use();
    const std::string key =
        testing_support::readFile(KEY_FILE + std::string(server == DatabaseServer::SQLITE ? ".sqlite" : ".postgresql"));
    testing_support::writeFile(KEY_FILE, key);
    return chosen;
}

std::vector<std::string> segments(const std::string& token) {
    const std::size_t first = token.find('.');
    const std::size_t second = token.find('.', first + 1);
    return {token.substr(0, first), token.substr(first + 1, second - first - 1), token.substr(second + 1)};
}

/// Base64url text as the plain text that a decoder takes.
std::string padded(std::string text) {
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    return text.append((4 - text.size() % 4) % 4, '=');
}

std::string decode(const std::string& text) {
    BIO* const filter = BIO_new(BIO_f_base64());
    BIO_set_flags(filter, BIO_FLAGS_BASE64_NO_NL);
    const BioPointer chain(BIO_push(filter, BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
    std::string bytes(text.size(), '\0');
    bytes.resize(
        static_cast<std::size_t>(std::max(0, BIO_read(chain.get(), bytes.data(), static_cast<int>(bytes.size())))));
    return bytes;
}

/// V: the key file read, the key made of it, one verification.
class Verification {
public:
    explicit Verification(const std::string& token) {
        const std::vector<std::string> parts = segments(token);
        text_ = parts[0] + "." + parts[1];
        signature_ = decode(padded(parts[2]));
    }

    bool operator()() const {
        std::ifstream file(KEY_FILE);
        const std::string pem{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        const BioPointer memory(BIO_new_mem_buf(pem.data(), -1));
        const RsaPointer rsa(PEM_read_bio_RSA_PUBKEY(memory.get(), nullptr, nullptr, nullptr));
        const KeyPointer key(EVP_PKEY_new());
        EVP_PKEY_set1_RSA(key.get(), rsa.get());
        const DigestPointer digest(EVP_MD_CTX_new());
        EVP_VerifyInit(digest.get(), EVP_sha256());
        EVP_VerifyUpdate(digest.get(), text_.data(), text_.size());
        return EVP_VerifyFinal(digest.get(), reinterpret_cast<const unsigned char*>(signature_.data()),
                               static_cast<unsigned int>(signature_.size()), key.get()) == 1;
    }

private:
    std::string text_;
    std::string signature_;
};

/// Q: a statement prepared, executed and fetched on a connection that is held, through the same driver.
class DirectQuery {
public:
    explicit DirectQuery(const Installation& installation) : id_(installation.session.id) {
        SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment_);
        SQLSetEnvAttr(environment_, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);  // NOLINT
        SQLAllocHandle(SQL_HANDLE_DBC, environment_, &connection_);
        std::string text = installation.connectionString;
        require(SQL_SUCCEEDED(SQLDriverConnect(connection_, nullptr, characters(text), SQL_NTS, nullptr, 0, nullptr,
                                               SQL_DRIVER_NOPROMPT)),
                "cannot connect");
        std::string first = installation.onConnect;
        if (!first.empty()) {
            SQLHSTMT statement = nullptr;
            SQLAllocHandle(SQL_HANDLE_STMT, connection_, &statement);
            require(SQL_SUCCEEDED(SQLExecDirect(statement, characters(first), SQL_NTS)), "cannot attach");
            SQLFreeHandle(SQL_HANDLE_STMT, statement);
        }
    }
    ~DirectQuery() {
        SQLDisconnect(connection_);
        SQLFreeHandle(SQL_HANDLE_DBC, connection_);
        SQLFreeHandle(SQL_HANDLE_ENV, environment_);
    }
    DirectQuery(const DirectQuery&) = delete;
    DirectQuery& operator=(const DirectQuery&) = delete;

    bool operator()() {
        SQLHSTMT statement = nullptr;
        SQLAllocHandle(SQL_HANDLE_STMT, connection_, &statement);
        std::string sql = TOKEN_QUERY;
        SQLPrepare(statement, characters(sql), SQL_NTS);
        SQLLEN idLength = SQL_NTS;
        SQLBindParameter(statement, 1, SQL_PARAM_INPUT, SQL_C_CHAR, SQL_VARCHAR, id_.size(), 0, id_.data(), 0,
                         &idLength);
        SQLLEN length = 0;
        SQLBindCol(statement, 1, SQL_C_CHAR, row_.data(), static_cast<SQLLEN>(row_.size()), &length);
        SQLExecute(statement);
        const bool found = SQL_SUCCEEDED(SQLFetch(statement)) && length > 0;
        SQLFreeHandle(SQL_HANDLE_STMT, statement);
        return found;
    }

private:
    static SQLCHAR* characters(std::string& text) { return reinterpret_cast<SQLCHAR*>(text.data()); }

    std::string id_;
    std::string row_ = std::string(32001, '\0');
    SQLHENV environment_ = nullptr;
    SQLHDBC connection_ = nullptr;
};

/// J: three base64 decodings, of the signature and both payloads, and two jansson parses.
class Parsing {
public:
    explicit Parsing(const Sandbox::SessionTokens& tokens)
        : signature_(padded(segments(tokens.sessionToken)[2])),
          session_(padded(segments(tokens.sessionToken)[1])),
          authorization_(padded(segments(tokens.azToken)[1])) {}

    bool operator()() const {
        const bool signatureDecoded = !decode(signature_).empty();
        return parse(session_) && parse(authorization_) && signatureDecoded;
    }

private:
    static bool parse(const std::string& text) {
        json_t* const document = json_loads(decode(text).c_str(), 0, nullptr);
        const bool parsed = document != nullptr;
        json_decref(document);
        return parsed;
    }

    std::string signature_;
    std::string session_;
    std::string authorization_;
};

template <class Work>
void repeat(benchmark::State& state, Work&& work) {
    for (auto _ : state) {
        if (!work()) {
            state.SkipWithError("failed");
            return;
        }
    }
}

void floorVerify(benchmark::State& state) {
    repeat(state, Verification(installation(DatabaseServer::SQLITE).session.sessionToken));
}

void verify(benchmark::State& state) {
    const std::string token = installation(DatabaseServer::SQLITE).session.sessionToken;
    repeat(state, [&] { return JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(token); });
}

void floorOf(benchmark::State& state, DatabaseServer server) {
    const Installation& used = installation(server);
    const Verification verification(used.session.sessionToken);
    DirectQuery query(used);
    const Parsing parsing(used.session);
    repeat(state, [&] { return verification() && query() && parsing(); });
}
void floorQueryOf(benchmark::State& state, DatabaseServer server) {
    repeat(state, DirectQuery(installation(server)));
}

Tesmor::Dal::DbConnectionManager& manager(DatabaseServer server) {
    static Tesmor::Dal::DbConnectionManager sqlite(0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false);
    static Tesmor::Dal::DbConnectionManager postgresql(0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION,
                                                       false);
    return server == DatabaseServer::SQLITE ? sqlite : postgresql;
}

void rolesOf(benchmark::State& state, DatabaseServer server) {
    const std::string token = installation(server).session.sessionToken;
    Tesmor::Dal::DbConnectionManager& connections = manager(server);
    repeat(state, [&] {
        std::set<int> roles;
        return Rbac::JWTHandler().getRoleIds(&connections, token, roles) == 0 && roles.size() == ROLES;
    });
}

void floorSqlite(benchmark::State& state) {
    floorOf(state, DatabaseServer::SQLITE);
}
void floorPostgresql(benchmark::State& state) {
    floorOf(state, DatabaseServer::POSTGRESQL);
}
void querySqlite(benchmark::State& state) {
    floorQueryOf(state, DatabaseServer::SQLITE);
}
void queryPostgresql(benchmark::State& state) {
    floorQueryOf(state, DatabaseServer::POSTGRESQL);
}
void rolesSqlite(benchmark::State& state) {
    rolesOf(state, DatabaseServer::SQLITE);
}
void rolesPostgresql(benchmark::State& state) {
    rolesOf(state, DatabaseServer::POSTGRESQL);
}

void checkerSqlite(benchmark::State& state) {
    const std::string token = installation(DatabaseServer::SQLITE).session.sessionToken;
    static const bench::BenchCache cache = bench::BenchCache::ofCorpus(1000);
    Sandbox::writeOperationCache(TARVO_ROOT "/wmc/webserver/temp/operation-cache.json",
                                 {{Rbac::root_namespaces::operations::VIEW, 0}});
    Rbac::OperationCache operations;
    Rbac::DiskAccessControlClient client(
        Rbac::ObjectNamespace(),
        boost::make_shared<const Rbac::AccessCache>(Rbac::Manifest("bench", cache.directory())), operations);
    Tesmor::Dal::DbConnectionManager& connections = manager(DatabaseServer::SQLITE);
    repeat(state, [&] {
        boost::shared_ptr<const Rbac::AccessChecker> checker;
        return client.createAccessChecker(&connections, token, Rbac::root_namespaces::operations::VIEW, 0, checker) ==
                   0 &&
               checker;
    });
}

BENCHMARK(floorVerify);
BENCHMARK(verify);
BENCHMARK(querySqlite);
BENCHMARK(floorSqlite);
BENCHMARK(rolesSqlite)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(checkerSqlite);
BENCHMARK(queryPostgresql)->UseRealTime();
BENCHMARK(floorPostgresql)->UseRealTime();
BENCHMARK(rolesPostgresql)->ThreadRange(1, 2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::filesystem::create_directories(std::filesystem::path(KEY_FILE).parent_path());
    bench::Comparison comparison;
    comparison.expectAtMost("verify", 1.15, "floorVerify");
    comparison.expectAtMost("rolesSqlite", 1.25, "floorSqlite");
    comparison.expectAtMost("rolesPostgresql", 1.25, "floorPostgresql");
    comparison.expectAtMost("checkerSqlite", 1.3, "floorSqlite");
    comparison.expectRateAtLeast("rolesSqlite/threads:2", 1.7, "rolesSqlite");
    comparison.expectRateAtLeast("rolesPostgresql/threads:2", 1.7, "rolesPostgresql");
    comparison.show("querySqlite", "floorSqlite");
    comparison.show("queryPostgresql", "floorPostgresql");
    benchmark::RunSpecifiedBenchmarks(&comparison);
    return comparison.report(std::cout) ? 0 : 1;
}
