#include "sandbox/RoleResource.h"

#include "sandbox/FilterExpression.h"
#include "sandbox/Json.h"
#include "sandbox/ResourceTypes.h"
#include "sandbox/ServiceError.h"

#include <boost/lexical_cast.hpp>

#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr std::size_t LONGEST_TEXT = 256;

/// What a client may say of a role.
struct RoleDocument {
    std::string name;
    std::string description;
};

RoleDocument readRole(const std::string& body) {
    const Document document(body);
    const DocumentValue data = document.root().member("data");
    data.requireType(ROLE_TYPE);
    const DocumentValue attributes = data.member("attributes");
    const DocumentValue name = attributes.member("name");
    RoleDocument role{name.text(), {}};
    if (role.name.empty() || role.name.size() > LONGEST_TEXT) {
        name.refuse("must have 1 to 256 bytes");
    }
    if (const boost::optional<DocumentValue> description = attributes.optionalMember("description")) {
        role.description = description->text();
        if (role.description.size() > LONGEST_TEXT) {
            description->refuse("must have at most 256 bytes");
        }
    }
    return role;
}

JsonPointer resource(const RoleRecord& role) {
    const std::string id = std::to_string(role.id);
    const std::string self = "/access-control/roles/" + id;
    return json::pack("{s:s, s:{s:{s:s}}, s:s, s:{s:s, s:s, s:b}}", "type", ROLE_TYPE, "links", "self", "href",
                      self.c_str(), "id", id.c_str(), "attributes", "name", role.name.c_str(), "description",
                      role.description.c_str(), "systemDefined", static_cast<int>(role.systemDefined));
}

RoleRecord require(const ServiceTables& tables, const std::string& id) {
    std::int32_t number = 0;
    boost::optional<RoleRecord> role;
    if (boost::conversion::try_lexical_convert(id, number)) {
        role = tables.roles.find(number);
    }
    if (!role) {
        throw ServiceError(error_kinds::ROLE_UNKNOWN, id);
    }
    return *role;
}

void requireFreeName(const ServiceTables& tables, const std::string& name) {
    if (tables.roles.findByName(name)) {
        throw ServiceError(error_kinds::NAME_TAKEN, "there is a role of the name " + name);
    }
}

}  // namespace

ServiceResponse listRoles(AccessService& service, const ServiceRequest& request) {
    const FilterExpression filter(request, {{"name", true}});
    const JsonPointer list = json::array();
    service.read([&](const ServiceTables& tables) {
        for (const RoleRecord& role : tables.roles.all()) {
            if (filter.accepts(role.name)) {
                json::append(list, resource(role));
            }
        }
    });
    return {200, json::dump(json::pack("{s:O}", "data", list.get()))};
}

ServiceResponse createRole(AccessService& service, const ServiceRequest& request) {
    RoleDocument document = readRole(request.body);
    RoleRecord role{0, std::move(document.name), std::move(document.description)};
    service.change([&role](StateChange& change) {
        requireFreeName(change.tables, role.name);
        role.id = change.tables.roles.add(role.name, role.description);
    });
    return {201, json::dump(json::pack("{s:o}", "data", resource(role).release()))};
}

ServiceResponse getRole(AccessService& service, const ServiceRequest& request) {
    JsonPointer found;
    service.read([&](const ServiceTables& tables) { found = resource(require(tables, request.path.back())); });
    return {200, json::dump(json::pack("{s:o}", "data", found.release()))};
}

ServiceResponse updateRole(AccessService& service, const ServiceRequest& request) {
    const RoleDocument document = readRole(request.body);
    service.change([&](StateChange& change) {
        RoleRecord role = require(change.tables, request.path.back());
        if (role.name != document.name) {
            if (role.systemDefined) {
                throw ServiceError(error_kinds::SYSTEM_DEFINED, "the role " + role.name + " cannot be renamed");
            }
            requireFreeName(change.tables, document.name);
        }
        role.name = document.name;
        role.description = document.description;
        change.tables.roles.put(role);
    });
    return {204};
}

ServiceResponse deleteRole(AccessService& service, const ServiceRequest& request) {
    service.change([&](StateChange& change) {
        const RoleRecord role = require(change.tables, request.path.back());
        if (role.systemDefined) {
            throw ServiceError(error_kinds::SYSTEM_DEFINED, "the role " + role.name + " cannot be deleted");
        }
        const std::int64_t uses = change.tables.definitions.countOfRole(role.id);
        if (uses != 0) {
            throw ServiceError(error_kinds::ROLE_IN_USE, std::to_string(uses) + " access definitions refer to " +
                                                             role.name + "; delete them first");
        }
        change.tables.roles.remove(role.id);
    });
    return {204};
}

}  // namespace Tesmor::Arkwell::Sandbox
