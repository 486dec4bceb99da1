#include "platform/DalConnection.h"

#include <platform/Dal.h>
#include <platform/Logger.h>
#include <platform/Status.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

namespace Tesmor {
namespace Dal {

namespace {

const char* const EXECUTE = "DbConnection::Execute";
const char* const FETCH = "DbConnection::Fetch";

constexpr std::int32_t NULL_LENGTH = -1;
constexpr std::uint32_t KIND_SHIFT = 16;

int misused(const char* tag, const std::string& what) {
    logmsg(16, tag, what.c_str());
    return platform_status::DATABASE_MISUSED;
}

bool areText(const DalOdbcView::BindingStruct* parameters) {
    for (; parameters != nullptr && parameters->kind != 0; ++parameters) {
        if (detail::kindOf(*parameters) != DalOdbcView::KIND_CHARACTER) {
            return false;
        }
    }
    return true;
}

/// Whether the column lies within the row, with room for at least the smallest value of its kind.
bool isUsable(const DalOdbcView::BindingStruct& column, unsigned long rowSize) {
    const std::uint32_t kind = detail::kindOf(column);
    const std::uint32_t smallest = kind == DalOdbcView::KIND_INT32 ? sizeof(std::int32_t) : 1;
    return (kind == DalOdbcView::KIND_INT32 || kind == DalOdbcView::KIND_CHARACTER) && column.size >= smallest &&
           column.offset <= rowSize && column.size <= rowSize - column.offset;
}

void logParameters(const DalOdbcView::BindingStruct* parameters, int verbosity, const char* context) {
    std::string lengths;
    for (; parameters != nullptr && parameters->kind != 0; ++parameters) {
        const bool isText = parameters->value != nullptr && parameters->length == detail::ENDS_IN_NUL;
        const bool isNull = parameters->value == nullptr || (parameters->length < 0 && !isText);
        lengths += lengths.empty() ? "" : ", ";
        lengths += isNull ? "NULL"
                          : std::to_string(isText ? std::strlen(parameters->value)
                                                  : static_cast<std::size_t>(parameters->length));
    }
    if (!lengths.empty()) {
        logmsgvf(2, verbosity, EXECUTE, "%s: with parameters of these lengths: %s", context, lengths.c_str());
    }
}

}  // namespace

DalOdbcView::DalOdbcView(std::unique_ptr<detail::Statement> statement) : statement_(std::move(statement)) {}

DalOdbcView::~DalOdbcView() = default;

ParameterBinder::ParameterBinder() : bindings_(1) {}

ParameterBinder::~ParameterBinder() = default;

void ParameterBinder::bindInputString(const char* value, int length, bool emptyIsNull) {
    DalOdbcView::BindingStruct binding{};
    binding.kind = DalOdbcView::KIND_CHARACTER << KIND_SHIFT;
    binding.length = NULL_LENGTH;
    const bool isNull = value == nullptr || (length < 0 && length != detail::ENDS_IN_NUL);
    const std::size_t size = isNull ? 0 : length >= 0 ? static_cast<std::size_t>(length) : std::strlen(value);
    // A longer one cannot be described.
    if (!isNull && !(emptyIsNull && size == 0) && size <= std::numeric_limits<std::int32_t>::max()) {
        const std::string& text = texts_.emplace_back(value, size);
        binding.value = text.c_str();
        binding.length = static_cast<std::int32_t>(size);
    }
    bindings_.insert(bindings_.end() - 1, binding);
}

DalOdbcView::BindingStruct* ParameterBinder::get() {
    return bindings_.data();
}

DbConnection::DbConnection(std::unique_ptr<detail::PooledConnection> connection) : connection_(std::move(connection)) {}

DbConnection::~DbConnection() = default;

int DbConnection::Execute(DalOdbcView* view, const char* sql, DalOdbcView::BindingStruct* parameters,
                          LOG_AT_VERBOSITY verbosity, const char* context, bool failWhenLost, bool confidential) {
    if (view == nullptr || sql == nullptr) {
        return misused(EXECUTE, "a null pointer is passed");
    }
    if (!areText(parameters)) {
        return misused(EXECUTE, "a parameter is of an unknown kind");
    }
    const char* const caller = context != nullptr ? context : "";
    logmsgvf(2, verbosity.verbosity, EXECUTE, "%s: %s", caller, sql);
    if (!confidential) {
        logParameters(parameters, verbosity.verbosity, caller);
    }
    return connection_->execute(*view->statement_, {sql, parameters, caller, failWhenLost});
}

int DbConnection::Fetch(DalOdbcView* view, void* rowBuffer, unsigned long rowSize, DalOdbcView::BindingStruct* columns,
                        unsigned long columnCount, unsigned long* rowsFetched, bool wholeValues, bool closeAfterRow) {
    static_cast<void>(wholeValues);  // a value is whole or not there
    if (rowsFetched != nullptr) {
        *rowsFetched = 0;
    }
    if (view == nullptr || rowBuffer == nullptr || (columns == nullptr && columnCount > 0)) {
        return misused(FETCH, "a null pointer is passed");
    }
    for (unsigned long i = 0; i < columnCount; ++i) {
        if (!isUsable(columns[i], rowSize)) {
            return misused(FETCH, "column " + std::to_string(i + 1) + " is of an unknown kind or not within the row");
        }
    }
    const int status =
        connection_->fetch(*view->statement_, {static_cast<char*>(rowBuffer), columns, columnCount, closeAfterRow});
    if (status == 0 && rowsFetched != nullptr) {
        *rowsFetched = 1;
    }
    return status;
}

DbConnectionManager::DbConnectionManager(unsigned initialConnections, unsigned maximumConnections,
                                         unsigned connectRetries, unsigned retryDelaySeconds,
                                         unsigned acquireTimeoutSeconds, unsigned loginTimeoutSeconds,
                                         unsigned statementTimeoutSeconds, USERID_TYPES user, bool trace)
    : pool_(std::make_shared<detail::ConnectionPool>(detail::PoolLimits{initialConnections,
                                                                        std::max(maximumConnections, 1U),
                                                                        connectRetries,
                                                                        retryDelaySeconds,
                                                                        acquireTimeoutSeconds,
                                                                        {loginTimeoutSeconds, statementTimeoutSeconds},
                                                                        user,
                                                                        trace})) {
    pool_->open();
}

DbConnectionManager::~DbConnectionManager() = default;

bool DbConnectionManager::connectionEstablished() const {
    return pool_->connectionEstablished();
}

SSRGuard::SSRGuard(DbConnectionManager* manager) {
    if (manager == nullptr) {
        status_ = misused("SSRGuard", "a null pointer is passed");
        return;
    }
    auto acquired = std::make_unique<detail::PooledConnection>(manager->pool_);
    status_ = acquired->acquire();
    if (status_ == 0) {
        connection_.reset(new DbConnection(std::move(acquired)));
    }
}

SSRGuard::~SSRGuard() = default;

DbConnectionView::DbConnectionView(DbConnection* connection) {
    if (connection == nullptr) {
        status_ = misused("DbConnectionView", "a null pointer is passed");
        return;
    }
    view_.reset(new DalOdbcView(std::make_unique<detail::Statement>(*connection->connection_)));
}

DbConnectionView::~DbConnectionView() = default;

}  // namespace Dal
}  // namespace Tesmor
