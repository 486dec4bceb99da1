#include "sandbox/RegistrationResource.h"

#include "sandbox/DefinitionRules.h"
#include "sandbox/Json.h"
#include "sandbox/ResourceTypes.h"
#include "sandbox/ServiceError.h"

#include <map>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {

namespace {

/// An object that somebody wants to register.
struct Registration {
    ObjectRecord object;
    std::vector<DefinitionRecord> definitions = {};
    std::vector<std::string> children = {};
    bool ignoreRegistered = false;
};

/// {"roleId": 5, "propagation": "OBJECT", "operations": ["|OPERATIONS|VIEW|"]}
DefinitionRecord readDefinition(const DocumentValue& value, const std::string& object) {
    value.requireOnly({"roleId", "propagation", "operations"});
    DefinitionRecord definition;
    definition.object = object;
    definition.roleId = value.member("roleId").number();
    definition.propagation = readPropagation(value.member("propagation"));
    for (const DocumentValue& operation : value.member("operations").elements()) {
        definition.operations.push_back(operation.objectName().str());
    }
    return definition;
}

/// {"inherit": true, "accessDefinitions": [...]}, both optional. Nothing else is let through: what is misspelt here
/// would protect an object in another way than was meant.
void readAccessControl(const DocumentValue& value, Registration& registration) {
    value.requireOnly({"inherit", "accessDefinitions"});
    if (const boost::optional<DocumentValue> inherit = value.optionalMember("inherit")) {
        registration.object.inherit = inherit->boolean();
    }
    if (const boost::optional<DocumentValue> definitions = value.optionalMember("accessDefinitions")) {
        for (const DocumentValue& definition : definitions->elements()) {
            registration.definitions.push_back(readDefinition(definition, registration.object.name));
        }
    }
}

Registration readRegistration(const DocumentValue& data) {
    data.requireType(REGISTRATION_TYPE);
    const ObjectNamespace name = data.member("id").objectName();
    const DocumentValue attributes = data.member("attributes");
    Registration registration{{name.str(), attributes.member("objectType").text()}};
    registration.object.state = ObjectState::PENDING;
    if (const boost::optional<DocumentValue> ignore = attributes.optionalMember("ignoreAlreadyRegistered")) {
        registration.ignoreRegistered = ignore->boolean();
    }
    if (const boost::optional<DocumentValue> access = attributes.optionalMember("accessControlAttributes")) {
        readAccessControl(*access, registration);
    }
    if (const boost::optional<DocumentValue> children = attributes.optionalMember("relativeChildNamespaces")) {
        for (const DocumentValue& child : children->elements()) {
            registration.children.push_back((name | child.objectName()).str());
        }
    }
    return registration;
}

/// Records objects as PENDING.
class Registrar {
public:
    Registrar(StateChange& change, const std::string& client) : change_(change), client_(client) {}

    /// @return what was registered. What had been registered before is left as it is and is not part of it, so that
    /// whoever takes a failed registration back does not take away what others rely on.
    std::vector<std::string> add(const Registration& registration) {
        std::vector<std::string> registered;
        if (add(registration.object, registration.ignoreRegistered)) {
            registered.push_back(registration.object.name);
            for (const DefinitionRecord& definition : registration.definitions) {
                requireUsable(change_.tables, definition);
                change_.tables.definitions.add(definition);
            }
        }
        for (const std::string& name : registration.children) {
            ObjectRecord child{name, registration.object.type};
            child.state = ObjectState::PENDING;
            if (add(child, registration.ignoreRegistered)) {
                registered.push_back(name);
            }
        }
        return registered;
    }

private:
    bool add(ObjectRecord object, bool ignoreRegistered) {
        if (const boost::optional<ObjectRecord> known = change_.tables.objects.find(object.name)) {
            if (!ignoreRegistered) {
                throw ServiceError(error_kinds::ALREADY_REGISTERED, object.name + " is " + stateText(known->state));
            }
            return false;
        }
        object.changedAt = now_;
        object.changedBy = client_;
        change_.tables.objects.add(object);
        change_.touch(object.name);
        return true;
    }

    StateChange& change_;
    const std::string& client_;
    std::string now_ = currentTime();
};

JsonPointer registeredResource(const std::string& name, const std::vector<std::string>& registered) {
    const JsonPointer list = json::array();
    for (const std::string& object : registered) {
        json::append(list, json::pack("{s:s, s:s}", "type", OBJECT_TYPE, "id", object.c_str()));
    }
    return json::pack("{s:s, s:s, s:{s:{s:O}}}", "type", REGISTRATION_TYPE, "id", name.c_str(), "relationships",
                      "registeredObjects", "data", list.get());
}

/// The states that objects are to have, by name.
std::map<std::string, ObjectState> readUpdate(const std::string& body) {
    const Document document(body);
    const DocumentValue data = document.root().member("data");
    data.requireType(UPDATE_TYPE);
    std::map<std::string, ObjectState> states;
    for (const DocumentValue& pair : data.member("attributes").member("managedObjectsWithAttributes").elements()) {
        const std::string name = pair.member("objectId").objectName().str();
        const DocumentValue value = pair.member("state");
        const boost::optional<ObjectState> state = stateOf(value.text());
        if (!state) {
            value.refuse("must be READY, PENDING or DELETED");
        }
        const auto known = states.emplace(name, *state).first;
        if (known->second != *state) {
            value.refuse(std::string("contradicts ") + stateText(known->second) + " for the same object");
        }
    }
    return states;
}

}  // namespace

ServiceResponse registerObject(AccessService& service, const ServiceRequest& request) {
    const Document document(request.body);
    const Registration registration = readRegistration(document.root().member("data"));
    JsonPointer resource;
    service.change([&](StateChange& change) {
        resource = registeredResource(registration.object.name, Registrar(change, request.client).add(registration));
    });
    return {201, json::dump(json::pack("{s:o}", "data", resource.release()))};
}

ServiceResponse registerObjects(AccessService& service, const ServiceRequest& request) {
    std::vector<Registration> registrations;
    {
        const Document document(request.body);
        for (const DocumentValue& data : document.root().member("data").elements()) {
            registrations.push_back(readRegistration(data));
        }
    }
    const JsonPointer list = json::array();
    service.change([&](StateChange& change) {
        Registrar registrar(change, request.client);
        for (const Registration& registration : registrations) {
            json::append(list, registeredResource(registration.object.name, registrar.add(registration)));
        }
    });
    return {201, json::dump(json::pack("{s:O}", "data", list.get()))};
}

ServiceResponse updateObjects(AccessService& service, const ServiceRequest& request) {
    const std::map<std::string, ObjectState> states = readUpdate(request.body);
    service.change([&](StateChange& change) {
        for (const auto& [name, state] : states) {
            setState(change, requireObject(change.tables, name), state, request.client);
        }
    });
    return {201, json::dump(json::pack("{s:{s:s}}", "data", "type", UPDATE_TYPE))};
}

}  // namespace Tesmor::Arkwell::Sandbox
