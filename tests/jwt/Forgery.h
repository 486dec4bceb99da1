#pragma once

#include <string>

namespace testing_support {

/// Signs "header.payload" with an RSA key in ways other than the one that is accepted.
enum class Scheme { RS256, RS384, RS512, RS1, PSS256 };

/// A token with this header and payload (JSON texts).
std::string signedBy(const std::string& privatePem, Scheme scheme, const std::string& header,
                     const std::string& payload);

/// A token signed with HMAC-SHA256 under any secret.
std::string signedWithSecret(const std::string& secret, const std::string& header, const std::string& payload);

/// A token signed with ECDSA under a new key, and that key's PEM text.
struct EcToken {
    std::string token;
    std::string publicPem;
};
EcToken signedByNewEcKey(const std::string& payload);

}  // namespace testing_support
