#pragma once

#include <platform/Export.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

/// @file
/// The data-access layer: connections to the authorization database over ODBC.
///
/// The settings file says how to connect (`authDatabase.connectionString`) and what is executed on every new connection
/// (`authDatabase.onConnect`). Functions report failures by statuses (see <platform/Status.h>) and log them with the
/// SQLSTATE and the driver's message, from which credentials and bound values are taken out. Nothing here throws but
/// std::bad_alloc.
///
///     Tesmor::Dal::DbConnectionManager manager(1, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false);
///     Tesmor::Dal::SSRGuard guard(&manager);
///     if (guard.status() != 0) { ... }
///     Tesmor::Dal::DbConnectionView view(guard.connection());
///     if (view.status() != 0) { ... }
///     Tesmor::Dal::ParameterBinder parameters;
///     parameters.bindInputString(id.c_str(), -3, false);
///     int status = guard.connection()->Execute(view.view(), "SELECT Name FROM T WHERE Id = ?", parameters.get(),
///                                              Tesmor::Dal::LOG_AT_VERBOSITY(6), "Caller::function", false, true);

namespace Tesmor {
namespace Dal {

namespace detail {
class ConnectionPool;
class Statement;
class PooledConnection;
}  // namespace detail

/// On whose behalf a manager connects. The credentials are the settings file's whatever the type; it is named in the
/// log.
enum USERID_TYPES : int {
    USERID_AUTHORIZATION = 6,  ///< the reader of the authorization database
};

/// The verbosity from which on an executed statement is written to the log.
struct LOG_AT_VERBOSITY {
    /// @param number 0 or more.
    LOG_AT_VERBOSITY(int number) : verbosity(number) {}  // NOLINT(google-explicit-constructor): numbers are passed
    int verbosity;                                       ///< the number
};

/// A statement on a connection: what is executed and fetched from. Made by DbConnectionView.
class ARKWELL_EXPORT DalOdbcView {
public:
    /// The kinds of columns and parameters.
    enum : std::uint32_t {
        KIND_INT32 = 992,       ///< a signed 32-bit integer
        KIND_CHARACTER = 1000,  ///< text that ends in a NUL
    };

    /// Describes one column of a row buffer, or one input parameter.
    struct BindingStruct {
        const char* name;      ///< the column's name, for messages; borrowed
        std::uint32_t kind;    ///< KIND_INT32 or KIND_CHARACTER in the upper 16 bits; 0 ends a list of parameters
        std::uint32_t offset;  ///< of the column in the row buffer, in bytes
        std::uint32_t size;    ///< of the column in the row buffer, in bytes, a text's NUL included
        std::int32_t length;   ///< of a parameter's text in bytes, or -3 for one that ends in a NUL, or -1 for NULL
        const char* value;     ///< a parameter's text; borrowed
    };

    DalOdbcView(const DalOdbcView&) = delete;
    DalOdbcView& operator=(const DalOdbcView&) = delete;
    ~DalOdbcView();

private:
    friend class DbConnection;
    friend class DbConnectionView;
    explicit DalOdbcView(std::unique_ptr<detail::Statement> statement);

    std::unique_ptr<detail::Statement> statement_;
};

/// Collects the input parameters of one statement, in the order of its question marks. For one thread.
class ARKWELL_EXPORT ParameterBinder {
public:
    ParameterBinder();
    ParameterBinder(const ParameterBinder&) = delete;
    ParameterBinder& operator=(const ParameterBinder&) = delete;
    ~ParameterBinder();

    /// Adds a text parameter.
    ///
    /// @param value copied. Null is bound as NULL.
    /// @param length of `value` in bytes, or -3 for text that ends in a NUL. Any other negative length is bound as
    /// NULL.
    /// @param emptyIsNull whether empty text is bound as NULL.
    void bindInputString(const char* value, int length, bool emptyIsNull);

    /// The parameters as DbConnection::Execute() takes them, ended by a record of kind 0. Valid until the next
    /// bindInputString(), and no longer than this object.
    DalOdbcView::BindingStruct* get();

private:
    std::deque<std::string> texts_;
    std::vector<DalOdbcView::BindingStruct> bindings_;  // the record that ends them included
};

/// A connection to the database. Acquired by SSRGuard, for one thread at a time.
class ARKWELL_EXPORT DbConnection {
public:
    DbConnection(const DbConnection&) = delete;
    DbConnection& operator=(const DbConnection&) = delete;
    ~DbConnection();

    /// Prepares and executes a statement, in a transaction of its own.
    ///
    /// A connection that turns out to be lost is replaced, and a SELECT is executed once more on the new one: one that
    /// is a single statement and has no INTO. Its functions are taken for such as change nothing.
    ///
    /// @param view where the rows are fetched from afterwards; rows that it still held are dropped.
    /// @param sql SQL text with a question mark for each parameter.
    /// @param parameters as ParameterBinder::get() returns them; null for none. Values are always bound, never part of
    /// the SQL text.
    /// @param verbosity from which on the SQL text is logged.
    /// @param context names the caller in the log.
    /// @param failWhenLost has a lost connection reported also for a SELECT. It is replaced all the same.
    /// @param confidential keeps also the number and the lengths of the parameters out of the log. Values never get
    /// there.
    /// @return 0 (also for a statement that touched no row), DATABASE_STATEMENT_FAILED, DATABASE_TIMED_OUT,
    /// DATABASE_CONNECTION_LOST, DATABASE_UNREACHABLE or DATABASE_MISUSED.
    int Execute(DalOdbcView* view, const char* sql, DalOdbcView::BindingStruct* parameters, LOG_AT_VERBOSITY verbosity,
                const char* context, bool failWhenLost, bool confidential);

    /// Fetches the next row into a buffer.
    ///
    /// @param view what was executed.
    /// @param rowBuffer written only within the described columns; a NULL becomes 0 or empty text.
    /// @param rowSize of `rowBuffer`, in bytes. Columns that do not lie within it are DATABASE_MISUSED.
    /// @param columns one record for each column, in the order of the SELECT.
    /// @param columnCount of `columns`.
    /// @param rowsFetched set to 1 or 0; may be null.
    /// @param wholeValues says that a value that does not fit into its column, terminating NUL included, fails the
    /// fetch. It does so without this flag, too: nothing is ever cut short.
    /// @param closeAfterRow drops the remaining rows at once.
    /// @return 0, DATABASE_END_OF_ROWS (2007031), DATABASE_VALUE_TOO_LONG, DATABASE_VALUE_UNUSABLE (not an integer, or
    /// out of its range, or text with a NUL inside), DATABASE_FETCH_FAILED, DATABASE_TIMED_OUT,
    /// DATABASE_CONNECTION_LOST or DATABASE_MISUSED. Whatever the failure, the columns' contents are then undefined.
    int Fetch(DalOdbcView* view, void* rowBuffer, unsigned long rowSize, DalOdbcView::BindingStruct* columns,
              unsigned long columnCount, unsigned long* rowsFetched, bool wholeValues, bool closeAfterRow);

private:
    friend class SSRGuard;
    friend class DbConnectionView;
    explicit DbConnection(std::unique_ptr<detail::PooledConnection> connection);

    std::unique_ptr<detail::PooledConnection> connection_;
};

/// Hands out connections from a pool. Any number of threads may acquire from one manager at once.
///
/// A child made by fork() shares no connection with its parent: in the child, a manager opens new ones.
class ARKWELL_EXPORT DbConnectionManager {
public:
    /// Opens `initialConnections`; connectionEstablished() says whether that worked.
    ///
    /// @param initialConnections opened at once, and kept open while idle; at most `maximumConnections`.
    /// @param maximumConnections open at any one time, at least 1. Whoever needs one more waits.
    /// @param connectRetries further attempts to connect after a failed one.
    /// @param retryDelaySeconds between two attempts to connect.
    /// @param acquireTimeoutSeconds for which an acquisition waits for a connection to become free.
    /// @param loginTimeoutSeconds for which one attempt to connect, with `onConnect`, waits for the server.
    /// @param statementTimeoutSeconds for which one Execute() or Fetch() waits for the server. 0 is no limit, here and
    /// for the other two limits.
    /// @param user on whose behalf.
    /// @param trace has every connection made and closed written to the log at level 4.
    DbConnectionManager(unsigned initialConnections, unsigned maximumConnections, unsigned connectRetries,
                        unsigned retryDelaySeconds, unsigned acquireTimeoutSeconds, unsigned loginTimeoutSeconds,
                        unsigned statementTimeoutSeconds, USERID_TYPES user, bool trace);
    DbConnectionManager(const DbConnectionManager&) = delete;
    DbConnectionManager& operator=(const DbConnectionManager&) = delete;
    /// Closes the connections. No guard may be left.
    ~DbConnectionManager();

    /// Whether the last attempt to connect worked and no connection was found lost since.
    bool connectionEstablished() const;

private:
    friend class SSRGuard;
    std::shared_ptr<detail::ConnectionPool> pool_;
};

/// Acquires a connection for as long as the guard lives. For one thread.
class ARKWELL_EXPORT SSRGuard {
public:
    /// Takes a connection that is free, or opens one, or waits for one.
    ///
    /// @param manager borrowed; null is DATABASE_MISUSED.
    explicit SSRGuard(DbConnectionManager* manager);
    SSRGuard(const SSRGuard&) = delete;
    SSRGuard& operator=(const SSRGuard&) = delete;
    ~SSRGuard();

    /// 0, DATABASE_NOT_CONFIGURED, DATABASE_UNREACHABLE, DATABASE_BUSY (none became free in time), DATABASE_TIMED_OUT
    /// (the server did not answer the attempt to connect), DATABASE_MISUSED, or the status of the settings file.
    int status() const { return status_; }

    /// Owned by the guard; null unless status() is 0.
    DbConnection* connection() const { return connection_.get(); }

private:
    std::unique_ptr<DbConnection> connection_;
    int status_ = 0;
};

/// Opens a statement on a connection for as long as the view lives, which must be within the life of the guard.
class ARKWELL_EXPORT DbConnectionView {
public:
    /// @param connection borrowed; null is DATABASE_MISUSED.
    explicit DbConnectionView(DbConnection* connection);
    DbConnectionView(const DbConnectionView&) = delete;
    DbConnectionView& operator=(const DbConnectionView&) = delete;
    ~DbConnectionView();

    /// 0, or DATABASE_MISUSED.
    int status() const { return status_; }

    /// Owned by this object; null unless status() is 0.
    DalOdbcView* view() const { return view_.get(); }

private:
    std::unique_ptr<DalOdbcView> view_;
    int status_ = 0;
};

}  // namespace Dal
}  // namespace Tesmor
