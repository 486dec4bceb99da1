#pragma once

#include "platform/DalDiagnostics.h"
#include "platform/DalHandles.h"
#include "platform/Settings.h"

#include <platform/Dal.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace Tesmor {
namespace Dal {
namespace detail {

using Binding = DalOdbcView::BindingStruct;

/// The length of a parameter whose text ends in a NUL. Any other negative one stands for NULL.
constexpr std::int32_t ENDS_IN_NUL = -3;

/// @return a binding's kind, without the bits that say nothing.
inline std::uint32_t kindOf(const Binding& binding) {
    return binding.kind >> 16;
}

/// How a call of the driver ended.
struct Result {
    int status = 0;
    Diagnosis diagnosis;             // what the driver says; empty where it has not failed
    unsigned long failedColumn = 0;  // whose value cannot be used, from 1 on; 0 for none
};

/// A statement of a session, with what goes into its calls and comes out of them: a call may end long after the caller
/// has given up waiting for it.
struct OpenStatement {
    enum class Rows { NEVER, LEFT, DROPPED };

    bool inUse = false;
    StatementHandle handle;
    Rows rows = Rows::NEVER;
    SQLSMALLINT resultColumns = 0;

    const char* sql = nullptr;
    const Binding* parameters = nullptr;
    std::vector<SQLLEN> lengths;  // of the parameters

    char* row = nullptr;
    const Binding* columns = nullptr;
    unsigned long columnCount = 0;
    bool closeAfterRow = false;

    Result result;
    std::string context;  // names the caller in the log

    // What is executed. A driver quotes the values also in what it says when rows are fetched.
    std::string ownSql;
    std::deque<std::string> ownValues;
    std::vector<Binding> ownParameters;
    // What the pointers refer to where the caller's own does not live long enough.
    std::vector<Binding> ownColumns;
    std::vector<char> ownRow;
};

/// A connection of the driver manager's. Its calls take as long as the driver takes. For one thread at a time.
class Session {
public:
    struct Limits {
        unsigned loginSeconds;
        unsigned statementSeconds;
    };

    Session(std::shared_ptr<EnvironmentHandle> environment, std::shared_ptr<const platform_detail::Settings> settings,
            Limits limits);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    /// Connects and executes `onConnect`; connectResult() tells how it went.
    void connect();
    const Result& connectResult() const { return connectResult_; }
    /// The number of the statement of `onConnect` that failed, from 1 on; 0 for none.
    std::size_t failedOnConnect() const { return failedOnConnect_; }

    /// Whether the database runs in this process, so that no server can keep a call waiting.
    bool isInProcess() const { return inProcess_; }
    const platform_detail::Settings& settings() const { return *settings_; }
    const Limits& limits() const { return limits_; }

    /// A statement that nobody uses. It stays the session's; closeStatement() gives it back.
    OpenStatement& openStatement();

    void execute(OpenStatement& statement);
    void fetch(OpenStatement& statement);
    /// Drops the rows that are left.
    void dropRows(OpenStatement& statement) const;

private:
    void connectHandle();
    void connectInTurn(const std::string& connectionString);
    void connectWith(const std::string& connectionString, unsigned seconds);
    bool isSqlite() const;
    unsigned lockTimeoutMs() const;
    bool setUp();
    bool executeSetUp(const std::string& sql);
    bool prepareHandle(OpenStatement& statement);
    bool bindParameters(OpenStatement& statement) const;
    void readRow(OpenStatement& statement) const;
    void failed(OpenStatement& statement, int status) const;
    Result failure(SQLSMALLINT handleType, SQLHANDLE handle, int status) const;
    bool isDead() const;

    std::shared_ptr<EnvironmentHandle> environment_;
    std::shared_ptr<const platform_detail::Settings> settings_;
    Limits limits_;
    ConnectionHandle handle_;
    bool connected_ = false;
    bool inProcess_ = false;
    Result connectResult_;
    std::size_t failedOnConnect_ = 0;
    std::vector<std::unique_ptr<OpenStatement>> statements_;
};

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
