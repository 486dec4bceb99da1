#include "jwt/Forgery.h"

#include "jwt/OpenSslHandles.h"
#include "sandbox/SigningKey.h"

#include <openssl/hmac.h>

#include <stdexcept>

namespace testing_support {

namespace {

using Tesmor::Arkwell::BioPointer;
using Tesmor::Arkwell::DigestPointer;
using Tesmor::Arkwell::KeyPointer;
using Tesmor::Arkwell::Sandbox::base64Url;

void require(bool succeeded) {
    if (!succeeded) {
        throw std::runtime_error("OpenSSL failed");
    }
}

const EVP_MD* hashOf(Scheme scheme) {
    switch (scheme) {
        case Scheme::RS1:
            return EVP_sha1();
        case Scheme::RS384:
            return EVP_sha384();
        case Scheme::RS512:
            return EVP_sha512();
        default:
            return EVP_sha256();
    }
}

std::string sign(EVP_PKEY* key, const EVP_MD* hash, bool pss, const std::string& text) {
    const DigestPointer digest(EVP_MD_CTX_new());
    EVP_PKEY_CTX* context = nullptr;
    require(EVP_DigestSignInit(digest.get(), &context, hash, nullptr, key) == 1);
    require(!pss || EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t length = 0;
    require(EVP_DigestSign(digest.get(), nullptr, &length, bytes, text.size()) == 1);
    std::string signature(length, '\0');
    require(EVP_DigestSign(digest.get(), reinterpret_cast<unsigned char*>(signature.data()), &length, bytes,
                           text.size()) == 1);
    signature.resize(length);
    return signature;
}

std::string publicPemOf(EVP_PKEY* key) {
    const BioPointer memory(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_PUBKEY(memory.get(), key) == 1);
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

}  // namespace

std::string signedBy(const std::string& privatePem, Scheme scheme, const std::string& header,
                     const std::string& payload) {
    const BioPointer pem(BIO_new_mem_buf(privatePem.c_str(), -1));
    const KeyPointer key(PEM_read_bio_PrivateKey(pem.get(), nullptr, nullptr, nullptr));
    const std::string text = base64Url(header) + "." + base64Url(payload);
    return text + "." + base64Url(sign(key.get(), hashOf(scheme), scheme == Scheme::PSS256, text));
}

std::string signedWithSecret(const std::string& secret, const std::string& header, const std::string& payload) {
    const std::string text = base64Url(header) + "." + base64Url(payload);
    std::string code(EVP_MAX_MD_SIZE, '\0');
    unsigned int length = 0;
    require(HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
                 reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                 reinterpret_cast<unsigned char*>(code.data()), &length) != nullptr);
    code.resize(length);
    return text + "." + base64Url(code);
}

EcToken signedByNewEcKey(const std::string& payload) {
    const KeyPointer key(EVP_EC_gen("P-256"));
    require(key != nullptr);
    const std::string text = base64Url(R"({"alg":"ES256"})") + "." + base64Url(payload);
    return {text + "." + base64Url(sign(key.get(), EVP_sha256(), false, text)), publicPemOf(key.get())};
}

}  // namespace testing_support
