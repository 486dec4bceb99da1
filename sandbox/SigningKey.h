#pragma once

#include <memory>
#include <string>

typedef struct evp_pkey_st EVP_PKEY;  // NOLINT(modernize-use-using): as OpenSSL's own headers declare it

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// The RSA key that session tokens are signed with. A value that copies share; safe from any thread.
class SigningKey {
public:
    /// Makes a new key of 2048 bits.
    static SigningKey generate();
    /// @param pem what privatePem() gave.
    /// @throws std::runtime_error where it is not an RSA key.
    static SigningKey fromPem(const std::string& pem);

    /// The key itself, as PEM text: a secret.
    std::string privatePem() const;
    /// What verifies its signatures, as PEM text in the form that JWTSSLApi::getEVPPublicKey() takes.
    std::string publicPem() const;

    /// The token with this header and payload, both JSON text, signed RS256.
    std::string signToken(const std::string& header, const std::string& payload) const;

private:
    explicit SigningKey(std::shared_ptr<EVP_PKEY> key);

    std::shared_ptr<EVP_PKEY> key_;
};

/// Bytes as base64url text without padding (RFC 4648 section 5).
std::string base64Url(const std::string& bytes);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
