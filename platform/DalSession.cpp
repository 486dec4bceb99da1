#include "platform/DalSession.h"

#include "platform/DalConnectionString.h"
#include "platform/DalForkGate.h"

#include <platform/Status.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <utility>

namespace Tesmor {
namespace Dal {
namespace detail {

namespace {

// For which an attempt to connect without a limit of its own waits for those of others.
constexpr unsigned LONGEST_WAIT_SECONDS = 60;

constexpr long SQLITE_BUSY_CODE = 5;
constexpr long SQLITE_LOCKED_CODE = 6;

/// For the functions of the driver manager, which take every text as if they would change it.
SQLCHAR* textOf(const char* text) {
    return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text));  // NOLINT(cppcoreguidelines-pro-type-const-cast)
}

/// A number in the place of a pointer, as attributes are set.
SQLPOINTER asPointer(SQLULEN number) {
    return reinterpret_cast<SQLPOINTER>(number);  // NOLINT(performance-no-int-to-ptr)
}

bool succeeded(SQLRETURN code) {
    return SQL_SUCCEEDED(code);
}

bool isOneOf(std::string_view state, std::initializer_list<std::string_view> states) {
    return std::find(states.begin(), states.end(), state) != states.end();
}

bool saysLost(const std::string& state) {
    return state.compare(0, 2, "08") == 0 || isOneOf(state, {"57P01", "57P02", "57P03"});
}

bool saysTimedOut(const std::string& state) {
    return isOneOf(state, {"HYT00", "HYT01", "57014"});
}

/// SQLite's codes: the lower byte is the kind of failure.
bool saysLocked(long nativeCode) {
    const long code = nativeCode & 0xFF;
    return code == SQLITE_BUSY_CODE || code == SQLITE_LOCKED_CODE;
}

/// @param length set to the text's, or to SQL_NULL_DATA.
/// @return a status of platform_status.
int readText(SQLHANDLE handle, SQLUSMALLINT number, char* target, std::uint32_t size, SQLLEN& length) {
    length = SQL_NULL_DATA;
    if (!succeeded(SQLGetData(handle, number, SQL_C_CHAR, target, static_cast<SQLLEN>(size), &length))) {
        return platform_status::DATABASE_FETCH_FAILED;
    }
    if (length == SQL_NULL_DATA) {
        target[0] = '\0';
        return 0;
    }
    if (length < 0 || length >= static_cast<SQLLEN>(size)) {
        return platform_status::DATABASE_VALUE_TOO_LONG;
    }
    const auto bytes = static_cast<std::size_t>(length);
    target[bytes] = '\0';
    return std::memchr(target, '\0', bytes) == nullptr ? 0 : platform_status::DATABASE_VALUE_UNUSABLE;
}

/// The number is not left to the driver's conversion: some take anything for one.
int readInteger(SQLHANDLE handle, SQLUSMALLINT number, char* target) {
    std::array<char, 32> text;  // NOLINT(cppcoreguidelines-pro-type-member-init): the driver fills it
    SQLLEN length = 0;
    const int status = readText(handle, number, text.data(), static_cast<std::uint32_t>(text.size()), length);
    if (status != 0) {
        return status == platform_status::DATABASE_VALUE_TOO_LONG ? platform_status::DATABASE_VALUE_UNUSABLE : status;
    }
    std::int32_t value = 0;
    if (length != SQL_NULL_DATA) {
        const char* end = text.data() + length;
        const std::from_chars_result parsed = std::from_chars(text.data(), end, value);
        if (parsed.ec != std::errc() || parsed.ptr != end) {
            return platform_status::DATABASE_VALUE_UNUSABLE;
        }
    }
    std::memcpy(target, &value, sizeof value);
    return 0;
}

/// Whether an attempt to connect that failed after this time has used up its own: drivers name no SQLSTATE for that,
/// and count whole seconds.
///
/// @param seconds that the driver was told; 0 is no limit.
bool timeIsUp(std::chrono::steady_clock::duration taken, unsigned seconds) {
    return seconds > 0 && taken >= std::chrono::seconds(std::max(seconds, 2U) - 1);
}

int readColumn(SQLHANDLE handle, SQLUSMALLINT number, const Binding& column, char* row) {
    if (kindOf(column) == DalOdbcView::KIND_INT32) {
        return readInteger(handle, number, row + column.offset);
    }
    SQLLEN length = 0;
    return readText(handle, number, row + column.offset, column.size, length);
}

}  // namespace

Session::Session(std::shared_ptr<EnvironmentHandle> environment,
                 std::shared_ptr<const platform_detail::Settings> settings, Limits limits)
    : environment_(std::move(environment)), settings_(std::move(settings)), limits_(limits) {}

Session::~Session() {
    const DriverCall call;
    statements_.clear();
    if (connected_) {
        SQLDisconnect(handle_.get());
    }
    handle_ = ConnectionHandle();
}

void Session::connect() {
    const DriverCall call;
    connectHandle();
    if (connected_ && !setUp() && connectResult_.status != platform_status::DATABASE_TIMED_OUT) {
        connectResult_.status = platform_status::DATABASE_UNREACHABLE;
    }
}

void Session::connectHandle() {
    handle_ = ConnectionHandle(environment_->get());
    if (!handle_) {
        // GCOVR_EXCL_START: the driver manager has no memory.
        connectResult_ = failure(SQL_HANDLE_ENV, environment_->get(), platform_status::DATABASE_UNREACHABLE);
        return;
        // GCOVR_EXCL_STOP
    }
    const std::string& connectionString = settings_->authDatabase.connectionString;
    if (namesSqlite(connectionString)) {
        connectWith(connectionString, limits_.loginSeconds);
    } else {
        connectInTurn(connectionString);
    }
    if (connected_ && isSqlite()) {
        inProcess_ = true;
        // Its driver takes no other limit for how long it waits for locks than one in the connection string, and waits
        // for minutes without. The first of two counts.
        SQLDisconnect(handle_.get());
        connectWith("Timeout=" + std::to_string(lockTimeoutMs()) + ";" + connectionString, limits_.loginSeconds);
    }
}

/// Connects to a server, in what is left of the time when others have done so.
void Session::connectInTurn(const std::string& connectionString) {
    const bool isLimited = limits_.loginSeconds > 0;
    const unsigned seconds = isLimited ? limits_.loginSeconds : LONGEST_WAIT_SECONDS;
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const ConnectTurn turn(giveUp);
    if (!turn) {
        connectResult_.status = platform_status::DATABASE_TIMED_OUT;
        connectResult_.diagnosis.message =
            "other attempts to connect did not end within " + std::to_string(seconds) + " seconds";
        return;
    }
    const auto rest = std::chrono::ceil<std::chrono::seconds>(giveUp - std::chrono::steady_clock::now());
    connectWith(connectionString, isLimited ? static_cast<unsigned>(std::max<long>(rest.count(), 1)) : 0);
}

/// @param seconds for the driver; 0 is no limit.
void Session::connectWith(const std::string& connectionString, unsigned seconds) {
    if (seconds > 0) {
        SQLSetConnectAttr(handle_.get(), SQL_ATTR_LOGIN_TIMEOUT, asPointer(seconds), SQL_IS_UINTEGER);
    }
    const auto begin = std::chrono::steady_clock::now();
    connected_ = succeeded(SQLDriverConnect(handle_.get(), nullptr, textOf(connectionString.c_str()), SQL_NTS, nullptr,
                                            0, nullptr, SQL_DRIVER_NOPROMPT));
    if (!connected_) {
        const bool isLate = timeIsUp(std::chrono::steady_clock::now() - begin, seconds);
        connectResult_ = failure(SQL_HANDLE_DBC, handle_.get(), platform_status::DATABASE_UNREACHABLE);
        connectResult_.status = isLate ? platform_status::DATABASE_TIMED_OUT : platform_status::DATABASE_UNREACHABLE;
    }
}

bool Session::isSqlite() const {
    std::array<SQLCHAR, 64> system{};
    SQLGetInfo(handle_.get(), SQL_DBMS_NAME, system.data(), static_cast<SQLSMALLINT>(system.size()), nullptr);
    return std::strcmp(reinterpret_cast<const char*>(system.data()), "SQLite") == 0;
}

unsigned Session::lockTimeoutMs() const {
    constexpr unsigned MOST_SECONDS = INT_MAX / 1000;
    const unsigned seconds = limits_.statementSeconds > 0 ? limits_.statementSeconds : MOST_SECONDS;
    return std::min(seconds, MOST_SECONDS) * 1000;
}

/// @return whether the connection is ready for use.
bool Session::setUp() {
    for (const std::string& sql : settings_->authDatabase.onConnect) {
        ++failedOnConnect_;
        if (!executeSetUp(sql)) {
            return false;
        }
    }
    failedOnConnect_ = 0;
    return true;
}

bool Session::executeSetUp(const std::string& sql) {
    const StatementHandle statement(handle_.get());
    if (!statement) {
        // GCOVR_EXCL_START: the driver manager has no memory.
        connectResult_ = failure(SQL_HANDLE_DBC, handle_.get(), platform_status::DATABASE_UNREACHABLE);
        return false;
        // GCOVR_EXCL_STOP
    }
    const SQLRETURN code = SQLExecDirect(statement.get(), textOf(sql.c_str()), SQL_NTS);
    if (succeeded(code) || code == SQL_NO_DATA) {
        return true;
    }
    connectResult_ = failure(SQL_HANDLE_STMT, statement.get(), platform_status::DATABASE_UNREACHABLE);
    return false;
}

OpenStatement& Session::openStatement() {
    const auto isFree = [](const std::unique_ptr<OpenStatement>& statement) { return !statement->inUse; };
    auto found = std::find_if(statements_.begin(), statements_.end(), isFree);
    if (found == statements_.end()) {
        found = statements_.insert(statements_.end(), std::make_unique<OpenStatement>());
    }
    OpenStatement& statement = **found;
    statement.inUse = true;
    statement.rows = OpenStatement::Rows::NEVER;
    return statement;
}

void Session::execute(OpenStatement& statement) {
    const DriverCall call;
    statement.result = Result();
    statement.rows = OpenStatement::Rows::NEVER;
    if (!prepareHandle(statement)) {
        return;
    }
    SQLHANDLE handle = statement.handle.get();
    SQLRETURN code = SQL_ERROR;
    if (statement.parameters == nullptr || statement.parameters->kind == 0) {
        code = SQLExecDirect(handle, textOf(statement.sql), SQL_NTS);
    } else if (succeeded(SQLPrepare(handle, textOf(statement.sql), SQL_NTS)) && bindParameters(statement)) {
        code = SQLExecute(handle);
    }
    if (!succeeded(code) && code != SQL_NO_DATA) {
        failed(statement, platform_status::DATABASE_STATEMENT_FAILED);
        return;
    }
    if (!succeeded(SQLNumResultCols(handle, &statement.resultColumns))) {
        statement.resultColumns = 0;  // GCOVR_EXCL_LINE: drivers know it once they have executed
    }
    statement.rows = OpenStatement::Rows::LEFT;
}

/// A statement handle without rows and parameters of an earlier execution.
bool Session::prepareHandle(OpenStatement& statement) {
    if (statement.handle) {
        SQLFreeStmt(statement.handle.get(), SQL_CLOSE);
        SQLFreeStmt(statement.handle.get(), SQL_RESET_PARAMS);
        return true;
    }
    statement.handle = StatementHandle(handle_.get());
    if (!statement.handle) {
        // GCOVR_EXCL_START: the driver manager has no memory.
        statement.result = failure(SQL_HANDLE_DBC, handle_.get(), platform_status::DATABASE_STATEMENT_FAILED);
        return false;
        // GCOVR_EXCL_STOP
    }
    if (!inProcess_ && limits_.statementSeconds > 0) {
        SQLSetStmtAttr(statement.handle.get(), SQL_ATTR_QUERY_TIMEOUT, asPointer(limits_.statementSeconds),
                       SQL_IS_UINTEGER);
    }
    return true;
}

bool Session::bindParameters(OpenStatement& statement) const {
    std::size_t count = 0;
    while (statement.parameters[count].kind != 0) {
        ++count;
    }
    statement.lengths.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        const Binding& parameter = statement.parameters[i];
        SQLLEN& length = statement.lengths[i];
        length = SQL_NULL_DATA;
        if (parameter.value != nullptr && parameter.length == ENDS_IN_NUL) {
            length = static_cast<SQLLEN>(std::strlen(parameter.value));
        } else if (parameter.value != nullptr && parameter.length >= 0) {
            length = parameter.length;
        }
        const auto size = static_cast<SQLULEN>(std::max<SQLLEN>(length, 1));
        if (!succeeded(SQLBindParameter(statement.handle.get(), static_cast<SQLUSMALLINT>(i + 1), SQL_PARAM_INPUT,
                                        SQL_C_CHAR, SQL_VARCHAR, size, 0, textOf(parameter.value),
                                        std::max<SQLLEN>(length, 0), &length))) {
            return false;
        }
    }
    return true;
}

void Session::fetch(OpenStatement& statement) {
    const DriverCall call;
    statement.result = Result();
    const SQLRETURN code = SQLFetch(statement.handle.get());
    if (code == SQL_NO_DATA) {
        statement.result.status = platform_status::DATABASE_END_OF_ROWS;
    } else if (!succeeded(code)) {
        failed(statement, platform_status::DATABASE_FETCH_FAILED);
    } else {
        readRow(statement);
    }
    if (statement.closeAfterRow || code == SQL_NO_DATA) {
        SQLFreeStmt(statement.handle.get(), SQL_CLOSE);
        statement.rows = OpenStatement::Rows::DROPPED;
    }
}

void Session::readRow(OpenStatement& statement) const {
    for (unsigned long i = 0; i < statement.columnCount; ++i) {
        const int status =
            readColumn(statement.handle.get(), static_cast<SQLUSMALLINT>(i + 1), statement.columns[i], statement.row);
        if (status == 0) {
            continue;
        }
        if (status == platform_status::DATABASE_FETCH_FAILED) {
            failed(statement, status);
        }
        statement.result.status = statement.result.status == 0 ? status : statement.result.status;
        statement.result.failedColumn = i + 1;
        return;
    }
}

void Session::dropRows(OpenStatement& statement) const {
    const DriverCall call;
    SQLFreeStmt(statement.handle.get(), SQL_CLOSE);
    statement.rows = OpenStatement::Rows::DROPPED;
}

void Session::failed(OpenStatement& statement, int status) const {
    statement.result = failure(SQL_HANDLE_STMT, statement.handle.get(), status);
}

/// @param status what it is if it is nothing more particular.
Result Session::failure(SQLSMALLINT handleType, SQLHANDLE handle, int status) const {
    Result result;
    result.diagnosis = diagnose(handleType, handle);
    result.status = status;
    if (saysTimedOut(result.diagnosis.state) || (inProcess_ && saysLocked(result.diagnosis.nativeCode))) {
        result.status = platform_status::DATABASE_TIMED_OUT;
    } else if (saysLost(result.diagnosis.state) || (connected_ && isDead())) {
        result.status = platform_status::DATABASE_CONNECTION_LOST;
    }
    return result;
}

bool Session::isDead() const {
    SQLUINTEGER dead = SQL_CD_FALSE;
    return succeeded(SQLGetConnectAttr(handle_.get(), SQL_ATTR_CONNECTION_DEAD, &dead, SQL_IS_UINTEGER, nullptr)) &&
           dead == SQL_CD_TRUE;
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
