#include "testing/Certificates.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <stdexcept>

namespace testing_support {

namespace {

using Key = std::shared_ptr<EVP_PKEY>;
using Document = std::shared_ptr<X509>;

constexpr long DAY = 86400;

void require(bool condition) {
    if (!condition) {
        throw std::runtime_error("OpenSSL cannot make a certificate");
    }
}

Key freshKey() {
    Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    require(key != nullptr);
    return key;
}

template <class Write>
std::string pemText(Write write) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), BIO_free);
    require(memory && write(memory.get()) == 1);
    std::string text(static_cast<std::size_t>(BIO_pending(memory.get())), '\0');
    require(BIO_read(memory.get(), text.data(), static_cast<int>(text.size())) == static_cast<int>(text.size()));
    return text;
}

std::string pemOf(X509* certificate) {
    return pemText([certificate](BIO* out) { return PEM_write_bio_X509(out, certificate); });
}

std::string pemOf(EVP_PKEY* key) {
    return pemText(
        [key](BIO* out) { return PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr); });
}

void addExtension(X509* certificate, int kind, const std::string& value) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str());
    require(extension != nullptr);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

Document unsignedCertificate(const Key& key, const std::string& name, int fromDay, int toDay) {
    static std::atomic<long> serial{0};
    Document made(X509_new(), X509_free);
    require(made != nullptr);
    X509_set_version(made.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), fromDay * DAY);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), toDay * DAY);
    X509_set_pubkey(made.get(), key.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    return made;
}

std::string joined(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) {
        list += (list.empty() ? "" : ",") + name;
    }
    return list;
}

}  // namespace

CertificateAuthority::CertificateAuthority(const std::string& name, int toDay)
    : key_(freshKey()), certificate_(unsignedCertificate(key_, name, -1000, toDay)) {
    signedBy(*this);
}

CertificateAuthority::CertificateAuthority(const std::string& name, const CertificateAuthority& issuer)
    : key_(freshKey()), certificate_(unsignedCertificate(key_, name, -1000, 1000)) {
    signedBy(issuer);
}

void CertificateAuthority::signedBy(const CertificateAuthority& issuer) {
    X509_set_issuer_name(certificate_.get(), X509_get_subject_name(issuer.certificate_.get()));
    addExtension(certificate_.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate_.get(), NID_key_usage, "critical,keyCertSign");
    require(X509_sign(certificate_.get(), issuer.key_.get(), EVP_sha256()) > 0);
    pem_ = pemOf(certificate_.get());
}

Certificate CertificateAuthority::issue(const CertificateRequest& request) const {
    const Key key = freshKey();
    const Document made = unsignedCertificate(key, "test host", request.fromDay, request.toDay);
    X509_set_issuer_name(made.get(), X509_get_subject_name(certificate_.get()));
    addExtension(made.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(made.get(), NID_subject_alt_name, joined(request.names));
    if (!request.usage.empty()) {
        addExtension(made.get(), NID_ext_key_usage, request.usage);
    }
    require(X509_sign(made.get(), key_.get(), EVP_sha256()) > 0);
    return {pemOf(made.get()), pemOf(key.get())};
}

std::string encryptedKey(const std::string& key, const std::string& password) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> in(BIO_new_mem_buf(key.data(), static_cast<int>(key.size())),
                                                       BIO_free);
    const Key plain(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    require(plain != nullptr);
    return pemText([&](BIO* out) {
        return PEM_write_bio_PKCS8PrivateKey(out, plain.get(), EVP_aes_256_cbc(), password.data(),
                                             static_cast<int>(password.size()), nullptr, nullptr);
    });
}

}  // namespace testing_support
