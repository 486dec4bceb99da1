#include "jwt/HostKey.h"
#include "platform/SettingsFixture.h"
#include "testing/LogCapture.h"

#include <jwt/JWTSSLApi.h>
#include <jwt/JWTUtil.h>

#include <gmock/gmock.h>

#include <filesystem>

using Tesmor::Arkwell::JWTSSLApi;
using Tesmor::Arkwell::JWTUtil;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::HostKeyFile;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::signedToken;

namespace {

constexpr char LOAD[] = "JWTSSLApi::loadJwtPublicKey";
constexpr char VERIFY[] = "JWTSSLApi::verifyJWTSignatureUsingHostPublicKey";

}  // namespace

TEST(JWTUtilTest, SplitsATokenAtItsTwoDots) {
    std::vector<std::string> parts{"before"};
    EXPECT_EQ(JWTUtil::tokenizeJWT("header.payload.signature", parts), 0);
    EXPECT_THAT(parts, ElementsAre("before", "header", "payload", "signature"));
}

TEST(JWTUtilTest, LeavesThePartsAloneWithoutTwoDots) {
    const LogCapture log;
    std::vector<std::string> parts;
    for (const char* token : {"", "abc", "a.b", "a.b.c.d", "..."}) {
        EXPECT_EQ(JWTUtil::tokenizeJWT(token, parts), 8002) << token;
    }
    EXPECT_THAT(parts, IsEmpty());
    EXPECT_EQ(log.lines(), std::vector<LogLine>(5, {16, "JWT::tokenizeJWT", "JWT Token is invalid"}));
}

TEST(JWTUtilTest, AppendsPartsOfWhichOneIsEmptyWithoutALog) {
    const LogCapture log;
    std::vector<std::string> parts;
    EXPECT_EQ(JWTUtil::tokenizeJWT("a..c", parts), 8002);
    EXPECT_THAT(parts, ElementsAre("a", "", "c"));
    EXPECT_EQ(JWTUtil::tokenizeJWT("a.b.", parts), 8002);
    EXPECT_EQ(JWTUtil::tokenizeJWT(".b.c", parts), 8002);
    EXPECT_EQ(parts.size(), 9U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(JWTUtilTest, ReadsTheKeyFileUnchanged) {
    const SettingsFixture settings(R"({"log": {"debugLevel": 6}})");
    const HostKeyFile file(std::string("any text\n\0\n", 11));
    const LogCapture log;
    std::string key;
    EXPECT_EQ(JWTUtil::loadJwtPublicKey(key), 0);
    EXPECT_EQ(key, std::string("any text\n\0\n", 11));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{2, LOAD, "successfully opened jwt public key file"},
                                         LogLine{2, LOAD, "successfully read jwt public key file"}));
}

TEST(JWTUtilTest, ReadsTheKeyFileAfresh) {
    const HostKeyFile file("first");
    std::string key;
    EXPECT_EQ(JWTUtil::loadJwtPublicKey(key), 0);
    HostKeyFile::write("second");
    EXPECT_EQ(JWTUtil::loadJwtPublicKey(key), 0);
    EXPECT_EQ(key, "second");
}

TEST(JWTUtilTest, ReportsAMissingKeyFile) {
    HostKeyFile::remove();
    const LogCapture log;
    std::string key = "before";
    EXPECT_EQ(JWTUtil::loadJwtPublicKey(key), 12);
    EXPECT_EQ(key, "before");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, LOAD,
                                                 "failed to open jwt public key file. Error = basic_ios::clear: "
                                                 "iostream error "}));
}

TEST(JWTUtilTest, ReportsAKeyFileThatCannotBeRead) {
    HostKeyFile::remove();
    std::filesystem::create_directories(HostKeyFile::path());
    const LogCapture log;
    std::string key = "before";
    EXPECT_EQ(JWTUtil::loadJwtPublicKey(key), 13);
    EXPECT_EQ(key, "before");
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{16, LOAD,
                                    "failed to read jwt public key file. Error = basic_filebuf::underflow error "
                                    "reading the file: Is a directory "}));
    HostKeyFile::remove();
}

TEST(JWTUtilTest, ClosesTheKeyFile) {
    const HostKeyFile file;
    const int before = testing_support::openDescriptorCount();
    std::string key;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(JWTUtil::loadJwtPublicKey(key), 0);
    }
    EXPECT_EQ(testing_support::openDescriptorCount(), before);
}

TEST(VerificationByHostKeyTest, AcceptsATokenOfTheHost) {
    const SettingsFixture settings(R"({"log": {"debugLevel": 6}})");
    const HostKeyFile file;
    const LogCapture log;
    EXPECT_TRUE(JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(signedToken("{}")));
    EXPECT_THAT(log.linesAt(16), IsEmpty());
    EXPECT_EQ(log.lines().back(), (LogLine{2, VERIFY, "JWT Verification successful using host public key."}));
}

TEST(VerificationByHostKeyTest, RefusesATokenOfAStranger) {
    const HostKeyFile file;
    const LogCapture log;
    EXPECT_FALSE(
        JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(testing_support::strangersKey().signToken("{}", "{}")));
    EXPECT_THAT(log.linesAt(16),
                ElementsAre(LogLine{16, "JWTSSLApi::verifyJWTSignature", "Failed to verify signature."},
                            LogLine{16, VERIFY, "Verification of JWT failed"}));
}

TEST(VerificationByHostKeyTest, RefusesEveryTokenWithoutAKeyFile) {
    HostKeyFile::remove();
    const LogCapture log;
    EXPECT_FALSE(JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(signedToken("{}")));
    EXPECT_EQ(log.lines().back(), (LogLine{16, VERIFY, "Failed to load jwt public key"}));
}

TEST(VerificationByHostKeyTest, RefusesEveryTokenWithAnEmptyKeyFile) {
    const HostKeyFile file("");
    const LogCapture log;
    EXPECT_FALSE(JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(signedToken("{}")));
    EXPECT_THAT(log.linesAt(16), ElementsAre(LogLine{16, VERIFY, "Failed to retrieve public key from the host."}));
}

TEST(VerificationByHostKeyTest, TakesAReplacedKeyAtOnce) {
    const HostKeyFile file(testing_support::strangersKey().publicPem());
    EXPECT_FALSE(JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(signedToken("{}")));
    HostKeyFile::write(testing_support::hostKey().publicPem());
    EXPECT_TRUE(JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(signedToken("{}")));
}
