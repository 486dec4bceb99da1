#include "jwt/AuthDatabaseFixture.h"

#include <jwt/RBACDbQueryMgr.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <optional>

using Tesmor::Arkwell::RBACDbConnectionMgr;
using Tesmor::Arkwell::RBACDbQueryMgr;
using Tesmor::Arkwell::Sandbox::DatabaseServer;
using Tesmor::Dal::DbConnectionManager;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing_support::AuthDatabaseFixture;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::sessionClaims;
using testing_support::signedToken;
using testing_support::strangersKey;

namespace {

constexpr char TOKEN[] = "RBACDbQueryMgr::fetchAzToken";
constexpr char CRITERIA[] = "RBACDbQueryMgr::fetchCollectionCriteria";

std::vector<LogLine> linesOf(const LogCapture& log, const std::string& tag, int level = 2) {
    std::vector<LogLine> found;
    for (const LogLine& line : log.linesAt(level)) {
        if (line.tag == tag) {
            found.push_back(line);
        }
    }
    return found;
}

class RBACDbQueryMgrTest : public AuthDatabaseFixture {
protected:
    /// @param token set to the authorization token, where there is one.
    int fetch(const std::string& sessionToken, std::string& token) {
        return RBACDbQueryMgr(connection_).fetchAzToken(sessionToken, token);
    }

    /// The status of a fetch that must not touch its output.
    int failingFetch(const std::string& sessionToken) {
        std::string token = "before";
        const int status = fetch(sessionToken, token);
        EXPECT_EQ(token, "before");
        return status;
    }

    int fetchCriteria(const std::set<int>& keys, const char* type) {
        return RBACDbQueryMgr(connection_).fetchCollectionCriteria(keys, type, criteria_);
    }

    DbConnectionManager manager_{0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false};
    boost::shared_ptr<RBACDbConnectionMgr> connection_ = boost::make_shared<RBACDbConnectionMgr>(&manager_);
    std::list<std::string> criteria_;
};

}  // namespace

INSTANTIATE_ON_BOTH_SERVERS(RBACDbQueryMgrTest);

TEST_P(RBACDbQueryMgrTest, FetchesTheTokenOfASession) {
    login("other", "another token");
    const std::string session = login("session", "the token");
    const LogCapture log;
    std::string token;
    EXPECT_EQ(fetch(session, token), 0);
    EXPECT_EQ(token, "the token");
    EXPECT_THAT(log.linesAt(16), IsEmpty());
}

TEST_P(RBACDbQueryMgrTest, AsksForTheTokenWithTheIdBound) {
    const std::string session = login("session");
    setDebugLevel(6);
    const LogCapture log;
    std::string token;
    EXPECT_EQ(fetch(session, token), 0);
    EXPECT_THAT(log.lines(), Contains(LogLine{2, "DbConnection::Execute",
                                              "RBACDbQueryMgr::fetchAzToken: SELECT AzTokenValue FROM "
                                              "AUTH_MAIN.AUTH_Access_Token_Details WHERE SessionTokenValue = ?"}));
}

TEST_P(RBACDbQueryMgrTest, TakesANullTokenForAnEmptyOne) {
    execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details");
    execute("CREATE TABLE AUTH_MAIN.AUTH_Access_Token_Details (SessionTokenValue VARCHAR(255), AzTokenValue TEXT)");
    execute("INSERT INTO AUTH_MAIN.AUTH_Access_Token_Details VALUES ('session', NULL)");
    std::string token = "before";
    EXPECT_EQ(fetch(signedToken(sessionClaims("session")), token), 0);
    EXPECT_EQ(token, "");
}

TEST_P(RBACDbQueryMgrTest, LooksATokenWhoseIdIsNoStringUpUnderAnEmptyOne) {
    const LogCapture log;
    EXPECT_EQ(failingFetch(signedToken(R"({"jti":7,"exp":9999999999999})")), 117);
    EXPECT_EQ(linesOf(log, TOKEN).size(), 2U);
}

TEST_P(RBACDbQueryMgrTest, ReportsASessionThatTheDatabaseDoesNotKnow) {
    const LogCapture log;
    EXPECT_EQ(failingFetch(signedToken(sessionClaims("unknown"))), 117);
    EXPECT_THAT(linesOf(log, TOKEN),
                ElementsAre(LogLine{2, TOKEN, "session token not found in database(RBACDbQueryMgr:217)"}));
}

TEST_P(RBACDbQueryMgrTest, LooksATokenWithoutAnIdUpUnderAnEmptyOne) {
    login("session");
    const LogCapture log;
    EXPECT_EQ(failingFetch(signedToken(R"({"exp":9999999999999})")), 117);
    EXPECT_THAT(linesOf(log, TOKEN),
                ElementsAre(LogLine{2, TOKEN, "failed to retrieve JWT ID from JWT, error=8002(RBACDbQueryMgr:191)"},
                            LogLine{2, TOKEN, "session token not found in database(RBACDbQueryMgr:217)"}));
}

TEST_P(RBACDbQueryMgrTest, RefusesAnExpiredSessionWithoutTouchingTheTable) {
    execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details");
    const LogCapture log;
    EXPECT_EQ(failingFetch(signedToken(R"({"jti":"session","exp":1})")), 8001);
    EXPECT_THAT(linesOf(log, TOKEN),
                ElementsAre(LogLine{2, TOKEN, "failed to parse session jwt. error=8001(RBACDbQueryMgr:183)"}));
}

TEST_P(RBACDbQueryMgrTest, RefusesASessionThatIsNotGenuine) {
    login("session");
    EXPECT_EQ(failingFetch(strangersKey().signToken("{}", sessionClaims("session"))), 8002);
    EXPECT_EQ(failingFetch("session"), 8002);
    EXPECT_EQ(failingFetch(""), 8002);
}

TEST_P(RBACDbQueryMgrTest, TakesAnIdForNothingButAnId) {
    login("session");
    for (const char* id : {"x' OR '1'='1", "%", "session'; --", "SESSION", "session "}) {
        EXPECT_EQ(failingFetch(signedToken(sessionClaims(id))), 117) << id;
    }
}

TEST_P(RBACDbQueryMgrTest, ReportsAMissingTable) {
    execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details");
    const LogCapture log;
    EXPECT_EQ(failingFetch(signedToken(sessionClaims("session"))), 220);
    EXPECT_THAT(linesOf(log, TOKEN),
                ElementsAre(LogLine{2, TOKEN, "failed to execute SQL statement, error=9534(RBACDbQueryMgr:200)"}));
}

TEST_P(RBACDbQueryMgrTest, ReportsThatNoDatabaseIsConfigured) {
    settings_.replace(R"({"log":{"debugLevel":1}})");
    const LogCapture log;
    EXPECT_EQ(failingFetch(signedToken(sessionClaims("session"))), 220);
    EXPECT_EQ(fetchCriteria({1}, "type"), 220);
    EXPECT_THAT(linesOf(log, TOKEN),
                ElementsAre(LogLine{2, TOKEN, "not connected to the database, error=9531(RBACDbQueryMgr:155)"}));
    EXPECT_THAT(linesOf(log, CRITERIA),
                ElementsAre(LogLine{2, CRITERIA, "not connected to the database, error=9531(RBACDbQueryMgr:46)"}));
}

TEST_P(RBACDbQueryMgrTest, FetchesTheLongestTokenWhole) {
    std::string longest(32000, 'x');
    longest.back() = 'y';
    const std::string session = login("session", longest);
    std::string token;
    EXPECT_EQ(fetch(session, token), 0);
    EXPECT_EQ(token, longest);
}

TEST_P(RBACDbQueryMgrTest, RefusesATokenThatIsTooLong) {
    execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details");
    execute("CREATE TABLE AUTH_MAIN.AUTH_Access_Token_Details (SessionTokenValue VARCHAR(255), AzTokenValue TEXT)");
    execute("INSERT INTO AUTH_MAIN.AUTH_Access_Token_Details VALUES ('session', '" + std::string(32001, 'x') + "')");
    const LogCapture log;
    EXPECT_EQ(failingFetch(signedToken(sessionClaims("session"))), 220);
    EXPECT_THAT(
        linesOf(log, TOKEN),
        ElementsAre(LogLine{2, TOKEN, "failed to fetch azToken from database, error=9538(RBACDbQueryMgr:223)"}));
}

TEST_P(RBACDbQueryMgrTest, ReadsTheFirstRowOnly) {
    execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details");
    execute("CREATE TABLE AUTH_MAIN.AUTH_Access_Token_Details (SessionTokenValue VARCHAR(255), AzTokenValue TEXT)");
    execute("INSERT INTO AUTH_MAIN.AUTH_Access_Token_Details VALUES ('session', 'one'), ('session', 'two')");
    std::string token;
    EXPECT_EQ(fetch(signedToken(sessionClaims("session")), token), 0);
    EXPECT_EQ(token, "one");
}

TEST_P(RBACDbQueryMgrTest, LogsNeitherTokensNorIds) {
    setDebugLevel(6);
    const std::string session = login("a-secret-id", "a-secret-token");
    const LogCapture log;
    std::string token;
    EXPECT_EQ(fetch(session, token), 0);
    execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details");
    execute("CREATE TABLE AUTH_MAIN.AUTH_Access_Token_Details (SessionTokenValue INTEGER, AzTokenValue TEXT)");
    // PostgreSQL complains of an id that is no number, and quotes it.
    if (GetParam() == DatabaseServer::POSTGRESQL) {
        EXPECT_EQ(failingFetch(session), 220);
        EXPECT_THAT(log.linesAt(16), ElementsAre(testing::Field(&LogLine::message, HasSubstr("integer: \"***\""))));
    } else {
        EXPECT_EQ(failingFetch(session), 117);
    }
    for (const LogLine& line : log.lines()) {
        EXPECT_THAT(line.message, Not(HasSubstr("a-secret")));
        EXPECT_THAT(line.message, Not(HasSubstr(session)));
    }
}

TEST_P(RBACDbQueryMgrTest, IsSilentBelowTheDebugLevel) {
    setDebugLevel(0);
    const LogCapture log;
    EXPECT_EQ(failingFetch(signedToken(sessionClaims("unknown"))), 117);
    EXPECT_THAT(linesOf(log, TOKEN), IsEmpty());
}

TEST_P(RBACDbQueryMgrTest, FetchesTheCriteriaOfCollections) {
    database_->addCriteria(1, 3, "host", "three");
    database_->addCriteria(2, 7, "host", "seven");
    database_->addCriteria(3, 12, "host", "twelve");
    database_->addCriteria(4, 3, "policy", "of another type");
    database_->addCriteria(5, 4, "host", "of another collection");
    criteria_.emplace_back("before");
    EXPECT_EQ(fetchCriteria({7, 3, 12}, "host"), 0);
    EXPECT_EQ(criteria_.front(), "before");
    criteria_.pop_front();
    EXPECT_THAT(criteria_, testing::UnorderedElementsAre("three", "seven", "twelve"));
}

TEST_P(RBACDbQueryMgrTest, ListsTheKeysInAscendingOrder) {
    setDebugLevel(5);
    const LogCapture log;
    EXPECT_EQ(fetchCriteria({7, 3, 12}, "host"), 0);
    EXPECT_THAT(log.lines(),
                Contains(LogLine{2, "DbConnection::Execute",
                                 "RBACDbQueryMgr::fetchCollectionCriteria: SELECT CC.CriteriaID, CC.CollectionKey, "
                                 "CC.CriteriaJson FROM AUTH_MAIN.ACTL_CollectionCriteria as CC  WHERE CC.CollectionKey "
                                 "IN (3, 7, 12) AND objectType = ?"}));
}

TEST_P(RBACDbQueryMgrTest, LogsTheCriteriaAtDebugLevelSix) {
    setDebugLevel(6);
    database_->addCriteria(11, 3, "host", "{}");
    const LogCapture log;
    EXPECT_EQ(fetchCriteria({3}, "host"), 0);
    EXPECT_THAT(linesOf(log, CRITERIA),
                ElementsAre(LogLine{2, CRITERIA, "collection key=3(RBACDbQueryMgr:111)"},
                            LogLine{2, CRITERIA, "criteria id=11(RBACDbQueryMgr:112)"},
                            LogLine{2, CRITERIA, "fetched collection criteria={}(RBACDbQueryMgr:113)"},
                            LogLine{2, CRITERIA,
                                    "failed to fetch collection criteria record from database, "
                                    "error=2007031(RBACDbQueryMgr:120)"},
                            LogLine{2, CRITERIA, "total records read from the database 1(RBACDbQueryMgr:134)"}));
}

TEST_P(RBACDbQueryMgrTest, LogsTheirNumberAtDebugLevelThree) {
    setDebugLevel(3);
    const LogCapture log;
    EXPECT_EQ(fetchCriteria({3}, "host"), 0);
    EXPECT_THAT(linesOf(log, CRITERIA),
                ElementsAre(LogLine{2, CRITERIA, "total records read from the database 0(RBACDbQueryMgr:134)"}));
}

TEST_P(RBACDbQueryMgrTest, FindsNoCriteriaWithoutAnError) {
    criteria_.emplace_back("before");
    const LogCapture log;
    EXPECT_EQ(fetchCriteria({1}, "host"), 0);
    EXPECT_EQ(fetchCriteria({1}, nullptr), 0);
    EXPECT_THAT(criteria_, ElementsAre("before"));
    EXPECT_THAT(log.linesAt(16), IsEmpty());
}

TEST_P(RBACDbQueryMgrTest, RefusesNoKeysAtAll) {
    const LogCapture log;
    EXPECT_EQ(fetchCriteria({}, "host"), 220);
    EXPECT_THAT(linesOf(log, CRITERIA),
                ElementsAre(LogLine{2, CRITERIA, "failed to execute SQL statement, error=9534(RBACDbQueryMgr:92)"}));
}

TEST_P(RBACDbQueryMgrTest, ReportsAMissingTableOfCriteria) {
    execute("DROP TABLE AUTH_MAIN.ACTL_CollectionCriteria");
    const LogCapture log;
    EXPECT_EQ(fetchCriteria({1}, "host"), 220);
    EXPECT_THAT(linesOf(log, CRITERIA),
                ElementsAre(LogLine{2, CRITERIA, "failed to execute SQL statement, error=9534(RBACDbQueryMgr:92)"}));
}

TEST_P(RBACDbQueryMgrTest, KeepsTheCriteriaBeforeOneThatIsTooLong) {
    execute("DROP TABLE AUTH_MAIN.ACTL_CollectionCriteria");
    execute(
        "CREATE TABLE AUTH_MAIN.ACTL_CollectionCriteria (CriteriaID INTEGER, CollectionKey INTEGER, objectType "
        "VARCHAR(255), CriteriaJson TEXT)");
    database_->addCriteria(1, 1, "host", std::string(32767, 'x'));
    database_->addCriteria(2, 1, "host", std::string(32768, 'y'));
    EXPECT_EQ(fetchCriteria({1}, "host"), 220);
    EXPECT_THAT(criteria_, ElementsAre(std::string(32767, 'x')));
}

TEST_P(RBACDbQueryMgrTest, GivesItsConnectionBack) {
    DbConnectionManager one(0, 1, 0, 1, 1, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false);
    RBACDbQueryMgr manager(boost::make_shared<RBACDbConnectionMgr>(&one));
    const std::string session = login("session");
    std::string token;
    std::list<std::string> criteria;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(manager.fetchAzToken(session, token), 0);
        EXPECT_EQ(manager.fetchAzToken("bad", token), 8002);
        EXPECT_EQ(manager.fetchCollectionCriteria({1}, "host", criteria), 0);
    }
}

using RBACDbConnectionMgrTest = RBACDbQueryMgrTest;
INSTANTIATE_ON_BOTH_SERVERS(RBACDbConnectionMgrTest);

TEST_P(RBACDbConnectionMgrTest, BorrowsAManager) {
    const LogCapture log;
    EXPECT_EQ(RBACDbConnectionMgr(&manager_).getDbConnectionMgr(), &manager_);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(RBACDbConnectionMgrTest, MakesAManagerOfItsOwn) {
    const LogCapture log;
    RBACDbConnectionMgr own(nullptr);
    EXPECT_NE(own.getDbConnectionMgr(), nullptr);
    EXPECT_TRUE(own.connectionEstablished());
    EXPECT_THAT(linesOf(log, "RBACDbConnectionMgr::RBACDbConnectionMgr"),
                ElementsAre(LogLine{2, "RBACDbConnectionMgr::RBACDbConnectionMgr",
                                    "Starting database connection manager(RBACDbConnectionMgr:27)"}));
}

TEST_P(RBACDbConnectionMgrTest, TellsThatNoConnectionIsEstablished) {
    settings_.replace("{}");
    const LogCapture log;
    EXPECT_FALSE(RBACDbConnectionMgr(nullptr).connectionEstablished());
}

TEST(RBACDbQueryMgrBindingsTest, DescribeTheRows) {
    using Tesmor::Arkwell::collectionCriteriaBinding;
    const auto expectColumn = [](const Tesmor::Dal::DalOdbcView::BindingStruct& column, const char* name,
                                 unsigned typeCode, unsigned offset, unsigned size) {
        EXPECT_STREQ(column.name, name);
        EXPECT_EQ(column.kind, typeCode << 16U);
        EXPECT_EQ(column.offset, offset);
        EXPECT_EQ(column.size, size);
        EXPECT_EQ(column.length, 0);
        EXPECT_EQ(column.value, nullptr);
    };
    expectColumn(RBACDbQueryMgr::accessTokenDetailsBinding[0], "AzTokenValue", 1000, 0, 32001);
    expectColumn(collectionCriteriaBinding[0], "CriteriaID", 992, 0, 4);
    expectColumn(collectionCriteriaBinding[1], "CollectionKey", 992, 4, 4);
    expectColumn(collectionCriteriaBinding[2], "CriteriaJson", 1000, 8, 32768);
    EXPECT_EQ(RBACDbQueryMgr::SELECT_ACCESS_TOKEN_DETAILS, "AzTokenValue");
    EXPECT_EQ(RBACDbQueryMgr::SELECT_ACCESS_TOKEN_DETAILS_FROM, " FROM AUTH_MAIN.AUTH_Access_Token_Details");
}
