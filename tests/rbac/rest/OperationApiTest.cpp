#include "ApiFixture.h"

#include <rbac/OperationAPI.h>

#include <boost/lexical_cast.hpp>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::HttpRequest;
using testing_support::LogLine;

namespace {

constexpr char TAG[] = "OperationAPI::get_options";

class OperationApiTest : public ApiFixture {
protected:
    int statusOfAnswer(const std::string& body) {
        log_.clear();
        http_->answer(200, body);
        return statusOf([this] { api_.get_operations(""); });
    }

    OperationAPI api_{http_};
};

std::string listOf(const std::string& elements) {
    return R"({"data":[)" + elements + "]}";
}

std::string operation(const std::string& id) {
    return R"({"type":"accessControlOperation","id":")" + id + "\"}";
}

}  // namespace

TEST_F(OperationApiTest, ListsOperationsInTheServicesOrderWithRepetitions) {
    http_->answer(200, listOf(operation("|B|") + "," + operation("|A|") + "," + operation("|B|")));
    EXPECT_THAT(api_.get_operations(""), ElementsAre(ObjectNamespace("B"), ObjectNamespace("A"), ObjectNamespace("B")));
    EXPECT_THAT(http_->requests, ElementsAre(HttpRequest{"GET", "arkwell/access-control/operations", "", ""}));
    EXPECT_EQ(log_.lines()[0],
              (LogLine{4, TAG, "Request for arkwell/access-control/operations; curl status 0; http status 200"}));
}

TEST_F(OperationApiTest, EncodesAFilter) {
    http_->answer(200, listOf(""));
    EXPECT_THAT(api_.get_operations("a b&c"), IsEmpty());
    EXPECT_EQ(http_->requests[0].url, "arkwell/access-control/operations?filter=a%20b%26c");
}

TEST_F(OperationApiTest, TakesDataThatIsNoArrayForNoOperations) {
    http_->answer(200, R"({"data":5})");
    EXPECT_THAT(api_.get_operations(""), IsEmpty());
}

TEST_F(OperationApiTest, ReportsAnAnswerWithoutDataOrWithoutJsonAlike) {
    for (const char* body : {"[]", "{}", "", "no JSON"}) {
        EXPECT_EQ(statusOfAnswer(body), 7610) << body;
        EXPECT_THAT(errors(), ElementsAre(LogLine{16, TAG, "Error getting 'data' field from JSON response"}));
    }
}

TEST_F(OperationApiTest, RefusesAnElementOfTheWrongShape) {
    EXPECT_EQ(statusOfAnswer(listOf(operation("|A|") + R"(,{"type":"accessControlOperation"})")), 7610);
    ASSERT_EQ(errors().size(), 1U);
    EXPECT_THAT(errors()[0].message, testing::StartsWith("Error parsing JSON at position "));
}

TEST_F(OperationApiTest, RefusesAnElementOfAnotherType) {
    EXPECT_EQ(statusOfAnswer(listOf(R"({"type":"x","id":"|A|"})")), 9103);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, TAG, "Unexpected response type: x"}));
}

TEST_F(OperationApiTest, RefusesAnIdThatIsNoNamespace) {
    http_->answer(200, listOf(operation("A")));
    EXPECT_THROW(api_.get_operations(""), boost::bad_lexical_cast);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(OperationApiTest, PassesFailuresOn) {
    http_->fail(9557);
    EXPECT_EQ(statusOf([this] { api_.get_operations(""); }), 9557);
    http_->answer(500, "");
    EXPECT_EQ(statusOf([this] { api_.get_operations(""); }), 114);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, TAG, "Unexpected HTTP status: 500"}));
}
