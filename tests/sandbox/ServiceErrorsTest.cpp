#include "ServiceProcess.h"

#include <gmock/gmock.h>

// Requests that make no sense to the service.

using namespace testing_support;

namespace {

class ServiceErrorsTest : public testing::Test {
protected:
    void expectRefusal(const Answer& answer, int status, int code, const std::string& detail) const {
        EXPECT_EQ(answer.status, status) << answer.body;
        EXPECT_EQ(answer.errorCode(), code) << answer.body;
        EXPECT_EQ(answer.errorDetail(), detail);
        EXPECT_EQ(answer.headers.at("Content-Type"), "application/json");
    }

    ServiceFolder folder_;
    ServiceProcess service_{folder_};
    ServiceClient client_{"localhost", service_.port(), folder_.hostFiles()};
};

}  // namespace

TEST_F(ServiceErrorsTest, ExplainsWithCodeMessageAndDetails) {
    EXPECT_EQ(client_.get("roles/77").body,
              R"({"errorCode":5102,"errorMessage":"There is no such role","errorDetails":["77"]})");
}

TEST_F(ServiceErrorsTest, DoesNotKnowOtherResources) {
    for (const char* path :
         {"/", "/arkwell", "/arkwell/access-control", "/arkwell/access-control/", "/arkwell/x/roles",
          "/arkwell/access-control/roles/", "/arkwell/access-control//roles", "/arkwell/access-control/roles/1/2"}) {
        expectRefusal(client_.get(path), 404, 5101, path);
    }
}

TEST_F(ServiceErrorsTest, SaysWhichMethodsAResourceTakes) {
    const Answer answer = client_.send("DELETE", "roles");
    expectRefusal(answer, 405, 5301, "DELETE");
    EXPECT_EQ(answer.headers.at("Allow"), "GET, POST");
    expectRefusal(client_.send("OPTIONS", "operations"), 405, 5301, "OPTIONS");
    expectRefusal(client_.send("PATCH", "roles/1", "{}"), 405, 5301, "PATCH");
}

TEST_F(ServiceErrorsTest, AnswersHeadAsGetWithoutTheBody) {
    const Answer answer = client_.send("HEAD", "roles");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, "");
}

TEST_F(ServiceErrorsTest, SaysWhereADocumentStopsBeingJson) {
    expectRefusal(client_.post("roles", "{\"data\":\n  nothing}"), 400, 5001,
                  "line 2, column 9: invalid token near 'nothing'");
    expectRefusal(client_.post("roles", R"({"data": 1} more)"), 400, 5001,
                  "line 1, column 16: end of file expected near 'more'");
    expectRefusal(client_.post("roles", R"({"data": 1, "data": 2})"), 400, 5001,
                  "line 1, column 18: duplicate object key near '\"data\"'");
}

TEST_F(ServiceErrorsTest, TakesNoDocumentOfAnotherMediaType) {
    for (const char* type : {"text/plain", "application/xml", "application/vnd.arkwell+json;version=7.0",
                             "application/vnd.arkwell+json;version=6.1", "application/json; charset=latin1"}) {
        expectRefusal(client_.send("POST", "roles", "{}", {{"Content-Type", type}}), 415, 5305, type);
    }
}

TEST_F(ServiceErrorsTest, TakesNoDocumentThatIsCompressed) {
    for (const char* encoding : {"gzip", "br", "none"}) {
        expectRefusal(client_.send("POST", "roles", "{}", {{"Content-Encoding", encoding}}), 415, 5305,
                      std::string("Content-Encoding: ") + encoding);
    }
}

TEST_F(ServiceErrorsTest, WritesNoOtherMediaType) {
    for (const char* type : {"text/html", "application/vnd.arkwell+json;version=7.0"}) {
        expectRefusal(client_.send("GET", "roles", "", {{"Accept", type}}), 406, 5302, type);
    }
}

TEST_F(ServiceErrorsTest, AnswersInTheMediaTypeThatIsAskedFor) {
    const std::string versioned = "application/vnd.arkwell+json;version=6.0";
    EXPECT_EQ(client_.send("GET", "roles", "", {{"Accept", versioned}}).headers.at("Content-Type"), versioned);
    EXPECT_EQ(client_.get("roles").headers.at("Content-Type"), "application/json");
}

TEST_F(ServiceErrorsTest, RefusesAnAddressThatIsNotEncoded) {
    expectRefusal(client_.get("roles/%zz"), 400, 5004, "a \"%\" without two hexadecimal digits: %zz");
}

TEST_F(ServiceErrorsTest, RefusesAnAddressThatIsTooLong) {
    const Answer answer = client_.get("managed-objects/" + std::string(9000, 'x'));
    EXPECT_EQ(answer.status, 414);
    EXPECT_EQ(answer.errorCode(), 5304);
}

TEST_F(ServiceErrorsTest, FindsTheCacheThatCoversAnyNamespace) {
    const std::string expected = R"({"data":{"type":"accessCache","id":"all","attributes":{"namespace":"|"}}})";
    for (const char* name : {"|", "|ASSETS|", "|not|there|", "|a/b%2Bc|d+e|"}) {
        const Answer answer = client_.get("access-caches/" + encoded(name));
        EXPECT_EQ(answer.status, 200) << name;
        EXPECT_EQ(answer.body, expected) << name;
    }
}

TEST_F(ServiceErrorsTest, FindsNoCacheForATextThatIsNoNamespace) {
    for (const char* name : {"ASSETS", "|ASSETS", "|%zz|"}) {
        expectRefusal(client_.get("access-caches/" + encoded(name)), 400, 5002, name);
    }
}
