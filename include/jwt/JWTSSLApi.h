#pragma once

#include <platform/Export.h>

#include <string>

typedef struct evp_pkey_st EVP_PKEY;  // NOLINT(modernize-use-using): as OpenSSL's own headers declare it

namespace Tesmor {
namespace Arkwell {

/// Base64 and RS256 verification over OpenSSL.
///
/// Every failure is logged at level 16. Stateless and safe from any thread; nothing throws but std::bad_alloc. The
/// thread's OpenSSL error queue is neither read nor cleared.
class ARKWELL_EXPORT JWTSSLApi {
public:
    /// Encodes bytes as base64 with padding and without line breaks (RFC 4648 section 4).
    ///
    /// @return 0, or 10 with `encoded` untouched. No bytes, or a negative length, are 10 as well.
    static int B64Encode(const unsigned char* data, int length, std::string& encoded);

    /// Decodes base64 text up to its first NUL. What is not base64 is no failure: see `length`.
    ///
    /// @param encoded the text.
    /// @param decoded an array that the caller deletes, at least one byte longer than what was decoded and zero beyond
    /// it; null on failure.
    /// @param length the bytes decoded. 0 or negative for text that is not base64.
    /// @return 0, or 10: out of memory.
    static int B64Decode(const std::string& encoded, unsigned char*& decoded, int& length);

    /// B64Decode() for base64url text (RFC 4648 section 5), whose padding is left off.
    ///
    /// @return also 20, with `decoded` and `length` untouched: no such text has this length.
    static int B64DecodeURL(const std::string& encoded, unsigned char*& decoded, int& length);

    /// Makes a key from the PEM text of an RSA public key ("PUBLIC KEY").
    ///
    /// @param pem the text.
    /// @param key the caller releases it with EVP_PKEY_free(). Untouched where the text holds no key, null where memory
    /// runs out after that.
    /// @return 0, or 8007.
    static int getEVPPublicKey(const std::string& pem, EVP_PKEY*& key);

    /// Whether the token carries a valid RSA-SHA256 signature (RS256) by the key. Whatever the token's header declares,
    /// nothing else is accepted.
    ///
    /// @param jwt the token's text.
    /// @param publicKey PEM text.
    static bool verifyJWTSignature(const std::string& jwt, const std::string& publicKey);

    /// verifyJWTSignature() with the key that JWTUtil::loadJwtPublicKey() reads.
    static bool verifyJWTSignatureUsingHostPublicKey(const std::string& jwt);
};

}  // namespace Arkwell
}  // namespace Tesmor
