#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// An open SQLite file. For one thread at a time. Everything here throws std::runtime_error with SQLite's message.
class SqliteDatabase {
public:
    /// Opens the file, or makes it, readable for its owner only. Changes survive the end of the operating system once
    /// they are committed; foreign keys are enforced; a lock of another process is waited for, 10 seconds at most.
    explicit SqliteDatabase(const std::string& path);

    /// Executes any number of statements without parameters.
    void execute(const char* sql);

    sqlite3* handle() const { return database_.get(); }

private:
    struct Close {
        void operator()(sqlite3* database) const;
    };
    std::unique_ptr<sqlite3, Close> database_;
};

/// A prepared statement.
///
///     SqliteStatement names(database, "SELECT name FROM users WHERE age > ?");
///     names.bind(1, 30);
///     while (names.step()) { use(names.text(0)); }
class SqliteStatement {
public:
    SqliteStatement(const SqliteDatabase& database, const char* sql);

    /// @param parameter counted from 1.
    SqliteStatement& bind(int parameter, std::int64_t value);
    SqliteStatement& bind(int parameter, std::string_view value);

    /// @return whether there is a row.
    bool step();
    /// step() for a statement without rows; it can be bound and run again afterwards.
    void run();

    /// @param column counted from 0.
    std::int64_t integer(int column) const;
    std::string text(int column) const;

private:
    void require(int result) const;

    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
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
