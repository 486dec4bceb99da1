#include "jwt/AuthDatabaseFixture.h"
#include "jwt/TokenCases.h"
#include "rbac/enforcement/DiskAccessControlClient.h"
#include "testing/RawCache.h"

#include <jwt/JWTHandler.h>
#include <jwt/JWTSSLApi.h>
#include <jwt/ValidatingJwtParser.h>
#include <platform/Dal.h>
#include <rbac/OperationCache.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <memory>
#include <set>

// Every token of tests/data/tokens, shown to every entry point that takes one.

using testing_support::AuthDatabaseFixture;
using testing_support::HostKeyFile;
using testing_support::LogCapture;
using testing_support::TokenCase;
using testing_support::tokenCases;
using testing_support::TokenMaker;
using testing_support::TokenVerdict;
using namespace Tesmor::Arkwell;
using namespace Tesmor::Arkwell::Rbac;

namespace {

constexpr char SESSION[] = "session";
constexpr int ROLE = 7;
constexpr int VIEW_BIT = 37;

class TokenAttack : public AuthDatabaseFixture {
protected:
    TokenAttack() {
        setDebugLevel(6);  // whatever is said at any level must not say too much
        login(SESSION, testing_support::unsignedToken(R"({"roles":[7]})"));
        testing_support::writeFile(directory_ / "operations.json", R"({"|OPERATIONS|VIEW|": 37})");
        files_.put("|A|", 0, {{ROLE, {VIEW_BIT}}});
        files_.write();
        client_ = std::make_unique<DiskAccessControlClient>(
            ObjectNamespace(), boost::make_shared<AccessCache>(Manifest("some cache", files_.directory())),
            operations_);
    }

    static int parse(const std::string& token) {
        JWT* made = nullptr;
        const int status = ValidatingJwtParser().parseJwt(token, made);
        const std::unique_ptr<JWT> parsed(made);
        EXPECT_EQ(parsed != nullptr, status == 0);
        return status;
    }

    int readRoles(const std::string& token) {
        std::set<int> roles;
        const int status = JWTHandler().getRoleIds(&manager_, token, roles);
        EXPECT_EQ(roles, status == 0 ? std::set<int>{ROLE} : std::set<int>());
        return status;
    }

    int makeChecker(const std::string& token) {
        boost::shared_ptr<const AccessChecker> checker;
        const int status =
            client_->createAccessChecker(&manager_, token, root_namespaces::operations::VIEW, 0, checker);
        EXPECT_EQ(checker != nullptr, status == 0);
        EXPECT_TRUE(checker == nullptr || checker->checkAccess(ObjectNamespace("A")));
        return status;
    }

    TokenVerdict verdictOn(const std::string& token, const std::string& publicPem) {
        TokenVerdict verdict;
        verdict.verifies = JWTSSLApi::verifyJWTSignature(token, publicPem);
        EXPECT_EQ(JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(token), verdict.verifies);
        verdict.parser = parse(token);
        verdict.roles = readRoles(token);
        verdict.checker = makeChecker(token);
        return verdict;
    }

    void expectVerdicts(const std::string& table) {
        for (const TokenCase& attempt : tokenCases(table)) {
            SCOPED_TRACE(table + ": " + attempt.name);
            const LogCapture log;
            const std::string publicPem = testing_support::publicPemOf(tokens_.privatePem(attempt.key));
            HostKeyFile::write(publicPem);
            const TokenVerdict verdict = verdictOn(tokens_.make(attempt), publicPem);
            EXPECT_EQ(verdict, attempt.expected);
            // Whoever is not let in is logged, whoever is let in is not.
            EXPECT_EQ(log.linesAt(16).empty(), verdict.checker == 0);
        }
    }

    testing_support::TemporaryDirectory directory_;
    testing_support::RawCache files_{directory_ / "cache"};
    OperationCache operations_{directory_ / "operations.json"};
    Tesmor::Dal::DbConnectionManager manager_{0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false};
    std::unique_ptr<DiskAccessControlClient> client_;
    TokenMaker tokens_{SESSION};
};

// What the database is asked depends on the claims only, so one server is enough for the forgeries.
class TokenForgeryTest : public TokenAttack {};
class TokenClaimsTest : public TokenAttack {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Sqlite, TokenForgeryTest, testing::Values(Tesmor::Arkwell::Sandbox::DatabaseServer::SQLITE));

TEST_P(TokenForgeryTest, AcceptsNoSignatureButTheGenuineOne) {
    expectVerdicts("signatures");
}

TEST_P(TokenForgeryTest, AcceptsNoForgeryThatASmallExponentInvites) {
    expectVerdicts("small-exponent");
}

TEST_P(TokenForgeryTest, TakesNoAdviceFromAHeader) {
    expectVerdicts("headers");
}

TEST_P(TokenForgeryTest, RefusesWhatHasNotTheShapeOfTheTokenThatWasSigned) {
    expectVerdicts("shapes");
}

TEST_P(TokenForgeryTest, AcceptsOtherSpellingsOfTheSameSignatureOnly) {
    expectVerdicts("spellings");
}

INSTANTIATE_ON_BOTH_SERVERS(TokenClaimsTest);

TEST_P(TokenClaimsTest, JudgesTheClaimsOfGenuineTokens) {
    expectVerdicts("claims");
    HostKeyFile::write(testing_support::hostKey().publicPem());
    EXPECT_EQ(readRoles(testing_support::signedToken(testing_support::sessionClaims(SESSION))), 0);
}
