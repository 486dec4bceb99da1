#include "jwt/OpenSslHandles.h"
#include "jwt/PublicKeyFile.h"
#include "jwt/Trace.h"

#include <jwt/JWTSSLApi.h>
#include <jwt/JWTUtil.h>
#include <platform/Logger.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace Tesmor::Arkwell {

namespace {

constexpr int BASE64_FAILED = 10;
constexpr int BASE64URL_LENGTH_IMPOSSIBLE = 20;
constexpr int KEY_UNUSABLE = 8007;

constexpr char ENCODE_CONTEXT[] = "JWTSSL::B64Encode";
constexpr char DECODE_CONTEXT[] = "JWTSSL::B64Decode";
constexpr char DECODE_URL_CONTEXT[] = "JWTSSLApi::B64DecodeURL";
constexpr char KEY_CONTEXT[] = "CSSLApi::getEVPPublicKey";
constexpr char VERIFY_CONTEXT[] = "JWTSSLApi::verifyJWTSignature";
constexpr char VERIFY_BY_HOST_CONTEXT[] = "JWTSSLApi::verifyJWTSignatureUsingHostPublicKey";

/// A base64 filter without line breaks in front of `inner`, or null where there is no memory for it or `inner` is null.
BioPointer base64Over(BioPointer inner) {
    BioPointer filter(inner ? BIO_new(BIO_f_base64()) : nullptr);
    if (filter) {
        BIO_set_flags(filter.get(), BIO_FLAGS_BASE64_NO_NL);
        BIO_push(filter.get(), inner.release());
    }
    return filter;
}

/// Logs why, and answers that a signature is not accepted.
bool refuse(const char* text) {
    logmsg(16, VERIFY_CONTEXT, text);
    return false;
}

bool refuseKey(const char* text) {
    logmsg(16, KEY_CONTEXT, text);
    return false;
}

/// The caller owns the key. Where the text holds none, `key` is untouched; where memory runs out after that, null.
bool readPublicKey(const std::string& pem, const Trace& trace, EVP_PKEY*& key) {
    const BioPointer text(BIO_new_mem_buf(pem.c_str(), -1));
    if (!text) {
        return refuseKey("Could not create bio memory for public key");
    }
    // An empty pass phrase, because without one OpenSSL would ask for it on the terminal if the text claimed to need
    // it.
    char noPassPhrase[] = "";
    const RsaPointer rsa(PEM_read_bio_RSA_PUBKEY(text.get(), nullptr, nullptr, noPassPhrase));
    if (!rsa) {
        return refuseKey("Could not read public key");
    }
    trace(KEY_CONTEXT, "Create evp obj to hold our rsakey");
    key = nullptr;
    KeyPointer made(EVP_PKEY_new());
    if (!made) {
        return refuseKey("Could not create EVP object");
    }
    if (EVP_PKEY_set1_RSA(made.get(), rsa.get()) != 1) {
        return refuseKey("Could not assign RSA key to EVP object");  // GCOVR_EXCL_LINE: counts a reference
    }
    key = made.release();
    return true;
}

bool verifySigned(const std::string& text, const unsigned char* signature, unsigned int length, EVP_PKEY* key) {
    const DigestPointer digest(EVP_MD_CTX_create());
    if (!digest) {
        return refuse("Failed to create context for verification of signature.");
    }
    if (EVP_VerifyInit(digest.get(), EVP_sha256()) != 1) {
        return refuse("Failed to initialize signature.");
    }
    if (EVP_VerifyUpdate(digest.get(), text.data(), text.size()) != 1) {
        return refuse("Failed to update signature.");  // GCOVR_EXCL_LINE: allocates nothing
    }
    if (EVP_VerifyFinal(digest.get(), signature, length, key) != 1) {
        return refuse("Failed to verify signature.");
    }
    return true;
}

bool verify(const std::string& jwt, const std::string& publicKey, const Trace& trace) {
    if (publicKey.empty()) {
        return refuse("Invalid input. 'publickey' is NULL");
    }
    std::vector<std::string> parts;
    if (JWTUtil::tokenizeJWT(jwt, parts) != 0) {
        return refuse("Invalid jwt token. Unable to tokenize jwt");
    }
    unsigned char* decoded = nullptr;
    int length = 0;
    if (JWTSSLApi::B64DecodeURL(parts[2], decoded, length) != 0) {
        return refuse("Failed to decode Base64URL signature");
    }
    const std::unique_ptr<unsigned char[]> signature(decoded);
    EVP_PKEY* made = nullptr;
    if (!readPublicKey(publicKey, trace, made)) {
        return refuse("Failed to create EVP Key using PublicKey");
    }
    const KeyPointer key(made);
    trace(VERIFY_CONTEXT, "Extracted public key now verifying signature.");
    // A signature that is not base64 has a length of 0 or less, which must not become a huge unsigned one.
    const auto signatureLength = static_cast<unsigned int>(std::max(length, 0));
    if (!verifySigned(parts[0] + "." + parts[1], signature.get(), signatureLength, key.get())) {
        return false;
    }
    trace(VERIFY_CONTEXT, "Verification successful");
    return true;
}

}  // namespace

int JWTSSLApi::B64Encode(const unsigned char* data, int length, std::string& encoded) {
    const BioPointer filter = base64Over(BioPointer(BIO_new(BIO_s_mem())));
    if (!filter) {
        return BASE64_FAILED;
    }
    BUF_MEM* memory = nullptr;
    BIO_get_mem_ptr(filter.get(), &memory);
    // A flush that has no memory for the last bytes reports success.
    if (BIO_write(filter.get(), data, length) <= 0 || BIO_flush(filter.get()) <= 0 ||
        memory->length != (static_cast<std::size_t>(length) + 2) / 3 * 4) {
        logmsg(16, ENCODE_CONTEXT, "Could not write data to be encoded");
        return BASE64_FAILED;
    }
    try {
        encoded.assign(memory->data, memory->length);
    } catch (const std::bad_alloc&) {
        return BASE64_FAILED;
    }
    return 0;
}

int JWTSSLApi::B64Decode(const std::string& encoded, unsigned char*& decoded, int& length) {
    decoded = nullptr;
    // One byte more than the text, so that a zero follows whatever is decoded, also from no text at all.
    std::unique_ptr<unsigned char[]> bytes(new (std::nothrow) unsigned char[encoded.size() + 1]());
    if (!bytes) {
        logmsg(16, DECODE_CONTEXT, "Failed to allocate memory to outbuff.");
        return BASE64_FAILED;
    }
    const BioPointer filter = base64Over(BioPointer(BIO_new_mem_buf(encoded.c_str(), -1)));
    if (!filter) {
        return BASE64_FAILED;
    }
    length = BIO_read(filter.get(), bytes.get(), static_cast<int>(std::min<std::size_t>(encoded.size(), INT_MAX)));
    decoded = bytes.release();
    return 0;
}

int JWTSSLApi::B64DecodeURL(const std::string& encoded, unsigned char*& decoded, int& length) {
    std::string standard = encoded;
    std::replace(standard.begin(), standard.end(), '_', '/');
    std::replace(standard.begin(), standard.end(), '-', '+');
    switch (encoded.size() % 4) {
        case 1:
            logmsg(16, DECODE_URL_CONTEXT, "Base64 string is invalid");
            return BASE64URL_LENGTH_IMPOSSIBLE;
        case 2:
            standard += "==";
            break;
        case 3:
            standard += '=';
            break;
        default:
            break;
    }
    const int status = B64Decode(standard, decoded, length);
    if (status != 0) {
        logmsg(16, DECODE_URL_CONTEXT, "Failure to decode base64URL string");
    }
    return status;
}

int JWTSSLApi::getEVPPublicKey(const std::string& pem, EVP_PKEY*& key) {
    return readPublicKey(pem, Trace(), key) ? 0 : KEY_UNUSABLE;
}

bool JWTSSLApi::verifyJWTSignature(const std::string& jwt, const std::string& publicKey) {
    return verify(jwt, publicKey, Trace());
}

bool JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(const std::string& jwt) {
    const Trace trace;
    std::string publicKey;
    if (readPublicKeyFile(publicKey, trace) != 0) {
        logmsg(16, VERIFY_BY_HOST_CONTEXT, "Failed to load jwt public key");
        return false;
    }
    if (publicKey.empty()) {
        logmsg(16, VERIFY_BY_HOST_CONTEXT, "Failed to retrieve public key from the host.");
        return false;
    }
    if (!verify(jwt, publicKey, trace)) {
        logmsg(16, VERIFY_BY_HOST_CONTEXT, "Verification of JWT failed");
        return false;
    }
    trace(VERIFY_BY_HOST_CONTEXT, "JWT Verification successful using host public key.");
    return true;
}

}  // namespace Tesmor::Arkwell
