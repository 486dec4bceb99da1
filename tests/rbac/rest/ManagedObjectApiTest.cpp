#include "ApiFixture.h"
#include "rbac/rest/Rbac2Json.h"

#include <rbac/ManagedObjectAPI.h>

#include <boost/lexical_cast.hpp>

#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::HttpRequest;

namespace {

const ObjectNamespace NAMESPACE("A B", "C");
const std::string URL = "arkwell/access-control/managed-objects/%7CA%2BB%7CC%7C";
constexpr char OBJECT_TAG[] = "ManagedObject::ManagedObject";
constexpr char DEFINITION_TAG[] = "AccessDefinition::AccessDefinition";

std::string data(const std::string& value) {
    return R"({"data":)" + value + "}";
}

std::string object(const std::string& state, const std::string& type = "managedObject", const std::string& id = "|A|") {
    return R"({"type":")" + type + R"(","id":")" + id + R"(","attributes":{"inherit":true,"state":")" + state + "\"}}";
}

/// The outcome of something in a document that is not of the type that it should be.
std::string unexpected(const char* tag, const std::string& message) {
    return "9103 [" + std::string(tag) + "] " + message;
}

std::string incomplete(const char* tag, const std::string& message) {
    return "7610 [" + std::string(tag) + "] " + message;
}

/// An access definition's parts, to be replaced one at a time.
struct Definition {
    std::string links = R"("links":{"self":{"href":"/link"}},)";
    std::string type = "accessDefinition";
    std::string id = "\"d-1\"";
    std::string propagation = "CHILDREN";
    std::string roleType = "accessControlRole";
    std::string roleId = "7";
    std::string operations =
        R"([{"id":"|B|","type":"accessControlOperation"},{"id":"|A|","type":"accessControlOperation"}])";
    std::string objectType = "managedObject";
    std::string objectId = "|O|";

    std::string text() const {
        return "{" + links + R"("type":")" + type + R"(","id":)" + id + R"(,"attributes":{"propagation":")" +
               propagation + R"("},"relationships":{"role":{"data":{"type":")" + roleType + R"(","id":")" + roleId +
               R"("}},"operations":{"data":)" + operations + R"(},"managedObject":{"data":{"type":")" + objectType +
               R"(","id":")" + objectId + "\"}}}}";
    }
};

class ManagedObjectApiTest : public ApiFixture {
protected:
    std::string outcomeOfObject(const std::string& document) {
        http_->answer(200, data(document));
        return outcomeOf([this] { api_.get_object(NAMESPACE); });
    }

    std::string outcomeOfDefinition(const std::string& document) {
        http_->answer(200, data("[" + document + "]"));
        return outcomeOf([this] { api_.get_access_definitions(NAMESPACE); });
    }

    /// What a definition came to in which these parts are something else.
    std::string outcomeWith(std::initializer_list<std::pair<std::string Definition::*, const char*>> parts) {
        Definition definition;
        for (const auto& [part, text] : parts) {
            definition.*part = text;
        }
        return outcomeOfDefinition(definition.text());
    }

    void add(Propagation propagation = Propagation::OBJECT) {
        api_.add_access_definition(NAMESPACE, role_, propagation, operations_);
    }

    /// Every operation of the client.
    std::vector<Operation> operations() {
        const std::string definition = Definition().text();
        return {{"ManagedObjectAPI::get_managed_object", URL, 200, data(object("READY")),
                 [this] { api_.get_object(NAMESPACE); }},
                {"ManagedObjectAPI::set_inherit", URL, 204, "", [this] { api_.set_inherit(NAMESPACE, true); }},
                {"ManagedObjectAPI::get_access_definitions", URL + "/access-definitions", 200,
                 data("[" + definition + "]"), [this] { api_.get_access_definitions(NAMESPACE); }},
                {"ManagedObjectAPI::add_access_definition", URL + "/access-definitions", 201, data(definition),
                 [this] { add(); }},
                {"ManagedObjectAPI::delete_access_definition_by_id", URL + "/access-definitions/d", 204, "",
                 [this] { api_.delete_access_definition_by_id(NAMESPACE, "d"); }}};
    }

    AccessDefinition read(const Definition& definition) {
        http_->answer(200, data("[" + definition.text() + "]"));
        return api_.get_access_definitions(NAMESPACE).front();
    }

    ManagedObjectAPI api_{http_};
    Role role_{json_loads_shared(R"({"type":"accessControlRole","id":"7","attributes":{"name":"n"}})").get()};
    boost::shared_ptr<json_t> operations_ = json_loads_shared(R"([{"id":"|B|","type":"accessControlOperation"}])");
};

}  // namespace

TEST(PropagationTest, ConvertsToItsNameAndBack) {
    const std::pair<Propagation::enum_type, const char*> cases[] = {
        {Propagation::OBJECT, "OBJECT"},
        {Propagation::CHILDREN, "CHILDREN"},
        {Propagation::OBJECT_AND_CHILDREN, "OBJECT_AND_CHILDREN"}};
    for (const auto& [value, name] : cases) {
        EXPECT_EQ(boost::lexical_cast<std::string>(Propagation(value)), name);
        EXPECT_EQ(boost::lexical_cast<std::string>(value), name);
        EXPECT_EQ(boost::lexical_cast<Propagation>(name), Propagation(value));
        EXPECT_EQ(Propagation(value).value(), value);
    }
}

TEST(PropagationTest, HasTheNumbersThatProgramsStore) {
    EXPECT_EQ(static_cast<int>(Propagation::OBJECT), 0);
    EXPECT_EQ(static_cast<int>(Propagation::CHILDREN), 1);
    EXPECT_EQ(static_cast<int>(Propagation::OBJECT_AND_CHILDREN), 2);
    EXPECT_EQ(Propagation().value(), Propagation::OBJECT);
}

TEST(PropagationTest, EqualsOnlyItsLike) {
    const Propagation children = Propagation::CHILDREN;
    EXPECT_TRUE(children == Propagation(Propagation::CHILDREN));
    EXPECT_FALSE(children != Propagation(Propagation::CHILDREN));
    EXPECT_TRUE(children != Propagation(Propagation::OBJECT));
    EXPECT_FALSE(children == Propagation(Propagation::OBJECT));
}

TEST(PropagationTest, IsReadAsABareValue) {
    std::istringstream in("CHILDREN nothing");
    Propagation::enum_type value = Propagation::OBJECT;
    in >> value;
    EXPECT_EQ(value, Propagation::CHILDREN);
    in >> value;
    EXPECT_TRUE(in.fail());
    EXPECT_EQ(value, Propagation::CHILDREN);
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
    EXPECT_THAT(http_->requests(), ElementsAre(HttpRequest{"GET", URL, "", ""}));
}

TEST_F(ManagedObjectApiTest, ReadsAnObjectThatDoesNotInherit) {
    http_->answer(200, data(R"({"type":"managedObject","id":"|","attributes":{"inherit":false,"state":"READY"}})"));
    const ManagedObjectResource read = api_.get_object(NAMESPACE);
    EXPECT_EQ(read.objectNamespace, ObjectNamespace());
    EXPECT_EQ(read.inherit, 0);
    EXPECT_EQ(read.state, ManagedObjectState::READY);
}

TEST_F(ManagedObjectApiTest, LogsEveryRequest) {
    expectToLogWhatTheyDo(operations());
}

TEST_F(ManagedObjectApiTest, ReportsAnswersWithoutData) {
    expectToReportAnswersWithoutData(operations());
}

TEST_F(ManagedObjectApiTest, TakesNoOtherSuccessForItsOwn) {
    expectToRefuseOtherStatuses(operations());
}

TEST_F(ManagedObjectApiTest, PassesTheTransportsStatusOnWithoutALog) {
    expectToPassTransportFailuresOn(operations());
}

TEST_F(ManagedObjectApiTest, PassesTheServicesErrorCodeOn) {
    http_->answer(404, R"({"errorCode":5001,"errorMessage":"no such object"})");
    EXPECT_EQ(outcomeOf([this] { api_.get_object(NAMESPACE); }),
              "5001 [ManagedObjectAPI::get_managed_object] Unexpected HTTP status: 404: no such object");
}

TEST_F(ManagedObjectApiTest, RefusesAnObjectOfTheWrongShape) {
    const std::pair<const char*, const char*> cases[] = {
        {"[]", "1: Expected object, got array"},
        {"{}", "4: Object item not found: type"},
        {R"({"type":"managedObject"})", "9: Object item not found: id"},
        {R"({"type":"managedObject","id":5})", "9: Expected string, got integer"},
        {R"({"type":"managedObject","id":"|A|"})", "14: Object item not found: attributes"},
        {R"({"type":"managedObject","id":"|A|","attributes":{"state":"READY"}})", "17: Object item not found: inherit"},
        {R"({"type":"managedObject","id":"|A|","attributes":{"inherit":1,"state":"READY"}})",
         "17: Expected true or false, got integer"},
        {R"({"type":"managedObject","id":"|A|","attributes":{"inherit":true}})", "22: Object item not found: state"}};
    for (const auto& [document, message] : cases) {
        SCOPED_TRACE(document);
        EXPECT_EQ(outcomeOfObject(document),
                  incomplete(OBJECT_TAG, std::string("Error parsing JSON response at position ") + message));
    }
}

TEST_F(ManagedObjectApiTest, RefusesAnObjectOfAnotherType) {
    EXPECT_EQ(outcomeOfObject(object("READY", "object")), unexpected(OBJECT_TAG, "Unexpected response type: object"));
}

TEST_F(ManagedObjectApiTest, RefusesAnObjectInAnotherState) {
    for (const std::string state : {"DELETED", "ready", ""}) {
        EXPECT_EQ(outcomeOfObject(object(state)), unexpected(OBJECT_TAG, "Unexpected object state: " + state));
    }
}

TEST_F(ManagedObjectApiTest, RefusesAnObjectWhoseIdIsNoNamespace) {
    EXPECT_EQ(outcomeOfObject(object("READY", "managedObject", "A")), BAD_CAST);
}

TEST_F(ManagedObjectApiTest, LooksAtAnObjectsTypeThenItsIdThenItsState) {
    EXPECT_EQ(outcomeOfObject(object("READY", "object", "A")),
              unexpected(OBJECT_TAG, "Unexpected response type: object"));
    EXPECT_EQ(outcomeOfObject(object("DELETED", "managedObject", "A")), BAD_CAST);
}

TEST_F(ManagedObjectApiTest, SwitchesInheritanceWithABoolean) {
    http_->answer(204);
    http_->answer(204);
    api_.set_inherit(NAMESPACE, true);
    api_.set_inherit(NAMESPACE, false);
    EXPECT_THAT(
        http_->requests(),
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
    EXPECT_THAT(http_->requests(), ElementsAre(HttpRequest{"GET", URL + "/access-definitions", "", ""}));
}

TEST_F(ManagedObjectApiTest, ReadsADefinitionWithoutLinksOrOperations) {
    Definition bare;
    bare.links.clear();
    bare.operations = "[]";
    const AccessDefinition definition = read(bare);
    EXPECT_EQ(definition.href, "");
    EXPECT_THAT(definition.operations, IsEmpty());
}

TEST_F(ManagedObjectApiTest, ListsDefinitionsInTheServicesOrder) {
    std::string list;
    for (const char* id : {"\"9\"", "\"3\"", "\"9\""}) {
        Definition definition;
        definition.id = id;
        list += (list.empty() ? "" : ",") + definition.text();
    }
    http_->answer(200, data("[" + list + "]"));
    std::vector<std::string> ids;
    for (const AccessDefinition& definition : api_.get_access_definitions(NAMESPACE)) {
        ids.push_back(definition.id);
    }
    EXPECT_THAT(ids, ElementsAre("9", "3", "9"));
}

TEST_F(ManagedObjectApiTest, TakesDataThatIsNoArrayForNoDefinitions) {
    http_->answer(200, data("{}"));
    EXPECT_THAT(api_.get_access_definitions(NAMESPACE), IsEmpty());
}

TEST_F(ManagedObjectApiTest, FailsAListForOneBadDefinition) {
    Definition bad;
    bad.type = "x";
    EXPECT_EQ(outcomeOfDefinition(Definition().text() + "," + bad.text()),
              unexpected(DEFINITION_TAG, "Unexpected response type: x"));
}

TEST_F(ManagedObjectApiTest, RefusesADefinitionWithSomethingOfAnotherType) {
    EXPECT_EQ(outcomeWith({{&Definition::type, "definition"}}),
              unexpected(DEFINITION_TAG, "Unexpected response type: definition"));
    EXPECT_EQ(outcomeWith({{&Definition::roleType, "role"}}),
              unexpected(DEFINITION_TAG, "Invalid role relationship type: role"));
    EXPECT_EQ(outcomeWith({{&Definition::objectType, "object"}}),
              unexpected(DEFINITION_TAG, "Invalid object relationship type: object"));
    EXPECT_EQ(
        outcomeWith({{&Definition::operations,
                      R"([{"id":"|B|","type":"accessControlOperation"},{"id":"|A|","type":"accessControlRole"}])"}}),
        unexpected(DEFINITION_TAG, "Invalid operation 1 relationship type: accessControlRole"));
}

TEST_F(ManagedObjectApiTest, RefusesADefinitionOfTheWrongShape) {
    Definition bad;
    bad.links = R"("links":{},)";
    Definition numbered;
    numbered.id = "5";
    const std::string begin = R"({"type":"accessDefinition","id":"d","attributes":{"propagation":"OBJECT"})";
    const std::string role = R"("role":{"data":{"type":"accessControlRole","id":"7"}})";
    const std::pair<std::string, const char*> cases[] = {
        {"5", "1: Expected object, got integer"},
        {"{}", "18: Object item not found: type"},
        {bad.text(), "8: Object item not found: self"},
        {R"({"type":"accessDefinition"})", "23: Object item not found: id"},
        {numbered.text(), "23: Expected string, got integer"},
        {R"({"type":"accessDefinition","id":"d"})", "28: Object item not found: attributes"},
        {R"({"type":"accessDefinition","id":"d","attributes":{}})", "31: Object item not found: propagation"},
        {begin + "}", "37: Object item not found: relationships"},
        {begin + R"(,"relationships":{}})", "40: Object item not found: role"},
        {begin + R"(,"relationships":{"role":{"data":{"type":"accessControlRole"}}}})",
         "51: Object item not found: id"},
        {begin + R"(,"relationships":{)" + role + "}}", "58: Object item not found: operations"},
        {begin + R"(,"relationships":{)" + role + R"(,"operations":{"data":[]}}})",
         "67: Object item not found: managedObject"}};
    for (const auto& [document, message] : cases) {
        SCOPED_TRACE(document);
        EXPECT_EQ(outcomeOfDefinition(document),
                  incomplete(DEFINITION_TAG, std::string("Error parsing JSON response at position ") + message));
    }
}

TEST_F(ManagedObjectApiTest, RefusesAnOperationOfTheWrongShape) {
    const std::pair<const char*, const char*> cases[] = {
        {R"([5])", "0 at position 1: Expected object, got integer"},
        {R"([{"id":"|B|"}])", "0 at position 9: Object item not found: type"},
        {R"([{"id":"|B|","type":"accessControlOperation"},{"type":"accessControlOperation"}])",
         "1 at position 4: Object item not found: id"}};
    for (const auto& [operations, message] : cases) {
        SCOPED_TRACE(operations);
        EXPECT_EQ(outcomeWith({{&Definition::operations, operations}}),
                  incomplete(DEFINITION_TAG, std::string("Error parsing operation relationship ") + message));
    }
}

TEST_F(ManagedObjectApiTest, TakesOperationsThatAreNoArrayForNone) {
    Definition none;
    none.operations = "{}";
    EXPECT_THAT(read(none).operations, IsEmpty());
}

TEST_F(ManagedObjectApiTest, RefusesTextsThatCannotBeConverted) {
    const std::pair<std::string Definition::*, const char*> cases[] = {
        {&Definition::propagation, "PARENT"},
        {&Definition::roleId, ""},
        {&Definition::roleId, "7a"},
        {&Definition::roleId, " 7"},
        {&Definition::roleId, "2147483648"},
        {&Definition::roleId, "-2147483649"},
        {&Definition::objectId, "O"},
        {&Definition::operations, R"([{"id":"B","type":"accessControlOperation"}])"}};
    for (const auto& [part, text] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(outcomeWith({{part, text}}), BAD_CAST);
    }
}

TEST_F(ManagedObjectApiTest, ReadsTheIdOfARoleWhateverTheLocale) {
    const GroupingLocale locale;
    Definition definition;
    definition.roleId = "1234567";
    EXPECT_EQ(read(definition).roleId, 1234567);
    EXPECT_EQ(outcomeWith({{&Definition::roleId, "1,234,567"}}), BAD_CAST);
}

TEST_F(ManagedObjectApiTest, ReadsTheExtremeIdsOfARole) {
    Definition definition;
    definition.roleId = "2147483647";
    EXPECT_EQ(read(definition).roleId, 2147483647);
    definition.roleId = "-2147483648";
    EXPECT_EQ(read(definition).roleId, -2147483647 - 1);
}

TEST_F(ManagedObjectApiTest, ReadsADefinitionInItsOrder) {
    constexpr char BAD_TYPE[] = R"([{"id":"B","type":"x"}])";
    EXPECT_EQ(outcomeWith({{&Definition::type, "x"}, {&Definition::propagation, "x"}}),
              unexpected(DEFINITION_TAG, "Unexpected response type: x"));
    EXPECT_EQ(outcomeWith({{&Definition::propagation, "x"}, {&Definition::roleType, "x"}}), BAD_CAST);
    EXPECT_EQ(outcomeWith({{&Definition::roleType, "x"}, {&Definition::roleId, "x"}}),
              unexpected(DEFINITION_TAG, "Invalid role relationship type: x"));
    EXPECT_EQ(outcomeWith({{&Definition::roleId, "x"}, {&Definition::objectType, "x"}}), BAD_CAST);
    EXPECT_EQ(outcomeWith({{&Definition::objectId, "x"}, {&Definition::objectType, "x"}}), BAD_CAST);
    EXPECT_EQ(outcomeWith({{&Definition::objectType, "x"}, {&Definition::operations, BAD_TYPE}}),
              unexpected(DEFINITION_TAG, "Invalid object relationship type: x"));
    EXPECT_EQ(outcomeWith({{&Definition::operations, BAD_TYPE}}),
              unexpected(DEFINITION_TAG, "Invalid operation 0 relationship type: x"));
    EXPECT_EQ(outcomeWith({{&Definition::operations, R"([{"id":"B","type":"accessControlOperation"},5])"}}), BAD_CAST);
}

TEST_F(ManagedObjectApiTest, AddsADefinition) {
    const std::pair<Propagation::enum_type, std::string> cases[] = {
        {Propagation::OBJECT, "OBJECT"},
        {Propagation::CHILDREN, "CHILDREN"},
        {Propagation::OBJECT_AND_CHILDREN, "OBJECT_AND_CHILDREN"}};
    for (const auto& [propagation, name] : cases) {
        http_->forgetRequests();
        http_->answer(201, data(Definition().text()));
        add(propagation);
        EXPECT_THAT(
            http_->requests(),
            ElementsAre(HttpRequest{"POST", URL + "/access-definitions",
                                    R"({"data":{"type":"accessDefinition","attributes":{"propagation":")" + name +
                                        R"("},"relationships":{"role":{"data":{"id":"7","type":"accessControlRole"}},)"
                                        R"("operations":{"data":[{"id":"|B|","type":"accessControlOperation"}]}}}})",
                                    ""}));
    }
}

TEST_F(ManagedObjectApiTest, GivesAnAddedDefinitionAsTheServiceHasIt) {
    http_->answer(201, data(Definition().text()));
    const AccessDefinition added = api_.add_access_definition(NAMESPACE, role_, Propagation::OBJECT, operations_);
    EXPECT_EQ(added.href, "/link");
    EXPECT_EQ(added.id, "d-1");
    EXPECT_EQ(added.propagation, Propagation(Propagation::CHILDREN));
    EXPECT_EQ(added.roleId, 7);
    EXPECT_THAT(added.operations, ElementsAre(ObjectNamespace("B"), ObjectNamespace("A")));
    EXPECT_EQ(added.managedObject, ObjectNamespace("O"));
}

TEST_F(ManagedObjectApiTest, LeavesTheOperationsOfADefinitionToTheCaller) {
    http_->answer(201, data(Definition().text()));
    add();
    EXPECT_EQ(operations_->refcount, 1U);
}

TEST_F(ManagedObjectApiTest, AddsNoDefinitionOfAnInvalidPropagation) {
    EXPECT_EQ(outcomeOf([this] { add(static_cast<Propagation::enum_type>(3)); }), "invalid propagation value");
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(ManagedObjectApiTest, AddsNoDefinitionWithoutADocumentOfOperations) {
    operations_.reset();
    EXPECT_EQ(outcomeOf([this] { add(); }), "bad_alloc [json_pack_shared] Error generating JSON: NULL object");
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(ManagedObjectApiTest, DeletesADefinitionByItsIdAsItIs) {
    http_->answer(204);
    api_.delete_access_definition_by_id(NAMESPACE, "a b/c");
    EXPECT_THAT(http_->requests(), ElementsAre(HttpRequest{"DELETE", URL + "/access-definitions/a b/c", "", ""}));
}
