#include "jwt/PositionedLog.h"

#include <jwt/JWTSSLApi.h>
#include <jwt/ValidatingJwtParser.h>

#include <memory>

namespace Tesmor::Arkwell {

namespace {

constexpr int TOKEN_EXPIRED = 8001;
constexpr int TOKEN_INVALID = 8002;

}  // namespace

RBACJwtParser::~RBACJwtParser() = default;

ValidatingJwtParser::ValidatingJwtParser() = default;

ValidatingJwtParser::~ValidatingJwtParser() = default;

int ValidatingJwtParser::parseJwt(const std::string& jwt, JWT*& parsed) {
    const PositionedLog log("ValidatingJwtParser", "ValidatingJwtParser::parseJwt");
    if (!JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(jwt)) {
        log.debug(1, 26, "verification of JWT failed");
        return TOKEN_INVALID;
    }
    if (const int status = JWT::createJWT(jwt, parsed); status != 0) {
        log.debug(1, 33, "failed to create JWT, error=", status);
        return status;
    }
    std::unique_ptr<JWT> token(parsed);
    parsed = nullptr;
    bool expired = true;
    if (const int status = token->isExpired(expired); status != 0) {
        log.debug(1, 41, "JWT is expired check failed, error=", status);
        return status;
    }
    if (expired) {
        log.debug(1, 45, "JWT is expired");
        return TOKEN_EXPIRED;
    }
    parsed = token.release();
    return 0;
}

}  // namespace Tesmor::Arkwell
