#include "jwt/Forgery.h"
#include "jwt/OpenSslHandles.h"
#include "jwt/Tokens.h"
#include "platform/SettingsFixture.h"
#include "testing/LogCapture.h"

#include <jwt/JWTSSLApi.h>

#include <gmock/gmock.h>
#include <openssl/err.h>

#include <algorithm>
#include <memory>
#include <vector>

using Tesmor::Arkwell::JWTSSLApi;
using Tesmor::Arkwell::KeyPointer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::hostKey;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::RS256_HEADER;
using testing_support::Scheme;
using testing_support::signedToken;
using testing_support::tenMegabytesOf;

namespace {

constexpr char CLAIMS[] = R"({"jti":"1","exp":9999999999999})";
constexpr char VERIFY[] = "JWTSSLApi::verifyJWTSignature";

struct Decoded {
    int status = -1;
    int length = 0;
    std::string bytes;  // as many as length says, none where it is negative
    bool allocated = false;
};

using Decoder = int (*)(const std::string&, unsigned char*&, int&);

Decoded decode(Decoder decoder, const std::string& text) {
    Decoded result;
    unsigned char* bytes = nullptr;
    result.status = decoder(text, bytes, result.length);
    const std::unique_ptr<unsigned char[]> owner(bytes);
    result.allocated = bytes != nullptr;
    if (bytes != nullptr && result.length >= 0) {
        EXPECT_EQ(bytes[result.length], 0) << text;
        result.bytes.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(result.length));
    }
    return result;
}

std::string encoded(const std::string& bytes) {
    std::string text;
    EXPECT_EQ(JWTSSLApi::B64Encode(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
                                   text),
              0);
    return text;
}

std::string allBytes() {
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes += static_cast<char>(value);
    }
    return bytes;
}

/// A token as its three segments.
std::vector<std::string> segments(const std::string& token) {
    const std::size_t first = token.find('.');
    const std::size_t second = token.find('.', first + 1);
    return {token.substr(0, first), token.substr(first + 1, second - first - 1), token.substr(second + 1)};
}

bool verifies(const std::string& token) {
    return JWTSSLApi::verifyJWTSignature(token, hostKey().publicPem());
}

/// What is logged at level 16 while the token is refused.
std::vector<LogLine> refusal(const std::string& token, const std::string& key) {
    const LogCapture log;
    EXPECT_FALSE(JWTSSLApi::verifyJWTSignature(token, key));
    return log.linesAt(16);
}

std::vector<LogLine> refusal(const std::string& token) {
    return refusal(token, hostKey().publicPem());
}

/// The settings of a host whose steps are traced.
constexpr char TRACED[] = R"({"log": {"debugLevel": 6}})";

const LogLine NOT_VERIFIED{16, VERIFY, "Failed to verify signature."};

/// The same block under another label.
std::string labelled(std::string pem, const std::string& label) {
    const std::string usual = "PUBLIC KEY";
    for (std::size_t at = 0; (at = pem.find(usual, at)) != std::string::npos; at += label.size()) {
        pem.replace(at, usual.size(), label);
    }
    return pem;
}

/// Says of itself that it takes a pass phrase to read it.
std::string encrypted(std::string pem) {
    return pem.insert(pem.find('\n') + 1,
                      "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n");
}

}  // namespace

TEST(JWTSSLApiTest, EncodesStandardBase64WithPaddingAndWithoutLineBreaks) {
    EXPECT_EQ(encoded("f"), "Zg==");
    EXPECT_EQ(encoded("fo"), "Zm8=");
    EXPECT_EQ(encoded("foo"), "Zm9v");
    EXPECT_EQ(encoded("\xFB\xFF\xFE"), "+//+");
    EXPECT_EQ(encoded(std::string(300, 'x')).find('\n'), std::string::npos);
    EXPECT_EQ(encoded(std::string(300, 'x')).size(), 400U);
}

TEST(JWTSSLApiTest, EncodesNothingOfNoBytes) {
    std::string text = "before";
    const LogCapture log;
    EXPECT_EQ(JWTSSLApi::B64Encode(reinterpret_cast<const unsigned char*>(""), 0, text), 10);
    EXPECT_EQ(text, "before");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, "JWTSSL::B64Encode", "Could not write data to be encoded"}));
}

TEST(JWTSSLApiTest, EncodesNothingOfANegativeLength) {
    std::string text = "before";
    EXPECT_EQ(JWTSSLApi::B64Encode(reinterpret_cast<const unsigned char*>("bytes"), -1, text), 10);
    EXPECT_EQ(text, "before");
}

TEST(JWTSSLApiTest, DecodesWhatItEncoded) {
    for (std::size_t length = 1; length <= 256; ++length) {
        const std::string bytes = allBytes().substr(256 - length);
        EXPECT_EQ(decode(JWTSSLApi::B64Decode, encoded(bytes)).bytes, bytes);
    }
}

TEST(JWTSSLApiTest, DecodesTextOfManyLines) {
    const std::string bytes(100'000, '\xA5');
    EXPECT_EQ(decode(JWTSSLApi::B64Decode, encoded(bytes)).bytes, bytes);
}

TEST(JWTSSLApiTest, TakesTextThatIsNotBase64ForNoBytes) {
    for (const char* text : {"", "!", "!!!!", "\xFF\xFF\xFF\xFF", "=", "a"}) {
        const LogCapture log;
        const Decoded result = decode(JWTSSLApi::B64Decode, text);
        EXPECT_EQ(result.status, 0) << text;
        EXPECT_LE(result.length, 0) << text;
        EXPECT_TRUE(result.allocated) << text;
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST(JWTSSLApiTest, DecodesUpToTheFirstNul) {
    EXPECT_EQ(decode(JWTSSLApi::B64Decode, std::string("Zm9v\0Zm9v", 9)).bytes, "foo");
}

TEST(JWTSSLApiTest, DecodesBothAlphabetsAlike) {
    const std::string standard = encoded(allBytes());
    std::string url = standard;
    std::replace(url.begin(), url.end(), '+', '-');
    std::replace(url.begin(), url.end(), '/', '_');
    url.erase(url.find('='));
    EXPECT_NE(url.find('-'), std::string::npos);
    EXPECT_NE(url.find('_'), std::string::npos);
    EXPECT_EQ(decode(JWTSSLApi::B64DecodeURL, url).bytes, allBytes());
}

TEST(JWTSSLApiTest, PadsBase64UrlText) {
    EXPECT_EQ(decode(JWTSSLApi::B64DecodeURL, "Zg").bytes, "f");
    EXPECT_EQ(decode(JWTSSLApi::B64DecodeURL, "Zm8").bytes, "fo");
    EXPECT_EQ(decode(JWTSSLApi::B64DecodeURL, "Zm9v").bytes, "foo");
}

TEST(JWTSSLApiTest, RefusesBase64UrlTextOfAnImpossibleLength) {
    const LogCapture log;
    for (const char* text : {"a", "Zm9va", "Zm9vZm9va"}) {
        const Decoded result = decode(JWTSSLApi::B64DecodeURL, text);
        EXPECT_EQ(result.status, 20) << text;
        EXPECT_FALSE(result.allocated);
    }
    const LogLine line{16, "JWTSSLApi::B64DecodeURL", "Base64 string is invalid"};
    EXPECT_THAT(log.lines(), ElementsAre(line, line, line));
}

TEST(JWTSSLApiTest, DecodesTenMegabytes) {
    const std::string bytes = tenMegabytesOf('x');
    EXPECT_EQ(decode(JWTSSLApi::B64DecodeURL, Tesmor::Arkwell::Sandbox::base64Url(bytes)).bytes.size(), bytes.size());
}

TEST(JWTSSLApiTest, MakesAKeyOfItsPemText) {
    const SettingsFixture settings(TRACED);
    const LogCapture log;
    EVP_PKEY* made = nullptr;
    ASSERT_EQ(JWTSSLApi::getEVPPublicKey(hostKey().publicPem(), made), 0);
    const KeyPointer key(made);
    EXPECT_EQ(EVP_PKEY_get_bits(key.get()), 2048);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{2, "CSSLApi::getEVPPublicKey", "Create evp obj to hold our rsakey"}));
}

TEST(JWTSSLApiTest, MakesNoKeyOfOtherText) {
    const std::string pem = hostKey().publicPem();
    for (const std::string& text : {std::string(), std::string("no key"), hostKey().privatePem(),
                                    testing_support::signedByNewEcKey(CLAIMS).publicPem, pem.substr(0, pem.size() / 2),
                                    labelled(pem, "RSA PUBLIC KEY"), labelled(pem, "CERTIFICATE"), encrypted(pem)}) {
        const LogCapture log;
        EVP_PKEY* const before = EVP_PKEY_new();
        const KeyPointer owner(before);
        EVP_PKEY* key = before;
        EXPECT_EQ(JWTSSLApi::getEVPPublicKey(text, key), 8007);
        EXPECT_EQ(key, before);
        EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, "CSSLApi::getEVPPublicKey", "Could not read public key"}));
    }
}

TEST(JWTSSLApiTest, AcceptsATokenSignedByTheKey) {
    const LogCapture log;
    EXPECT_TRUE(verifies(signedToken(CLAIMS)));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(JWTSSLApiTest, TracesItsStepsAtDebugLevelSix) {
    const SettingsFixture settings(TRACED);
    const LogCapture log;
    EXPECT_TRUE(verifies(signedToken(CLAIMS)));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{2, "CSSLApi::getEVPPublicKey", "Create evp obj to hold our rsakey"},
                                         LogLine{2, VERIFY, "Extracted public key now verifying signature."},
                                         LogLine{2, VERIFY, "Verification successful"}));
}

TEST(JWTSSLApiTest, AcceptsAValidSignatureWhateverTheHeaderDeclares) {
    for (const char* header : {R"({"alg":"none"})", R"({"alg":"HS256"})", "{}", "not JSON"}) {
        EXPECT_TRUE(verifies(hostKey().signToken(header, CLAIMS))) << header;
    }
}

TEST(JWTSSLApiTest, NeedsAKey) {
    EXPECT_THAT(refusal(signedToken(CLAIMS), ""),
                ElementsAre(LogLine{16, VERIFY, "Invalid input. 'publickey' is NULL"}));
}

TEST(JWTSSLApiTest, NeedsAUsableKey) {
    EXPECT_THAT(refusal(signedToken(CLAIMS), "no key"),
                ElementsAre(LogLine{16, "CSSLApi::getEVPPublicKey", "Could not read public key"},
                            LogLine{16, VERIFY, "Failed to create EVP Key using PublicKey"}));
}

TEST(JWTSSLApiTest, RefusesATokenWithoutThreeSegments) {
    EXPECT_THAT(refusal("a.b"), ElementsAre(LogLine{16, "JWT::tokenizeJWT", "JWT Token is invalid"},
                                            LogLine{16, VERIFY, "Invalid jwt token. Unable to tokenize jwt"}));
    EXPECT_THAT(refusal("a.b."), ElementsAre(LogLine{16, VERIFY, "Invalid jwt token. Unable to tokenize jwt"}));
}

TEST(JWTSSLApiTest, RefusesASignatureOfAnImpossibleLength) {
    const std::vector<std::string> parts = segments(signedToken(CLAIMS));
    EXPECT_THAT(refusal(parts[0] + "." + parts[1] + "." + std::string(5, 'A')),
                ElementsAre(LogLine{16, "JWTSSLApi::B64DecodeURL", "Base64 string is invalid"},
                            LogLine{16, VERIFY, "Failed to decode Base64URL signature"}));
}

TEST(JWTSSLApiTest, RefusesASignatureThatIsNotBase64) {
    const std::vector<std::string> parts = segments(signedToken(CLAIMS));
    for (const std::string& signature : {std::string("!!!!"), std::string("\xFF\xFF\xFF\xFF"), std::string(342, '!'),
                                         std::string(4, '\0'), std::string("===="), std::string("A===")}) {
        EXPECT_THAT(refusal(parts[0] + "." + parts[1] + "." + signature), ElementsAre(NOT_VERIFIED)) << signature;
    }
}

TEST(JWTSSLApiTest, RefusesATokenOfAnotherKey) {
    EXPECT_THAT(refusal(testing_support::strangersKey().signToken(RS256_HEADER, CLAIMS)), ElementsAre(NOT_VERIFIED));
}

TEST(JWTSSLApiTest, RefusesAnotherHashOrPadding) {
    for (const Scheme scheme : {Scheme::RS1, Scheme::RS384, Scheme::RS512, Scheme::PSS256}) {
        EXPECT_THAT(refusal(testing_support::signedBy(hostKey().privatePem(), scheme, RS256_HEADER, CLAIMS)),
                    ElementsAre(NOT_VERIFIED))
            << static_cast<int>(scheme);
    }
    EXPECT_TRUE(verifies(testing_support::signedBy(hostKey().privatePem(), Scheme::RS256, RS256_HEADER, CLAIMS)));
}

TEST(JWTSSLApiTest, RefusesAnHmacKeyedWithThePublicKey) {
    EXPECT_THAT(refusal(testing_support::signedWithSecret(hostKey().publicPem(), R"({"alg":"HS256"})", CLAIMS)),
                ElementsAre(NOT_VERIFIED));
}

TEST(JWTSSLApiTest, RefusesAnEcdsaSignature) {
    EXPECT_THAT(refusal(testing_support::signedByNewEcKey(CLAIMS).token), ElementsAre(NOT_VERIFIED));
}

TEST(JWTSSLApiTest, RefusesAnUnsignedToken) {
    const std::vector<std::string> parts = segments(signedToken(CLAIMS));
    const std::string header = Tesmor::Arkwell::Sandbox::base64Url(R"({"alg":"none"})");
    EXPECT_THAT(refusal(header + "." + parts[1] + "."),
                ElementsAre(LogLine{16, VERIFY, "Invalid jwt token. Unable to tokenize jwt"}));
    EXPECT_THAT(refusal(header + "." + parts[1] + "." + parts[1]), ElementsAre(NOT_VERIFIED));
}

TEST(JWTSSLApiTest, RefusesAnAlteredHeaderOrPayload) {
    const std::vector<std::string> parts = segments(signedToken(CLAIMS));
    const std::string payload = Tesmor::Arkwell::Sandbox::base64Url(R"({"jti":"2","exp":9999999999999})");
    EXPECT_THAT(refusal(parts[0] + "." + payload + "." + parts[2]), ElementsAre(NOT_VERIFIED));
    EXPECT_THAT(refusal("e30." + parts[1] + "." + parts[2]), ElementsAre(NOT_VERIFIED));
    EXPECT_THAT(refusal(parts[1] + "." + parts[0] + "." + parts[2]), ElementsAre(NOT_VERIFIED));
}

TEST(JWTSSLApiTest, RefusesEveryAlteredBitOfASignature) {
    const std::vector<std::string> parts = segments(signedToken(CLAIMS));
    const std::string signature = decode(JWTSSLApi::B64DecodeURL, parts[2]).bytes;
    ASSERT_EQ(signature.size(), 256U);
    for (std::size_t bit = 0; bit < signature.size() * 8; bit += 7) {
        std::string altered = signature;
        altered[bit / 8] = static_cast<char>(altered[bit / 8] ^ (1 << bit % 8));
        EXPECT_FALSE(verifies(parts[0] + "." + parts[1] + "." + Tesmor::Arkwell::Sandbox::base64Url(altered))) << bit;
    }
}

TEST(JWTSSLApiTest, RefusesATruncatedOrExtendedSignature) {
    const std::vector<std::string> parts = segments(signedToken(CLAIMS));
    const std::string signature = decode(JWTSSLApi::B64DecodeURL, parts[2]).bytes;
    for (const std::string& other :
         {signature.substr(1), signature.substr(0, 255), signature + std::string(1, '\0'), signature + signature,
          std::string(1, '\0') + signature, signature.substr(0, 1), std::string(256, '\0')}) {
        EXPECT_THAT(refusal(parts[0] + "." + parts[1] + "." + Tesmor::Arkwell::Sandbox::base64Url(other)),
                    ElementsAre(NOT_VERIFIED))
            << other.size();
    }
}

TEST(JWTSSLApiTest, RefusesAHugeToken) {
    const std::vector<std::string> parts = segments(signedToken(CLAIMS));
    const std::string huge = tenMegabytesOf('A');
    EXPECT_FALSE(verifies(huge + "." + parts[1] + "." + parts[2]));
    EXPECT_FALSE(verifies(parts[0] + "." + huge + "." + parts[2]));
    EXPECT_FALSE(verifies(parts[0] + "." + parts[1] + "." + huge));
}

TEST(JWTSSLApiTest, VerifiesAHugeToken) {
    EXPECT_TRUE(verifies(signedToken(R"({"a":")" + tenMegabytesOf('x') + "\"}")));
}

TEST(JWTSSLApiTest, LeavesOpenSslsErrorsToTheirOwner) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 42);
    EXPECT_TRUE(verifies(signedToken(CLAIMS)));
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), 42);
    EXPECT_FALSE(verifies(testing_support::strangersKey().signToken(RS256_HEADER, CLAIMS)));
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), 42);
    EXPECT_NE(ERR_GET_REASON(ERR_peek_last_error()), 42);
    ERR_clear_error();
}
