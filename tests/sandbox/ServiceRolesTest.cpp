#include "ServiceProcess.h"

#include <gmock/gmock.h>

using namespace testing_support;
using testing::HasSubstr;
using testing::Not;

namespace {

class ServiceRolesTest : public testing::Test {
protected:
    std::string filtered(const std::string& filter) { return client_.get("roles?filter=" + encoded(filter)).body; }

    ServiceFolder folder_;
    ServiceProcess service_{folder_};
    ServiceClient client_{"localhost", service_.port(), folder_.hostFiles()};
};

constexpr char OPERATORS[] =
    R"({"type":"accessControlRole","links":{"self":{"href":"/access-control/roles/2"}},"id":"2",)"
    R"("attributes":{"name":"operators","description":"they operate","systemDefined":false}})";

}  // namespace

TEST_F(ServiceRolesTest, CreatesARoleAndGivesItBack) {
    const Answer created = client_.post("roles", roleDocument("operators", "they operate"));
    EXPECT_EQ(created.status, 201);
    EXPECT_EQ(created.body, std::string(R"({"data":)") + OPERATORS + "}");
    const Answer read = client_.get("roles/2");
    EXPECT_EQ(read.status, 200);
    EXPECT_EQ(read.body, created.body);
}

TEST_F(ServiceRolesTest, ListsRolesInTheOrderOfTheirNumbers) {
    client_.post("roles", roleDocument("operators", "they operate"));
    EXPECT_EQ(client_.get("roles").body,
              R"({"data":[{"type":"accessControlRole","links":{"self":{"href":"/access-control/roles/0"}},"id":"0",)"
              R"("attributes":{"name":"superuser","description":"may do everything","systemDefined":true}},)"
              R"({"type":"accessControlRole","links":{"self":{"href":"/access-control/roles/1"}},"id":"1",)"
              R"("attributes":{"name":"everybody","description":"every user of this machine","systemDefined":true}},)" +
                  std::string(OPERATORS) + "]}");
}

TEST_F(ServiceRolesTest, ReplacesNameAndDescription) {
    client_.post("roles", roleDocument("operators", "they operate"));
    const Answer updated = client_.send("PUT", "roles/2", roleDocument("auditors"));
    EXPECT_EQ(updated.status, 204);
    EXPECT_EQ(updated.body, "");
    EXPECT_THAT(client_.get("roles/2").body,
                HasSubstr(R"({"name":"auditors","description":"","systemDefined":false})"));
}

TEST_F(ServiceRolesTest, DeletesARoleAndNeverGivesItsNumberAgain) {
    client_.post("roles", roleDocument("operators"));
    EXPECT_EQ(client_.send("DELETE", "roles/2").status, 204);
    EXPECT_EQ(client_.get("roles/2").status, 404);
    EXPECT_THAT(client_.post("roles", roleDocument("operators")).body, HasSubstr(R"("id":"3")"));
}

TEST_F(ServiceRolesTest, KeepsNamesUnique) {
    client_.post("roles", roleDocument("operators"));
    client_.post("roles", roleDocument("auditors"));
    const Answer again = client_.post("roles", roleDocument("operators"));
    EXPECT_EQ(again.status, 409);
    EXPECT_EQ(again.errorCode(), 5201);
    EXPECT_EQ(again.errorDetail(), "there is a role of the name operators");
    EXPECT_EQ(client_.send("PUT", "roles/3", roleDocument("operators")).errorCode(), 5201);
    EXPECT_EQ(client_.send("PUT", "roles/3", roleDocument("auditors", "the same name")).status, 204);
}

TEST_F(ServiceRolesTest, KeepsWhatTheSystemDefines) {
    const Answer deleted = client_.send("DELETE", "roles/0");
    EXPECT_EQ(deleted.status, 409);
    EXPECT_EQ(deleted.errorCode(), 5202);
    EXPECT_EQ(deleted.errorDetail(), "the role superuser cannot be deleted");
    const Answer renamed = client_.send("PUT", "roles/1", roleDocument("nobody"));
    EXPECT_EQ(renamed.status, 409);
    EXPECT_EQ(renamed.errorDetail(), "the role everybody cannot be renamed");
    EXPECT_EQ(client_.send("PUT", "roles/1", roleDocument("everybody", "all of them")).status, 204);
}

TEST_F(ServiceRolesTest, KeepsARoleThatIsInUse) {
    client_.post("roles", roleDocument("operators"));
    const std::string definitions = "managed-objects/" + encoded("|ASSETS|") + "/access-definitions";
    ASSERT_EQ(client_.post(definitions, definitionDocument("2", "OBJECT", {"VIEW"})).status, 201);
    const Answer refused = client_.send("DELETE", "roles/2");
    EXPECT_EQ(refused.status, 409);
    EXPECT_EQ(refused.errorCode(), 5203);
    EXPECT_EQ(refused.errorDetail(), "1 access definitions refer to operators; delete them first");
    ASSERT_EQ(client_.send("DELETE", definitions + "/1").status, 204);
    EXPECT_EQ(client_.send("DELETE", "roles/2").status, 204);
}

TEST_F(ServiceRolesTest, DoesNotKnowOtherRoles) {
    for (const char* id : {"77", "-1", "x", "2147483648", "1x", "%201"}) {
        for (const char* method : {"GET", "DELETE"}) {
            const Answer answer = client_.send(method, std::string("roles/") + id);
            EXPECT_EQ(answer.status, 404) << id;
            EXPECT_EQ(answer.errorCode(), 5102) << id;
        }
        EXPECT_EQ(client_.send("PUT", std::string("roles/") + id, roleDocument("operators")).status, 404) << id;
    }
}

TEST_F(ServiceRolesTest, SaysWhatIsWrongWithADocument) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"[]", "the document must be an object"},
        {"{}", "data is missing"},
        {R"({"data": []})", "data must be an object"},
        {R"({"data": {"type": "role"}})", R"(data.type must be "accessControlRole")"},
        {R"({"data": {"type": "accessControlRole"}})", "data.attributes is missing"},
        {R"({"data": {"type": "accessControlRole", "attributes": {}}})", "data.attributes.name is missing"},
        {R"({"data": {"type": "accessControlRole", "attributes": {"name": 1}}})",
         "data.attributes.name must be a string"},
        {R"({"data": {"type": "accessControlRole", "attributes": {"name": "a", "description": 1}}})",
         "data.attributes.description must be a string"},
        {roleDocument(""), "data.attributes.name must have 1 to 256 bytes"},
        {roleDocument(std::string(257, 'a')), "data.attributes.name must have 1 to 256 bytes"},
        {roleDocument("a", std::string(257, 'a')), "data.attributes.description must have at most 256 bytes"},
    };
    for (const auto& [document, detail] : cases) {
        const Answer answer = client_.post("roles", document);
        EXPECT_EQ(answer.status, 400) << document;
        EXPECT_EQ(answer.errorCode(), 5001);
        EXPECT_EQ(answer.errorDetail(), detail);
    }
}

TEST_F(ServiceRolesTest, FiltersByName) {
    client_.post("roles", roleDocument("operators"));
    client_.post("roles", roleDocument("o'hara"));
    EXPECT_THAT(filtered("name eq 'operators'"), HasSubstr(R"("id":"2")"));
    EXPECT_THAT(filtered("name eq 'operators'"), Not(HasSubstr(R"("id":"3")")));
    EXPECT_THAT(filtered("name eq 'o''hara'"), HasSubstr(R"("id":"3")"));
    EXPECT_THAT(filtered("startswith(name,'o')"), HasSubstr(R"("id":"3")"));
    EXPECT_THAT(filtered("startswith(name,'o')"), Not(HasSubstr(R"("id":"1")")));
    EXPECT_EQ(filtered("name eq 'nobody'"), R"({"data":[]})");
}

TEST_F(ServiceRolesTest, SaysWhereAFilterStopsMakingSense) {
    const Answer answer = client_.get("roles?filter=" + encoded("name like 'o'"));
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.errorCode(), 5003);
    EXPECT_EQ(answer.errorDetail(), "at character 6: eq is expected: name like 'o'");
}

TEST_F(ServiceRolesTest, KeepsTextsOfEveryAlphabet) {
    EXPECT_EQ(client_.post("roles", roleDocument("Bäcker 面包师 \"x\"")).status, 201);
    EXPECT_THAT(client_.get("roles/2").body, HasSubstr(R"("name":"Bäcker 面包师 \"x\"")"));
}
