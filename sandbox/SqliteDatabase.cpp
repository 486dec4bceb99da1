#include "sandbox/SqliteDatabase.h"

#include "platform/Handles.h"
#include "sandbox/LogLevels.h"

#include <platform/Logger.h>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr int LOCK_WAIT_MS = 10'000;

[[noreturn]] void fail(sqlite3* database) {
    throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database));
}

}  // namespace

void SqliteDatabase::Close::operator()(sqlite3* database) const {
    sqlite3_close_v2(database);
}

void SqliteDatabase::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

SqliteDatabase SqliteDatabase::create(const std::string& path) {
    // SQLite would give it the permissions of the process's umask. Its log and index follow it.
    const platform_detail::Descriptor created(
        open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    return SqliteDatabase(path);
}

SqliteDatabase::SqliteDatabase(const std::string& path) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(opened);
    if (result != SQLITE_OK) {
        throw std::runtime_error("SQLite: " + path + ": " + sqlite3_errstr(result));
    }
    sqlite3_busy_timeout(opened, LOCK_WAIT_MS);
    execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON");
}

SqliteDatabase::~SqliteDatabase() = default;

void SqliteDatabase::execute(const char* sql) {
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail(database_.get());
    }
}

SqliteDatabase::StatementPointer SqliteDatabase::take(std::string_view sql) {
    std::vector<StatementPointer>& idle = idle_[sql];
    if (!idle.empty()) {
        StatementPointer statement = std::move(idle.back());
        idle.pop_back();
        return statement;
    }
    idle.reserve(1);  // so that giving it back needs no memory
    sqlite3_stmt* prepared = nullptr;
    const int result = sqlite3_prepare_v3(database_.get(), sql.data(), static_cast<int>(sql.size()),
                                          SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    StatementPointer statement(prepared);
    if (result != SQLITE_OK) {
        fail(database_.get());
    }
    return statement;
}

void SqliteDatabase::giveBack(std::string_view sql, StatementPointer statement) noexcept {
    sqlite3_reset(statement.get());
    sqlite3_clear_bindings(statement.get());
    const auto idle = idle_.find(sql);
    if (idle != idle_.end() && idle->second.size() < idle->second.capacity()) {
        idle->second.push_back(std::move(statement));
    }
}

SqliteStatement::SqliteStatement(SqliteDatabase& database, const char* sql)
    : database_(database), sql_(sql), statement_(database.take(sql_)) {}

SqliteStatement::~SqliteStatement() {
    database_.giveBack(sql_, std::move(statement_));
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
    while (step()) {
    }
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
        fail(sqlite3_db_handle(statement_.get()));
    }
}

SqliteTransaction::SqliteTransaction(SqliteDatabase& database) : database_(database) {
    database_.execute("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction() {
    if (!open_) {
        return;
    }
    try {
        database_.execute("ROLLBACK");
    } catch (const std::exception& failure) {
        // After some failures SQLite has undone the changes already.
        logmsgf(LEVEL_ERROR, "SqliteTransaction", "%s", failure.what());
    }
}

void SqliteTransaction::commit() {
    database_.execute("COMMIT");
    open_ = false;
}

}  // namespace Tesmor::Arkwell::Sandbox
