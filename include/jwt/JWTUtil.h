#pragma once

#include <platform/Export.h>

#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {

/// Splits tokens and reads the host's public key. Safe from any thread; nothing throws but std::bad_alloc.
class ARKWELL_EXPORT JWTUtil {
public:
    /// Splits a token at its two dots into header, payload and signature, all of them base64url text.
    ///
    /// @param jwt the token's text.
    /// @param parts the three are appended, also where one of them is empty.
    /// @return 0; 8002: not exactly two dots (logged, `parts` unchanged), or an empty segment (not logged).
    static int tokenizeJWT(const std::string& jwt, std::vector<std::string>& parts);

    /// Reads `TARVO_ROOT/var/global/tmsec/jwtkeys/jwtPublicKey`, afresh each time.
    ///
    /// @param publicKey the file's contents, PEM text; untouched on failure.
    /// @return 0; 12: the file cannot be opened; 13: it cannot be read. Both are logged.
    static int loadJwtPublicKey(std::string& publicKey);
};

}  // namespace Arkwell
}  // namespace Tesmor
