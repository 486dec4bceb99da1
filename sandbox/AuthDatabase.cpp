#include "sandbox/AuthDatabase.h"

#include <platform/Status.h>

#include <stdexcept>

namespace Tesmor::Arkwell::Sandbox {

namespace {

using Dal::DalOdbcView;

constexpr char CONTEXT[] = "AuthDatabase::execute";
constexpr int NUL_TERMINATED = -3;
constexpr std::size_t LONGEST_TOKEN = 32000;
constexpr std::uint32_t ID_SIZE = 256;

void require(int status) {
    if (status != 0) {
        throw EC_exception(status);
    }
}

/// A connection with a statement on it.
class Session {
public:
    explicit Session(Dal::DbConnectionManager& manager) : guard_(&manager), view_(guard_.connection()) {
        require(guard_.status());
        require(view_.status());
    }

    void execute(const std::string& sql, const std::vector<std::string>& texts) {
        Dal::ParameterBinder parameters;
        for (const std::string& text : texts) {
            parameters.bindInputString(text.c_str(), NUL_TERMINATED, false);
        }
        require(guard_.connection()->Execute(view_.view(), sql.c_str(), parameters.get(), 5, CONTEXT, false, true));
    }

    /// @return false at the end of the rows.
    bool fetchText(char* row, unsigned long size, DalOdbcView::BindingStruct& column) {
        const int status = guard_.connection()->Fetch(view_.view(), row, size, &column, 1, nullptr, true, false);
        if (status == platform_status::DATABASE_END_OF_ROWS) {
            return false;
        }
        require(status);
        return true;
    }

private:
    Dal::SSRGuard guard_;
    Dal::DbConnectionView view_;
};

}  // namespace

AuthDatabase::AuthDatabase() : manager_(0, 4, 0, 1, 30, 15, 40, Dal::USERID_AUTHORIZATION, false) {}

void AuthDatabase::createSchema(DatabaseServer server) {
    // In SQLite the schema is the file that is attached under its name. There, readers and a writer get along only with
    // a write-ahead log.
    execute(server == DatabaseServer::POSTGRESQL ? "CREATE SCHEMA IF NOT EXISTS AUTH_MAIN"
                                                 : "PRAGMA AUTH_MAIN.journal_mode = WAL");
    execute(
        "CREATE TABLE IF NOT EXISTS AUTH_MAIN.AUTH_Access_Token_Details ("
        "SessionTokenValue VARCHAR(255) NOT NULL PRIMARY KEY, "
        "AzTokenValue VARCHAR(32000) NOT NULL)");
    execute(
        "CREATE TABLE IF NOT EXISTS AUTH_MAIN.ACTL_CollectionCriteria ("
        "CriteriaID INTEGER NOT NULL PRIMARY KEY, "
        "CollectionKey INTEGER NOT NULL, "
        "objectType VARCHAR(255) NOT NULL, "
        "CriteriaJson VARCHAR(32767) NOT NULL)");
}

void AuthDatabase::addSession(const std::string& id, const std::string& azToken) {
    if (azToken.size() > LONGEST_TOKEN) {
        throw std::length_error("the authorization token is " + std::to_string(azToken.size()) +
                                " bytes long, at most " + std::to_string(LONGEST_TOKEN) +
                                " can be read back: give the user fewer roles");
    }
    execute("INSERT INTO AUTH_MAIN.AUTH_Access_Token_Details (SessionTokenValue, AzTokenValue) VALUES (?, ?)",
            {id, azToken});
}

void AuthDatabase::removeSession(const std::string& id) {
    execute("DELETE FROM AUTH_MAIN.AUTH_Access_Token_Details WHERE SessionTokenValue = ?", {id});
}

std::vector<std::string> AuthDatabase::sessionIds() {
    Session session(manager_);
    session.execute("SELECT SessionTokenValue FROM AUTH_MAIN.AUTH_Access_Token_Details ORDER BY SessionTokenValue", {});
    DalOdbcView::BindingStruct column{
        "SessionTokenValue", std::uint32_t{DalOdbcView::KIND_CHARACTER} << 16U, 0, ID_SIZE, 0, nullptr};
    std::vector<std::string> ids;
    char row[ID_SIZE];
    while (session.fetchText(row, sizeof row, column)) {
        ids.emplace_back(row);
    }
    return ids;
}

void AuthDatabase::addCriteria(int criteriaId, int collectionKey, const std::string& objectType,
                               const std::string& json) {
    execute(
        "INSERT INTO AUTH_MAIN.ACTL_CollectionCriteria (CriteriaID, CollectionKey, objectType, CriteriaJson) VALUES (" +
            std::to_string(criteriaId) + ", " + std::to_string(collectionKey) + ", ?, ?)",
        {objectType, json});
}

void AuthDatabase::execute(const std::string& sql, const std::vector<std::string>& parameters) {
    Session(manager_).execute(sql, parameters);
}

SqliteConnection sqliteConnection(const std::string& databaseFile) {
    if (databaseFile.find_first_of("';{}\n") != std::string::npos) {
        throw std::invalid_argument("the path of a database must not hold ' ; { } or a line end: " + databaseFile);
    }
    return {"Driver=" ARKWELL_ODBC_DRIVER_DIR "/libsqlite3odbc.so;Database=:memory:;",
            "ATTACH DATABASE '" + databaseFile + "' AS AUTH_MAIN"};
}

}  // namespace Tesmor::Arkwell::Sandbox
