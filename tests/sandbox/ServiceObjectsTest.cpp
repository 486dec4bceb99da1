#include "ServiceProcess.h"

#include <gmock/gmock.h>

// Managed objects and the access that is defined on them, as it is answered and as it is published.

using namespace testing_support;
using testing::HasSubstr;

namespace {

constexpr int VIEW = 0;
constexpr int ADD = 1;
constexpr int ROLE = 1;
constexpr char ASSETS[] = "|ASSETS|";
constexpr char DB[] = "|ASSETS|db|";
constexpr char TABLE[] = "|ASSETS|db|table|";

class ServiceObjectsTest : public testing::Test {
protected:
    ServiceObjectsTest() {
        EXPECT_EQ(client_.post("object-registration-requests", registrationDocument(DB, "{}", {"|table|"})).status,
                  201);
        EXPECT_EQ(client_.post("bulk-object-update-requests", updateDocument({{DB, "READY"}, {TABLE, "READY"}})).status,
                  201);
    }

    static std::string object(const std::string& name) { return "managed-objects/" + encoded(name); }
    static std::string definitions(const std::string& name) { return object(name) + "/access-definitions"; }

    Answer define(const std::string& name, const std::string& propagation,
                  const std::vector<std::string>& operations = {"VIEW"}) {
        return client_.post(definitions(name), definitionDocument("1", propagation, operations));
    }

    ServiceFolder folder_;
    ServiceProcess service_{folder_};
    ServiceClient client_{"localhost", service_.port(), folder_.hostFiles()};
};

}  // namespace

TEST_F(ServiceObjectsTest, ReadsAnObject) {
    const Answer answer = client_.get(object(DB));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, R"({"data":{"type":"managedObject","id":"|ASSETS|db|",)"
                           R"("attributes":{"inherit":true,"state":"READY","objectType":"asset"}}})");
}

TEST_F(ServiceObjectsTest, HasTheObjectsAtTheTop) {
    for (const char* name : {"|", "|ARKWELL|", "|SECURITY|", "|MANAGE|", "|PROTECTION|", "|STORAGE|", "|DEPLOYMENT|",
                             "|OBJECT_TYPES|", ASSETS}) {
        EXPECT_EQ(client_.get(object(name)).status, 200) << name;
    }
}

TEST_F(ServiceObjectsTest, DoesNotKnowOtherObjects) {
    const std::string none = "|ASSETS|none|";
    for (const Answer& answer :
         {client_.get(object(none)), client_.send("PATCH", object(none), inheritDocument(true)),
          client_.get(definitions(none)), define(none, "OBJECT"), client_.send("DELETE", definitions(none) + "/1")}) {
        EXPECT_EQ(answer.status, 404);
        EXPECT_EQ(answer.errorCode(), 5103);
        EXPECT_EQ(answer.errorDetail(), none);
    }
}

TEST_F(ServiceObjectsTest, TakesANameInAnyEncoding) {
    client_.post("object-registration-requests", registrationDocument("|ASSETS|a+b%2Fc|"));
    EXPECT_THAT(client_.get(object("|ASSETS|a+b%2Fc|")).body, HasSubstr(R"("id":"|ASSETS|a+b%2Fc|")"));
    EXPECT_THAT(client_.get(object("|ASSETS|a%20b%2fc|")).body, HasSubstr(R"("id":"|ASSETS|a+b%2Fc|")"));
}

TEST_F(ServiceObjectsTest, SwitchesInheritance) {
    ASSERT_EQ(define(ASSETS, "CHILDREN").status, 201);
    ASSERT_TRUE(folder_.allows(ROLE, VIEW, TABLE));
    const Answer off = client_.send("PATCH", object(DB), inheritDocument(false));
    EXPECT_EQ(off.status, 204);
    EXPECT_EQ(off.body, "");
    EXPECT_THAT(client_.get(object(DB)).body, HasSubstr(R"("inherit":false)"));
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, TABLE));
    EXPECT_EQ(client_.send("PATCH", object(DB), inheritDocument(true)).status, 204);
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, TABLE));
}

TEST_F(ServiceObjectsTest, TakesInheritanceAsTrueOrFalseOnly) {
    const Answer answer =
        client_.send("PATCH", object(DB), R"({"data": {"type": "managedObject", "attributes": {"inherit": 1}}})");
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.errorDetail(), "data.attributes.inherit must be true or false");
}

TEST_F(ServiceObjectsTest, GivesAnAddedDefinitionBack) {
    const Answer added = define(DB, "OBJECT_AND_CHILDREN", {"VIEW", "ADD"});
    const std::string resource =
        R"({"links":{"self":{"href":"/access-control/managed-objects/%7CASSETS%7Cdb%7C/access-definitions/1"}},)"
        R"("type":"accessDefinition","id":"1","attributes":{"propagation":"OBJECT_AND_CHILDREN"},)"
        R"("relationships":{"role":{"data":{"type":"accessControlRole","id":"1"}},)"
        R"("operations":{"data":[{"id":"|OPERATIONS|VIEW|","type":"accessControlOperation"},)"
        R"({"id":"|OPERATIONS|ADD|","type":"accessControlOperation"}]},)"
        R"("managedObject":{"data":{"type":"managedObject","id":"|ASSETS|db|"}}}})";
    EXPECT_EQ(added.status, 201);
    EXPECT_EQ(added.body, R"({"data":)" + resource + "}");
    EXPECT_EQ(client_.get(definitions(DB)).body, R"({"data":[)" + resource + "]}");
}

TEST_F(ServiceObjectsTest, PublishesADefinitionWhereItPropagates) {
    ASSERT_EQ(define(DB, "OBJECT").status, 201);
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, TABLE));
    EXPECT_FALSE(folder_.allows(ROLE, ADD, DB));
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, ASSETS));

    ASSERT_EQ(client_.send("DELETE", definitions(DB) + "/1").status, 204);
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, DB));

    ASSERT_EQ(define(DB, "CHILDREN").status, 201);
    EXPECT_FALSE(folder_.allows(ROLE, VIEW, DB));
    EXPECT_TRUE(folder_.allows(ROLE, VIEW, TABLE));

    ASSERT_EQ(define(DB, "OBJECT_AND_CHILDREN", {"ADD"}).status, 201);
    EXPECT_TRUE(folder_.allows(ROLE, ADD, DB));
    EXPECT_TRUE(folder_.allows(ROLE, ADD, TABLE));
}

TEST_F(ServiceObjectsTest, ListsDefinitionsInTheOrderInWhichTheyWereAdded) {
    define(DB, "OBJECT");
    define(DB, "CHILDREN", {});
    define(DB, "OBJECT");
    const std::string list = client_.get(definitions(DB)).body;
    EXPECT_LT(list.find(R"("id":"1","attributes")"), list.find(R"("id":"2","attributes")"));
    EXPECT_LT(list.find(R"("id":"2","attributes")"), list.find(R"("id":"3","attributes")"));
    EXPECT_THAT(list, HasSubstr(R"("operations":{"data":[]})"));
}

TEST_F(ServiceObjectsTest, NeverGivesTheNumberOfADefinitionAgain) {
    define(DB, "OBJECT");
    ASSERT_EQ(client_.send("DELETE", definitions(DB) + "/1").status, 204);
    EXPECT_THAT(define(DB, "OBJECT").body, HasSubstr(R"("id":"2")"));
}

TEST_F(ServiceObjectsTest, DoesNotKnowOtherDefinitions) {
    define(DB, "OBJECT");
    for (const std::string& path : {definitions(DB) + "/77", definitions(DB) + "/x", definitions(TABLE) + "/1"}) {
        const Answer answer = client_.send("DELETE", path);
        EXPECT_EQ(answer.status, 404) << path;
        EXPECT_EQ(answer.errorCode(), 5104) << path;
    }
}

TEST_F(ServiceObjectsTest, DefinesNothingForUnknownRolesAndOperations) {
    const Answer role = client_.post(definitions(DB), definitionDocument("77", "OBJECT", {"VIEW"}));
    EXPECT_EQ(role.status, 404);
    EXPECT_EQ(role.errorCode(), 5102);
    EXPECT_EQ(role.errorDetail(), "77");
    const Answer operation = define(DB, "OBJECT", {"VIEW", "FLY"});
    EXPECT_EQ(operation.status, 404);
    EXPECT_EQ(operation.errorCode(), 5105);
    EXPECT_EQ(operation.errorDetail(), "|OPERATIONS|FLY|");
    EXPECT_EQ(client_.get(definitions(DB)).body, R"({"data":[]})");
}

TEST_F(ServiceObjectsTest, SaysWhatIsWrongWithADefinition) {
    const Answer propagation = define(DB, "ALL");
    EXPECT_EQ(propagation.status, 400);
    EXPECT_EQ(propagation.errorDetail(), "data.attributes.propagation must be OBJECT, CHILDREN or OBJECT_AND_CHILDREN");
    EXPECT_EQ(client_.post(definitions(DB), definitionDocument("-1", "OBJECT", {})).errorDetail(),
              "data.relationships.role.data.id must be an integer of 0 to 2147483647");
    std::string document = definitionDocument("1", "OBJECT", {"VIEW"});
    document.replace(document.find("|OPERATIONS"), 1, "");
    const Answer noNamespace = client_.post(definitions(DB), document);
    EXPECT_EQ(noNamespace.errorCode(), 5002);
    EXPECT_EQ(noNamespace.errorDetail(),
              "data.relationships.operations.data[0].id must be a namespace: OPERATIONS|VIEW|");
    document = definitionDocument("1", "OBJECT", {"VIEW"});
    document.replace(document.find("accessControlOperation"), 22, "accessControlRole");
    EXPECT_EQ(client_.post(definitions(DB), document).errorDetail(),
              R"(data.relationships.operations.data[0].type must be "accessControlOperation")");
}
