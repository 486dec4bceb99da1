#include "jwt/AuthDatabaseFixture.h"

#include <jwt/JWTHandler.h>

#include <gmock/gmock.h>

#include <set>

using Tesmor::Arkwell::Rbac::JWTHandler;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::AuthDatabaseFixture;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::sessionClaims;
using testing_support::signedToken;
using testing_support::unsignedToken;

namespace {

constexpr char EXTRACT[] = "JWTHandler::extractRoleIds";
constexpr char FETCH[] = "JWTHandler::fetchAzToken";
constexpr char GET[] = "JWTHandler::getRoleIds";

/// The status, with the ids that were added to `roles`.
int extract(const std::string& payload, std::set<int>& roles) {
    return JWTHandler().extractRoleIds(unsignedToken(payload), roles);
}

class JWTHandlerTest : public AuthDatabaseFixture {
protected:
    int roleIds(const std::string& sessionToken, std::set<int>& roles) {
        return JWTHandler().getRoleIds(&manager_, sessionToken, roles);
    }

    Tesmor::Dal::DbConnectionManager manager_{0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false};
};

}  // namespace

TEST(ExtractRoleIdsTest, ReadsTheRolesOfAToken) {
    std::set<int> roles;
    EXPECT_EQ(extract(R"({"roles":[3,1,3]})", roles), 0);
    EXPECT_THAT(roles, ElementsAre(1, 3));
}

TEST(ExtractRoleIdsTest, AddsNothingOfAnEmptyList) {
    std::set<int> roles{7};
    EXPECT_EQ(extract(R"({"roles":[]})", roles), 0);
    EXPECT_THAT(roles, ElementsAre(7));
}

TEST(ExtractRoleIdsTest, AddsToWhatIsThere) {
    std::set<int> roles{7};
    EXPECT_EQ(extract(R"({"roles":[-1,0,2147483647]})", roles), 0);
    EXPECT_THAT(roles, ElementsAre(-1, 0, 7, 2147483647));
}

TEST(ExtractRoleIdsTest, StopsAtAnElementThatIsNoInteger) {
    for (const char* element : {R"("2")", "2.0", "null", "[2]", "true"}) {
        const LogCapture log;
        std::set<int> roles;
        EXPECT_EQ(extract(R"({"roles":[1,)" + std::string(element) + ",3]}", roles), 8002) << element;
        EXPECT_THAT(roles, ElementsAre(1));
        EXPECT_THAT(log.lines(),
                    ElementsAre(LogLine{16, EXTRACT, "JSON is invalid. Role ID is NULL or not an integer"}));
    }
}

TEST(ExtractRoleIdsTest, TakesNoIdBeyondThirtyTwoBitsForAnotherRole) {
    for (const char* element : {"4294967296", "2147483648", "-2147483649", "9223372036854775807"}) {
        std::set<int> roles;
        EXPECT_EQ(extract(R"({"roles":[)" + std::string(element) + "]}", roles), 8002) << element;
        EXPECT_THAT(roles, IsEmpty());
    }
}

TEST(ExtractRoleIdsTest, RefusesRolesThatAreNoArray) {
    for (const char* payload : {"{}", R"({"roles":{}})", R"({"roles":1})", R"({"roles":null})", R"({"Roles":[1]})"}) {
        const LogCapture log;
        std::set<int> roles;
        EXPECT_EQ(extract(payload, roles), 8002) << payload;
        EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, EXTRACT, "JSON is invalid. Roles is NULL or not an array"}));
    }
}

TEST(ExtractRoleIdsTest, ReportsATokenThatCannotBeParsed) {
    std::set<int> roles;
    for (const auto& [token, status] :
         {std::pair<std::string, int>{"", 8002}, {unsignedToken("[]"), 7610}, {"a.e30aa.c", 20}}) {
        const LogCapture log;
        EXPECT_EQ(JWTHandler().extractRoleIds(token, roles), status);
        EXPECT_EQ(log.lines().back(), (LogLine{16, EXTRACT, "Failed to create JWT, error=" + std::to_string(status)}));
    }
}

TEST(ExtractRoleIdsTest, LooksNeitherAtTheSignatureNorAtTheExpiry) {
    std::set<int> roles;
    EXPECT_EQ(extract(R"({"roles":[5],"exp":1})", roles), 0);
    EXPECT_THAT(roles, ElementsAre(5));
}

INSTANTIATE_ON_BOTH_SERVERS(JWTHandlerTest);

TEST_P(JWTHandlerTest, GetsTheRolesOfASession) {
    const std::string session = login("session", unsignedToken(R"({"roles":[4,2]})"));
    const LogCapture log;
    std::set<int> roles;
    EXPECT_EQ(roleIds(session, roles), 0);
    EXPECT_THAT(roles, ElementsAre(2, 4));
    EXPECT_THAT(log.linesAt(16), IsEmpty());
}

TEST_P(JWTHandlerTest, ConnectsByItselfWithoutAManager) {
    const std::string session = login("session", unsignedToken(R"({"roles":[4]})"));
    std::set<int> roles;
    EXPECT_EQ(JWTHandler().getRoleIds(nullptr, session, roles), 0);
    EXPECT_THAT(roles, ElementsAre(4));
    // SQLite keeps a descriptor for the next time while another connection has the same file open.
    const int descriptors = testing_support::openDescriptorCount();
    EXPECT_EQ(JWTHandler().getRoleIds(nullptr, session, roles), 0);
    EXPECT_EQ(testing_support::openDescriptorCount(), descriptors);
}

TEST_P(JWTHandlerTest, PassesTheStatusesOfTheSessionOn) {
    const std::pair<std::string, int> cases[] = {
        {signedToken(sessionClaims("unknown")), 117},
        {signedToken(R"({"jti":"session","exp":1})"), 8001},
        {"no token", 8002},
    };
    for (const auto& [session, status] : cases) {
        const LogCapture log;
        std::set<int> roles;
        EXPECT_EQ(roleIds(session, roles), status);
        EXPECT_THAT(roles, IsEmpty());
        const std::vector<LogLine> lines = log.linesAt(16);
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[lines.size() - 2],
                  (LogLine{16, FETCH, "Failed to fetch authorization token, error=" + std::to_string(status)}));
        EXPECT_EQ(lines.back(), (LogLine{16, GET, "Failed to get role IDS, error=" + std::to_string(status)}));
    }
}

TEST_P(JWTHandlerTest, PassesTheFailureOfTheDatabaseOn) {
    execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details");
    const LogCapture log;
    std::set<int> roles;
    EXPECT_EQ(roleIds(signedToken(sessionClaims("session")), roles), 220);
    EXPECT_EQ(log.lines().back(), (LogLine{16, GET, "Failed to get role IDS, error=220"}));
}

TEST_P(JWTHandlerTest, ReportsAnAuthorizationTokenThatIsMalformed) {
    const std::string session = login("session", unsignedToken(R"({"roles":7})"));
    const LogCapture log;
    std::set<int> roles;
    EXPECT_EQ(roleIds(session, roles), 8002);
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, EXTRACT, "JSON is invalid. Roles is NULL or not an array"},
                                             LogLine{16, GET, "Failed to get role IDS, error=8002"}));
}

TEST_P(JWTHandlerTest, AddsToTheRolesThatAreThere) {
    std::set<int> roles{9};
    EXPECT_EQ(roleIds(login("a", unsignedToken(R"({"roles":[4],"exp":1})")), roles), 0);
    EXPECT_EQ(roleIds(login("b", unsignedToken(R"({"roles":[5,"6"]})")), roles), 8002);
    EXPECT_THAT(roles, ElementsAre(4, 5, 9));
}

TEST_P(JWTHandlerTest, LeavesTheTokenAloneWhenThereIsNone) {
    const LogCapture log;
    std::string token = "before";
    EXPECT_EQ(JWTHandler().fetchAzToken(&manager_, signedToken(sessionClaims("unknown")), token), 117);
    EXPECT_EQ(token, "before");
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, FETCH, "Failed to fetch authorization token, error=117"}));
}

TEST_P(JWTHandlerTest, FetchesTheAuthorizationToken) {
    const std::string session = login("session", "the token");
    std::string token;
    EXPECT_EQ(JWTHandler().fetchAzToken(&manager_, session, token), 0);
    EXPECT_EQ(token, "the token");
}
