#include "jwt/Tokens.h"
#include "testing/LogCapture.h"

#include <jwt/JWT.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <memory>

using Tesmor::Arkwell::JWT;
using Tesmor::Arkwell::Sandbox::base64Url;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::nowInMilliseconds;
using testing_support::tenMegabytesOf;
using testing_support::unsignedToken;

namespace {

constexpr int JSON_INVALID = 7610;
constexpr int TOKEN_INVALID = 8002;

/// Parses a token with this payload.
std::unique_ptr<JWT> parsed(const std::string& payload) {
    auto jwt = std::make_unique<JWT>();
    EXPECT_EQ(jwt->init(unsignedToken(payload)), 0);
    return jwt;
}

int statusOf(const std::string& token) {
    return JWT().init(token);
}

bool isExpired(const std::string& payload) {
    bool expired = false;
    EXPECT_EQ(parsed(payload)->isExpired(expired), 0);
    return expired;
}

std::string withExpiry(long long milliseconds) {
    return R"({"exp":)" + std::to_string(milliseconds) + "}";
}

/// Waits for the beginning of a second, so that the next statements run within it.
void startOfSecond() {
    for (const time_t begin = time(nullptr); time(nullptr) == begin;) {
    }
}

std::string extractedSubject(const std::string& token) {
    const std::unique_ptr<char, void (*)(void*)> subject(JWT::extractSubject(token), free);
    return subject ? subject.get() : "(null)";
}

const LogLine NOT_INITIALIZED_HERE{16, "JWT::isExpired",
                                   "JSON Payload Object is null. JWT Object is not initialized correctly"};
const LogLine INVALID_TOKEN{16, "JWT::tokenizeJWT", "JWT Token is invalid"};
const LogLine INVALID_JSON{16, "JWT::loadJSON", "Error in loading json"};
const LogLine INVALID_BASE64{16, "JWTSSLApi::B64DecodeURL", "Base64 string is invalid"};

}  // namespace

TEST(JWTTest, ReadsTheClaimsOfAToken) {
    const auto jwt = parsed(R"({"jti":"session-1","sub":"alice:example:local","exp":1700000000123,"more":[]})");
    std::string id;
    std::string subject;
    long long expiry = 0;
    EXPECT_EQ(jwt->getJwtId(id), 0);
    EXPECT_EQ(jwt->getSubject(subject), 0);
    EXPECT_EQ(jwt->getExpiry(expiry), 0);
    EXPECT_EQ(id, "session-1");
    EXPECT_EQ(subject, "alice:example:local");
    EXPECT_EQ(expiry, 1700000000123);
}

TEST(JWTTest, KeepsTheConstructorsTextApartFromWhatIsParsed) {
    JWT jwt(unsignedToken(R"({"sub":"constructed"})"));
    EXPECT_EQ(jwt.payload(), nullptr);
    ASSERT_EQ(jwt.init(unsignedToken(R"({"sub":"initialised"})")), 0);
    std::string subject;
    EXPECT_EQ(jwt.getSubject(subject), 0);
    EXPECT_EQ(subject, "initialised");
}

TEST(JWTTest, ParsesAgain) {
    const auto jwt = parsed(R"({"sub":"first"})");
    ASSERT_EQ(jwt->init(unsignedToken(R"({"sub":"second"})")), 0);
    std::string subject;
    EXPECT_EQ(jwt->getSubject(subject), 0);
    EXPECT_EQ(subject, "second");
}

TEST(JWTTest, ForgetsTheTokenBeforeWhenTheNextIsMalformed) {
    const std::pair<std::string, int> cases[] = {{"a.e30aa.c", 20}, {unsignedToken("[]"), JSON_INVALID}};
    for (const auto& [token, status] : cases) {
        const auto jwt = parsed(R"({"sub":"first"})");
        EXPECT_EQ(jwt->init(token), status);
        std::string subject;
        EXPECT_EQ(jwt->getSubject(subject), TOKEN_INVALID);
    }
}

TEST(JWTTest, ChangesNothingWhenTheNextIsNoToken) {
    const auto jwt = parsed(R"({"sub":"first"})");
    EXPECT_EQ(jwt->init("a.b"), TOKEN_INVALID);
    std::string subject;
    EXPECT_EQ(jwt->getSubject(subject), 0);
    EXPECT_EQ(subject, "first");
}

TEST(JWTTest, RefusesATokenWithoutTwoDots) {
    const LogCapture log;
    for (const char* token : {"", "a", "a.b", "a.b.c.d", "a.b.c."}) {
        EXPECT_EQ(statusOf(token), TOKEN_INVALID) << token;
    }
    EXPECT_THAT(log.lines(), ElementsAre(INVALID_TOKEN, INVALID_TOKEN, INVALID_TOKEN, INVALID_TOKEN, INVALID_TOKEN));
}

TEST(JWTTest, RefusesAnEmptySegmentWithoutALog) {
    const LogCapture log;
    for (const char* token : {"..", "a..c", "a.b.", ".b.c"}) {
        EXPECT_EQ(statusOf(token), TOKEN_INVALID) << token;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(JWTTest, RefusesAPayloadOfAnImpossibleLength) {
    const LogCapture log;
    EXPECT_EQ(statusOf("a.e30aa.c"), 20);
    EXPECT_THAT(log.lines(), ElementsAre(INVALID_BASE64));
}

TEST(JWTTest, PadsAPayloadThatNeedsIt) {
    for (const std::string payload : {R"({"a":1})", R"({"ab":1})", R"({"abc":1})"}) {
        const std::string encoded = base64Url(payload);
        EXPECT_EQ(encoded.find('='), std::string::npos);
        EXPECT_EQ(statusOf("a." + encoded + ".c"), 0) << payload;
    }
}

TEST(JWTTest, RefusesAPayloadThatIsNoJsonObject) {
    for (const char* payload : {"[]", "null", "1", "\"text\"", "{", "", "{} {}", "true"}) {
        const LogCapture log;
        EXPECT_EQ(JWT().loadJSONPayload(reinterpret_cast<const unsigned char*>(payload)), JSON_INVALID) << payload;
        EXPECT_THAT(log.lines(), ElementsAre(INVALID_JSON));
    }
    const LogCapture log;
    EXPECT_EQ(statusOf(unsignedToken("[1]")), JSON_INVALID);
    EXPECT_THAT(log.lines(), ElementsAre(INVALID_JSON));
}

TEST(JWTTest, TakesANullPayloadForEmptyText) {
    const LogCapture log;
    EXPECT_EQ(JWT().loadJSONPayload(nullptr), JSON_INVALID);
    EXPECT_THAT(log.lines(), ElementsAre(INVALID_JSON));
}

TEST(JWTTest, KeepsAPayloadThatIsNoObjectWithoutClaims) {
    JWT jwt;
    const LogCapture log;
    EXPECT_EQ(jwt.init(unsignedToken("[1]")), JSON_INVALID);
    EXPECT_NE(jwt.payload(), nullptr);
    std::string subject;
    EXPECT_EQ(jwt.getSubject(subject), TOKEN_INVALID);
    EXPECT_THAT(log.lines(), ElementsAre(INVALID_JSON, LogLine{16, "JWT::getSubject",
                                                               "JWT is invalid. JSON object is not of type string"}));
}

TEST(JWTTest, RefusesAPayloadThatIsNotBase64) {
    EXPECT_EQ(statusOf("a.!!!!.c"), JSON_INVALID);
    EXPECT_EQ(statusOf(std::string("a.e3\0=.c", 8)), JSON_INVALID);
    EXPECT_EQ(statusOf("a.\xFF\xFE\xFD\xFC.c"), JSON_INVALID);
}

TEST(JWTTest, ReadsAPayloadUpToItsFirstNul) {
    EXPECT_EQ(statusOf("a." + base64Url(std::string("{}\0}", 4)) + ".c"), 0);
}

TEST(JWTTest, RefusesTextThatIsNotUtf8) {
    EXPECT_EQ(statusOf(unsignedToken("{\"sub\":\"\xFF\"}")), JSON_INVALID);
}

TEST(JWTTest, RefusesAnEscapedNul) {
    EXPECT_EQ(statusOf(unsignedToken(R"({"sub":"a\u0000b"})")), JSON_INVALID);
}

TEST(JWTTest, RefusesDeepNesting) {
    EXPECT_EQ(statusOf(unsignedToken("{\"a\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}")),
              JSON_INVALID);
    std::string objects;
    for (int i = 0; i < 100'000; ++i) {
        objects += "{\"a\":";
    }
    EXPECT_EQ(statusOf(unsignedToken(objects)), JSON_INVALID);
}

TEST(JWTTest, ReadsATokenOfTenMegabytes) {
    const auto jwt = parsed(R"({"sub":")" + tenMegabytesOf('x') + "\"}");
    std::string subject;
    EXPECT_EQ(jwt->getSubject(subject), 0);
    EXPECT_EQ(subject.size(), 10'000'000U);
}

TEST(JWTTest, RefusesTenMegabytesOfDots) {
    EXPECT_EQ(statusOf(tenMegabytesOf('.')), TOKEN_INVALID);
}

TEST(JWTTest, ReportsAClaimOfAnotherTypeAndLeavesTheOutputAlone) {
    const auto jwt = parsed(R"({"jti":1,"sub":["a"],"exp":"1700000000000"})");
    std::string id = "before";
    std::string subject = "before";
    long long expiry = -1;
    const LogCapture log;
    EXPECT_EQ(jwt->getJwtId(id), TOKEN_INVALID);
    EXPECT_EQ(jwt->getSubject(subject), TOKEN_INVALID);
    EXPECT_EQ(jwt->getExpiry(expiry), TOKEN_INVALID);
    EXPECT_EQ(id, "before");
    EXPECT_EQ(subject, "before");
    EXPECT_EQ(expiry, -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{16, "JWT::getJwtId", "JWT is invalid. JTI claim JSON object is not of type string"},
                            LogLine{16, "JWT::getSubject", "JWT is invalid. JSON object is not of type string"},
                            LogLine{16, "JWT::getExpiry", "JWT is invalid. JSON object is not of type integer"}));
}

TEST(JWTTest, ReportsAnAbsentClaimLikeOneOfAnotherType) {
    const auto jwt = parsed("{}");
    std::string text;
    long long expiry = 0;
    const LogCapture log;
    EXPECT_EQ(jwt->getJwtId(text), TOKEN_INVALID);
    EXPECT_EQ(jwt->getSubject(text), TOKEN_INVALID);
    EXPECT_EQ(jwt->getExpiry(expiry), TOKEN_INVALID);
    EXPECT_EQ(log.lines().size(), 3U);
}

TEST(JWTTest, ReportsThatNothingHasBeenParsed) {
    JWT jwt;
    std::string text;
    long long expiry = 0;
    bool expired = false;
    const LogCapture log;
    EXPECT_EQ(jwt.getJwtId(text), TOKEN_INVALID);
    EXPECT_EQ(jwt.getSubject(text), TOKEN_INVALID);
    EXPECT_EQ(jwt.getExpiry(expiry), TOKEN_INVALID);
    EXPECT_EQ(jwt.isExpired(expired), TOKEN_INVALID);
    EXPECT_TRUE(expired);
    const std::string message = "JSON Payload Object is null. JWT Object is not initialized correctly";
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{16, "JWT::getJwtId", message}, LogLine{16, "JWT::getSubject", message},
                                         LogLine{16, "JWT::getExpiry", message}, NOT_INITIALIZED_HERE));
}

TEST(JWTTest, HasNotExpiredAtTheCurrentSecond) {
    startOfSecond();
    EXPECT_FALSE(isExpired(withExpiry(nowInMilliseconds())));
}

TEST(JWTTest, HasExpiredAMillisecondEarlier) {
    EXPECT_TRUE(isExpired(withExpiry(nowInMilliseconds() - 1)));
}

TEST(JWTTest, HasNotExpiredLater) {
    EXPECT_FALSE(isExpired(withExpiry(nowInMilliseconds() + 60'000)));
    EXPECT_FALSE(isExpired(withExpiry(9223372036854775807)));
}

TEST(JWTTest, TakesAnExpiryInSecondsForOneLongAgo) {
    EXPECT_TRUE(isExpired(withExpiry(static_cast<long long>(time(nullptr)) + 3600)));
    EXPECT_TRUE(isExpired(withExpiry(0)));
    EXPECT_TRUE(isExpired(withExpiry(-1)));
}

TEST(JWTTest, RefusesAnExpiryThatIsAReal) {
    const auto jwt = parsed(R"({"exp":1.7e12})");
    long long expiry = 0;
    bool expired = false;
    EXPECT_EQ(jwt->getExpiry(expiry), TOKEN_INVALID);
    const LogCapture log;
    EXPECT_EQ(jwt->isExpired(expired), TOKEN_INVALID);
    EXPECT_TRUE(expired);
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{16, "JWT::isExpired", "JWT is invalid. JSON object is not of type integer"}));
}

TEST(JWTTest, RefusesAnExpiryBeyondSixtyFourBits) {
    EXPECT_EQ(statusOf(unsignedToken(R"({"exp":9223372036854775808})")), JSON_INVALID);
}

TEST(JWTTest, MakesAnObject) {
    JWT* made = nullptr;
    ASSERT_EQ(JWT::createJWT(unsignedToken(R"({"sub":"alice"})"), made), 0);
    const std::unique_ptr<JWT> jwt(made);
    std::string subject;
    EXPECT_EQ(jwt->getSubject(subject), 0);
    EXPECT_EQ(subject, "alice");
}

TEST(JWTTest, MakesNoObjectOfABadToken) {
    JWT other;
    for (const auto& [token, status] :
         {std::pair<std::string, int>{"a.b", TOKEN_INVALID}, {"a.e30aa.c", 20}, {unsignedToken("[]"), JSON_INVALID}}) {
        JWT* made = &other;
        EXPECT_EQ(JWT::createJWT(token, made), status);
        EXPECT_EQ(made, nullptr);
    }
}

TEST(JWTTest, TellsMachinesFromUsers) {
    bool isMachine = false;
    EXPECT_EQ(JWT::isMachineCheck(unsignedToken(R"({"is_machine":"true"})"), isMachine), 0);
    EXPECT_TRUE(isMachine);
    for (const char* value : {"TRUE", "True", "1", "", "false", "true "}) {
        isMachine = true;
        EXPECT_EQ(JWT::isMachineCheck(unsignedToken(R"({"is_machine":")" + std::string(value) + "\"}"), isMachine), 0);
        EXPECT_FALSE(isMachine) << value;
    }
}

TEST(JWTTest, CannotTellAMachineWithoutAClaimThatIsAString) {
    for (const char* payload : {"{}", R"({"is_machine":true})", R"({"is_machine":null})"}) {
        const LogCapture log;
        bool isMachine = true;
        EXPECT_EQ(JWT::isMachineCheck(unsignedToken(payload), isMachine), TOKEN_INVALID) << payload;
        EXPECT_FALSE(isMachine);
        EXPECT_THAT(log.lines(),
                    ElementsAre(LogLine{16, "isMachineCheck", "JWT is invalid. JSON object is not of type string"}));
    }
}

TEST(JWTTest, PassesTheStatusOfABadTokenOnWhenAskedForAMachine) {
    bool isMachine = true;
    EXPECT_EQ(JWT::isMachineCheck("a.e30aa.c", isMachine), 20);
    EXPECT_EQ(JWT::isMachineCheck(unsignedToken("[]"), isMachine), JSON_INVALID);
}

TEST(JWTTest, CannotTellAMachineFromABadToken) {
    const LogCapture log;
    bool isMachine = true;
    EXPECT_EQ(JWT::isMachineCheck("a.b", isMachine), TOKEN_INVALID);
    EXPECT_FALSE(isMachine);
    EXPECT_THAT(log.lines(), ElementsAre(INVALID_TOKEN, LogLine{16, "isMachineCheck", "failed to create JWT"}));
}

TEST(JWTTest, ExtractsTheSubject) {
    EXPECT_EQ(extractedSubject(unsignedToken(R"({"sub":"alice:example:local"})")), "alice:example:local");
    EXPECT_EQ(extractedSubject(unsignedToken(R"({"sub":""})")), "");
}

TEST(JWTTest, ExtractsNoSubjectFromABadToken) {
    const LogCapture log;
    EXPECT_EQ(JWT::extractSubject("a.b"), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(INVALID_TOKEN, LogLine{16, "extractSubject", "failed to create JWT"}));
}

TEST(JWTTest, ExtractsNoSubjectFromATokenWithoutOne) {
    const LogCapture log;
    EXPECT_EQ(JWT::extractSubject(unsignedToken("{}")), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{16, "JWT::getSubject", "JWT is invalid. JSON object is not of type string"},
                            LogLine{16, "extractSubject", "JWT getSubject failed"}));
}

TEST(ExtractSubjectTest, HandsAMachinesSubjectOutWholeAndLogsIt) {
    const LogCapture log;
    char* first = nullptr;
    char* second = nullptr;
    char* third = nullptr;
    extractSubject_C(unsignedToken(R"({"is_machine":"true","sub":"a:b"})").c_str(), &second, &first, &third);
    EXPECT_STREQ(first, "a:b");
    EXPECT_STREQ(second, "");
    EXPECT_STREQ(third, "tm");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{4, "JWT::extractSubject_C", "Machine certificate found"}));
    for (char* text : {first, second, third}) {
        free(text);  // NOLINT(cppcoreguidelines-no-malloc): as the entry point has it
    }
}

TEST(ExtractSubjectTest, HandsNothingOutOfASubjectWithoutComponents) {
    for (const char* payload : {R"({"is_machine":"false","sub":""})", R"({"is_machine":"false","sub":":::"})",
                                R"({"is_machine":true,"sub":"a:b:c"})", R"({"is_machine":"false"})"}) {
        char* outputs[3] = {};
        extractSubject_C(unsignedToken(payload).c_str(), &outputs[0], &outputs[1], &outputs[2]);
        EXPECT_THAT(outputs, ElementsAre(nullptr, nullptr, nullptr)) << payload;
    }
}

TEST(ExtractSubjectTest, LeavesTheOutputAloneWithoutASubject) {
    char before[] = "before";
    char* subject = before;
    extractSubjectNT_C(unsignedToken("{}").c_str(), &subject);
    EXPECT_EQ(subject, before);
}
