#include "sandbox/CertificateAuthority.h"

#include "sandbox/OpenSslText.h"

#include <arpa/inet.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr long SECONDS_OF_TOLERANCE = 300;
constexpr long SECONDS_OF_VALIDITY = 10L * 365 * 24 * 3600;
constexpr std::size_t LONGEST_COMMON_NAME = 64;
constexpr long VERSION_3 = 2;

struct CertificateRelease {
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
using CertificatePointer = std::unique_ptr<X509, CertificateRelease>;
using ExtensionPointer = std::unique_ptr<X509_EXTENSION, CertificateRelease>;

KeyPointer makeKey() {
    KeyPointer key(EVP_EC_gen("P-256"));
    requireOpenSsl(key != nullptr, "make a key");
    return key;
}

/// "DNS:name" or "IP:address", as extensions are written.
std::string alternativeName(const std::string& name) {
    std::array<unsigned char, sizeof(in6_addr)> address{};
    if (inet_pton(AF_INET, name.c_str(), address.data()) == 1 ||
        inet_pton(AF_INET6, name.c_str(), address.data()) == 1) {
        return "IP:" + name;
    }
    const char* const allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._*";
    if (name.empty() || name.find_first_not_of(allowed) != std::string::npos) {
        throw std::invalid_argument("neither a host name nor an IP address: \"" + name + "\"");
    }
    return "DNS:" + name;
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : ",") + part;
    }
    return text;
}

std::string keyUsages(const CertificateRequest& request) {
    std::vector<std::string> usages;
    if (request.forServers) {
        usages.emplace_back("serverAuth");
    }
    if (request.forClients) {
        usages.emplace_back("clientAuth");
    }
    return joined(usages);
}

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const ExtensionPointer extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    requireOpenSsl(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1,
                   "add an extension to a certificate");
}

void setSerialNumber(X509* certificate) {
    std::array<unsigned char, 8> bytes{};
    requireOpenSsl(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1, "make a random number");
    std::uint64_t number = 0;
    for (const unsigned char byte : bytes) {
        number = (number << 8U) | byte;
    }
    // Positive and never 0.
    number = (number >> 1U) | 1U;
    requireOpenSsl(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), number) == 1, "number a certificate");
}

void setSubject(X509* certificate, const std::string& commonName) {
    const std::string name = commonName.substr(0, LONGEST_COMMON_NAME);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(name.data());
    requireOpenSsl(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, bytes,
                                              static_cast<int>(name.size()), -1, 0) == 1,
                   "name a certificate");
}

/// A certificate for the key without extensions, not signed yet.
CertificatePointer draft(EVP_PKEY* key, const std::string& commonName) {
    CertificatePointer certificate(X509_new());
    requireOpenSsl(certificate != nullptr && X509_set_version(certificate.get(), VERSION_3) == 1, "make a certificate");
    setSerialNumber(certificate.get());
    setSubject(certificate.get(), commonName);
    requireOpenSsl(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -SECONDS_OF_TOLERANCE) != nullptr &&
                       X509_gmtime_adj(X509_getm_notAfter(certificate.get()), SECONDS_OF_VALIDITY) != nullptr &&
                       X509_set_pubkey(certificate.get(), key) == 1,
                   "fill a certificate");
    return certificate;
}

void sign(X509* certificate, X509* issuer, EVP_PKEY* issuersKey) {
    requireOpenSsl(X509_set_issuer_name(certificate, X509_get_subject_name(issuer)) == 1 &&
                       X509_sign(certificate, issuersKey, EVP_sha256()) > 0,
                   "sign a certificate");
}

CertifiedKey pem(X509* certificate, EVP_PKEY* key) {
    return {textOf("write a certificate", [&](BIO* memory) { return PEM_write_bio_X509(memory, certificate); }),
            textOf("write a key", [&](BIO* memory) {
                return PEM_write_bio_PKCS8PrivateKey(memory, key, nullptr, nullptr, 0, nullptr, nullptr);
            })};
}

}  // namespace

struct CertificateAuthority::Handles {
    CertificatePointer certificate;
    KeyPointer key;
};

CertificateAuthority::CertificateAuthority(std::shared_ptr<const Handles> handles) : handles_(std::move(handles)) {}

CertificateAuthority CertificateAuthority::generate(const std::string& name) {
    KeyPointer key = makeKey();
    CertificatePointer certificate = draft(key.get(), name);
    X509* const own = certificate.get();
    requireOpenSsl(X509_set_issuer_name(own, X509_get_subject_name(own)) == 1, "name a certificate");
    addExtension(own, own, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
    addExtension(own, own, NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(own, own, NID_subject_key_identifier, "hash");
    addExtension(own, own, NID_authority_key_identifier, "keyid:always");
    sign(own, own, key.get());
    return CertificateAuthority(std::make_shared<const Handles>(Handles{std::move(certificate), std::move(key)}));
}

CertificateAuthority CertificateAuthority::fromPem(const CertifiedKey& identity) {
    const BioPointer certificateText(
        BIO_new_mem_buf(identity.certificate.data(), static_cast<int>(identity.certificate.size())));
    const BioPointer keyText(BIO_new_mem_buf(identity.key.data(), static_cast<int>(identity.key.size())));
    requireOpenSsl(certificateText != nullptr && keyText != nullptr, "read PEM text");
    CertificatePointer certificate(PEM_read_bio_X509(certificateText.get(), nullptr, nullptr, nullptr));
    KeyPointer key(PEM_read_bio_PrivateKey(keyText.get(), nullptr, nullptr, nullptr));
    requireOpenSsl(
        certificate != nullptr && key != nullptr && X509_check_private_key(certificate.get(), key.get()) == 1,
        "read a certificate with its key");
    return CertificateAuthority(std::make_shared<const Handles>(Handles{std::move(certificate), std::move(key)}));
}

CertifiedKey CertificateAuthority::identity() const {
    return pem(handles_->certificate.get(), handles_->key.get());
}

CertifiedKey CertificateAuthority::issue(const CertificateRequest& request) const {
    const KeyPointer key = makeKey();
    const CertificatePointer made = draft(key.get(), request.commonName);
    X509* const certificate = made.get();
    X509* const issuer = handles_->certificate.get();
    addExtension(certificate, issuer, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate, issuer, NID_key_usage, "critical,digitalSignature");
    if (request.forServers || request.forClients) {
        addExtension(certificate, issuer, NID_ext_key_usage, keyUsages(request));
    }
    addExtension(certificate, issuer, NID_subject_key_identifier, "hash");
    addExtension(certificate, issuer, NID_authority_key_identifier, "keyid:always");
    std::vector<std::string> names;
    for (const std::string& name : request.names) {
        names.push_back(alternativeName(name));
    }
    if (!names.empty()) {
        addExtension(certificate, issuer, NID_subject_alt_name, joined(names));
    }
    sign(certificate, issuer, handles_->key.get());
    return pem(certificate, key.get());
}

}  // namespace Tesmor::Arkwell::Sandbox
