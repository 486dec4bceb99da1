#include "ApiFixture.h"

#include <rbac/RoleAPI.h>

#include <stdexcept>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::HttpRequest;
using testing_support::LogLine;

namespace {

constexpr char ROLE[] = R"({"type":"accessControlRole","links":{"self":{"href":"/access-control/roles/7"}},"id":"7",)"
                        R"("attributes":{"name":"n","description":"d","systemDefined":true,"more":1},"more":[]})";

std::string data(const std::string& value) {
    return R"({"data":)" + value + "}";
}

std::string roleWithId(const std::string& id) {
    return R"({"type":"accessControlRole","id":)" + id + R"(,"attributes":{"name":"n"}})";
}

class RoleApiTest : public ApiFixture {
protected:
    /// The status of reading this role.
    int statusOfRole(const std::string& role) {
        http_->answer(200, data(role));
        return statusOf([this] { api_.get_role(7); });
    }

    /// A role as the service has given it.
    Role role(const std::string& document = ROLE) {
        http_->answer(200, data(document));
        return api_.get_role(7);
    }

    template <class Exception, class Call>
    std::string refusal(Call call) {
        http_->requests.clear();
        try {
            call();
        } catch (const Exception& failure) {
            EXPECT_THAT(http_->requests, IsEmpty());
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
    EXPECT_THAT(http_->requests, ElementsAre(HttpRequest{"GET", "arkwell/access-control/roles/7", "", ""}));
    EXPECT_EQ(http_->liveClients, 0);
}

TEST_F(RoleApiTest, LogsARequest) {
    role();
    EXPECT_THAT(log_.lines(),
                ElementsAre(LogLine{4, "RoleAPI::get_role",
                                    "Request for arkwell/access-control/roles/7; curl status 0; http status 200"},
                            LogLine{2, "RoleAPI::get_role", "Received JSON: " + data(ROLE)}));
}

TEST_F(RoleApiTest, ReadsARoleWithoutWhatMayBeAbsent) {
    const Role read = role(roleWithId("\"0\""));
    EXPECT_EQ(read.href, "");
    EXPECT_EQ(read.id, 0);
    EXPECT_EQ(read.description, "");
    EXPECT_FALSE(read.systemDefined);
}

TEST_F(RoleApiTest, RefusesARoleOfTheWrongShape) {
    for (const std::string& bad :
         {std::string("[]"), std::string("5"), std::string("{}"), std::string(R"({"type":"accessControlRole"})"),
          roleWithId("7"), std::string(R"({"type":"accessControlRole","attributes":{"name":"n"}})"),
          std::string(R"({"type":"accessControlRole","id":"7","attributes":{}})"),
          std::string(R"({"type":"accessControlRole","links":{},"id":"7","attributes":{"name":"n"}})")}) {
        log_.clear();
        EXPECT_EQ(statusOfRole(bad), 7610) << bad;
        ASSERT_EQ(errors().size(), 1U) << bad;
        EXPECT_EQ(errors()[0].tag, "Role::Role");
        EXPECT_THAT(errors()[0].message, testing::StartsWith("Error parsing JSON response at position ")) << bad;
    }
}

TEST_F(RoleApiTest, RefusesAnotherType) {
    EXPECT_EQ(statusOfRole(R"({"type":"role","id":"7","attributes":{"name":"n"}})"), 9103);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, "Role::Role", "Unexpected response type: role"}));
}

TEST_F(RoleApiTest, RefusesAnIdThatIsNoNumber) {
    for (const std::string id : {"12a", "", " 7", "7 ", "1.0", "2147483648"}) {
        log_.clear();
        EXPECT_EQ(statusOfRole(roleWithId('"' + id + '"')), 9103) << id;
        ASSERT_EQ(errors().size(), 1U);
        EXPECT_THAT(errors()[0].message, testing::StartsWith("Invalid role ID in response: " + id + " (")) << id;
    }
}

TEST_F(RoleApiTest, RefusesANegativeId) {
    EXPECT_EQ(statusOfRole(roleWithId("\"-1\"")), 9103);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, "Role::Role", "Invalid role ID in response: -1"}));
}

TEST_F(RoleApiTest, RefusesAnAnswerWithoutData) {
    for (const char* body : {"{}", "[]"}) {
        log_.clear();
        http_->answer(200, body);
        EXPECT_EQ(statusOf([this] { api_.get_role(7); }), 7610);
        EXPECT_THAT(errors(),
                    ElementsAre(LogLine{16, "RoleAPI::get_role", "Error getting 'data' field from JSON response"}));
    }
}

TEST_F(RoleApiTest, RefusesAnAnswerThatIsNotJson) {
    http_->answer(200, "");
    EXPECT_EQ(statusOf([this] { api_.get_role(7); }), 7610);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, "json_loads_shared",
                                              "Error parsing JSON: '[' or '{' expected near end of file"}));
}

TEST_F(RoleApiTest, PassesTheTransportsStatusOnWithoutALog) {
    http_->fail(9554);
    EXPECT_EQ(statusOf([this] { api_.get_role(7); }), 9554);
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(RoleApiTest, PassesTheServicesErrorCodeOn) {
    http_->answer(404, R"({"errorCode":5001,"errorMessage":"no such role"})");
    EXPECT_EQ(statusOf([this] { api_.get_role(7); }), 5001);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, "RoleAPI::get_role", "Unexpected HTTP status: 404: no such role"}));
}

TEST_F(RoleApiTest, ListsRolesInTheServicesOrder) {
    http_->answer(200, data("[" + roleWithId("\"9\"") + "," + roleWithId("\"3\"") + "," + roleWithId("\"9\"") + "]"));
    std::vector<int> ids;
    for (const Role& listed : api_.get_roles("")) {
        ids.push_back(listed.id);
    }
    EXPECT_THAT(ids, ElementsAre(9, 3, 9));
    EXPECT_THAT(http_->requests, ElementsAre(HttpRequest{"GET", "arkwell/access-control/roles", "", ""}));
}

TEST_F(RoleApiTest, EncodesAFilter) {
    http_->answer(200, data("[]"));
    EXPECT_THAT(api_.get_roles("name eq 'a&b'"), IsEmpty());
    EXPECT_EQ(http_->requests[0].url, "arkwell/access-control/roles?filter=name%20eq%20%27a%26b%27");
}

TEST_F(RoleApiTest, TakesDataThatIsNoArrayForNoRoles) {
    http_->answer(200, data("{}"));
    EXPECT_THAT(api_.get_roles(""), IsEmpty());
}

TEST_F(RoleApiTest, FailsAListForOneBadElement) {
    http_->answer(200, data("[" + roleWithId("\"9\"") + "," + roleWithId("\"x\"") + "]"));
    EXPECT_EQ(statusOf([this] { api_.get_roles(""); }), 9103);
}

TEST_F(RoleApiTest, CreatesARole) {
    http_->answer(201, data(ROLE));
    EXPECT_EQ(api_.create_role("a", "b").id, 7);
    EXPECT_THAT(http_->requests,
                ElementsAre(HttpRequest{
                    "POST", "arkwell/access-control/roles",
                    R"({"data":{"type":"accessControlRole","attributes":{"name":"a","description":"b"}}})", ""}));
}

TEST_F(RoleApiTest, LeavesAnEmptyDescriptionOut) {
    http_->answer(201, data(ROLE));
    api_.create_role("a", "");
    EXPECT_EQ(http_->requests[0].body, R"({"data":{"type":"accessControlRole","attributes":{"name":"a"}}})");
}

TEST_F(RoleApiTest, TakesNoOtherSuccessForACreation) {
    http_->answer(200, data(ROLE));
    EXPECT_EQ(statusOf([this] { api_.create_role("a", ""); }), 114);
}

TEST_F(RoleApiTest, LimitsWhatIsCreated) {
    http_->answer(201, data(ROLE));
    api_.create_role(std::string(64, 'n'), std::string(256, 'd'));
    EXPECT_EQ(refusal<std::length_error>([this] { api_.create_role(std::string(65, 'n'), std::string(257, 'd')); }),
              "limit for role name is 64");
    EXPECT_EQ(refusal<std::length_error>([this] { api_.create_role("", std::string(257, 'd')); }),
              "limit for role description is 256");
    EXPECT_EQ(refusal<std::invalid_argument>([this] { api_.create_role("", ""); }), "role name is required");
}

TEST_F(RoleApiTest, UpdatesARoleByItsLink) {
    Role changed = role();
    changed.name = std::string(100, 'n');
    http_->answer(204);
    api_.update_role(changed);
    EXPECT_EQ(http_->requests[1], (HttpRequest{"PUT", "arkwell/access-control/roles/7",
                                               R"({"data":{"type":"accessControlRole","attributes":{"name":")" +
                                                   std::string(100, 'n') + R"(","description":"d"}}})",
                                               ""}));
}

TEST_F(RoleApiTest, SendsARoleWithoutALinkToTheRoot) {
    Role changed = role();
    changed.href.clear();
    http_->answer(204);
    api_.update_role(changed);
    EXPECT_EQ(http_->requests[1].url, "arkwell");
}

TEST_F(RoleApiTest, LimitsWhatIsUpdated) {
    Role changed = role();
    changed.name = std::string(257, 'n');
    changed.description = std::string(257, 'd');
    EXPECT_EQ(refusal<std::length_error>([&] { api_.update_role(changed); }), "limit for role name is 256");
    changed.name.clear();
    EXPECT_EQ(refusal<std::length_error>([&] { api_.update_role(changed); }), "limit for role description is 256");
    changed.description = std::string(256, 'd');
    EXPECT_EQ(refusal<std::invalid_argument>([&] { api_.update_role(changed); }), "role name is required");
}

TEST_F(RoleApiTest, DeletesARole) {
    http_->answer(204);
    api_.delete_role_by_id(7);
    EXPECT_THAT(http_->requests, ElementsAre(HttpRequest{"DELETE", "arkwell/access-control/roles/7", "", ""}));
    http_->answer(200);
    EXPECT_EQ(statusOf([this] { api_.delete_role_by_id(7); }), 114);
}
