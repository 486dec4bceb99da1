#pragma once

#include <jwt/JWT.h>
#include <platform/Export.h>

#include <string>

namespace Tesmor {
namespace Arkwell {

/// Makes parsed tokens of texts. Safe from any thread.
class ARKWELL_EXPORT RBACJwtParser {
public:
    RBACJwtParser() = default;
    RBACJwtParser(const RBACJwtParser&) = delete;
    RBACJwtParser& operator=(const RBACJwtParser&) = delete;
    virtual ~RBACJwtParser();

    /// @param jwt the token's text.
    /// @param parsed pass null. On success a new object, which the caller deletes.
    /// @return 0, or a status with `parsed` null.
    virtual int parseJwt(const std::string& jwt, JWT*& parsed) = 0;
};

/// Parses a token only if it is signed by the host's key and has not expired. The signature comes first: nothing of a
/// token is parsed before it is known to be genuine.
class ARKWELL_EXPORT ValidatingJwtParser : public RBACJwtParser {
public:
    ValidatingJwtParser();
    ~ValidatingJwtParser() override;

    /// @return 0; 8002: the signature does not verify, or there is no usable key, or the token has no usable `exp`;
    /// 8001: the token has expired; otherwise what JWT::createJWT() returns. Failures are logged at debug level 1.
    int parseJwt(const std::string& jwt, JWT*& parsed) override;
};

}  // namespace Arkwell
}  // namespace Tesmor
