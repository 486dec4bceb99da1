#include "jwt/Forgery.h"
#include "jwt/HostKey.h"
#include "testing/LogCapture.h"

#include <jwt/JWT.h>
#include <jwt/JWTSSLApi.h>
#include <jwt/ValidatingJwtParser.h>

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>

// Counts what OpenSSL holds, and the descriptors of the process, before and after every kind of call.

using Tesmor::Arkwell::JWT;
using Tesmor::Arkwell::JWTSSLApi;
using Tesmor::Arkwell::ValidatingJwtParser;
using testing_support::hostKey;
using testing_support::HostKeyFile;
using testing_support::signedToken;

namespace {

std::atomic<long> held{0};

// NOLINTBEGIN(cppcoreguidelines-no-malloc): they stand in front of malloc

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
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
    return realloc(block, size);
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
    testing_support::LogCapture log_;
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
