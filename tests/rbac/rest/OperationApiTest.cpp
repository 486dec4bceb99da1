#include "ApiFixture.h"

#include <rbac/OperationAPI.h>

#include <string>
#include <utility>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::HttpRequest;
using testing_support::LogLine;

namespace {

constexpr char TAG[] = "OperationAPI::get_options";
const std::string URL = "arkwell/access-control/operations";
const std::string REPORTED = "7610 [OperationAPI::get_options] ";

class OperationApiTest : public ApiFixture {
protected:
    /// What a list in this answer came to.
    std::string outcomeOfAnswer(const std::string& body) {
        http_->answer(200, body);
        return outcomeOf([this] { api_.get_operations(""); });
    }

    /// How many operations this answer lists.
    std::size_t listed(const std::string& body) {
        http_->answer(200, body);
        return api_.get_operations("").size();
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
    EXPECT_THAT(http_->requests(), ElementsAre(HttpRequest{"GET", URL, "", ""}));
}

TEST_F(OperationApiTest, LogsARequestAndItsAnswer) {
    http_->answer(200, listOf(operation("|A|")));
    api_.get_operations("x");
    EXPECT_THAT(log_.lines(),
                ElementsAre(LogLine{4, TAG, "Request for " + URL + "?filter=x; curl status 0; http status 200"},
                            LogLine{2, TAG, "Received JSON: " + listOf(operation("|A|"))}));
}

TEST_F(OperationApiTest, EncodesAFilter) {
    http_->answer(200, listOf(""));
    api_.get_operations("a b&c");
    EXPECT_EQ(http_->requests()[0].url, URL + "?filter=a%20b%26c");
}

TEST_F(OperationApiTest, ListsNothingWhereThereAreNoOperations) {
    EXPECT_EQ(listed(listOf("")), 0U);
}

TEST_F(OperationApiTest, TakesDataThatIsNoArrayForNoOperations) {
    for (const char* data : {"5", "{}", "null"}) {
        EXPECT_EQ(listed(R"({"data":)" + std::string(data) + "}"), 0U) << data;
    }
}

TEST_F(OperationApiTest, ReportsAnAnswerWithoutDataOrWithoutJsonAlike) {
    for (const std::string body : {"[]", "{}", "", "no JSON"}) {
        EXPECT_EQ(outcomeOfAnswer(body), REPORTED + "Error getting 'data' field from JSON response");
        EXPECT_THAT(log_.linesAt(2), ElementsAre(LogLine{2, TAG, "Received JSON: " + body}));
    }
}

TEST_F(OperationApiTest, RefusesAnElementOfTheWrongShape) {
    const std::pair<std::string, const char*> cases[] = {
        {"5", "1: Expected object, got integer"},
        {"{}", "4: Object item not found: type"},
        {R"({"type":5,"id":"|A|"})", "4: Expected string, got integer"},
        {R"({"type":"accessControlOperation"})", "9: Object item not found: id"},
        {R"({"type":"accessControlOperation","id":5})", "9: Expected string, got integer"}};
    for (const auto& [element, message] : cases) {
        SCOPED_TRACE(element);
        EXPECT_EQ(outcomeOfAnswer(listOf(element)), REPORTED + "Error parsing JSON at position " + message);
    }
}

TEST_F(OperationApiTest, RefusesAnElementOfAnotherType) {
    EXPECT_EQ(outcomeOfAnswer(listOf(R"({"type":"x","id":"A"})")),
              "9103 [OperationAPI::get_options] Unexpected response type: x");
}

TEST_F(OperationApiTest, FailsAListForOneBadElement) {
    EXPECT_EQ(outcomeOfAnswer(listOf(operation("|A|") + ",{}")),
              REPORTED + "Error parsing JSON at position 4: Object item not found: type");
}

TEST_F(OperationApiTest, RefusesAnIdThatIsNoNamespace) {
    EXPECT_EQ(outcomeOfAnswer(listOf(operation("A"))), BAD_CAST);
}

TEST_F(OperationApiTest, PassesTheTransportsStatusOnWithoutALog) {
    http_->fail(9557);
    EXPECT_EQ(outcomeOf([this] { api_.get_operations(""); }), "9557");
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OperationApiTest, TakesNoOtherSuccessForItsOwn) {
    for (const long status : {201L, 204L}) {
        http_->answer(status, listOf(""));
        EXPECT_EQ(outcomeOf([this] { api_.get_operations(""); }),
                  "114 [OperationAPI::get_options] Unexpected HTTP status: " + std::to_string(status));
    }
}

TEST_F(OperationApiTest, PassesTheServicesErrorCodeOn) {
    http_->answer(403, R"({"errorCode":5001,"errorMessage":"not yours"})");
    EXPECT_EQ(outcomeOf([this] { api_.get_operations(""); }),
              "5001 [OperationAPI::get_options] Unexpected HTTP status: 403: not yours");
}
