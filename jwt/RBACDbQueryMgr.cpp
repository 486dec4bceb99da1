#include "jwt/PositionedLog.h"

#include <jwt/RBACDbQueryMgr.h>
#include <jwt/ValidatingJwtParser.h>
#include <platform/Status.h>

#include <boost/make_shared.hpp>

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

namespace Tesmor::Arkwell {

namespace {

using Dal::DalOdbcView;
using Dal::DbConnection;
using Dal::LOG_AT_VERBOSITY;

constexpr char SOURCE[] = "RBACDbQueryMgr";
constexpr char TOKEN_CONTEXT[] = "RBACDbQueryMgr::fetchAzToken";
constexpr char CRITERIA_CONTEXT[] = "RBACDbQueryMgr::fetchCollectionCriteria";

constexpr int SESSION_UNKNOWN = 117;
constexpr int DATABASE_FAILED = 220;

constexpr int NUL_TERMINATED = -3;
constexpr std::uint32_t TOKEN_SIZE = 32001;
constexpr std::uint32_t CRITERIA_OFFSET = 8;
constexpr std::uint32_t CRITERIA_SIZE = 32768;

constexpr std::uint32_t kindOf(std::uint32_t typeCode) {
    return typeCode << 16U;
}

/// The bytes that one row is fetched into. Fetch() fills what its columns describe, so nothing is cleared beforehand.
class RowBuffer {
public:
    explicit RowBuffer(std::size_t size) : size_(size), bytes_(new char[size]) {}

    char* data() { return bytes_.get(); }
    std::size_t size() const { return size_; }

    std::string text(std::size_t offset) const {
        return {bytes_.get() + offset, strnlen(bytes_.get() + offset, size_ - offset)};
    }
    std::int32_t integer(std::size_t offset) const {
        std::int32_t value = 0;
        std::memcpy(&value, bytes_.get() + offset, sizeof value);
        return value;
    }

private:
    std::size_t size_;
    std::unique_ptr<char[]> bytes_;
};

/// A connection with a statement on it, for the time of one query.
class Query {
public:
    Query(Dal::DbConnectionManager* manager, const PositionedLog& log, int connectLine, int viewLine)
        : guard_(manager) {
        if (guard_.status() != 0) {
            log.debug(1, connectLine, "not connected to the database, error=", guard_.status());
            return;
        }
        view_.emplace(guard_.connection());
        if (view_->status() != 0) {
            log.debug(1, viewLine, "unable to open database view, error=", view_->status());
        }
    }

    bool isOpen() const { return view_ && view_->status() == 0; }
    DbConnection& connection() const { return *guard_.connection(); }
    DalOdbcView* view() const { return view_->view(); }

    template <std::size_t COLUMNS>
    int fetch(RowBuffer& row, DalOdbcView::BindingStruct (&columns)[COLUMNS]) const {
        unsigned long rows = 0;
        return connection().Fetch(view(), row.data(), row.size(), columns, COLUMNS, &rows, true, false);
    }

private:
    Dal::SSRGuard guard_;
    std::optional<Dal::DbConnectionView> view_;
};

/// The numbers in ascending order, "3, 7, 12".
std::string listed(const std::set<int>& numbers) {
    std::string text;
    for (const int number : numbers) {
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    }
    return text;
}

}  // namespace

const std::string RBACDbQueryMgr::SELECT_ACCESS_TOKEN_DETAILS = "AzTokenValue";
const std::string RBACDbQueryMgr::SELECT_ACCESS_TOKEN_DETAILS_FROM = " FROM AUTH_MAIN.AUTH_Access_Token_Details";

DalOdbcView::BindingStruct RBACDbQueryMgr::accessTokenDetailsBinding[1] = {
    {"AzTokenValue", kindOf(DalOdbcView::KIND_CHARACTER), 0, TOKEN_SIZE, 0, nullptr},
};

DalOdbcView::BindingStruct collectionCriteriaBinding[3] = {
    {"CriteriaID", kindOf(DalOdbcView::KIND_INT32), 0, 4, 0, nullptr},
    {"CollectionKey", kindOf(DalOdbcView::KIND_INT32), 4, 4, 0, nullptr},
    {"CriteriaJson", kindOf(DalOdbcView::KIND_CHARACTER), CRITERIA_OFFSET, CRITERIA_SIZE, 0, nullptr},
};

RBACQueryMgr::~RBACQueryMgr() = default;

RBACDbQueryMgr::RBACDbQueryMgr(boost::shared_ptr<RBACDbConnectionMgr> connection)
    : connection_(std::move(connection)) {}

RBACDbQueryMgr::~RBACDbQueryMgr() = default;

int RBACDbQueryMgr::fetchCollectionCriteria(const std::set<int>& collectionKeys, const char* objectType,
                                            std::list<std::string>& criteria) {
    const PositionedLog log(SOURCE, CRITERIA_CONTEXT);
    const Query query(connection_->getDbConnectionMgr(), log, 46, 55);
    if (!query.isOpen()) {
        return DATABASE_FAILED;
    }
    // Two blanks before WHERE: the text is known to logs and to the database's statement statistics as it is.
    const std::string sql =
        "SELECT CC.CriteriaID, CC.CollectionKey, CC.CriteriaJson FROM AUTH_MAIN.ACTL_CollectionCriteria as CC  WHERE "
        "CC.CollectionKey IN (" +
        listed(collectionKeys) + ") AND objectType = ?";
    Dal::ParameterBinder parameters;
    parameters.bindInputString(objectType, NUL_TERMINATED, false);
    int status = query.connection().Execute(query.view(), sql.c_str(), parameters.get(), LOG_AT_VERBOSITY(5),
                                            CRITERIA_CONTEXT, false, false);
    if (status == 0 && collectionKeys.empty()) {
        // Only SQLite takes a list without keys; it is refused on every server alike.
        status = platform_status::DATABASE_STATEMENT_FAILED;
    }
    if (status != 0) {
        log.debug(1, 92, "failed to execute SQL statement, error=", status);
        return DATABASE_FAILED;
    }

    RowBuffer row(CRITERIA_OFFSET + CRITERIA_SIZE);
    long long count = 0;
    while ((status = query.fetch(row, collectionCriteriaBinding)) == 0) {
        ++count;
        std::string text = row.text(CRITERIA_OFFSET);
        log.debug(6, 111, "collection key=", row.integer(4));
        log.debug(6, 112, "criteria id=", row.integer(0));
        log.debug(6, 113, "fetched collection criteria=", text);
        criteria.push_back(std::move(text));
    }
    log.debug(6, 120, "failed to fetch collection criteria record from database, error=", status);
    log.debug(3, 134, "total records read from the database ", count);
    return status == platform_status::DATABASE_END_OF_ROWS ? 0 : DATABASE_FAILED;
}

int RBACDbQueryMgr::fetchAzToken(const std::string& sessionToken, std::string& azToken) {
    const PositionedLog log(SOURCE, TOKEN_CONTEXT);
    const Query query(connection_->getDbConnectionMgr(), log, 155, 164);
    if (!query.isOpen()) {
        return DATABASE_FAILED;
    }
    const std::string sql =
        "SELECT " + SELECT_ACCESS_TOKEN_DETAILS + SELECT_ACCESS_TOKEN_DETAILS_FROM + " WHERE SessionTokenValue = ?";

    const boost::shared_ptr<RBACJwtParser> parser = boost::make_shared<ValidatingJwtParser>();
    JWT* parsed = nullptr;
    if (const int status = parser->parseJwt(sessionToken, parsed); status != 0) {
        log.debug(1, 183, "failed to parse session jwt. error=", status);
        return status;
    }
    const std::unique_ptr<JWT> session(parsed);
    std::string id;
    if (const int status = session->getJwtId(id); status != 0) {
        // Going on with an empty id, which no session has, ends in "unknown session".
        log.debug(1, 191, "failed to retrieve JWT ID from JWT, error=", status);
    }

    Dal::ParameterBinder parameters;
    parameters.bindInputString(id.c_str(), NUL_TERMINATED, false);
    if (const int status = query.connection().Execute(query.view(), sql.c_str(), parameters.get(), LOG_AT_VERBOSITY(6),
                                                      TOKEN_CONTEXT, false, true);
        status != 0) {
        log.debug(1, 200, "failed to execute SQL statement, error=", status);
        return DATABASE_FAILED;
    }

    RowBuffer row(TOKEN_SIZE);
    const int status = query.fetch(row, accessTokenDetailsBinding);
    if (status == platform_status::DATABASE_END_OF_ROWS) {
        log.debug(1, 217, "session token not found in database");
        return SESSION_UNKNOWN;
    }
    if (status != 0) {
        log.debug(1, 223, "failed to fetch azToken from database, error=", status);
        return DATABASE_FAILED;
    }
    azToken = row.text(0);
    return 0;
}

}  // namespace Tesmor::Arkwell
