#include "platform/HostCertificate.h"

#include "platform/HttpRequest.h"

#include <platform/Status.h>

#include <openssl/err.h>
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

}  // namespace

HostCertificate::HostCertificate(const std::string& certificateFile, const std::string& keyFile)
    : loaded_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free) {
    require(loaded_ != nullptr, certificateFile);
    SSL_CTX_set_default_passwd_cb(loaded_.get(), noPassword);
    require(SSL_CTX_use_certificate_chain_file(loaded_.get(), certificateFile.c_str()) == 1, certificateFile);
    require(SSL_CTX_use_PrivateKey_file(loaded_.get(), keyFile.c_str(), SSL_FILETYPE_PEM) == 1, keyFile);
}

bool HostCertificate::giveTo(SSL_CTX* context) const {
    STACK_OF(X509)* chain = nullptr;
    SSL_CTX_get0_chain_certs(loaded_.get(), &chain);
    return SSL_CTX_use_cert_and_key(context, SSL_CTX_get0_certificate(loaded_.get()),
                                    SSL_CTX_get0_privatekey(loaded_.get()), chain, 1) == 1;
}

}  // namespace platform_detail
