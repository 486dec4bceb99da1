#include "platform/HttpFixture.h"
#include "rbac/rest/Rbac2Curl.h"
#include "rbac/rest/Rbac2Json.h"
#include "testing/LogCapture.h"
#include "testing/ScriptedHttp.h"

#include <rbac/BaseAPI.h>
#include <rbac/EC_exception.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/OperationAPI.h>
#include <rbac/RoleAPI.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::ScriptedHttp;

namespace {

/// Counts the clients that it makes.
class CountingHttp : public ScriptedHttp {
public:
    AWClientCURL_Base* create(const std::string& server, int serverPort, AWCurlSessionType kind) override {
        ++made;
        return ScriptedHttp::create(server, serverPort, kind);
    }

    int made = 0;
};

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

TEST(Rbac2CurlTest, TakesAnErrorCodeThatNoStatusCanHoldForNone) {
    for (const char* code : {"4294967296", "2147483648", "-2147483649", "1.0", "99999999999999999999"}) {
        const LogCapture log;
        EXPECT_EQ(statusOf(200, 404, R"({"errorMessage":"x","errorCode":)" + std::string(code) + "}"), 114) << code;
        EXPECT_THAT(log.lines(), ElementsAre(logged("Unexpected HTTP status: 404")));
    }
}

TEST(Rbac2CurlTest, TakesEveryErrorCodeThatAStatusCanHold) {
    EXPECT_EQ(statusOf(200, 404, R"({"errorMessage":"x","errorCode":2147483647})"), 2147483647);
    EXPECT_EQ(statusOf(200, 404, R"({"errorMessage":"x","errorCode":-2147483648})"), -2147483647 - 1);
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
    EXPECT_EQ(http->lastServer().host, "primary.example");
    EXPECT_EQ(http->lastServer().port, 1556);
    EXPECT_EQ(http->lastServer().session, 1);
}

TEST(BaseAPITest, ShowsTheHostsCertificateByItself) {
    HttpFixture https;
    https.useSettings("{}", R"("primaryServer":"localhost")");
    HttpFixture::Server::Options options = https.options();
    options.port = 1556;
    options.clientAuthority = https.authority.certificate();
    const HttpFixture::Server server(options, [](HttpFixture::Connection& c) { c.answerAll(200, "known"); });
    const std::unique_ptr<AWClientCURL_Base> client(BaseAPI().new_curl());
    EXPECT_EQ(client->Get("a"), 0);
    EXPECT_EQ(client->responseBody, "known");
}

TEST(BaseAPITest, LooksTheServerUpOnce) {
    SettingsFixture settings(R"({"primaryServer":"first.example"})");
    const auto http = boost::make_shared<ScriptedHttp>();
    BaseAPI api(http);
    settings.replace(R"({"primaryServer":"second.example"})");
    const std::unique_ptr<AWClientCURL_Base> client(api.new_curl());
    EXPECT_EQ(http->lastServer().host, "first.example");
}

TEST(BaseAPITest, IsMadeInNoFormWithoutAPrimaryServer) {
    const SettingsFixture settings("{}");
    const auto http = boost::make_shared<CountingHttp>();
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"BaseAPI()", [] { const BaseAPI api; }},
        {"BaseAPI(factory)", [&] { const BaseAPI api(http); }},
        {"RoleAPI()", [] { const RoleAPI api; }},
        {"RoleAPI(factory)", [&] { const RoleAPI api(http); }},
        {"ManagedObjectAPI()", [] { const ManagedObjectAPI api; }},
        {"ManagedObjectAPI(factory)", [&] { const ManagedObjectAPI api(http); }},
        {"OperationAPI()", [] { const OperationAPI api; }},
        {"OperationAPI(factory)", [&] { const OperationAPI api(http); }}};
    for (const auto& [name, make] : cases) {
        SCOPED_TRACE(name);
        const LogCapture log;
        try {
            make();
            ADD_FAILURE();
        } catch (const EC_exception& failure) {
            EXPECT_EQ(failure.status, 9513);
        }
        EXPECT_EQ(log.lines().back(), (LogLine{16, "get_master", "Couldn't get master server: 9513"}));
    }
    EXPECT_EQ(http->made, 0);
}

TEST(ClientsOfRequestsTest, AreMadeOneForEachAndDeleted) {
    const SettingsFixture settings(R"({"primaryServer":"primary.example"})");
    const auto http = boost::make_shared<CountingHttp>();
    RoleAPI roles(http);
    ManagedObjectAPI objects(http);
    OperationAPI operations(http);
    const ObjectNamespace ns("A");
    const Role role(json_loads_shared(R"({"type":"accessControlRole","id":"7","attributes":{"name":"n"}})").get());
    const boost::shared_ptr<json_t> noOperations = json_array_shared();
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"get_roles", [&] { roles.get_roles(""); }},
        {"get_role", [&] { roles.get_role(7); }},
        {"create_role", [&] { roles.create_role("n", ""); }},
        {"update_role", [&] { roles.update_role(role); }},
        {"delete_role_by_id", [&] { roles.delete_role_by_id(7); }},
        {"get_object", [&] { objects.get_object(ns); }},
        {"set_inherit", [&] { objects.set_inherit(ns, true); }},
        {"get_access_definitions", [&] { objects.get_access_definitions(ns); }},
        {"add_access_definition", [&] { objects.add_access_definition(ns, role, Propagation::OBJECT, noOperations); }},
        {"delete_access_definition_by_id", [&] { objects.delete_access_definition_by_id(ns, "d"); }},
        {"get_operations", [&] { operations.get_operations(""); }}};
    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        http->made = 0;
        http->answer(500);
        EXPECT_THROW(call(), EC_exception);
        EXPECT_EQ(http->made, 1);
        EXPECT_EQ(http->liveClients(), 0);
    }
}

TEST(ClientsOfRequestsTest, AreDeletedWhereATextInTheAnswerCannotBeConverted) {
    const SettingsFixture settings(R"({"primaryServer":"primary.example"})");
    const auto http = boost::make_shared<CountingHttp>();
    http->answer(200, R"({"data":[{"type":"accessControlOperation","id":"A"}]})");
    EXPECT_THROW(OperationAPI(http).get_operations(""), boost::bad_lexical_cast);
    EXPECT_EQ(http->made, 1);
    EXPECT_EQ(http->liveClients(), 0);
    http->answer(200, R"({"data":{"type":"managedObject","id":"A","attributes":{"inherit":true,"state":"READY"}}})");
    EXPECT_THROW(ManagedObjectAPI(http).get_object(ObjectNamespace("A")), boost::bad_lexical_cast);
    EXPECT_EQ(http->made, 2);
    EXPECT_EQ(http->liveClients(), 0);
}
