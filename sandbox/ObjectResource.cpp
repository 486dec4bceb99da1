#include "sandbox/ObjectResource.h"

#include "sandbox/DefinitionRules.h"
#include "sandbox/Json.h"
#include "sandbox/ResourceTypes.h"
#include "sandbox/ServiceError.h"

#include <platform/Text.h>

#include <boost/lexical_cast.hpp>

#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr std::size_t OBJECT_PART = 3;  // of the path

/// The object that the path names, as its text form is written by everybody.
std::string objectName(const ServiceRequest& request) {
    return parseNamespace(request.path.at(OBJECT_PART)).str();
}

JsonPointer resource(const ObjectRecord& object) {
    return json::pack("{s:s, s:s, s:{s:b, s:s, s:s}}", "type", OBJECT_TYPE, "id", object.name.c_str(), "attributes",
                      "inherit", static_cast<int>(object.inherit), "state", stateText(object.state), "objectType",
                      object.type.c_str());
}

/// Access definitions of one object as documents.
class DefinitionWriter {
public:
    explicit DefinitionWriter(const std::string& object) : object_(object) {
        std::string encoded;
        percentEncodeUriPart(object, encoded);
        path_ = "/access-control/managed-objects/" + encoded + "/access-definitions/";
    }

    JsonPointer resource(const DefinitionRecord& definition) const {
        const std::string id = std::to_string(definition.id);
        const std::string roleId = std::to_string(definition.roleId);
        const JsonPointer operations = json::array();
        for (const std::string& operation : definition.operations) {
            json::append(operations, json::pack("{s:s, s:s}", "id", operation.c_str(), "type", OPERATION_TYPE));
        }
        return json::pack("{s:{s:{s:s}}, s:s, s:s, s:{s:s}, s:{s:{s:{s:s, s:s}}, s:{s:O}, s:{s:{s:s, s:s}}}}",       //
                          "links", "self", "href", (path_ + id).c_str(), "type", DEFINITION_TYPE, "id", id.c_str(),  //
                          "attributes", "propagation", propagationText(definition.propagation),                      //
                          "relationships", "role", "data", "type", ROLE_TYPE, "id", roleId.c_str(),                  //
                          "operations", "data", operations.get(),                                                    //
                          "managedObject", "data", "type", OBJECT_TYPE, "id", object_.c_str());
    }

private:
    const std::string& object_;
    std::string path_;
};

DefinitionRecord readDefinition(const std::string& body) {
    const Document document(body);
    const DocumentValue data = document.root().member("data");
    data.requireType(DEFINITION_TYPE);
    DefinitionRecord definition;
    definition.propagation = readPropagation(data.member("attributes").member("propagation"));
    const DocumentValue relationships = data.member("relationships");
    const DocumentValue role = relationships.member("role").member("data");
    role.requireType(ROLE_TYPE);
    definition.roleId = role.member("id").number();
    for (const DocumentValue& operation : relationships.member("operations").member("data").elements()) {
        operation.requireType(OPERATION_TYPE);
        definition.operations.push_back(operation.member("id").objectName().str());
    }
    return definition;
}

}  // namespace

ServiceResponse getObject(AccessService& service, const ServiceRequest& request) {
    const std::string name = objectName(request);
    JsonPointer found;
    service.read([&](const ServiceTables& tables) { found = resource(requireObject(tables, name)); });
    return {200, json::dump(json::pack("{s:o}", "data", found.release()))};
}

ServiceResponse patchObject(AccessService& service, const ServiceRequest& request) {
    const std::string name = objectName(request);
    const Document document(request.body);
    const DocumentValue data = document.root().member("data");
    data.requireType(OBJECT_TYPE);
    const bool inherit = data.member("attributes").member("inherit").boolean();
    service.change([&](StateChange& change) {
        requireObject(change.tables, name);
        change.tables.objects.setInherit(name, inherit);
        change.touch(name);
    });
    return {204};
}

ServiceResponse listDefinitions(AccessService& service, const ServiceRequest& request) {
    const std::string name = objectName(request);
    const DefinitionWriter writer(name);
    const JsonPointer list = json::array();
    service.read([&](const ServiceTables& tables) {
        requireObject(tables, name);
        for (const DefinitionRecord& definition : tables.definitions.ofObject(name)) {
            json::append(list, writer.resource(definition));
        }
    });
    return {200, json::dump(json::pack("{s:O}", "data", list.get()))};
}

ServiceResponse addDefinition(AccessService& service, const ServiceRequest& request) {
    DefinitionRecord definition = readDefinition(request.body);
    definition.object = objectName(request);
    service.change([&definition](StateChange& change) {
        requireObject(change.tables, definition.object);
        requireUsable(change.tables, definition);
        definition.id = change.tables.definitions.add(definition);
        change.touch(definition.object);
    });
    JsonPointer added = DefinitionWriter(definition.object).resource(definition);
    return {201, json::dump(json::pack("{s:o}", "data", added.release()))};
}

ServiceResponse deleteDefinition(AccessService& service, const ServiceRequest& request) {
    const std::string name = objectName(request);
    const std::string& id = request.path.back();
    std::int64_t number = 0;
    const bool isNumber = boost::conversion::try_lexical_convert(id, number);
    service.change([&](StateChange& change) {
        requireObject(change.tables, name);
        if (!isNumber || !change.tables.definitions.exists(name, number)) {
            throw ServiceError(error_kinds::DEFINITION_UNKNOWN, id);
        }
        change.tables.definitions.remove(number);
        change.touch(name);
    });
    return {204};
}

}  // namespace Tesmor::Arkwell::Sandbox
