#include "jwt/HostKey.h"
#include "platform/SettingsFixture.h"
#include "testing/LogCapture.h"

#include <jwt/ValidatingJwtParser.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <memory>

using Tesmor::Arkwell::JWT;
using Tesmor::Arkwell::RBACJwtParser;
using Tesmor::Arkwell::ValidatingJwtParser;
using testing::IsEmpty;
using testing_support::HostKeyFile;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::nowInMilliseconds;
using testing_support::signedToken;

namespace {

constexpr char PARSE[] = "ValidatingJwtParser::parseJwt";

class ValidatingJwtParserTest : public testing::Test {
protected:
    int parse(const std::string& token) {
        JWT* made = nullptr;
        const int status = parser_->parseJwt(token, made);
        parsed_.reset(made);
        EXPECT_EQ(status == 0, made != nullptr);
        return status;
    }

    HostKeyFile key_;
    SettingsFixture settings_{R"({"log": {"debugLevel": 1}})"};
    boost::shared_ptr<RBACJwtParser> parser_ = boost::make_shared<ValidatingJwtParser>();
    std::unique_ptr<JWT> parsed_;
};

std::string expiring(long long milliseconds) {
    return R"({"jti":"1","exp":)" + std::to_string(milliseconds) + "}";
}

std::string strangersToken(const std::string& payload) {
    return testing_support::strangersKey().signToken(testing_support::RS256_HEADER, payload);
}

}  // namespace

TEST_F(ValidatingJwtParserTest, ParsesAGenuineTokenThatLasts) {
    const LogCapture log;
    ASSERT_EQ(parse(signedToken(expiring(nowInMilliseconds() + 60'000))), 0);
    std::string id;
    EXPECT_EQ(parsed_->getJwtId(id), 0);
    EXPECT_EQ(id, "1");
    EXPECT_THAT(log.linesAt(16), IsEmpty());
}

TEST_F(ValidatingJwtParserTest, RefusesATokenThatExpiredAMillisecondAgo) {
    const LogCapture log;
    EXPECT_EQ(parse(signedToken(expiring(nowInMilliseconds() - 1))), 8001);
    EXPECT_EQ(log.lines().back(), (LogLine{2, PARSE, "JWT is expired(ValidatingJwtParser:45)"}));
}

TEST_F(ValidatingJwtParserTest, RefusesATokenWithoutAnExpiry) {
    const LogCapture log;
    EXPECT_EQ(parse(signedToken(R"({"jti":"1"})")), 8002);
    EXPECT_EQ(log.lines().back(),
              (LogLine{2, PARSE, "JWT is expired check failed, error=8002(ValidatingJwtParser:41)"}));
}

TEST_F(ValidatingJwtParserTest, RefusesABadSignatureWhateverTheExpiry) {
    for (const long long expiry : {nowInMilliseconds() + 60'000, nowInMilliseconds() - 60'000}) {
        const LogCapture log;
        EXPECT_EQ(parse(strangersToken(expiring(expiry))), 8002);
        EXPECT_EQ(log.lines().back(), (LogLine{2, PARSE, "verification of JWT failed(ValidatingJwtParser:26)"}));
    }
}

TEST_F(ValidatingJwtParserTest, RefusesAGenuineTokenThatCannotBeParsed) {
    const LogCapture log;
    EXPECT_EQ(parse(signedToken("[]")), 7610);
    EXPECT_EQ(log.lines().back(), (LogLine{2, PARSE, "failed to create JWT, error=7610(ValidatingJwtParser:33)"}));
}

TEST_F(ValidatingJwtParserTest, ParsesNothingOfATokenThatIsNotGenuine) {
    const LogCapture log;
    EXPECT_EQ(parse(strangersToken("[]")), 8002);
    for (const LogLine& line : log.lines()) {
        EXPECT_NE(line.tag, "JWT::loadJSON");
    }
}

TEST_F(ValidatingJwtParserTest, RefusesEveryTokenWithoutAKeyFile) {
    HostKeyFile::remove();
    EXPECT_EQ(parse(signedToken(expiring(nowInMilliseconds() + 60'000))), 8002);
}

TEST_F(ValidatingJwtParserTest, GivesNothingOfAGenuineTokenThatIsRefused) {
    JWT other;
    for (const auto& [payload, status] : {std::pair<std::string, int>{expiring(nowInMilliseconds() - 1), 8001},
                                          {R"({"exp":1.7e12})", 8002},
                                          {R"({"exp":"9999999999999"})", 8002},
                                          {"[]", 7610}}) {
        JWT* parsed = &other;
        EXPECT_EQ(parser_->parseJwt(signedToken(payload), parsed), status) << payload;
        EXPECT_EQ(parsed, nullptr) << payload;
    }
}

TEST_F(ValidatingJwtParserTest, LeavesTheOutputAloneWhenTheSignatureIsBad) {
    JWT other;
    JWT* parsed = &other;
    EXPECT_EQ(parser_->parseJwt(strangersToken("{}"), parsed), 8002);
    EXPECT_EQ(parsed, &other);
}

TEST_F(ValidatingJwtParserTest, IsSilentBelowDebugLevelOne) {
    settings_.replace(R"({"log": {"debugLevel": 0}})");
    const LogCapture log;
    EXPECT_EQ(parse(signedToken(expiring(0))), 8001);
    for (const LogLine& line : log.lines()) {
        EXPECT_NE(line.tag, PARSE);
    }
}
