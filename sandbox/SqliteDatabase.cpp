#include "sandbox/SqliteDatabase.h"

#include "platform/Handles.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <stdexcept>

namespace Tesmor::Arkwell::Sandbox {

namespace {

[[noreturn]] void fail(sqlite3* database, int result) {
    throw std::runtime_error(std::string("SQLite: ") +
                             (database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(result)));
}

}  // namespace

void SqliteDatabase::Close::operator()(sqlite3* database) const {
    sqlite3_close_v2(database);
}

SqliteDatabase::SqliteDatabase(const std::string& path) {
    // Made here, because SQLite would give it the permissions of the process's umask. Its log and index follow it. A
    // file that is there is not opened: closing it would end the locks of every other connection of this process.
    const platform_detail::Descriptor file(
        open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(opened);
    if (result != SQLITE_OK) {
        throw std::runtime_error("SQLite: " + path + ": " + sqlite3_errstr(result));
    }
    sqlite3_busy_timeout(opened, 10000);
    execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON");
}

// NOLINTNEXTLINE(readability-make-member-function-const): it changes the database
void SqliteDatabase::execute(const char* sql) {
    const int result = sqlite3_exec(handle(), sql, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        fail(handle(), result);
    }
}

void SqliteStatement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

SqliteStatement::SqliteStatement(const SqliteDatabase& database, const char* sql) {
    sqlite3_stmt* prepared = nullptr;
    const int result = sqlite3_prepare_v2(database.handle(), sql, -1, &prepared, nullptr);
    statement_.reset(prepared);
    if (result != SQLITE_OK) {
        fail(database.handle(), result);
    }
}

SqliteStatement& SqliteStatement::bind(int parameter, std::int64_t value) {
    require(sqlite3_bind_int64(statement_.get(), parameter, value));
    return *this;
}

SqliteStatement& SqliteStatement::bind(int parameter, std::string_view value) {
    const auto release = SQLITE_TRANSIENT;  // NOLINT(performance-no-int-to-ptr): SQLite's own way to say "copy"
    require(sqlite3_bind_text64(statement_.get(), parameter, value.data(), value.size(), release, SQLITE_UTF8));
    return *this;
}

bool SqliteStatement::step() {
    const int result = sqlite3_step(statement_.get());
    if (result == SQLITE_ROW) {
        return true;
    }
    require(result == SQLITE_DONE ? SQLITE_OK : result);
    return false;
}

void SqliteStatement::run() {
    step();
    require(sqlite3_reset(statement_.get()));
}

std::int64_t SqliteStatement::integer(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

std::string SqliteStatement::text(int column) const {
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
    const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
    return bytes != nullptr ? std::string(bytes, length) : std::string();
}

void SqliteStatement::require(int result) const {
    if (result != SQLITE_OK) {
        fail(sqlite3_db_handle(statement_.get()), result);
    }
}

SqliteTransaction::SqliteTransaction(SqliteDatabase& database) : database_(database) {
    database_.execute("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction() {
    if (open_) {
        sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void SqliteTransaction::commit() {
    database_.execute("COMMIT");
    open_ = false;
}

}  // namespace Tesmor::Arkwell::Sandbox
