#include "jwt/Forgery.h"
#include "jwt/HostKey.h"
#include "testing/FailingAllocations.h"
#include "testing/LogCapture.h"

#include <jwt/JWT.h>
#include <jwt/JWTSSLApi.h>
#include <jwt/ValidatingJwtParser.h>

#include <gmock/gmock.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

// Counts what OpenSSL holds, and the descriptors of the process, before and after every kind of call.

using Tesmor::Arkwell::JWT;
using Tesmor::Arkwell::JWTSSLApi;
using Tesmor::Arkwell::ValidatingJwtParser;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using testing_support::hostKey;
using testing_support::HostKeyFile;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::signedToken;

namespace {

constexpr int NULLED = -1;
constexpr int UNTOUCHED = -2;

std::atomic<long> held{0};
thread_local long untilFailure = -1;  // negative: none fails

// NOLINTBEGIN(cppcoreguidelines-no-malloc): they stand in front of malloc

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
    if (untilFailure >= 0 && untilFailure-- == 0) {
        return nullptr;
    }
    void* const block = malloc(size);
    held += block != nullptr ? 1 : 0;
    return block;
}

void release(void* block, const char* /*file*/, int /*line*/) {
    held -= block != nullptr ? 1 : 0;
    free(block);
}

void* reallocate(void* block, std::size_t size, const char* file, int line) {
    if (block == nullptr) {
        return allocate(size, file, line);
    }
    if (size == 0) {
        release(block, file, line);
        return nullptr;
    }
    return untilFailure >= 0 && untilFailure-- == 0 ? nullptr : realloc(block, size);
}
// NOLINTEND(cppcoreguidelines-no-malloc)

// Before anything in OpenSSL allocates, or it refuses.
const bool counting = CRYPTO_set_mem_functions(allocate, reallocate, release) == 1;

long heldNow() {
    ERR_clear_error();  // the errors of the calls before lie in a queue of the thread
    return held;
}

void expectNothingLeft(const std::function<void()>& call) {
    constexpr int CALLS = 50;
    ASSERT_TRUE(counting);
    for (int i = 0; i < CALLS; ++i) {
        call();  // OpenSSL makes what it keeps, and its tables grow, with the first of them
    }
    const int descriptors = testing_support::openDescriptorCount();
    const long before = heldNow();
    for (int i = 0; i < CALLS; ++i) {
        call();
    }
    EXPECT_EQ(heldNow(), before);
    EXPECT_EQ(testing_support::openDescriptorCount(), descriptors);
}

/// How a call ended: its status, and what it logged.
using Ending = std::pair<int, std::vector<std::string>>;

Ending endingOf(const std::function<int()>& call) {
    const LogCapture log;
    Ending ending{call(), {}};
    for (const LogLine& line : log.linesAt(16)) {
        ending.second.push_back(line.tag + ": " + line.message);
    }
    return ending;
}

/// Runs the call with OpenSSL's first, second, ... allocation failing, each in a run of its own, until there is none
/// left to fail.
///
/// @return the different endings.
std::set<Ending> failEachOfOpenSsls(const std::function<int()>& call) {
    std::set<Ending> endings;
    for (long allocation = 0;; ++allocation) {
        untilFailure = allocation;
        const Ending ending = endingOf(call);
        const bool failed = untilFailure < 0;
        untilFailure = -1;
        if (!failed) {
            return endings;
        }
        endings.insert(ending);
    }
}

/// The same; nothing may be left of any run.
std::set<Ending> endingsWithoutMemory(const std::function<int()>& call) {
    for (int i = 0; i < 3; ++i) {
        failEachOfOpenSsls(call);  // OpenSSL keeps the texts of errors, to use their memory for the next ones
    }
    const long before = heldNow();
    std::set<Ending> endings = failEachOfOpenSsls(call);
    EXPECT_EQ(heldNow(), before);
    return endings;
}

void parse(const std::string& token) {
    JWT* made = nullptr;
    ValidatingJwtParser().parseJwt(token, made);
    delete made;
}

void decode(const std::string& text) {
    unsigned char* bytes = nullptr;
    int length = 0;
    JWTSSLApi::B64DecodeURL(text, bytes, length);
    delete[] bytes;
}

class TokenLeakTest : public testing::Test {
protected:
    LogCapture log_;
    HostKeyFile key_;
};

}  // namespace

TEST_F(TokenLeakTest, NothingIsLeftOfEncoding) {
    expectNothingLeft([] {
        std::string text;
        JWTSSLApi::B64Encode(reinterpret_cast<const unsigned char*>("bytes"), 5, text);
        JWTSSLApi::B64Encode(nullptr, 0, text);
    });
}

TEST_F(TokenLeakTest, NothingIsLeftOfDecoding) {
    expectNothingLeft([] {
        decode("Zm9v");
        decode("!!!!");
        decode("a");
        decode("");
    });
}

TEST_F(TokenLeakTest, NothingIsLeftOfKeysThatAreRefused) {
    const std::string pem = hostKey().publicPem();
    const std::string otherKind = testing_support::signedByNewEcKey("{}").publicPem;
    expectNothingLeft([&] {
        JWTSSLApi::verifyJWTSignature("a.b.c", "");
        JWTSSLApi::verifyJWTSignature("a.b.Zm9v", "no key");
        JWTSSLApi::verifyJWTSignature("a.b.Zm9v", otherKind);
        JWTSSLApi::verifyJWTSignature("a.b.Zm9v", pem.substr(0, pem.size() - 40));
    });
}

TEST_F(TokenLeakTest, NothingIsLeftOfGoodTokens) {
    const std::string token = signedToken(testing_support::sessionClaims("1"));
    expectNothingLeft([&] { parse(token); });
}

TEST_F(TokenLeakTest, NothingIsLeftOfBadTokens) {
    const std::string token = signedToken(testing_support::sessionClaims("1"));
    const std::string expired = signedToken(R"({"exp":1})");
    const std::string endless = signedToken("{}");
    const std::string array = signedToken("[]");
    expectNothingLeft([&] {
        for (const std::string& bad : {std::string("a.b"), std::string("a.b.A"), std::string("a.b.!!!!"),
                                       token + "AAAA", "A" + token, expired, endless, array}) {
            parse(bad);
        }
    });
}

TEST_F(TokenLeakTest, NothingIsLeftWithoutAKeyFile) {
    const std::string token = signedToken(testing_support::sessionClaims("1"));
    HostKeyFile::remove();
    expectNothingLeft([&] { parse(token); });
    HostKeyFile::write("");
    expectNothingLeft([&] { parse(token); });
}

TEST_F(TokenLeakTest, NothingIsLeftOfEncodingWithoutMemory) {
    EXPECT_THAT(
        endingsWithoutMemory([] {
            std::string text;
            const int status = JWTSSLApi::B64Encode(reinterpret_cast<const unsigned char*>("bytes"), 5, text);
            EXPECT_EQ(text, status == 0 ? "Ynl0ZXM=" : "");
            return status;
        }),
        UnorderedElementsAre(Ending{10, {}}, Ending{10, {"JWTSSL::B64Encode: Could not write data to be encoded"}}));
}

TEST_F(TokenLeakTest, NothingIsLeftOfDecodingWithoutMemory) {
    EXPECT_THAT(endingsWithoutMemory([] {
                    unsigned char* bytes = nullptr;
                    int length = 0;
                    const int status = JWTSSLApi::B64DecodeURL("Zm9v", bytes, length);
                    EXPECT_EQ(bytes == nullptr, status != 0);
                    delete[] bytes;
                    return status;
                }),
                ElementsAre(Ending{10, {"JWTSSLApi::B64DecodeURL: Failure to decode base64URL string"}}));
}

TEST_F(TokenLeakTest, NothingIsLeftOfMakingAKeyWithoutMemory) {
    const std::string pem = hostKey().publicPem();
    EXPECT_THAT(
        endingsWithoutMemory([&] {
            EVP_PKEY* key = nullptr;
            const int status = JWTSSLApi::getEVPPublicKey(pem, key);
            EXPECT_EQ(key == nullptr, status != 0);
            EVP_PKEY_free(key);
            return status;
        }),
        UnorderedElementsAre(Ending{8007, {"CSSLApi::getEVPPublicKey: Could not create bio memory for public key"}},
                             Ending{8007, {"CSSLApi::getEVPPublicKey: Could not read public key"}},
                             Ending{8007, {"CSSLApi::getEVPPublicKey: Could not create EVP object"}}));
}

TEST_F(TokenLeakTest, WithoutMemoryForTheKeyItselfTheCallersPointerIsNull) {
    const std::string pem = hostKey().publicPem();
    EVP_PKEY* const others = EVP_PKEY_new();
    EXPECT_THAT(endingsWithoutMemory([&] {
                    EVP_PKEY* key = others;
                    const int status = JWTSSLApi::getEVPPublicKey(pem, key);
                    if (status == 0) {
                        EVP_PKEY_free(key);
                        return 0;
                    }
                    return key == nullptr ? NULLED : key == others ? UNTOUCHED : status;
                }),
                UnorderedElementsAre(
                    Ending{UNTOUCHED, {"CSSLApi::getEVPPublicKey: Could not create bio memory for public key"}},
                    Ending{UNTOUCHED, {"CSSLApi::getEVPPublicKey: Could not read public key"}},
                    Ending{NULLED, {"CSSLApi::getEVPPublicKey: Could not create EVP object"}}));
    EVP_PKEY_free(others);
}

TEST_F(TokenLeakTest, NothingIsLeftOfVerifyingWithoutMemory) {
    const std::string pem = hostKey().publicPem();
    const std::string token = signedToken(testing_support::sessionClaims("1"));
    const std::string verify = "JWTSSLApi::verifyJWTSignature: ";
    const std::string noKey = verify + "Failed to create EVP Key using PublicKey";
    EXPECT_THAT(
        endingsWithoutMemory([&] { return JWTSSLApi::verifyJWTSignature(token, pem) ? 1 : 0; }),
        UnorderedElementsAre(Ending{0,
                                    {"JWTSSLApi::B64DecodeURL: Failure to decode base64URL string",
                                     verify + "Failed to decode Base64URL signature"}},
                             Ending{0, {"CSSLApi::getEVPPublicKey: Could not create bio memory for public key", noKey}},
                             Ending{0, {"CSSLApi::getEVPPublicKey: Could not read public key", noKey}},
                             Ending{0, {"CSSLApi::getEVPPublicKey: Could not create EVP object", noKey}},
                             Ending{0, {verify + "Failed to create context for verification of signature."}},
                             Ending{0, {verify + "Failed to initialize signature."}},
                             Ending{0, {verify + "Failed to verify signature."}},
                             Ending{1, {}}));  // what OpenSSL can do without
}

TEST_F(TokenLeakTest, NothingIsLeftOfDecodingWithoutMemoryForTheBytes) {
    const std::string text(100, 'A');
    const LogCapture log;
    unsigned char* bytes = nullptr;
    int length = 0;
    {
        const testing_support::FailingAllocations failure(0, 1);
        EXPECT_EQ(JWTSSLApi::B64Decode(text, bytes, length), 10);
    }
    EXPECT_EQ(bytes, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, "JWTSSL::B64Decode", "Failed to allocate memory to outbuff."}));
}
