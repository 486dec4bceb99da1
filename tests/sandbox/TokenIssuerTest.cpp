#include "sandbox/TokenIssuer.h"

#include <jwt/JWT.h>
#include <jwt/JWTHandler.h>
#include <jwt/JWTSSLApi.h>

#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>

using namespace Tesmor::Arkwell;
using Sandbox::SessionTokens;
using Sandbox::SigningKey;
using testing::ElementsAre;

namespace {

const SigningKey& key() {
    static const SigningKey made = SigningKey::generate();
    return made;
}

const std::chrono::system_clock::time_point EXPIRY{std::chrono::milliseconds(1'700'000'000'123)};

SessionTokens issue(const Sandbox::Identity& identity) {
    return Sandbox::TokenIssuer(key()).issue(identity, EXPIRY);
}

std::unique_ptr<JWT> parsed(const std::string& token) {
    JWT* made = nullptr;
    EXPECT_EQ(JWT::createJWT(token, made), 0);
    return std::unique_ptr<JWT>(made);
}

}  // namespace

TEST(TokenIssuerTest, SignsBothTokens) {
    const SessionTokens tokens = issue({"alice:example:local", false, {1}});
    EXPECT_TRUE(JWTSSLApi::verifyJWTSignature(tokens.sessionToken, key().publicPem()));
    EXPECT_TRUE(JWTSSLApi::verifyJWTSignature(tokens.azToken, key().publicPem()));
    EXPECT_FALSE(JWTSSLApi::verifyJWTSignature(tokens.sessionToken, SigningKey::generate().publicPem()));
}

TEST(TokenIssuerTest, NamesTheSessionItsSubjectAndItsEnd) {
    const SessionTokens tokens = issue({"alice:example:local", false, {1}});
    const auto session = parsed(tokens.sessionToken);
    std::string id;
    std::string subject;
    long long expiry = 0;
    bool isMachine = true;
    EXPECT_EQ(session->getJwtId(id), 0);
    EXPECT_EQ(session->getSubject(subject), 0);
    EXPECT_EQ(session->getExpiry(expiry), 0);
    EXPECT_EQ(JWT::isMachineCheck(tokens.sessionToken, isMachine), 0);
    EXPECT_EQ(id, tokens.id);
    EXPECT_EQ(subject, "alice:example:local");
    EXPECT_EQ(expiry, 1'700'000'000'123);
    EXPECT_FALSE(isMachine);
}

TEST(TokenIssuerTest, MarksMachines) {
    bool isMachine = false;
    EXPECT_EQ(JWT::isMachineCheck(issue({"host.example", true, {}}).sessionToken, isMachine), 0);
    EXPECT_TRUE(isMachine);
}

TEST(TokenIssuerTest, KeepsTheRolesOutOfTheSessionToken) {
    const SessionTokens tokens = issue({"alice:example:local", false, {7, 3}});
    std::set<int> roles;
    EXPECT_EQ(Rbac::JWTHandler().extractRoleIds(tokens.azToken, roles), 0);
    EXPECT_THAT(roles, ElementsAre(3, 7));
    EXPECT_EQ(Rbac::JWTHandler().extractRoleIds(tokens.sessionToken, roles), 8002);
}

TEST(TokenIssuerTest, GivesEverySessionAnIdOfItsOwn) {
    const std::string first = issue({"alice:example:local"}).id;
    EXPECT_EQ(first.size(), 32U);
    EXPECT_NE(first, issue({"alice:example:local"}).id);
}

TEST(TokenIssuerTest, RefusesASubjectThatIsNotUtf8) {
    EXPECT_THROW(issue({"\xFF"}), std::invalid_argument);
}

TEST(SigningKeyTest, IsReadFromItsText) {
    const SigningKey read = SigningKey::fromPem(key().privatePem());
    EXPECT_EQ(read.publicPem(), key().publicPem());
}

TEST(SigningKeyTest, IsReadFromNothingElse) {
    EXPECT_THROW(SigningKey::fromPem(""), std::runtime_error);
    EXPECT_THROW(SigningKey::fromPem(key().publicPem()), std::runtime_error);
}
