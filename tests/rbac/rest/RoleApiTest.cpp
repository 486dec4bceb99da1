#include "ApiFixture.h"

#include <rbac/RoleAPI.h>

#include <boost/lexical_cast.hpp>

#include <random>
#include <stdexcept>
#include <string_view>
#include <utility>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::HttpRequest;

namespace {

constexpr char ROLE[] = R"({"type":"accessControlRole","links":{"self":{"href":"/access-control/roles/7"}},"id":"7",)"
                        R"("attributes":{"name":"n","description":"d","systemDefined":true,"more":1},"more":[]})";

std::string data(const std::string& value) {
    return R"({"data":)" + value + "}";
}

std::string roleWithId(const std::string& id) {
    return R"({"type":"accessControlRole","id":)" + id + R"(,"attributes":{"name":"n"}})";
}

/// What a role is created and updated with.
std::string documentOf(const std::string& name, const std::string& description) {
    return R"({"data":{"type":"accessControlRole","attributes":{"name":")" + name + R"(","description":")" +
           description + "\"}}}";
}

class RoleApiTest : public ApiFixture {
protected:
    /// A role as the service has given it.
    Role role(const std::string& document = ROLE) {
        http_->answer(200, data(document));
        return api_.get_role(7);
    }

    /// What reading this role came to.
    std::string outcomeOfRole(const std::string& role) {
        http_->answer(200, data(role));
        return outcomeOf([this] { api_.get_role(7); });
    }

    /// Every operation of the client.
    std::vector<Operation> operations() {
        return {{"RoleAPI::get_roles", "arkwell/access-control/roles", 200, data("[]"), [this] { api_.get_roles(""); }},
                {"RoleAPI::get_role", "arkwell/access-control/roles/7", 200, data(ROLE), [this] { api_.get_role(7); }},
                {"RoleAPI::create_role", "arkwell/access-control/roles", 201, data(ROLE),
                 [this] { api_.create_role("a", ""); }},
                {"RoleAPI::update_role", "arkwell/access-control/roles/7", 204, "",
                 [this, role = role()] { api_.update_role(role); }},
                {"RoleAPI::delete_role_by_id", "arkwell/access-control/roles/7", 204, "",
                 [this] { api_.delete_role_by_id(7); }}};
    }

    template <class Exception, class Call>
    std::string refusal(Call call) {
        http_->forgetRequests();
        try {
            call();
        } catch (const Exception& failure) {
            EXPECT_THAT(http_->requests(), IsEmpty());
            return failure.what();
        }
        return "nothing was thrown";
    }

    RoleAPI api_{http_};
};

}  // namespace

TEST_F(RoleApiTest, ReadsARole) {
    const Role read = role();
    EXPECT_EQ(read.href, "/access-control/roles/7");
    EXPECT_EQ(read.id, 7);
    EXPECT_EQ(read.name, "n");
    EXPECT_EQ(read.description, "d");
    EXPECT_TRUE(read.systemDefined);
    EXPECT_THAT(http_->requests(), ElementsAre(HttpRequest{"GET", "arkwell/access-control/roles/7", "", ""}));
    EXPECT_EQ(http_->liveClients(), 0);
}

TEST_F(RoleApiTest, LogsEveryRequest) {
    expectToLogWhatTheyDo(operations());
}

TEST_F(RoleApiTest, ReadsARoleThatTheSystemDoesNotDefine) {
    EXPECT_FALSE(
        role(R"({"type":"accessControlRole","id":"7","attributes":{"name":"n","systemDefined":false}})").systemDefined);
}

TEST_F(RoleApiTest, ReadsARoleWithoutWhatMayBeAbsent) {
    const Role read = role(roleWithId("\"0\""));
    EXPECT_EQ(read.href, "");
    EXPECT_EQ(read.id, 0);
    EXPECT_EQ(read.description, "");
    EXPECT_FALSE(read.systemDefined);
}

TEST_F(RoleApiTest, RefusesARoleOfTheWrongShape) {
    const std::pair<std::string, const char*> cases[] = {
        {"[]", "1: Expected object, got array"},
        {"5", "1: Expected object, got integer"},
        {"{}", "4: Object item not found: type"},
        {R"({"type":"accessControlRole","links":{},"id":"7","attributes":{"name":"n"}})",
         "13: Object item not found: self"},
        {R"({"type":"accessControlRole","attributes":{"name":"n"}})", "23: Object item not found: id"},
        {roleWithId("7"), "23: Expected string, got integer"},
        {R"({"type":"accessControlRole","id":"7"})", "28: Object item not found: attributes"},
        {R"({"type":"accessControlRole","id":"7","attributes":{}})", "31: Object item not found: name"},
        {R"({"type":"accessControlRole","id":"7","attributes":{"name":"n","description":null}})",
         "37: Expected string, got null"},
        {R"({"type":"accessControlRole","id":"7","attributes":{"name":"n","systemDefined":1}})",
         "43: Expected true or false, got integer"}};
    for (const auto& [role, message] : cases) {
        SCOPED_TRACE(role);
        EXPECT_EQ(outcomeOfRole(role),
                  std::string("7610 [Role::Role] Error parsing JSON response at position ") + message);
    }
}

TEST_F(RoleApiTest, RefusesAnotherType) {
    EXPECT_EQ(outcomeOfRole(R"({"type":"role","id":"7","attributes":{"name":"n"}})"),
              "9103 [Role::Role] Unexpected response type: role");
}

TEST_F(RoleApiTest, RefusesAnIdThatIsNoNumber) {
    for (const std::string id : {"12a", "", " 7", "7 ", "1.0", "2147483648"}) {
        EXPECT_EQ(outcomeOfRole(roleWithId('"' + id + '"')),
                  "9103 [Role::Role] Invalid role ID in response: " + id + " (" + BAD_CAST + ")");
    }
}

TEST_F(RoleApiTest, ReadsAnIdWhateverTheLocale) {
    const GroupingLocale locale;
    EXPECT_EQ(role(roleWithId("\"1234567\"")).id, 1234567);
    EXPECT_EQ(outcomeOfRole(roleWithId("\"1,234,567\"")),
              std::string("9103 [Role::Role] Invalid role ID in response: 1,234,567 (") + BAD_CAST + ")");
}

TEST_F(RoleApiTest, ReadsAnIdAsLexicalCastDoes) {
    std::mt19937 random(5);  // NOLINT(cert-msc51-cpp): the same numbers in every run
    constexpr std::string_view PIECES = "0123456789++--, .ex";
    std::vector<std::string> texts = {
        "+7", "+-7", "-+7", "-0", "+", "-", "2147483647", "+2147483647", "-2147483648", "-2147483649", "0000000000007"};
    for (int i = 0; i < 3000; ++i) {
        std::string text;
        for (auto left = random() % 4; left > 0; --left) {
            text += PIECES[random() % PIECES.size()];
        }
        texts.push_back(text);
    }
    for (const std::string& text : texts) {
        std::string expected = "none";
        try {
            const int id = boost::lexical_cast<int>(text);
            expected = id < 0 ? "9103 [Role::Role] Invalid role ID in response: " + text : std::to_string(id);
        } catch (const boost::bad_lexical_cast& failure) {
            expected = "9103 [Role::Role] Invalid role ID in response: " + text + " (" + failure.what() + ")";
        }
        int id = 0;
        http_->answer(200, data(roleWithId('"' + text + '"')));
        const std::string outcome = outcomeOf([&] { id = api_.get_role(7).id; });
        ASSERT_EQ(outcome == "none" ? std::to_string(id) : outcome, expected) << text;
    }
}

TEST_F(RoleApiTest, RefusesANegativeId) {
    EXPECT_EQ(outcomeOfRole(roleWithId("\"-1\"")), "9103 [Role::Role] Invalid role ID in response: -1");
}

TEST_F(RoleApiTest, RefusesAnAnswerWithoutData) {
    expectToReportAnswersWithoutData(operations());
}

TEST_F(RoleApiTest, PassesTheTransportsStatusOnWithoutALog) {
    expectToPassTransportFailuresOn(operations());
}

TEST_F(RoleApiTest, TakesNoOtherSuccessForItsOwn) {
    expectToRefuseOtherStatuses(operations());
}

TEST_F(RoleApiTest, PassesTheServicesErrorCodeOn) {
    http_->answer(404, R"({"errorCode":5001,"errorMessage":"no such role"})");
    EXPECT_EQ(outcomeOf([this] { api_.get_role(7); }),
              "5001 [RoleAPI::get_role] Unexpected HTTP status: 404: no such role");
}

TEST_F(RoleApiTest, ListsRolesInTheServicesOrder) {
    http_->answer(200, data("[" + roleWithId("\"9\"") + "," + roleWithId("\"3\"") + "," + roleWithId("\"9\"") + "]"));
    std::vector<int> ids;
    for (const Role& listed : api_.get_roles("")) {
        ids.push_back(listed.id);
    }
    EXPECT_THAT(ids, ElementsAre(9, 3, 9));
    EXPECT_THAT(http_->requests(), ElementsAre(HttpRequest{"GET", "arkwell/access-control/roles", "", ""}));
}

TEST_F(RoleApiTest, EncodesAFilter) {
    http_->answer(200, data("[]"));
    EXPECT_THAT(api_.get_roles("name eq 'a&b'"), IsEmpty());
    EXPECT_EQ(http_->requests()[0].url, "arkwell/access-control/roles?filter=name%20eq%20%27a%26b%27");
}

TEST_F(RoleApiTest, TakesDataThatIsNoArrayForNoRoles) {
    http_->answer(200, data("{}"));
    EXPECT_THAT(api_.get_roles(""), IsEmpty());
}

TEST_F(RoleApiTest, FailsAListForOneBadElement) {
    http_->answer(200, data("[" + roleWithId("\"9\"") + "," + roleWithId("\"-2\"") + "]"));
    EXPECT_EQ(outcomeOf([this] { api_.get_roles(""); }), "9103 [Role::Role] Invalid role ID in response: -2");
}

TEST_F(RoleApiTest, CreatesARole) {
    http_->answer(201, data(ROLE));
    EXPECT_EQ(api_.create_role("a", "b").id, 7);
    EXPECT_THAT(http_->requests(),
                ElementsAre(HttpRequest{"POST", "arkwell/access-control/roles", documentOf("a", "b"), ""}));
}

TEST_F(RoleApiTest, LeavesAnEmptyDescriptionOut) {
    http_->answer(201, data(ROLE));
    api_.create_role("a", "");
    EXPECT_EQ(http_->requests()[0].body, R"({"data":{"type":"accessControlRole","attributes":{"name":"a"}}})");
}

TEST_F(RoleApiTest, CreatesARoleOfTheGreatestLengths) {
    http_->answer(201, data(ROLE));
    api_.create_role(std::string(64, 'n'), std::string(256, 'd'));
    EXPECT_EQ(http_->requests()[0].body, documentOf(std::string(64, 'n'), std::string(256, 'd')));
}

TEST_F(RoleApiTest, LimitsWhatIsCreated) {
    const std::string tooLong(257, 'd');
    EXPECT_EQ(refusal<std::length_error>([this] { api_.create_role(std::string(65, 'n'), "d"); }),
              "limit for role name is 64");
    EXPECT_EQ(refusal<std::length_error>([&] { api_.create_role(std::string(65, 'n'), tooLong); }),
              "limit for role name is 64");
    EXPECT_EQ(refusal<std::length_error>([&] { api_.create_role("n", tooLong); }), "limit for role description is 256");
    EXPECT_EQ(refusal<std::length_error>([&] { api_.create_role("", tooLong); }), "limit for role description is 256");
    EXPECT_EQ(refusal<std::invalid_argument>([this] { api_.create_role("", ""); }), "role name is required");
}

TEST_F(RoleApiTest, SendsNoTextThatIsNotUtf8) {
    Role changed = role();
    changed.name = "\xFF";
    http_->forgetRequests();
    const std::string expected = "bad_alloc [json_pack_shared] Error generating JSON: Invalid UTF-8 string";
    EXPECT_EQ(outcomeOf([this] { api_.create_role("\xFF", ""); }), expected);
    EXPECT_EQ(outcomeOf([this] { api_.create_role("n", "\xFF"); }), expected);
    EXPECT_EQ(outcomeOf([&] { api_.update_role(changed); }), expected);
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(RoleApiTest, SendsTextsWhole) {
    Role changed = role();
    changed.name = std::string("n\0m", 3);
    changed.description = std::string("d\0e", 3);
    http_->forgetRequests();
    http_->answer(201, data(ROLE));
    api_.create_role(changed.name, "");
    http_->answer(204);
    api_.update_role(changed);
    EXPECT_EQ(http_->requests()[0].body, R"({"data":{"type":"accessControlRole","attributes":{"name":"n\u0000m"}}})");
    EXPECT_EQ(http_->requests()[1].body, documentOf("n\\u0000m", "d\\u0000e"));
}

TEST_F(RoleApiTest, UpdatesARoleByItsLink) {
    Role changed = role();
    changed.name = std::string(100, 'n');
    http_->answer(204);
    api_.update_role(changed);
    EXPECT_EQ(http_->requests()[1],
              (HttpRequest{"PUT", "arkwell/access-control/roles/7", documentOf(changed.name, "d"), ""}));
}

TEST_F(RoleApiTest, UpdatesARoleOfTheGreatestLengths) {
    Role changed = role();
    changed.name = std::string(256, 'n');
    changed.description = std::string(256, 'd');
    http_->answer(204);
    api_.update_role(changed);
    EXPECT_EQ(http_->requests()[1].body, documentOf(changed.name, changed.description));
}

TEST_F(RoleApiTest, LeavesAnEmptyDescriptionOutOfAnUpdate) {
    Role changed = role();
    changed.description.clear();
    http_->answer(204);
    api_.update_role(changed);
    EXPECT_EQ(http_->requests()[1].body, R"({"data":{"type":"accessControlRole","attributes":{"name":"n"}}})");
}

TEST_F(RoleApiTest, SendsARoleWithoutALinkToTheRoot) {
    Role changed = role();
    changed.href.clear();
    http_->answer(204);
    api_.update_role(changed);
    EXPECT_EQ(http_->requests()[1].url, "arkwell");
}

TEST_F(RoleApiTest, LimitsWhatIsUpdated) {
    Role changed = role();
    changed.name = std::string(257, 'n');
    changed.description = std::string(257, 'd');
    EXPECT_EQ(refusal<std::length_error>([&] { api_.update_role(changed); }), "limit for role name is 256");
    changed.name = "n";
    EXPECT_EQ(refusal<std::length_error>([&] { api_.update_role(changed); }), "limit for role description is 256");
    changed.name.clear();
    EXPECT_EQ(refusal<std::length_error>([&] { api_.update_role(changed); }), "limit for role description is 256");
    changed.description = std::string(256, 'd');
    EXPECT_EQ(refusal<std::invalid_argument>([&] { api_.update_role(changed); }), "role name is required");
}

TEST_F(RoleApiTest, DeletesARole) {
    http_->answer(204);
    api_.delete_role_by_id(7);
    EXPECT_THAT(http_->requests(), ElementsAre(HttpRequest{"DELETE", "arkwell/access-control/roles/7", "", ""}));
}
