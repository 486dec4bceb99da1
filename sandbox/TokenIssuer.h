#pragma once

#include "sandbox/SigningKey.h"

#include <chrono>
#include <set>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// Who a session is for.
struct Identity {
    std::string subject;  ///< a user's "name:domain:type", or the name of a machine
    bool isMachine = false;
    std::set<int> roleIds = {};
};

/// What a login makes.
struct SessionTokens {
    std::string id;            ///< of the session, the session token's `jti`
    std::string sessionToken;  ///< the user's proof: a secret
    std::string azToken;       ///< names the roles; stays in the authorization database
};

/// Issues the tokens of sessions. Safe from any thread.
class TokenIssuer {
public:
    explicit TokenIssuer(SigningKey key);

    /// @param expiry in the session token, which carries it in milliseconds since the epoch.
    /// @throws std::invalid_argument for a subject that is not UTF-8; std::runtime_error where OpenSSL fails.
    SessionTokens issue(const Identity& identity, std::chrono::system_clock::time_point expiry) const;

private:
    SigningKey key_;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
