#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// An open SQLite file. For one thread at a time; any number of them may be open at once. Everything here throws
/// std::runtime_error with SQLite's message.
///
/// The file is opened by nobody but SQLite: its locks belong to the process, and whoever else closes the file in the
/// same process gives them up.
class SqliteDatabase {
public:
    /// Makes the file where it is missing, for its owner only, and opens it.
    static SqliteDatabase create(const std::string& path);

    /// Opens a file that is there already. Changes survive the end of the operating system once they are committed;
    /// foreign keys are enforced; a lock of another process is waited for, 10 seconds at most.
    explicit SqliteDatabase(const std::string& path);
    ~SqliteDatabase();
    SqliteDatabase(const SqliteDatabase&) = delete;
    SqliteDatabase& operator=(const SqliteDatabase&) = delete;

    /// Executes any number of statements without parameters.
    void execute(const char* sql);

private:
    friend class SqliteStatement;

    struct Close {
        void operator()(sqlite3* database) const;
    };
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    using StatementPointer = std::unique_ptr<sqlite3_stmt, Finalize>;

    StatementPointer take(std::string_view sql);
    void giveBack(std::string_view sql, StatementPointer statement) noexcept;

    std::unique_ptr<sqlite3, Close> database_;
    std::unordered_map<std::string_view, std::vector<StatementPointer>> idle_;
};

/// A prepared statement, which the database keeps for the next one with the same text.
///
///     SqliteStatement names(database, "SELECT name FROM roles WHERE id > ?");
///     names.bind(1, 30);
///     while (names.step()) { use(names.text(0)); }
class SqliteStatement {
public:
    /// @param sql lives as long as the database: a literal.
    SqliteStatement(SqliteDatabase& database, const char* sql);
    ~SqliteStatement();
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    /// @param parameter counted from 1.
    SqliteStatement& bind(int parameter, std::int64_t value);
    SqliteStatement& bind(int parameter, std::string_view value);

    /// @return whether there is a row.
    bool step();
    /// Goes on to the end; the statement can be bound and run again afterwards.
    void run();

    /// @param column counted from 0.
    std::int64_t integer(int column) const;
    std::string text(int column) const;

private:
    void require(int result) const;

    SqliteDatabase& database_;
    std::string_view sql_;
    SqliteDatabase::StatementPointer statement_;
};

/// Changes that are made together: undone at the end of the scope unless commit() was called.
class SqliteTransaction {
public:
    explicit SqliteTransaction(SqliteDatabase& database);
    SqliteTransaction(const SqliteTransaction&) = delete;
    SqliteTransaction& operator=(const SqliteTransaction&) = delete;
    ~SqliteTransaction();

    void commit();

private:
    SqliteDatabase& database_;
    bool open_ = true;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
