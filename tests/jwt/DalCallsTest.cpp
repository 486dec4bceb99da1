#include "jwt/HostKey.h"
#include "platform/SettingsFixture.h"
#include "testing/LogCapture.h"

#include <jwt/RBACDbConnectionMgr.h>
#include <jwt/RBACDbQueryMgr.h>
#include <platform/Dal.h>
#include <platform/Status.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <list>
#include <string>
#include <vector>

// What is asked of the data-access layer, which this program puts its own in the place of.

using Tesmor::Arkwell::RBACDbConnectionMgr;
using Tesmor::Arkwell::RBACDbQueryMgr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::HostKeyFile;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::sessionClaims;
using testing_support::signedToken;

namespace {

struct Execution {
    std::string sql;
    std::string parameter;
    std::int32_t parameterLength;
    int verbosity;
    std::string context;
    bool failWhenLost;
    bool confidential;
};

struct Fetching {
    unsigned long rowSize;
    const Tesmor::Dal::DalOdbcView::BindingStruct* columns;
    unsigned long columnCount;
    bool wholeValues;
    bool closeAfterRow;
};

/// What the layer is asked, and how it answers.
struct Layer {
    std::vector<unsigned> numbers;
    int user = 0;
    bool trace = true;
    std::vector<Execution> executions;
    std::vector<Fetching> fetchings;
    int guardStatus = 0;
    int viewStatus = 0;
};
Layer layer;

}  // namespace

namespace Tesmor {
namespace Dal {

namespace detail {
class ConnectionPool {};
class Statement {};
class PooledConnection {};
}  // namespace detail

DbConnectionManager::DbConnectionManager(unsigned initialConnections, unsigned maximumConnections,
                                         unsigned connectRetries, unsigned retryDelaySeconds,
                                         unsigned acquireTimeoutSeconds, unsigned loginTimeoutSeconds,
                                         unsigned statementTimeoutSeconds, USERID_TYPES user, bool trace) {
    layer.numbers = {initialConnections,    maximumConnections,  connectRetries,         retryDelaySeconds,
                     acquireTimeoutSeconds, loginTimeoutSeconds, statementTimeoutSeconds};
    layer.user = user;
    layer.trace = trace;
}
DbConnectionManager::~DbConnectionManager() = default;

DbConnection::DbConnection(std::unique_ptr<detail::PooledConnection> connection) : connection_(std::move(connection)) {}
DbConnection::~DbConnection() = default;

SSRGuard::SSRGuard(DbConnectionManager* /*manager*/)
    : connection_(new DbConnection(nullptr)), status_(layer.guardStatus) {}
SSRGuard::~SSRGuard() = default;

DalOdbcView::DalOdbcView(std::unique_ptr<detail::Statement> statement) : statement_(std::move(statement)) {}
DalOdbcView::~DalOdbcView() = default;

DbConnectionView::DbConnectionView(DbConnection* /*connection*/)
    : view_(new DalOdbcView(nullptr)), status_(layer.viewStatus) {}
DbConnectionView::~DbConnectionView() = default;

int DbConnection::Execute(DalOdbcView* /*view*/, const char* sql, DalOdbcView::BindingStruct* parameters,
                          LOG_AT_VERBOSITY verbosity, const char* context, bool failWhenLost, bool confidential) {
    layer.executions.push_back(
        {sql, parameters[0].value, parameters[0].length, verbosity.verbosity, context, failWhenLost, confidential});
    EXPECT_EQ(parameters[1].kind, 0U);
    return 0;
}

int DbConnection::Fetch(DalOdbcView* /*view*/, void* /*rowBuffer*/, unsigned long rowSize,
                        DalOdbcView::BindingStruct* columns, unsigned long columnCount, unsigned long* /*rowsFetched*/,
                        bool wholeValues, bool closeAfterRow) {
    layer.fetchings.push_back({rowSize, columns, columnCount, wholeValues, closeAfterRow});
    return platform_status::DATABASE_END_OF_ROWS;
}

}  // namespace Dal
}  // namespace Tesmor

namespace {

class DalCallsTest : public testing::Test {
protected:
    DalCallsTest() { layer = Layer(); }

    int fetchToken() {
        std::string token;
        return RBACDbQueryMgr(connection_).fetchAzToken(signedToken(sessionClaims("session")), token);
    }
    int fetchCriteria() {
        std::list<std::string> criteria;
        return RBACDbQueryMgr(connection_).fetchCollectionCriteria({7, 3, 12}, "host", criteria);
    }

    SettingsFixture settings_{R"({"log":{"debugLevel":1}})"};
    HostKeyFile key_;
    boost::shared_ptr<RBACDbConnectionMgr> connection_ = boost::make_shared<RBACDbConnectionMgr>(nullptr);
    LogCapture log_;
};

}  // namespace

TEST_F(DalCallsTest, TheManagerIsMadeWithFixedNumbers) {
    const RBACDbConnectionMgr own(nullptr);
    EXPECT_THAT(layer.numbers, ElementsAre(1, 2, 0, 1, 30, 15, 40));
    EXPECT_EQ(layer.user, 6);
    EXPECT_FALSE(layer.trace);
}

TEST_F(DalCallsTest, TheTokenIsAskedForConfidentially) {
    EXPECT_EQ(fetchToken(), 117);
    ASSERT_EQ(layer.executions.size(), 1U);
    const Execution& execution = layer.executions[0];
    EXPECT_EQ(execution.sql,
              "SELECT AzTokenValue FROM AUTH_MAIN.AUTH_Access_Token_Details WHERE SessionTokenValue = ?");
    EXPECT_EQ(execution.parameter, "session");
    EXPECT_EQ(execution.verbosity, 6);
    EXPECT_EQ(execution.context, "RBACDbQueryMgr::fetchAzToken");
    EXPECT_FALSE(execution.failWhenLost);
    EXPECT_TRUE(execution.confidential);
}

TEST_F(DalCallsTest, OneRowOfTheTokenIsFetched) {
    EXPECT_EQ(fetchToken(), 117);
    ASSERT_EQ(layer.fetchings.size(), 1U);
    const Fetching& fetching = layer.fetchings[0];
    EXPECT_EQ(fetching.rowSize, 32001U);
    EXPECT_EQ(fetching.columns, RBACDbQueryMgr::accessTokenDetailsBinding);
    EXPECT_EQ(fetching.columnCount, 1U);
    EXPECT_TRUE(fetching.wholeValues);
    EXPECT_FALSE(fetching.closeAfterRow);
}

TEST_F(DalCallsTest, TheCriteriaAreAskedFor) {
    EXPECT_EQ(fetchCriteria(), 0);
    ASSERT_EQ(layer.executions.size(), 1U);
    const Execution& execution = layer.executions[0];
    EXPECT_EQ(execution.sql,
              "SELECT CC.CriteriaID, CC.CollectionKey, CC.CriteriaJson FROM AUTH_MAIN.ACTL_CollectionCriteria as CC  "
              "WHERE CC.CollectionKey IN (3, 7, 12) AND objectType = ?");
    EXPECT_EQ(execution.parameter, "host");
    EXPECT_EQ(execution.verbosity, 5);
    EXPECT_EQ(execution.context, "RBACDbQueryMgr::fetchCollectionCriteria");
    EXPECT_FALSE(execution.failWhenLost);
    EXPECT_FALSE(execution.confidential);
}

TEST_F(DalCallsTest, RowsOfTheCriteriaAreFetched) {
    EXPECT_EQ(fetchCriteria(), 0);
    ASSERT_EQ(layer.fetchings.size(), 1U);
    const Fetching& fetching = layer.fetchings[0];
    EXPECT_EQ(fetching.rowSize, 32776U);
    EXPECT_EQ(fetching.columns, Tesmor::Arkwell::collectionCriteriaBinding);
    EXPECT_EQ(fetching.columnCount, 3U);
    EXPECT_TRUE(fetching.wholeValues);
    EXPECT_FALSE(fetching.closeAfterRow);
}

TEST_F(DalCallsTest, AViewThatCannotBeOpenedIsReported) {
    layer.viewStatus = platform_status::DATABASE_MISUSED;
    const std::string text = "unable to open database view, error=" + std::to_string(layer.viewStatus);
    EXPECT_EQ(fetchToken(), 220);
    EXPECT_EQ(fetchCriteria(), 220);
    EXPECT_THAT(log_.lines(),
                ElementsAre(LogLine{2, "RBACDbQueryMgr::fetchAzToken", text + "(RBACDbQueryMgr:164)"},
                            LogLine{2, "RBACDbQueryMgr::fetchCollectionCriteria", text + "(RBACDbQueryMgr:55)"}));
    EXPECT_THAT(layer.executions, IsEmpty());
}
