#include "platform/HostCertificate.h"

#include "platform/HttpRequest.h"
#include "platform/PemText.h"

#include <platform/Status.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

namespace platform_detail {

namespace {

/// Throws unless the last call went well.
void require(bool condition, const std::string& path) {
    if (condition) {
        return;
    }
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    std::string detail = path + ": " + (reason != nullptr ? reason : "it cannot be read");
    ERR_clear_error();
    throw HttpFailure{platform_status::HTTP_CLIENT_CERTIFICATE_UNUSABLE, detail};
}

// OpenSSL's own would ask the terminal.
int noPassword(char* /*buffer*/, int /*size*/, int /*encrypting*/, void* /*unused*/) {
    return 0;
}

struct CertificateRelease {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
using CertificatePointer = std::unique_ptr<X509, CertificateRelease>;

struct KeyRelease {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using KeyPointer = std::unique_ptr<EVP_PKEY, KeyRelease>;

/// Reads the host's certificate and, behind it, those of its issuers.
void useChain(SSL_CTX* context, const PemFile& file) {
    const BioPointer text = readable(file.text);
    const CertificatePointer own(text ? PEM_read_bio_X509_AUX(text.get(), nullptr, noPassword, nullptr) : nullptr);
    require(own != nullptr && SSL_CTX_use_certificate(context, own.get()) == 1, file.path);
    while (CertificatePointer issuer{PEM_read_bio_X509(text.get(), nullptr, noPassword, nullptr)}) {
        require(SSL_CTX_add1_chain_cert(context, issuer.get()) == 1, file.path);
    }
    const unsigned long end = ERR_peek_last_error();
    require(ERR_GET_LIB(end) == ERR_LIB_PEM && ERR_GET_REASON(end) == PEM_R_NO_START_LINE, file.path);
    ERR_clear_error();
}

void useKey(SSL_CTX* context, const PemFile& file) {
    const BioPointer text = readable(file.text);
    const KeyPointer key(text ? PEM_read_bio_PrivateKey(text.get(), nullptr, noPassword, nullptr) : nullptr);
    require(key != nullptr && SSL_CTX_use_PrivateKey(context, key.get()) == 1, file.path);
}

}  // namespace

HostCertificate::HostCertificate(const PemFile& certificate, const PemFile& key)
    : loaded_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free) {
    require(loaded_ != nullptr, certificate.path);
    ERR_clear_error();  // what is found there later is to be of these files
    useChain(loaded_.get(), certificate);
    useKey(loaded_.get(), key);
}

bool HostCertificate::giveTo(SSL_CTX* context) const {
    STACK_OF(X509)* chain = nullptr;
    SSL_CTX_get0_chain_certs(loaded_.get(), &chain);
    return SSL_CTX_use_cert_and_key(context, SSL_CTX_get0_certificate(loaded_.get()),
                                    SSL_CTX_get0_privatekey(loaded_.get()), chain, 1) == 1;
}

}  // namespace platform_detail
