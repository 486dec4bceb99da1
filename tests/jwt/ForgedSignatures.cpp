#include "jwt/ForgedSignatures.h"

#include "jwt/Forgery.h"
#include "jwt/Tokens.h"
#include "sandbox/OpenSslText.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/sha.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>

namespace testing_support {

namespace {

using Tesmor::Arkwell::BioPointer;
using Tesmor::Arkwell::KeyPointer;
using Tesmor::Arkwell::Sandbox::base64Url;
using Tesmor::Arkwell::Sandbox::requireOpenSsl;
using Tesmor::Arkwell::Sandbox::textOf;

constexpr char ACTION[] = "forge a signature";

// RFC 8017 section 9.2: what stands before a SHA-256 hash in the block that is signed.
const std::string DIGEST_INFO("\x30\x31\x30\x0d\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01\x05\x00\x04\x20", 19);
const std::string SHORTEST_PADDING(8, '\xFF');
const std::string BLOCK_START("\x00\x01", 2);
const std::string SEPARATOR(1, '\0');

struct NumberRelease {
    void operator()(BIGNUM* number) const { BN_free(number); }
    void operator()(BN_CTX* context) const { BN_CTX_free(context); }
};

/// A number of any size. Just the arithmetic that forging takes.
class Number {
public:
    explicit Number(unsigned long value = 0) { requireOpenSsl(BN_set_word(get(), value) == 1, ACTION); }
    explicit Number(const std::string& bytes) {
        requireOpenSsl(BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
                                 get()) != nullptr,
                       ACTION);
    }
    explicit Number(BIGNUM* taken) : number_(taken) { requireOpenSsl(taken != nullptr, ACTION); }
    Number(const Number& other) : number_(BN_dup(other.get())) { requireOpenSsl(number_ != nullptr, ACTION); }
    Number& operator=(const Number& other) {
        requireOpenSsl(BN_copy(get(), other.get()) != nullptr, ACTION);
        return *this;
    }
    ~Number() = default;

    BIGNUM* get() const { return number_.get(); }

    /// The bytes, with zeros in front up to this size at least.
    std::string bytes(std::size_t size) const {
        std::string text(std::max(size, static_cast<std::size_t>(BN_num_bytes(get()))), '\0');
        requireOpenSsl(
            BN_bn2binpad(get(), reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(text.size())) >= 0,
            ACTION);
        return text;
    }

    friend Number operator+(const Number& a, const Number& b) {
        Number sum;
        requireOpenSsl(BN_add(sum.get(), a.get(), b.get()) == 1, ACTION);
        return sum;
    }
    friend Number operator-(const Number& a, const Number& b) {
        Number difference;
        requireOpenSsl(BN_sub(difference.get(), a.get(), b.get()) == 1, ACTION);
        return difference;
    }
    friend bool operator<(const Number& a, const Number& b) { return BN_cmp(a.get(), b.get()) < 0; }

    Number cubed() const {
        const std::unique_ptr<BN_CTX, NumberRelease> context(BN_CTX_new());
        Number square;
        Number cube;
        requireOpenSsl(BN_sqr(square.get(), get(), context.get()) == 1 &&
                           BN_mul(cube.get(), square.get(), get(), context.get()) == 1,
                       ACTION);
        return cube;
    }
    Number toThePower(const Number& exponent, const Number& modulus) const {
        const std::unique_ptr<BN_CTX, NumberRelease> context(BN_CTX_new());
        Number power;
        requireOpenSsl(BN_mod_exp(power.get(), get(), exponent.get(), modulus.get(), context.get()) == 1, ACTION);
        return power;
    }
    bool bit(int index) const { return BN_is_bit_set(get(), index) == 1; }
    void set(int index) { requireOpenSsl(BN_set_bit(get(), index) == 1, ACTION); }
    void clear(int index) {
        if (bit(index)) {
            requireOpenSsl(BN_clear_bit(get(), index) == 1, ACTION);
        }
    }

private:
    std::unique_ptr<BIGNUM, NumberRelease> number_{BN_new()};
};

KeyPointer keyOf(const std::string& privatePem) {
    const BioPointer pem(BIO_new_mem_buf(privatePem.c_str(), -1));
    KeyPointer key(PEM_read_bio_PrivateKey(pem.get(), nullptr, nullptr, nullptr));
    requireOpenSsl(key != nullptr, "read a key");
    return key;
}

Number parameterOf(const std::string& privatePem, const char* name) {
    BIGNUM* value = nullptr;
    requireOpenSsl(EVP_PKEY_get_bn_param(keyOf(privatePem).get(), name, &value) == 1, "read a key");
    return Number(value);
}

std::string sha256(const std::string& text) {
    std::string hash(SHA256_DIGEST_LENGTH, '\0');
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
           reinterpret_cast<unsigned char*>(hash.data()));
    return hash;
}

/// The bytes of a token's last segment.
std::string signatureIn(const std::string& token) {
    std::string text = token.substr(token.rfind('.') + 1);
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    text.resize((text.size() + 3) / 4 * 4, '=');
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    requireOpenSsl(length >= 0, ACTION);
    const auto padding = static_cast<std::size_t>(std::count(text.begin(), text.end(), '='));
    bytes.resize(static_cast<std::size_t>(length) - padding);
    return bytes;
}

/// What every way is given.
struct Order {
    const std::string& privatePem;
    const UnsignedToken& token;

    /// What a genuine signature is of.
    std::string text() const { return base64Url(token.header) + "." + base64Url(token.payload); }
    std::string hash() const { return sha256(text()); }
    Number modulus() const { return parameterOf(privatePem, OSSL_PKEY_PARAM_RSA_N); }
    std::size_t size() const { return modulusOf(privatePem).size(); }

    /// The block as it is, signed with the private key.
    std::string sign(const std::string& block) const {
        return Number(block).toThePower(parameterOf(privatePem, OSSL_PKEY_PARAM_RSA_D), modulus()).bytes(size());
    }
    /// A block that ends like this, with as much padding as it takes.
    std::string padded(const std::string& end, const std::string& start = BLOCK_START, char padding = '\xFF') const {
        return start + std::string(size() - start.size() - 1 - end.size(), padding) + SEPARATOR + end;
    }
    std::string signPadded(const std::string& end) const { return sign(padded(end)); }
    std::string signHashOf(const std::string& other) const { return signPadded(DIGEST_INFO + sha256(other)); }

    std::string genuine() const {
        return signatureIn(signedBy(privatePem, Scheme::RS256, token.header, token.payload));
    }
    std::string signedAs(Scheme scheme) const {
        return signatureIn(signedBy(privatePem, scheme, token.header, token.payload));
    }
    std::string keyed(const std::string& secret) const {
        return signatureIn(signedWithSecret(secret, token.header, token.payload));
    }
};

/// The greatest number whose cube is not beyond this one.
Number cubeRoot(const Number& of, int bits) {
    Number root;
    for (int index = bits / 3; index >= 0; --index) {
        root.set(index);
        if (of < root.cubed()) {
            root.clear(index);
        }
    }
    return root;
}

/// A signature for the exponent 3 without the private key: its cube begins as a short block should, and goes on as it
/// likes.
std::string cubeRootWithBytesBehind(const Order& order) {
    const std::string wanted = BLOCK_START + SHORTEST_PADDING + SEPARATOR + DIGEST_INFO + order.hash();
    const std::string most = wanted + std::string(order.size() - wanted.size(), '\xFF');
    const Number root = cubeRoot(Number(most), static_cast<int>(order.size()) * 8);
    requireOpenSsl(root.cubed().bytes(order.size()).compare(0, wanted.size(), wanted) == 0, ACTION);
    return root.bytes(order.size());
}

/// The same, with a cube that begins and ends as the block should and has any bytes for padding between.
std::string cubeRootWithBytesBetween(const Order& order) {
    const std::string end = SEPARATOR + DIGEST_INFO + order.hash();
    const int endBits = static_cast<int>(end.size()) * 8;
    const Number wantedEnd(end);
    if (!wantedEnd.bit(0)) {
        throw std::runtime_error("only an odd hash is the end of a cube");
    }
    const std::string start = BLOCK_START + SHORTEST_PADDING;
    const std::string most = start + std::string(order.size() - start.size(), '\xFF');
    Number root = cubeRoot(Number(most), static_cast<int>(order.size()) * 8);
    for (int index = 0; index < endBits; ++index) {
        root.clear(index);
    }
    for (int index = 0; index < endBits; ++index) {
        if (root.cubed().bit(index) != wantedEnd.bit(index)) {
            root.set(index);
        }
    }
    const std::string cube = root.cubed().bytes(order.size());
    requireOpenSsl(
        cube.compare(0, start.size(), start) == 0 && cube.compare(cube.size() - end.size(), end.size(), end) == 0,
        ACTION);
    return root.bytes(order.size());
}

std::string hexadecimal(const std::string& bytes) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        text += {DIGITS[static_cast<unsigned char>(c) >> 4U], DIGITS[static_cast<unsigned char>(c) & 0xFU]};
    }
    return text;
}

std::string reversed(std::string bytes) {
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

std::string withBit(std::string bytes, std::size_t index) {
    bytes[index] = static_cast<char>(bytes[index] ^ 1);
    return bytes;
}

std::string ecdsa(const Order& order) {
    const KeyPointer key = keyOf(order.privatePem);
    const Tesmor::Arkwell::DigestPointer digest(EVP_MD_CTX_new());
    const std::string text = order.text();
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::string signature(static_cast<std::size_t>(EVP_PKEY_get_size(key.get())), '\0');
    std::size_t length = signature.size();
    requireOpenSsl(EVP_DigestSignInit(digest.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
                       EVP_DigestSign(digest.get(), reinterpret_cast<unsigned char*>(signature.data()), &length, bytes,
                                      text.size()) == 1,
                   ACTION);
    signature.resize(length);
    return signature;
}

using Way = std::function<std::string(const Order&)>;

const std::map<std::string, Way>& ways() {
    static const std::map<std::string, Way> known = {
        {"RS256", [](const Order& o) { return o.genuine(); }},

        // Other keys and other algorithms.
        {"RS256 by a stranger",
         [](const Order& o) {
             return signatureIn(signedBy(strangersKey().privatePem(), Scheme::RS256, o.token.header, o.token.payload));
         }},
        {"RS1", [](const Order& o) { return o.signedAs(Scheme::RS1); }},
        {"RS384", [](const Order& o) { return o.signedAs(Scheme::RS384); }},
        {"RS512", [](const Order& o) { return o.signedAs(Scheme::RS512); }},
        {"PS256", [](const Order& o) { return o.signedAs(Scheme::PSS256); }},
        {"ES256", ecdsa},
        {"HS256 with the public key", [](const Order& o) { return o.keyed(publicPemOf(o.privatePem)); }},
        {"HS256 with the modulus", [](const Order& o) { return o.keyed(modulusOf(o.privatePem)); }},
        {"HS256 with nothing", [](const Order& o) { return o.keyed(""); }},
        {"HS256 with a secret", [](const Order& o) { return o.keyed("secret"); }},
        {"hash", [](const Order& o) { return o.hash(); }},

        // The host's signature of something else.
        {"payload only", [](const Order& o) { return o.signHashOf(base64Url(o.token.payload)); }},
        {"decoded", [](const Order& o) { return o.signHashOf(o.token.header + "." + o.token.payload); }},
        {"without the dot",
         [](const Order& o) { return o.signHashOf(base64Url(o.token.header) + base64Url(o.token.payload)); }},
        {"with an end of line", [](const Order& o) { return o.signHashOf(o.text() + "\n"); }},
        {"hash of the hash", [](const Order& o) { return o.signHashOf(o.hash()); }},

        // Blocks that are not what RFC 8017 wants.
        {"no DigestInfo", [](const Order& o) { return o.signPadded(o.hash()); }},
        {"DigestInfo of SHA-512/256",
         [](const Order& o) {
             std::string other = DIGEST_INFO;
             other[14] = '\x06';
             return o.signPadded(other + o.hash());
         }},
        {"DigestInfo without parameters",
         [](const Order& o) {
             const std::string shorter("\x30\x2f\x30\x0b\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01\x04\x20", 17);
             return o.signPadded(shorter + o.hash());
         }},
        {"DigestInfo with long lengths",
         [](const Order& o) { return o.signPadded("\x30\x81" + DIGEST_INFO.substr(1) + o.hash()); }},
        {"short hash",
         [](const Order& o) {
             std::string shorter = DIGEST_INFO;
             shorter[1] = '\x30';
             shorter.back() = '\x1f';
             return o.signPadded(shorter + o.hash().substr(0, 31));
         }},
        {"bytes behind the hash", [](const Order& o) { return o.signPadded(DIGEST_INFO + o.hash() + "x"); }},
        {"short padding",
         [](const Order& o) {
             const std::string block = BLOCK_START + SHORTEST_PADDING + SEPARATOR + DIGEST_INFO + o.hash();
             return o.sign(block + std::string(o.size() - block.size(), '\0'));
         }},
        {"block type 0",
         [](const Order& o) { return o.sign(o.padded(DIGEST_INFO + o.hash(), std::string(2, '\0'), '\0')); }},
        {"block type 2",
         [](const Order& o) { return o.sign(o.padded(DIGEST_INFO + o.hash(), std::string("\x00\x02", 2), 'x')); }},
        {"other padding", [](const Order& o) { return o.sign(o.padded(DIGEST_INFO + o.hash(), BLOCK_START, '\xFE')); }},

        // Numbers.
        {"nothing", [](const Order&) { return std::string(); }},
        {"zero", [](const Order& o) { return Number().bytes(o.size()); }},
        {"one", [](const Order& o) { return Number(1).bytes(o.size()); }},
        {"modulus", [](const Order& o) { return o.modulus().bytes(o.size()); }},
        {"modulus less one", [](const Order& o) { return (o.modulus() - Number(1)).bytes(o.size()); }},
        {"plus the modulus", [](const Order& o) { return (Number(o.genuine()) + o.modulus()).bytes(o.size()); }},
        {"negative", [](const Order& o) { return (o.modulus() - Number(o.genuine())).bytes(o.size()); }},
        {"block itself", [](const Order& o) { return o.padded(DIGEST_INFO + o.hash()); }},

        // A genuine one, and something happens to it.
        {"first bit changed", [](const Order& o) { return withBit(o.genuine(), 0); }},
        {"last bit changed", [](const Order& o) { return withBit(o.genuine(), o.size() - 1); }},
        {"without the first byte", [](const Order& o) { return o.genuine().substr(1); }},
        {"without the last byte", [](const Order& o) { return o.genuine().substr(0, o.size() - 1); }},
        {"first byte only", [](const Order& o) { return o.genuine().substr(0, 1); }},
        {"zero before it", [](const Order& o) { return std::string(1, '\0') + o.genuine(); }},
        {"zero behind it", [](const Order& o) { return o.genuine() + std::string(1, '\0'); }},
        {"twice", [](const Order& o) { return o.genuine() + o.genuine(); }},
        {"megabyte behind it", [](const Order& o) { return o.genuine() + std::string(1U << 20U, 'x'); }},
        {"backwards", [](const Order& o) { return reversed(o.genuine()); }},
        {"in hexadecimal digits", [](const Order& o) { return hexadecimal(o.genuine()); }},
        {"encoded twice", [](const Order& o) { return base64Url(o.genuine()); }},

        {"cube root, bytes behind it", cubeRootWithBytesBehind},
        {"cube root, bytes before it", cubeRootWithBytesBetween},
    };
    return known;
}

}  // namespace

std::string signatureOf(const std::string& way, const std::string& privatePem, const UnsignedToken& token) {
    const auto found = ways().find(way);
    if (found == ways().end()) {
        throw std::invalid_argument("no way to sign: " + way);
    }
    return found->second({privatePem, token});
}

std::string newKeyWithExponentThree() {
    const std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> context(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr),
                                                                         EVP_PKEY_CTX_free);
    const Number three(3);
    EVP_PKEY* made = nullptr;
    requireOpenSsl(EVP_PKEY_keygen_init(context.get()) == 1 &&
                       EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), 2048) == 1 &&
                       EVP_PKEY_CTX_set1_rsa_keygen_pubexp(context.get(), three.get()) == 1 &&
                       EVP_PKEY_generate(context.get(), &made) == 1,
                   "make a key");
    const KeyPointer key(made);
    return textOf("write a key", [&](BIO* memory) {
        return PEM_write_bio_PKCS8PrivateKey(memory, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string newEcKey() {
    const KeyPointer key(EVP_EC_gen("P-256"));
    return textOf("write a key", [&](BIO* memory) {
        return PEM_write_bio_PKCS8PrivateKey(memory, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string publicPemOf(const std::string& privatePem) {
    const KeyPointer key = keyOf(privatePem);
    return textOf("write a public key", [&](BIO* memory) { return PEM_write_bio_PUBKEY(memory, key.get()); });
}

std::string modulusOf(const std::string& privatePem) {
    return parameterOf(privatePem, OSSL_PKEY_PARAM_RSA_N).bytes(0);
}

}  // namespace testing_support
