#include "platform/DalConnection.h"

#include "platform/ForkGeneration.h"

#include <platform/Logger.h>
#include <platform/Status.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <string_view>
#include <utility>

namespace Tesmor {
namespace Dal {
namespace detail {

namespace {

using platform_detail::forkGeneration;

const char* const EXECUTE = "DbConnection::Execute";
const char* const FETCH = "DbConnection::Fetch";

bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

/// How much of the text is a comment that it begins with. A comment in a comment makes none of it: databases differ in
/// where that ends.
std::size_t commentLength(std::string_view sql) {
    if (sql.substr(0, 2) == "--") {
        return std::min(sql.find('\n'), sql.size());
    }
    if (sql.substr(0, 2) != "/*") {
        return 0;
    }
    const std::size_t end = sql.find("*/", 2);
    return end == std::string_view::npos || sql.find("/*", 2) < end ? 0 : end + 2;
}

/// The text behind blanks and comments.
std::string_view withoutIntroduction(std::string_view sql) {
    while (!sql.empty()) {
        const std::size_t length = isBlank(sql.front()) ? 1 : commentLength(sql);
        if (length == 0) {
            break;
        }
        sql.remove_prefix(length);
    }
    return sql;
}

char upper(char c) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

/// Whether the word occurs, be it as a part of another or in a literal.
bool mentions(std::string_view sql, std::string_view word) {
    return std::search(sql.begin(), sql.end(), word.begin(), word.end(),
                       [](char a, char b) { return upper(a) == b; }) != sql.end();
}

/// Whether there is no other statement behind it. A semicolon in a literal is taken for the end of one.
bool isSingle(std::string_view sql) {
    while (!sql.empty() && (isBlank(sql.back()) || sql.back() == ';')) {
        sql.remove_suffix(1);
    }
    return sql.find(';') == std::string_view::npos;
}

/// Whether executing it once more surely does no harm. This is no parser: in doubt it does.
bool isReadOnly(std::string_view sql) {
    static constexpr std::string_view SELECT = "SELECT";
    if (!isSingle(sql) || mentions(sql, "INTO")) {
        return false;
    }
    sql = withoutIntroduction(sql);
    const auto sameLetter = [](char a, char b) { return upper(b) == a; };
    return sql.size() > SELECT.size() && std::equal(SELECT.begin(), SELECT.end(), sql.begin(), sameLetter) &&
           std::isalnum(static_cast<unsigned char>(sql[SELECT.size()])) == 0 && sql[SELECT.size()] != '_';
}

std::string_view valueOf(const Binding& parameter) {
    if (parameter.value == nullptr || (parameter.length < 0 && parameter.length != ENDS_IN_NUL)) {
        return {};
    }
    return parameter.length < 0 ? std::string_view(parameter.value)
                                : std::string_view(parameter.value, static_cast<std::size_t>(parameter.length));
}

/// Gives the statement its own copy of what it is to execute: it may outlive the call, and what the database says of
/// the values even longer.
void copyExecution(OpenStatement& open, const PooledConnection::Execution& execution) {
    open.ownSql = execution.sql;
    open.sql = open.ownSql.c_str();
    open.ownValues.clear();
    open.ownParameters.clear();
    for (const Binding* parameter = execution.parameters; parameter != nullptr && parameter->kind != 0; ++parameter) {
        open.ownParameters.push_back(*parameter);
        if (parameter->value != nullptr) {
            open.ownValues.emplace_back(valueOf(*parameter));
            open.ownParameters.back().value = open.ownValues.back().c_str();
        }
    }
    open.ownParameters.push_back({});
    open.parameters = open.ownParameters.data();
}

/// Gives the statement a row of its own to fetch into.
void prepareOwnRow(OpenStatement& open, const PooledConnection::Row& row) {
    open.ownColumns.assign(row.columns, row.columns + row.columnCount);
    open.columns = open.ownColumns.data();
    std::size_t size = 0;
    for (const Binding& column : open.ownColumns) {
        size = std::max(size, std::size_t{column.offset} + column.size);
    }
    open.ownRow.resize(std::max(size, open.ownRow.size()));
    open.row = open.ownRow.data();
}

void copyRow(const OpenStatement& open, const PooledConnection::Row& row) {
    for (const Binding& column : open.ownColumns) {
        const char* value = open.row + column.offset;
        const std::size_t size =
            kindOf(column) == DalOdbcView::KIND_INT32 ? sizeof(std::int32_t) : std::strlen(value) + 1;
        std::memcpy(row.buffer + column.offset, value, size);
    }
}

std::string describeColumn(const PooledConnection::Row& row, const Result& result) {
    const Binding& column = row.columns[result.failedColumn - 1];
    std::string text = "column " + std::to_string(result.failedColumn);
    if (column.name != nullptr) {
        text += std::string(" (") + column.name + ")";
    }
    switch (result.status) {
        case platform_status::DATABASE_VALUE_TOO_LONG:
            return text + " does not fit into " + std::to_string(column.size) + " bytes";
        case platform_status::DATABASE_VALUE_UNUSABLE:
            return text +
                   (kindOf(column) == DalOdbcView::KIND_INT32 ? " is not a 32-bit integer" : " has a NUL in its text");
        default:
            return text + ": ";  // GCOVR_EXCL_LINE: what the driver says follows
    }
}

}  // namespace

Statement::~Statement() {
    connection_.close(*this);
}

PooledConnection::PooledConnection(std::shared_ptr<ConnectionPool> pool)
    : pool_(std::move(pool)), generation_(forkGeneration()) {}

PooledConnection::~PooledConnection() {
    if (isInherited()) {
        static_cast<void>(link_.release());  // GCOVR_EXCL_LINE: the parent's, so in a child, which counts nothing
    } else if (acquired_) {
        pool_->release(std::move(link_));
    }
}

int PooledConnection::acquire() {
    const int status = pool_->acquire(link_);
    acquired_ = status == 0;
    session_ = 1;
    return status;
}

int PooledConnection::execute(Statement& statement, const Execution& execution) {
    const int status = executeOnce(statement, execution);
    if (status != platform_status::DATABASE_CONNECTION_LOST || isInherited() || execution.failWhenLost ||
        !isReadOnly(execution.sql)) {
        return status;
    }
    logmsgf(8, EXECUTE, "%s: the connection is lost; executing once more on a new one", execution.context);
    return executeOnce(statement, execution);
}

int PooledConnection::executeOnce(Statement& statement, const Execution& execution) {
    if (isInherited()) {
        // GCOVR_EXCL_START: in a child, which counts nothing
        logmsgf(16, EXECUTE, "%s: the connection belongs to the parent process", execution.context);
        return platform_status::DATABASE_CONNECTION_LOST;
        // GCOVR_EXCL_STOP
    }
    if (link_ == nullptr) {
        const int status = pool_->replace(link_);
        if (status != 0) {
            return status;
        }
        ++session_;
    }
    OpenStatement& open = openOn(statement);
    open.context = execution.context;
    copyExecution(open, execution);
    if (!link_->execute(open)) {
        return timedOut(EXECUTE, execution.context);
    }
    if (open.result.status != 0) {
        logFailure(EXECUTE, open, "");
    }
    return settle(open.result.status);
}

int PooledConnection::fetch(Statement& statement, const Row& row) {
    if (isInherited() || (statement.session_ != 0 && !isCurrent(statement))) {
        logmsg(16, FETCH, "the connection on which the statement was executed is gone");
        return platform_status::DATABASE_CONNECTION_LOST;
    }
    if (statement.session_ == 0 || statement.open_->rows == OpenStatement::Rows::NEVER) {
        logmsg(16, FETCH, "no statement was executed");
        return platform_status::DATABASE_MISUSED;
    }
    OpenStatement& open = *statement.open_;
    if (open.rows == OpenStatement::Rows::DROPPED) {
        return platform_status::DATABASE_END_OF_ROWS;
    }
    if (row.columnCount != static_cast<unsigned long>(open.resultColumns)) {
        logmsgf(16, FETCH, "%s: %lu columns are described, the result has %d", open.context.c_str(), row.columnCount,
                static_cast<int>(open.resultColumns));
        return platform_status::DATABASE_MISUSED;
    }
    return fetchRow(open, row);
}

int PooledConnection::fetchRow(OpenStatement& open, const Row& row) {
    open.row = row.buffer;
    open.columns = row.columns;
    open.columnCount = row.columnCount;
    open.closeAfterRow = row.closeAfterwards;
    if (link_->isRemote()) {
        prepareOwnRow(open, row);
    }
    const std::string context = link_->isRemote() ? open.context : std::string();
    if (!link_->fetch(open)) {
        return timedOut(FETCH, context.c_str());
    }
    const int status = open.result.status;
    if (status == 0 && link_->isRemote()) {
        copyRow(open, row);
    }
    if (status != 0 && status != platform_status::DATABASE_END_OF_ROWS) {
        logFailure(FETCH, open, open.result.failedColumn > 0 ? describeColumn(row, open.result) : "");
    }
    return settle(status);
}

void PooledConnection::close(Statement& statement) noexcept {
    if (isInherited() || statement.session_ == 0 || !isCurrent(statement)) {
        return;
    }
    OpenStatement& open = *statement.open_;
    statement.session_ = 0;
    const bool hasRows = open.rows == OpenStatement::Rows::LEFT && open.resultColumns > 0;
    if (hasRows && !link_->dropRows(open)) {
        timedOut(FETCH, "dropping rows");
        return;
    }
    open.inUse = false;
}

bool PooledConnection::isInherited() const {
    return generation_ != forkGeneration();
}

bool PooledConnection::isCurrent(const Statement& statement) const {
    return link_ != nullptr && statement.session_ == session_;
}

OpenStatement& PooledConnection::openOn(Statement& statement) {
    if (!isCurrent(statement)) {
        statement.open_ = &link_->session().openStatement();
        statement.session_ = session_;
    }
    return *statement.open_;
}

/// Gives up a connection that did not answer.
int PooledConnection::timedOut(const char* tag, const char* context) noexcept {
    logmsgf(16, tag, "%s: no answer within %u seconds; the connection is given up", context,
            pool_->limits().session.statementSeconds);
    pool_->close(std::move(link_));
    return platform_status::DATABASE_TIMED_OUT;
}

/// Gives up a connection that is lost.
///
/// @param status of the call.
int PooledConnection::settle(int status) {
    if (status == platform_status::DATABASE_CONNECTION_LOST) {
        pool_->close(std::move(link_));
        pool_->connectionLost();
    }
    return status;
}

void PooledConnection::logFailure(const char* tag, const OpenStatement& open, const std::string& what) const {
    Redaction redaction;
    for (const std::string& value : open.ownValues) {
        redaction.hide(value);
    }
    redaction.hideCredentials(link_->session().settings().authDatabase.connectionString);
    const Diagnosis& diagnosis = open.result.diagnosis;
    const std::string said = diagnosis.state.empty() && diagnosis.message.empty()
                                 ? std::string()
                                 : diagnosis.state + " " + redaction.applyTo(diagnosis.message);
    logmsgf(16, tag, "%s: %s%s", open.context.c_str(), what.c_str(), said.c_str());
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
