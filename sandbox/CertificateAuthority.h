#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// A certificate and its private key, both as PEM text. The key is a secret.
struct CertifiedKey {
    std::string certificate;
    std::string key;
};

/// What a certificate is made for.
struct CertificateRequest {
    /// The subject; at most its first 64 bytes can stand in a certificate.
    std::string commonName;
    /// Host names and IP addresses that it is valid for.
    std::vector<std::string> names = {};
    bool forServers = false;
    bool forClients = false;
};

/// A private certificate authority with a P-256 key. What it issues is valid from five minutes ago, for ten years.
///
/// Everything here throws std::runtime_error where OpenSSL fails, and std::invalid_argument for a name that cannot
/// stand in a certificate.
class CertificateAuthority {
public:
    /// A new one, with a certificate signed by itself.
    static CertificateAuthority generate(const std::string& name);
    /// @param identity what identity() gave.
    static CertificateAuthority fromPem(const CertifiedKey& identity);

    CertifiedKey identity() const;
    /// A new key with a certificate for it.
    CertifiedKey issue(const CertificateRequest& request) const;

private:
    struct Handles;
    explicit CertificateAuthority(std::shared_ptr<const Handles> handles);

    std::shared_ptr<const Handles> handles_;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
