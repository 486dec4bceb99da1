#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>
#include <vector>

namespace testing_support {

/// A certificate and its private key, as the texts of PEM files.
struct Certificate {
    std::string certificate;
    std::string key;
};

/// What a certificate is to say.
struct CertificateRequest {
    /// Subject alternative names, each "DNS:..." or "IP:...".
    std::vector<std::string> names = {"DNS:localhost", "IP:127.0.0.1", "IP:::1"};
    /// When it is valid, in days from now.
    int fromDay = -1;
    int toDay = 1;
    /// What its key may be used for, as OpenSSL's "extendedKeyUsage" names it; empty: everything.
    std::string usage;
};

/// Issues certificates with fresh P-256 keys.
class CertificateAuthority {
public:
    /// @param toDay until when it is one, in days from now.
    explicit CertificateAuthority(const std::string& name = "test authority", int toDay = 1000);
    /// One whose own certificate is by another authority.
    CertificateAuthority(const std::string& name, const CertificateAuthority& issuer);

    /// Its own certificate, as the text of a PEM file.
    const std::string& certificate() const { return pem_; }
    Certificate issue(const CertificateRequest& request = {}) const;

private:
    void signedBy(const CertificateAuthority& issuer);

    std::shared_ptr<EVP_PKEY> key_;
    std::shared_ptr<X509> certificate_;
    std::string pem_;
};

/// The private key encrypted with a password, as the text of a PEM file.
std::string encryptedKey(const std::string& key, const std::string& password);

}  // namespace testing_support
