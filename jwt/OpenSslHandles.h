#pragma once

// The calls by which keys are read are deprecated since OpenSSL 3 in favour of its decoders. They are kept on purpose:
// they accept an RSA key in SubjectPublicKeyInfo form and nothing else, where the decoders take keys of every kind.
// This header is the one place that silences the deprecation, so include it before any other of OpenSSL's.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <memory>

// OpenSSL's handles, each with its owner.

namespace Tesmor::Arkwell {

struct OpenSslRelease {
    void operator()(BIO* chain) const { BIO_free_all(chain); }
    void operator()(RSA* key) const { RSA_free(key); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

using BioPointer = std::unique_ptr<BIO, OpenSslRelease>;  // with whatever it was pushed onto
using RsaPointer = std::unique_ptr<RSA, OpenSslRelease>;
using KeyPointer = std::unique_ptr<EVP_PKEY, OpenSslRelease>;
using DigestPointer = std::unique_ptr<EVP_MD_CTX, OpenSslRelease>;

}  // namespace Tesmor::Arkwell
