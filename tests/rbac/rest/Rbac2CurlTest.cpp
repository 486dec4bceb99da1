#include "platform/SettingsFixture.h"
#include "rbac/rest/Rbac2Curl.h"
#include "testing/LogCapture.h"
#include "testing/ScriptedHttp.h"

#include <rbac/BaseAPI.h>
#include <rbac/EC_exception.h>

#include <gmock/gmock.h>

#include <memory>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::ScriptedHttp;

namespace {

/// The status that is thrown, or 0.
int statusOf(int expected, int actual, const std::string& body) {
    try {
        throw_on_http_error(expected, actual, body, "some caller");
    } catch (const EC_exception& failure) {
        EXPECT_STREQ(failure.what(), getECmsg(failure.status).c_str());
        return failure.status;
    }
    return 0;
}

LogLine logged(const std::string& message) {
    return {16, "some caller", message};
}

std::string errorWith(const std::string& details) {
    return R"({"errorCode":8000,"errorMessage":"x","errorDetails":)" + details + "}";
}

}  // namespace

TEST(Rbac2CurlTest, TakesTheExpectedStatusWhateverTheBody) {
    const LogCapture log;
    EXPECT_EQ(statusOf(200, 200, "no JSON"), 0);
    EXPECT_EQ(statusOf(204, 204, ""), 0);
    EXPECT_EQ(statusOf(404, 404, errorWith("[]")), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Rbac2CurlTest, TakesNoOtherStatusForASuccess) {
    EXPECT_EQ(statusOf(201, 200, "{}"), 114);
    EXPECT_EQ(statusOf(204, 200, ""), 114);
    EXPECT_EQ(statusOf(200, 204, ""), 114);
}

TEST(Rbac2CurlTest, ThrowsTheGeneralStatusWithoutAUsableErrorBody) {
    for (const char* body : {"", "no JSON", "[]", "{}", R"({"errorCode":1})", R"({"errorMessage":"x"})",
                             R"({"errorCode":"1","errorMessage":"x"})", R"({"errorCode":1,"errorMessage":2})"}) {
        const LogCapture log;
        EXPECT_EQ(statusOf(200, 404, body), 114) << body;
        EXPECT_THAT(log.lines(), ElementsAre(logged("Unexpected HTTP status: 404")));
    }
}

TEST(Rbac2CurlTest, ThrowsTheServicesOwnErrorCode) {
    const LogCapture log;
    EXPECT_EQ(statusOf(200, 400, errorWith(R"(["a","b"])")), 8000);
    EXPECT_THAT(log.lines(), ElementsAre(logged("Unexpected HTTP status: 400: x (a; b)")));
}

TEST(Rbac2CurlTest, AddsNothingForDetailsThatAreNoArrayWithElements) {
    for (const char* details : {"[]", "{}", R"({"a":"b"})", "null", "\"a\""}) {
        const LogCapture log;
        EXPECT_EQ(statusOf(200, 400, errorWith(details)), 8000) << details;
        EXPECT_THAT(log.lines(), ElementsAre(logged("Unexpected HTTP status: 400: x")));
    }
    const LogCapture log;
    EXPECT_EQ(statusOf(200, 400, R"({"errorCode":8000,"errorMessage":"x"})"), 8000);
    EXPECT_THAT(log.lines(), ElementsAre(logged("Unexpected HTTP status: 400: x")));
}

TEST(Rbac2CurlTest, EndsTheTextAtADetailThatIsNoString) {
    const LogCapture log;
    EXPECT_EQ(statusOf(200, 400, errorWith(R"(["a",5,"c"])")), 8000);
    EXPECT_EQ(statusOf(200, 400, errorWith(R"([5,"c"])")), 8000);
    EXPECT_THAT(log.lines(),
                ElementsAre(logged("Unexpected HTTP status: 400: x (a; "), logged("Unexpected HTTP status: 400: x (")));
}

TEST(Rbac2CurlTest, EncodesWhatHasAMeaningInAUrl) {
    EXPECT_EQ(encode_uri_part("|A b|%/?&=#"), "%7CA%20b%7C%25%2F%3F%26%3D%23");
    EXPECT_EQ(encode_uri_part("AZaz09-._~"), "AZaz09-._~");
    EXPECT_EQ(encode_uri_part(""), "");
}

TEST(BaseAPITest, MakesClientsOfThePrimaryServer) {
    const SettingsFixture settings(R"({"primaryServer":"primary.example"})");
    const auto http = boost::make_shared<ScriptedHttp>();
    BaseAPI api(http);
    const std::unique_ptr<AWClientCURL_Base> client(api.new_curl());
    EXPECT_EQ(http->host, "primary.example");
    EXPECT_EQ(http->port, 1556);
    EXPECT_EQ(http->session, 1);
}

TEST(BaseAPITest, MakesRealClientsByItself) {
    const SettingsFixture settings(R"({"primaryServer":"primary.example"})");
    const std::unique_ptr<AWClientCURL_Base> client(BaseAPI().new_curl());
    EXPECT_NE(dynamic_cast<AWClientCURL*>(client.get()), nullptr);
}

TEST(BaseAPITest, LooksTheServerUpOnce) {
    SettingsFixture settings(R"({"primaryServer":"first.example"})");
    const auto http = boost::make_shared<ScriptedHttp>();
    BaseAPI api(http);
    settings.replace(R"({"primaryServer":"second.example"})");
    const std::unique_ptr<AWClientCURL_Base> client(api.new_curl());
    EXPECT_EQ(http->host, "first.example");
}

TEST(BaseAPITest, IsNotMadeWithoutAPrimaryServer) {
    const SettingsFixture settings("{}");
    const LogCapture log;
    const auto http = boost::make_shared<ScriptedHttp>();
    try {
        const BaseAPI api(http);
        FAIL();
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 9513);
    }
    EXPECT_THAT(http->requests, IsEmpty());
    EXPECT_EQ(log.lines().back(), (LogLine{16, "get_master", "Couldn't get master server: 9513"}));
}
