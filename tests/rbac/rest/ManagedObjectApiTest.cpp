#include "ApiFixture.h"
#include "rbac/rest/Rbac2Json.h"

#include <rbac/ManagedObjectAPI.h>

#include <boost/lexical_cast.hpp>

#include <sstream>
#include <stdexcept>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::HttpRequest;
using testing_support::LogLine;

namespace {

const ObjectNamespace NAMESPACE("A B", "C");
const std::string URL = "arkwell/access-control/managed-objects/%7CA%2BB%7CC%7C";
constexpr char OBJECT_TAG[] = "ManagedObject::ManagedObject";
constexpr char DEFINITION_TAG[] = "AccessDefinition::AccessDefinition";

std::string data(const std::string& value) {
    return R"({"data":)" + value + "}";
}

std::string object(const std::string& state, const std::string& type = "managedObject") {
    return R"({"type":")" + type + R"(","id":"|A|","attributes":{"inherit":true,"state":")" + state + "\"}}";
}

/// An access definition's parts, to be replaced one at a time.
struct Definition {
    std::string links = R"("links":{"self":{"href":"/link"}},)";
    std::string type = "accessDefinition";
    std::string propagation = "CHILDREN";
    std::string roleType = "accessControlRole";
    std::string roleId = "7";
    std::string operations =
        R"([{"id":"|B|","type":"accessControlOperation"},{"id":"|A|","type":"accessControlOperation"}])";
    std::string objectType = "managedObject";

    std::string text() const {
        return "{" + links + R"("type":")" + type + R"(","id":"d-1","attributes":{"propagation":")" + propagation +
               R"("},"relationships":{"role":{"data":{"type":")" + roleType + R"(","id":")" + roleId +
               R"("}},"operations":{"data":)" + operations + R"(},"managedObject":{"data":{"type":")" + objectType +
               R"(","id":"|O|"}}}})";
    }
};

class ManagedObjectApiTest : public ApiFixture {
protected:
    int statusOfObject(const std::string& document) {
        log_.clear();
        http_->answer(200, data(document));
        return statusOf([this] { api_.get_object(NAMESPACE); });
    }

    int statusOfDefinition(const Definition& definition) {
        log_.clear();
        http_->answer(200, data("[" + definition.text() + "]"));
        return statusOf([this] { api_.get_access_definitions(NAMESPACE); });
    }

    AccessDefinition read(const Definition& definition) {
        http_->answer(200, data("[" + definition.text() + "]"));
        return api_.get_access_definitions(NAMESPACE).front();
    }

    ManagedObjectAPI api_{http_};
};

}  // namespace

TEST(PropagationTest, ConvertsToItsNameAndBack) {
    for (const auto& [value, name] : {std::pair<Propagation::enum_type, const char*>{Propagation::OBJECT, "OBJECT"},
                                      {Propagation::CHILDREN, "CHILDREN"},
                                      {Propagation::OBJECT_AND_CHILDREN, "OBJECT_AND_CHILDREN"}}) {
        EXPECT_EQ(boost::lexical_cast<std::string>(Propagation(value)), name);
        EXPECT_EQ(boost::lexical_cast<Propagation>(name), Propagation(value));
        std::ostringstream out;
        out << value;
        EXPECT_EQ(out.str(), name);
    }
    EXPECT_EQ(static_cast<int>(Propagation::CHILDREN), 1);
}

TEST(PropagationTest, IsReadFromNoOtherText) {
    for (const char* text : {"", "object", "OBJECT ", " OBJECT", "OBJECT_AND_CHILDRE", "OBJECTS"}) {
        EXPECT_THROW(boost::lexical_cast<Propagation>(text), boost::bad_lexical_cast) << text;
    }
}

TEST(PropagationTest, KeepsItsValueWhenAnotherCannotBeRead) {
    Propagation propagation = Propagation::CHILDREN;
    std::istringstream in("nothing");
    in >> propagation;
    EXPECT_TRUE(in.fail());
    EXPECT_EQ(propagation, Propagation(Propagation::CHILDREN));
}

TEST(PropagationTest, ReadsOneWordOfAStream) {
    std::istringstream in("  CHILDREN OBJECT");
    Propagation first;
    Propagation second = Propagation::CHILDREN;
    in >> first >> second;
    EXPECT_EQ(first, Propagation(Propagation::CHILDREN));
    EXPECT_EQ(second, Propagation(Propagation::OBJECT));
}

TEST(PropagationTest, IsNotReadFromAStreamThatHasEnded) {
    std::istringstream in("CHILDREN");
    Propagation propagation;
    in >> propagation;
    EXPECT_FALSE(in.fail());
    in >> propagation;
    EXPECT_TRUE(in.fail());
    EXPECT_EQ(propagation, Propagation(Propagation::CHILDREN));
}

TEST(PropagationTest, IsNotWrittenWithAnotherValue) {
    std::ostringstream out;
    try {
        out << Propagation(static_cast<Propagation::enum_type>(3));
        FAIL();
    } catch (const std::invalid_argument& failure) {
        EXPECT_STREQ(failure.what(), "invalid propagation value");
    }
}

TEST_F(ManagedObjectApiTest, ReadsAnObject) {
    http_->answer(200, data(object("PENDING")));
    const ManagedObjectResource read = api_.get_object(NAMESPACE);
    EXPECT_EQ(read.href, "");
    EXPECT_EQ(read.objectNamespace, ObjectNamespace("A"));
    EXPECT_EQ(read.inherit, 1);
    EXPECT_EQ(read.state, ManagedObjectState::PENDING);
    EXPECT_THAT(http_->requests, ElementsAre(HttpRequest{"GET", URL, "", ""}));
    EXPECT_EQ(log_.lines()[0].tag, "ManagedObjectAPI::get_managed_object");
}

TEST_F(ManagedObjectApiTest, RefusesAnObjectThatCannotBeRead) {
    EXPECT_EQ(statusOfObject("{}"), 7610);
    EXPECT_THAT(errors()[0].message, testing::StartsWith("Error parsing JSON response at position "));
    EXPECT_EQ(errors()[0].tag, OBJECT_TAG);
    EXPECT_EQ(statusOfObject(object("READY", "object")), 9103);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, OBJECT_TAG, "Unexpected response type: object"}));
    EXPECT_EQ(statusOfObject(object("DELETED")), 9103);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, OBJECT_TAG, "Unexpected object state: DELETED"}));
}

TEST_F(ManagedObjectApiTest, RefusesAnObjectWhoseIdIsNoNamespace) {
    http_->answer(200, data(R"({"type":"managedObject","id":"A","attributes":{"inherit":true,"state":"READY"}})"));
    EXPECT_THROW(api_.get_object(NAMESPACE), boost::bad_lexical_cast);
}

TEST_F(ManagedObjectApiTest, ReportsAnAnswerWithoutData) {
    http_->answer(200, "{}");
    EXPECT_EQ(statusOf([this] { api_.get_object(NAMESPACE); }), 7610);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, "ManagedObjectAPI::get_managed_object",
                                              "Error getting 'data' field from JSON response"}));
}

TEST_F(ManagedObjectApiTest, SwitchesInheritanceWithABoolean) {
    http_->answer(204);
    http_->answer(204);
    api_.set_inherit(NAMESPACE, true);
    api_.set_inherit(NAMESPACE, false);
    EXPECT_THAT(
        http_->requests,
        ElementsAre(
            HttpRequest{"PATCH", URL, R"({"data":{"type":"managedObject","attributes":{"inherit":true}}})", ""},
            HttpRequest{"PATCH", URL, R"({"data":{"type":"managedObject","attributes":{"inherit":false}}})", ""}));
}

TEST_F(ManagedObjectApiTest, ReadsAccessDefinitions) {
    const AccessDefinition definition = read(Definition());
    EXPECT_EQ(definition.href, "/link");
    EXPECT_EQ(definition.id, "d-1");
    EXPECT_EQ(definition.propagation, Propagation(Propagation::CHILDREN));
    EXPECT_EQ(definition.roleId, 7);
    EXPECT_THAT(definition.operations, ElementsAre(ObjectNamespace("B"), ObjectNamespace("A")));
    EXPECT_EQ(definition.managedObject, ObjectNamespace("O"));
    EXPECT_THAT(http_->requests, ElementsAre(HttpRequest{"GET", URL + "/access-definitions", "", ""}));
}

TEST_F(ManagedObjectApiTest, ReadsADefinitionWithoutLinksOrOperations) {
    Definition bare;
    bare.links.clear();
    bare.operations = "[]";
    const AccessDefinition definition = read(bare);
    EXPECT_EQ(definition.href, "");
    EXPECT_THAT(definition.operations, IsEmpty());
}

TEST_F(ManagedObjectApiTest, RefusesADefinitionWithSomethingOfAnotherType) {
    Definition bad;
    bad.type = "definition";
    EXPECT_EQ(statusOfDefinition(bad), 9103);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, DEFINITION_TAG, "Unexpected response type: definition"}));
    bad = Definition();
    bad.roleType = "role";
    EXPECT_EQ(statusOfDefinition(bad), 9103);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, DEFINITION_TAG, "Invalid role relationship type: role"}));
    bad = Definition();
    bad.objectType = "object";
    EXPECT_EQ(statusOfDefinition(bad), 9103);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, DEFINITION_TAG, "Invalid object relationship type: object"}));
    bad = Definition();
    bad.operations = R"([{"id":"|B|","type":"accessControlOperation"},{"id":"|A|","type":"accessControlRole"}])";
    EXPECT_EQ(statusOfDefinition(bad), 9103);
    EXPECT_THAT(errors(),
                ElementsAre(LogLine{16, DEFINITION_TAG, "Invalid operation 1 relationship type: accessControlRole"}));
}

TEST_F(ManagedObjectApiTest, RefusesADefinitionOfTheWrongShape) {
    Definition bad;
    bad.links = R"("links":{},)";
    EXPECT_EQ(statusOfDefinition(bad), 7610);
    EXPECT_THAT(errors()[0].message, testing::StartsWith("Error parsing JSON response at position "));
    bad = Definition();
    bad.operations = R"([{"id":"|B|"}])";
    EXPECT_EQ(statusOfDefinition(bad), 7610);
    EXPECT_THAT(errors()[0].message, testing::StartsWith("Error parsing operation relationship 0 at position "));
}

TEST_F(ManagedObjectApiTest, RefusesTextsThatCannotBeConverted) {
    Definition bad;
    bad.propagation = "PARENT";
    EXPECT_THROW(read(bad), boost::bad_lexical_cast);
    bad = Definition();
    bad.roleId = "2147483648";
    EXPECT_THROW(read(bad), boost::bad_lexical_cast);
    bad = Definition();
    bad.operations = R"([{"id":"B","type":"accessControlOperation"}])";
    EXPECT_THROW(read(bad), boost::bad_lexical_cast);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(ManagedObjectApiTest, AddsADefinition) {
    const boost::shared_ptr<json_t> document =
        json_loads_shared(R"({"type":"accessControlRole","id":"7","attributes":{"name":"n"}})");
    const Role role(document.get());
    const boost::shared_ptr<json_t> operations = json_loads_shared(R"([{"id":"|B|","type":"accessControlOperation"}])");
    http_->answer(201, data(Definition().text()));
    EXPECT_EQ(api_.add_access_definition(NAMESPACE, role, Propagation::OBJECT, operations).id, "d-1");
    EXPECT_EQ(operations->refcount, 1U);
    EXPECT_THAT(
        http_->requests,
        ElementsAre(HttpRequest{
            "POST", URL + "/access-definitions",
            R"({"data":{"type":"accessDefinition","attributes":{"propagation":"OBJECT"},"relationships":{"role":{"data":)"
            R"({"id":"7","type":"accessControlRole"}},"operations":{"data":[{"id":"|B|","type":"accessControlOperation"}]}}}})",
            ""}));
}

TEST_F(ManagedObjectApiTest, DeletesADefinitionByItsIdAsItIs) {
    http_->answer(204);
    api_.delete_access_definition_by_id(NAMESPACE, "a b/c");
    EXPECT_THAT(http_->requests, ElementsAre(HttpRequest{"DELETE", URL + "/access-definitions/a b/c", "", ""}));
}

TEST_F(ManagedObjectApiTest, PassesFailuresOn) {
    http_->fail(9557);
    EXPECT_EQ(statusOf([this] { api_.set_inherit(NAMESPACE, true); }), 9557);
    http_->answer(200, "");
    EXPECT_EQ(statusOf([this] { api_.set_inherit(NAMESPACE, true); }), 114);
    EXPECT_THAT(errors(), ElementsAre(LogLine{16, "ManagedObjectAPI::set_inherit", "Unexpected HTTP status: 200"}));
}
