#include "jwt/AuthDatabaseFixture.h"

#include <jwt/JWTHandler.h>

#include <malloc.h>

#include <set>

// A thousand sessions in a row, of every kind. Also run under valgrind.

using Tesmor::Arkwell::Rbac::JWTHandler;
using testing_support::AuthDatabaseFixture;
using testing_support::LogCapture;
using testing_support::sessionClaims;
using testing_support::signedToken;

namespace {

constexpr int CALLS = 1000;

/// What the C library's heap holds. A sanitizer's or valgrind's own heap shows nothing here; they find leaks by
/// themselves.
std::size_t heldBytes() {
    return mallinfo2().uordblks;
}

class TokenRepetitionTest : public AuthDatabaseFixture {
protected:
    int statusOf(const std::string& session) {
        const LogCapture log;
        std::set<int> roles;
        return JWTHandler().getRoleIds(&manager_, session, roles);
    }

    Tesmor::Dal::DbConnectionManager manager_{0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false};
};

}  // namespace

INSTANTIATE_ON_BOTH_SERVERS(TokenRepetitionTest);

TEST_P(TokenRepetitionTest, HoldsNothingMoreAfterAThousandCalls) {
    const std::pair<std::string, int> cases[] = {
        {login("session"), 0},
        {signedToken(sessionClaims("unknown")), 117},
        {signedToken(R"({"jti":"session","exp":1})"), 8001},
        {signedToken(sessionClaims("session")) + "AAAA", 8002},
        {login("malformed", "a.b"), 8002},
    };
    constexpr int WARM_UP = 100;
    int descriptors = 0;
    std::size_t bytes = 0;
    for (int i = 0; i < WARM_UP + CALLS; ++i) {
        if (i == WARM_UP) {
            descriptors = testing_support::openDescriptorCount();
            bytes = heldBytes();
        }
        const auto& [session, status] = cases[static_cast<std::size_t>(i) % std::size(cases)];
        ASSERT_EQ(statusOf(session), status);
    }
    EXPECT_EQ(testing_support::openDescriptorCount(), descriptors);
    constexpr std::size_t CHANCE = 16384;  // far below one byte for each allocation of a call
    EXPECT_LT(heldBytes(), bytes + CHANCE);
}
