#include "sandbox/SigningKey.h"

#include "sandbox/OpenSslText.h"

#include <jwt/JWTSSLApi.h>

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr unsigned int KEY_BITS = 2048;

std::shared_ptr<EVP_PKEY> shared(EVP_PKEY* key) {
    return {key, [](EVP_PKEY* held) { EVP_PKEY_free(held); }};
}

}  // namespace

SigningKey::SigningKey(std::shared_ptr<EVP_PKEY> key) : key_(std::move(key)) {}

SigningKey SigningKey::generate() {
    EVP_PKEY* const key = EVP_RSA_gen(KEY_BITS);
    requireOpenSsl(key != nullptr, "make a key");
    return SigningKey(shared(key));
}

SigningKey SigningKey::fromPem(const std::string& pem) {
    const BioPointer text(BIO_new_mem_buf(pem.c_str(), -1));
    requireOpenSsl(text != nullptr, "read a key");
    const std::shared_ptr<EVP_PKEY> key = shared(PEM_read_bio_PrivateKey(text.get(), nullptr, nullptr, nullptr));
    requireOpenSsl(key != nullptr && EVP_PKEY_is_a(key.get(), "RSA") == 1, "read an RSA key");
    return SigningKey(key);
}

std::string SigningKey::privatePem() const {
    return textOf("write a key", [this](BIO* memory) {
        return PEM_write_bio_PKCS8PrivateKey(memory, key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string SigningKey::publicPem() const {
    return textOf("write a public key", [this](BIO* memory) { return PEM_write_bio_PUBKEY(memory, key_.get()); });
}

std::string SigningKey::signToken(const std::string& header, const std::string& payload) const {
    const std::string text = base64Url(header) + "." + base64Url(payload);
    const DigestPointer digest(EVP_MD_CTX_new());
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t length = 0;
    requireOpenSsl(digest && EVP_DigestSignInit(digest.get(), nullptr, EVP_sha256(), nullptr, key_.get()) == 1 &&
                       EVP_DigestSign(digest.get(), nullptr, &length, bytes, text.size()) == 1,
                   "sign");
    std::string signature(length, '\0');
    requireOpenSsl(EVP_DigestSign(digest.get(), reinterpret_cast<unsigned char*>(signature.data()), &length, bytes,
                                  text.size()) == 1,
                   "sign");
    signature.resize(length);
    return text + "." + base64Url(signature);
}

std::string base64Url(const std::string& bytes) {
    if (bytes.empty()) {
        return {};
    }
    std::string text;
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
    requireOpenSsl(JWTSSLApi::B64Encode(data, static_cast<int>(bytes.size()), text) == 0, "encode base64");
    text.erase(text.find_last_not_of('=') + 1);
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}

}  // namespace Tesmor::Arkwell::Sandbox
