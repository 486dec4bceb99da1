#include "ServiceProcess.h"
#include "testing/Sanitized.h"

#include <gmock/gmock.h>

using namespace testing_support;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr int VIEW = 0;
constexpr int ROLE = 1;
constexpr char REQUESTS[] = "object-registration-requests";
constexpr char BULK_REQUESTS[] = "bulk-object-registration-requests";
constexpr char UPDATES[] = "bulk-object-update-requests";
constexpr char DB[] = "|ASSETS|db|";
constexpr char TABLE[] = "|ASSETS|db|table|";
constexpr char GRANT[] =
    R"({"inherit": false, "accessDefinitions": [{"roleId": 1, "propagation": "OBJECT_AND_CHILDREN",)"
    R"( "operations": ["|OPERATIONS|VIEW|"]}]})";

class ServiceRegistrationTest : public testing::Test {
protected:
    static std::string object(const std::string& name) { return "managed-objects/" + encoded(name); }
    int statusOf(const std::string& name) { return client_.get(object(name)).status; }
    Answer update(const std::vector<std::pair<std::string, std::string>>& states) {
        return client_.post(UPDATES, updateDocument(states));
    }

    /// A bulk request of the documents of single ones.
    static std::string bulk(const std::vector<std::string>& documents) {
        std::string list;
        for (const std::string& document : documents) {
            const std::size_t begin = document.find(": ") + 2;
            list += (list.empty() ? "" : ", ") + document.substr(begin, document.size() - begin - 1);
        }
        return R"({"data": [)" + list + "]}";
    }

    ServiceFolder folder_;
    ServiceProcess service_{folder_};
    ServiceClient client_{"localhost", service_.port(), folder_.hostFiles()};
};

}  // namespace

TEST_F(ServiceRegistrationTest, RecordsAnObjectAndItsChildrenAsPending) {
    const Answer answer = client_.post(REQUESTS, registrationDocument(DB, "{}", {"|table|", "|a|b|"}));
    EXPECT_EQ(answer.status, 201);
    EXPECT_EQ(
        answer.body,
        R"({"data":{"type":"objectRegistrationData","id":"|ASSETS|db|",)"
        R"("relationships":{"registeredObjects":{"data":[{"type":"managedObject","id":"|ASSETS|db|"},)"
        R"({"type":"managedObject","id":"|ASSETS|db|table|"},{"type":"managedObject","id":"|ASSETS|db|a|b|"}]}}}})");
    EXPECT_THAT(client_.get(object(DB)).body, HasSubstr(R"("state":"PENDING")"));
    EXPECT_THAT(client_.get(object(TABLE)).body, HasSubstr(R"("state":"PENDING")"));
}

TEST_F(ServiceRegistrationTest, GrantsNothingBeforeAnObjectIsReady) {
    ASSERT_EQ(client_.post(REQUESTS, registrationDocument(DB, GRANT, {"|table|"})).status, 201);
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_EQ(update({{DB, "READY"}, {TABLE, "READY"}}).status, 201);
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, TABLE));
    EXPECT_EQ(update({{DB, "PENDING"}, {TABLE, "PENDING"}}).status, 201);
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, TABLE));
}

TEST_F(ServiceRegistrationTest, DoesNotInheritBeforeItIsReady) {
    ASSERT_EQ(
        client_
            .post(object("|ASSETS|") + "/access-definitions", definitionDocument("1", "OBJECT_AND_CHILDREN", {"VIEW"}))
            .status,
        201);
    ASSERT_EQ(client_.post(REQUESTS, registrationDocument(DB)).status, 201);
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, DB));
    ASSERT_EQ(update({{DB, "READY"}}).status, 201);
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, DB));
}

TEST_F(ServiceRegistrationTest, DeletesAnObjectWithItsDefinitions) {
    client_.post(REQUESTS, registrationDocument(DB, GRANT));
    update({{DB, "READY"}});
    ASSERT_TRUE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_EQ(update({{DB, "DELETED"}}).status, 201);
    EXPECT_EQ(statusOf(DB), 404);
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, DB));
    ASSERT_EQ(client_.post(REQUESTS, registrationDocument(DB)).status, 201);
    EXPECT_EQ(client_.get(object(DB) + "/access-definitions").body, R"({"data":[]})");
}

TEST_F(ServiceRegistrationTest, RecordsTheAttributesOfAccessControl) {
    client_.post(REQUESTS, registrationDocument(DB, GRANT));
    EXPECT_THAT(client_.get(object(DB)).body, HasSubstr(R"("inherit":false)"));
    const std::string definitions = client_.get(object(DB) + "/access-definitions").body;
    EXPECT_THAT(definitions, HasSubstr(R"("propagation":"OBJECT_AND_CHILDREN")"));
    EXPECT_THAT(definitions, HasSubstr(R"("id":"|OPERATIONS|VIEW|")"));
}

TEST_F(ServiceRegistrationTest, RefusesAnObjectThatIsThere) {
    client_.post(REQUESTS, registrationDocument(DB));
    const Answer again = client_.post(REQUESTS, registrationDocument(DB));
    EXPECT_EQ(again.status, 409);
    EXPECT_EQ(again.errorCode(), 5204);
    EXPECT_EQ(again.errorDetail(), "|ASSETS|db| is PENDING");
    EXPECT_EQ(client_.post(REQUESTS, registrationDocument("|ASSETS|")).errorDetail(), "|ASSETS| is READY");
}

TEST_F(ServiceRegistrationTest, RegistersNothingWhereAChildIsThere) {
    client_.post(REQUESTS, registrationDocument(TABLE));
    EXPECT_EQ(client_.post(REQUESTS, registrationDocument(DB, "{}", {"|table|"})).errorDetail(),
              "|ASSETS|db|table| is PENDING");
    EXPECT_EQ(statusOf(DB), 404);
}

TEST_F(ServiceRegistrationTest, LeavesWhatIsThereAloneWhenItIsTold) {
    client_.post(REQUESTS, registrationDocument(DB, GRANT));
    update({{DB, "READY"}});
    const Answer answer = client_.post(REQUESTS, registrationDocument(DB, "{}", {"|table|"}, true));
    EXPECT_EQ(answer.status, 201);
    EXPECT_THAT(answer.body,
                HasSubstr(R"("registeredObjects":{"data":[{"type":"managedObject","id":"|ASSETS|db|table|"}]})"));
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_THAT(client_.get(object(DB)).body, HasSubstr(R"("inherit":false,"state":"READY")"));
}

TEST_F(ServiceRegistrationTest, RefusesAttributesThatAreNotKnown) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {R"({"inherits": false})",
         R"(data.attributes.accessControlAttributes has a member "inherits" that is not known)"},
        {R"({"inherit": 0})", "data.attributes.accessControlAttributes.inherit must be true or false"},
        {R"([])", "data.attributes.accessControlAttributes must be an object"},
        {R"({"accessDefinitions": [{}]})",
         "data.attributes.accessControlAttributes.accessDefinitions[0].roleId is missing"},
        {R"({"accessDefinitions": [{"roleId": 1, "propagation": "ALL", "operations": []}]})",
         "data.attributes.accessControlAttributes.accessDefinitions[0].propagation must be OBJECT, CHILDREN or "
         "OBJECT_AND_CHILDREN"},
    };
    for (const auto& [attributes, detail] : cases) {
        const Answer answer = client_.post(REQUESTS, registrationDocument(DB, attributes));
        EXPECT_EQ(answer.status, 400) << attributes;
        EXPECT_EQ(answer.errorDetail(), detail);
    }
    EXPECT_EQ(statusOf(DB), 404);
}

TEST_F(ServiceRegistrationTest, RegistersNothingForAnUnknownRole) {
    const Answer answer = client_.post(
        REQUESTS, registrationDocument(
                      DB, R"({"accessDefinitions": [{"roleId": 77, "propagation": "OBJECT", "operations": []}]})"));
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(answer.errorCode(), 5102);
    EXPECT_EQ(statusOf(DB), 404);
}

TEST_F(ServiceRegistrationTest, TakesTheVersionsUpToItsOwn) {
    const std::string type = "application/vnd.arkwell+json;version=";
    for (const char* version : {"6.0", "5.0", "1.0", "4"}) {
        const std::string name = std::string("|ASSETS|v") + version + "|";
        EXPECT_EQ(client_.send("POST", REQUESTS, registrationDocument(name), {{"Content-Type", type + version}}).status,
                  201)
            << version;
    }
    for (const char* version : {"6.1", "7.0", "0.9", "x", ""}) {
        const Answer answer =
            client_.send("POST", REQUESTS, registrationDocument(DB), {{"Content-Type", type + version}});
        EXPECT_EQ(answer.status, 415) << version;
        EXPECT_EQ(answer.errorCode(), 5305) << version;
    }
}

TEST_F(ServiceRegistrationTest, RegistersManyAtOnce) {
    const Answer answer = client_.post(
        BULK_REQUESTS, bulk({registrationDocument(DB, "{}", {"|table|"}), registrationDocument("|ASSETS|vm|")}));
    EXPECT_EQ(answer.status, 201);
    EXPECT_EQ(answer.body,
              R"({"data":[{"type":"objectRegistrationData","id":"|ASSETS|db|","relationships":{"registeredObjects":)"
              R"({"data":[{"type":"managedObject","id":"|ASSETS|db|"},)"
              R"({"type":"managedObject","id":"|ASSETS|db|table|"}]}}},)"
              R"({"type":"objectRegistrationData","id":"|ASSETS|vm|","relationships":{"registeredObjects":)"
              R"({"data":[{"type":"managedObject","id":"|ASSETS|vm|"}]}}}]})");
}

TEST_F(ServiceRegistrationTest, RegistersAllOrNone) {
    const Answer answer = client_.post(
        BULK_REQUESTS, bulk({registrationDocument(DB), registrationDocument("|ASSETS|"), registrationDocument(TABLE)}));
    EXPECT_EQ(answer.status, 409);
    EXPECT_EQ(answer.errorDetail(), "|ASSETS| is READY");
    EXPECT_EQ(statusOf(DB), 404);
    EXPECT_EQ(client_.post(BULK_REQUESTS, bulk({registrationDocument(DB), registrationDocument(DB)})).status, 409);
    EXPECT_EQ(statusOf(DB), 404);
}

TEST_F(ServiceRegistrationTest, NamesTheElementThatIsMalformed) {
    const Answer answer =
        client_.post(BULK_REQUESTS, bulk({registrationDocument(DB), registrationDocument("no namespace")}));
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.errorDetail(), "data[1].id must be a namespace: no namespace");
    EXPECT_EQ(client_.post(BULK_REQUESTS, registrationDocument(DB)).errorDetail(), "data must be an array");
    EXPECT_EQ(client_.post(REQUESTS, bulk({registrationDocument(DB)})).errorDetail(), "data must be an object");
}

TEST_F(ServiceRegistrationTest, UpdatesAllOrNone) {
    client_.post(REQUESTS, registrationDocument(DB));
    const Answer answer = update({{DB, "READY"}, {"|ASSETS|none|", "READY"}});
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(answer.errorCode(), 5103);
    EXPECT_EQ(answer.errorDetail(), "|ASSETS|none|");
    EXPECT_THAT(client_.get(object(DB)).body, HasSubstr(R"("state":"PENDING")"));
}

TEST_F(ServiceRegistrationTest, UpdatesNothingInAnEmptyList) {
    EXPECT_EQ(update({}).status, 201);
}

TEST_F(ServiceRegistrationTest, RefusesAnUpdateThatContradictsItself) {
    client_.post(REQUESTS, registrationDocument(DB));
    const Answer answer = update({{DB, "READY"}, {DB, "DELETED"}});
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.errorDetail(),
              "data.attributes.managedObjectsWithAttributes[1].state contradicts READY for the same object");
    EXPECT_EQ(update({{DB, "GONE"}}).errorDetail(),
              "data.attributes.managedObjectsWithAttributes[0].state must be READY, PENDING or DELETED");
    EXPECT_EQ(update({{DB, "READY"}, {DB, "READY"}}).status, 201);
}

TEST_F(ServiceRegistrationTest, KeepsTheObjectsAtTheTop) {
    const Answer answer = update({{"|ASSETS|", "DELETED"}});
    EXPECT_EQ(answer.status, 409);
    EXPECT_EQ(answer.errorCode(), 5202);
    EXPECT_EQ(answer.errorDetail(), "|ASSETS| cannot become DELETED");
    EXPECT_EQ(update({{"|", "PENDING"}}).status, 409);
    EXPECT_EQ(update({{"|", "READY"}}).status, 201);
}

TEST_F(ServiceRegistrationTest, ListsWhatWasLeftPendingSinceWhenAndByWhom) {
    client_.post(REQUESTS, registrationDocument(DB));
    client_.post(REQUESTS, registrationDocument("|ASSETS|vm|"));
    update({{"|ASSETS|vm|", "READY"}});
    EXPECT_THAT(folder_.run("pending").output,
                MatchesRegex("[|]ASSETS[|]db[|] since 20[0-9][0-9]-[0-9-]*T[0-9:.]*Z by CN=[^\n]*\n"));
}

TEST_F(ServiceRegistrationTest, SettlesWhatWasLeftPending) {
    client_.post(REQUESTS, registrationDocument(DB, GRANT));
    client_.post(REQUESTS, registrationDocument("|ASSETS|vm|"));
    EXPECT_EQ(folder_.run("settle '|ASSETS|db|' READY").output, "|ASSETS|db| is READY\n");
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_EQ(folder_.run("settle '|ASSETS|vm|' DELETED").output, "|ASSETS|vm| is DELETED\n");
    EXPECT_EQ(statusOf("|ASSETS|vm|"), 404);
    EXPECT_EQ(folder_.run("settle '|ASSETS|db|' DELETED").output, "rbac-sandbox: |ASSETS|db| is READY, not PENDING\n");
    EXPECT_EQ(folder_.run("pending").output, "");
}

TEST_F(ServiceRegistrationTest, NamesATextThatIsNotUtf8) {
    for (const char* command : {"settle '\xff' READY", "operations add '\xff'", "faults set '\xff'"}) {
        const CommandResult result = folder_.run(command);
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.output, "rbac-sandbox: not UTF-8: \xff\n") << command;
    }
}

TEST_F(ServiceRegistrationTest, RegistersManyObjectsInOneRequest) {
    constexpr int COUNT = testing_support::SANITIZED ? 10'000 : 100'000;
    std::string list;
    std::vector<std::pair<std::string, std::string>> states;
    for (int i = 0; i < COUNT; ++i) {
        const std::string name = "|ASSETS|host" + std::to_string(i % 100) + "|disk" + std::to_string(i) + "|";
        const std::string document = registrationDocument(name, GRANT);
        const std::size_t begin = document.find(": ") + 2;
        list += (list.empty() ? "" : ",") + document.substr(begin, document.size() - begin - 1);
        states.emplace_back(name, "READY");
    }
    ASSERT_EQ(client_.post(BULK_REQUESTS, R"({"data": [)" + list + "]}").status, 201);
    ASSERT_EQ(client_.post(UPDATES, updateDocument(states)).status, 201);
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, states.front().first));
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, states.back().first));
    EXPECT_EQ(folder_.run("pending").output, "");
}
