#include "jwt/AuthDatabaseFixture.h"
#include "testing/OutOfMemory.h"
#include "testing/SilentLog.h"

#include <jwt/JWT.h>
#include <jwt/JWTHandler.h>
#include <jwt/JWTSSLApi.h>
#include <jwt/JWTUtil.h>
#include <jwt/ValidatingJwtParser.h>
#include <platform/Dal.h>

#include <gmock/gmock.h>
#include <jansson.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

// Every allocation on the way from a token to its roles fails in turn, jansson's too. No token gets roles by that, and
// none is taken for another.

using namespace Tesmor::Arkwell;
using testing::IsSubsetOf;
using testing_support::BAD_ALLOC;
using testing_support::endingsWithoutMemory;
using testing_support::sessionClaims;
using testing_support::signedToken;
using testing_support::unsignedToken;

namespace {

constexpr int WRONG = 99;
constexpr int NOT_DECODED = 10;
constexpr int KEY_NOT_OPENED = 12;
constexpr int KEY_NOT_READ = 13;
constexpr int TOKEN_EXPIRED = 8001;
constexpr int TOKEN_INVALID = 8002;
constexpr int PAYLOAD_UNREADABLE = 7610;

[[maybe_unused]] const bool JANSSON_FAILS_TOO = [] {
    json_set_alloc_funcs(testing_support::allocateForJansson, testing_support::releaseForJansson);
    return true;
}();

int rightIf(bool isRight) {
    return isRight ? 0 : WRONG;
}

class TokenOutOfMemory : public testing_support::AuthDatabaseFixture {
protected:
    testing_support::SilentLog log_;
    const std::string token_ = signedToken(sessionClaims("a session of some length"));
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Sqlite, TokenOutOfMemory, testing::Values(Sandbox::DatabaseServer::SQLITE));

TEST_P(TokenOutOfMemory, ParsedTokenIsRightOrAStatusOrAnException) {
    EXPECT_THAT(
        endingsWithoutMemory([this] {
            JWT* made = nullptr;
            if (const int status = ValidatingJwtParser().parseJwt(token_, made); status != 0) {
                return made == nullptr ? status : WRONG;
            }
            const std::unique_ptr<JWT> parsed(made);
            std::string id;
            const int status = parsed->getJwtId(id);
            return status != 0 ? status : rightIf(id == "a session of some length");
        }),
        IsSubsetOf({BAD_ALLOC, 0, NOT_DECODED, KEY_NOT_OPENED, KEY_NOT_READ, TOKEN_INVALID, PAYLOAD_UNREADABLE}));
}

TEST_P(TokenOutOfMemory, TokensThatAreRefusedAreRefused) {
    const std::string expired = signedToken(R"({"jti":"a session of some length","exp":1})");
    const std::string forged = token_ + "AAAA";
    const auto refusal = [](const std::string& token, int expected) {
        JWT* made = nullptr;
        const int status = ValidatingJwtParser().parseJwt(token, made);
        const bool isRefused = status != 0 && made == nullptr;
        delete made;
        return status == expected ? 0 : isRefused ? status : WRONG;
    };
    const auto refused =
        IsSubsetOf({BAD_ALLOC, 0, NOT_DECODED, KEY_NOT_OPENED, KEY_NOT_READ, TOKEN_INVALID, PAYLOAD_UNREADABLE});
    EXPECT_THAT(endingsWithoutMemory([&] { return refusal(expired, TOKEN_EXPIRED); }), refused);
    EXPECT_THAT(endingsWithoutMemory([&] { return refusal(forged, TOKEN_INVALID); }), refused);
}

TEST_P(TokenOutOfMemory, ClaimsAreRightOrAStatusOrAnException) {
    const std::string token = unsignedToken(R"({"jti":"an id of some length","sub":"user:domain:type","exp":17})");
    EXPECT_THAT(
        endingsWithoutMemory([&] {
            JWT* made = nullptr;
            if (const int status = JWT::createJWT(token, made); status != 0) {
                return status;
            }
            const std::unique_ptr<JWT> claims(made);
            std::string id;
            std::string subject;
            long long expiry = 0;
            bool expired = false;
            for (const int status : {claims->getJwtId(id), claims->getSubject(subject), claims->getExpiry(expiry),
                                     claims->isExpired(expired)}) {
                if (status != 0) {
                    return status;
                }
            }
            return rightIf(id == "an id of some length" && subject == "user:domain:type" && expiry == 17 && expired);
        }),
        IsSubsetOf({BAD_ALLOC, 0, NOT_DECODED, TOKEN_INVALID, PAYLOAD_UNREADABLE}));
}

TEST_P(TokenOutOfMemory, SubjectsAreRightOrAbsent) {
    const std::string token = unsignedToken(R"({"sub":"a user:a domain:a type","is_machine":"true"})");
    const auto endings = endingsWithoutMemory([&] {
        const std::unique_ptr<char, decltype(&std::free)> subject(JWT::extractSubject(token), std::free);
        return !subject ? TOKEN_INVALID : rightIf(std::strstr(subject.get(), "a user") != nullptr);
    });
    EXPECT_THAT(endings, IsSubsetOf({BAD_ALLOC, 0, TOKEN_INVALID}));
    EXPECT_THAT(endingsWithoutMemory([&] {
                    bool isMachine = false;
                    const int status = JWT::isMachineCheck(token, isMachine);
                    return status != 0 ? status : rightIf(isMachine);
                }),
                IsSubsetOf({BAD_ALLOC, 0, NOT_DECODED, TOKEN_INVALID, PAYLOAD_UNREADABLE}));
}

TEST_P(TokenOutOfMemory, RolesOfAnAuthorizationTokenAreAllOrNone) {
    const std::string token = unsignedToken(R"({"roles":[1,22,333,1000000000]})");
    const std::set<int> expected{1, 22, 333, 1'000'000'000};
    EXPECT_THAT(endingsWithoutMemory([&] {
                    std::set<int> roles;
                    const int status = Rbac::JWTHandler().extractRoleIds(token, roles);
                    return status != 0 ? status : rightIf(roles == expected);
                }),
                IsSubsetOf({BAD_ALLOC, 0, NOT_DECODED, TOKEN_INVALID, PAYLOAD_UNREADABLE}));
}

TEST_P(TokenOutOfMemory, PiecesOfTokensAreRightOrAStatusOrAnException) {
    EXPECT_THAT(endingsWithoutMemory([this] {
                    std::vector<std::string> parts;
                    const int status = JWTUtil::tokenizeJWT(token_, parts);
                    return status != 0 ? status : rightIf(parts.size() == 3);
                }),
                IsSubsetOf({BAD_ALLOC, 0}));
    EXPECT_THAT(endingsWithoutMemory([] {
                    std::string key;
                    const int status = JWTUtil::loadJwtPublicKey(key);
                    return status != 0 ? status : rightIf(key == testing_support::hostKey().publicPem());
                }),
                IsSubsetOf({BAD_ALLOC, 0, KEY_NOT_OPENED, KEY_NOT_READ}));
    EXPECT_THAT(endingsWithoutMemory([] {
                    const std::string bytes = "more bytes than fit into a short string";
                    std::string encoded;
                    const auto* const begin = reinterpret_cast<const unsigned char*>(bytes.data());
                    if (const int status = JWTSSLApi::B64Encode(begin, static_cast<int>(bytes.size()), encoded);
                        status != 0) {
                        return status;
                    }
                    unsigned char* decoded = nullptr;
                    int length = 0;
                    const int status = JWTSSLApi::B64Decode(encoded, decoded, length);
                    const std::unique_ptr<unsigned char[]> owned(decoded);
                    return status != 0 ? status : rightIf(length == static_cast<int>(bytes.size()));
                }),
                IsSubsetOf({BAD_ALLOC, 0, NOT_DECODED}));
}

// The database's connections are kept and worked on by other threads, so here nothing is counted.
TEST_P(TokenOutOfMemory, RolesOfASessionAreAllOrNone) {
    const std::set<int> expected{1, 22, 333};
    const std::string session = login("a session", unsignedToken(R"({"roles":[1,22,333]})"));
    Tesmor::Dal::DbConnectionManager manager(0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false);
    std::set<int> roles;
    int ending = WRONG;
    const auto ask = [&] {
        roles.clear();
        ending = testing_support::endingOf([&] { return Rbac::JWTHandler().getRoleIds(&manager, session, roles); });
    };
    const auto look = [&] { EXPECT_TRUE(ending != 0 || roles == expected) << ending; };
    for (const long failing : {testing_support::FailingAllocations::ALL, 1L}) {
        for (long granted = 0; granted == 0 || testing_support::FailingAllocations::failed(); ++granted) {
            {
                const testing_support::FailingAllocations scarce(granted, failing);
                ask();
            }
            look();
            const bool failed = testing_support::FailingAllocations::failed();
            if (!failed) {
                EXPECT_GT(granted, 20);
                break;
            }
        }
    }
    ask();
    EXPECT_EQ(ending, 0);
    EXPECT_EQ(roles, expected);
}
