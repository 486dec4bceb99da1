#include "rbac/rest/Rbac2Curl.h"
#include "rbac/rest/Rbac2Json.h"
#include "rbac/rest/Resources.h"

#include <platform/Logger.h>
#include <rbac/EC_exception.h>
#include <rbac/RoleAPI.h>

#include <boost/lexical_cast/bad_lexical_cast.hpp>
#include <boost/scoped_ptr.hpp>

#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr char ROLES_URL[] = "arkwell/access-control/roles";
constexpr char ROLE_TAG[] = "Role::Role";

constexpr std::size_t LONGEST_NEW_NAME = 64;
constexpr std::size_t LONGEST_NAME = 256;  // of a role that is there already
constexpr std::size_t LONGEST_DESCRIPTION = 256;

int parseRoleId(const char* text) {
    int id = 0;
    try {
        id = parse_role_id(text);
    } catch (const boost::bad_lexical_cast& failure) {
        logmsgf(16, ROLE_TAG, "Invalid role ID in response: %s (%s)", text, failure.what());
        throw EC_exception(DOCUMENT_UNEXPECTED);
    }
    if (id < 0) {
        logmsgf(16, ROLE_TAG, "Invalid role ID in response: %s", text);
        throw EC_exception(DOCUMENT_UNEXPECTED);
    }
    return id;
}

void requireLimits(const std::string& name, std::size_t longestName, const std::string& description) {
    if (name.size() > longestName) {
        throw std::length_error("limit for role name is " + std::to_string(longestName));
    }
    if (description.size() > LONGEST_DESCRIPTION) {
        throw std::length_error("limit for role description is " + std::to_string(LONGEST_DESCRIPTION));
    }
    if (name.empty()) {
        throw std::invalid_argument("role name is required");
    }
}

/// What a role is named and described with. The texts have their lengths, so that none ends at a NUL.
boost::shared_ptr<json_t> attributesOf(const std::string& name, const std::string& description) {
    if (description.empty()) {
        return json_pack_shared("{s:s%}", "name", name.data(), name.size());
    }
    return json_pack_shared("{s:s%, s:s%}", "name", name.data(), name.size(), "description", description.data(),
                            description.size());
}

/// The document that a role is created and updated with.
std::string roleDocument(const std::string& name, const std::string& description) {
    const boost::shared_ptr<json_t> document = json_pack_shared("{s:{s:s, s:O}}", "data", "type", ROLE_TYPE,
                                                                "attributes", attributesOf(name, description).get());
    return json_dumps_shared(document).get();
}

std::string urlOfRole(int id) {
    return std::string(ROLES_URL) + "/" + std::to_string(id);
}

/// The role in an answer.
Role roleIn(const std::string& body, const char* who) {
    const boost::shared_ptr<json_t> document = parse_response(body, who);
    return Role(data_of(document.get(), who));
}

}  // namespace

Role::Role(const json_t* resource) {
    const char* type = nullptr;
    const char* link = nullptr;
    const char* idText = nullptr;
    const char* nameText = nullptr;
    const char* descriptionText = nullptr;
    int isSystemDefined = 0;
    json_error_t error;
    if (json_unpack_ex(unpackable(resource), &error, 0, "{s:s, s?:{s:{s:s}}, s:s, s:{s:s, s?:s, s?:b}}", "type", &type,
                       "links", "self", "href", &link, "id", &idText, "attributes", "name", &nameText, "description",
                       &descriptionText, "systemDefined", &isSystemDefined) != 0) {
        throw_incomplete(error, ROLE_TAG);
    }
    require_type(type, ROLE_TYPE, ROLE_TAG);
    if (link != nullptr) {
        href = link;
    }
    // The format asks for the id already, so that a role without one has failed above.
    if (idText == nullptr) {
        // GCOVR_EXCL_START
        logmsg(16, ROLE_TAG, "Missing 'id' value");
        throw EC_exception(DOCUMENT_UNEXPECTED);
        // GCOVR_EXCL_STOP
    }
    id = parseRoleId(idText);
    name = nameText;
    if (descriptionText != nullptr) {
        description = descriptionText;
    }
    systemDefined = isSystemDefined != 0;
}

RoleAPI::RoleAPI() = default;

RoleAPI::RoleAPI(boost::shared_ptr<AWClientCURL_BaseFactory> factory) : BaseAPI(std::move(factory)) {}

std::list<Role> RoleAPI::get_roles(const std::string& filter) {
    constexpr char TAG[] = "RoleAPI::get_roles";
    const std::string url = filtered(ROLES_URL, filter);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    const boost::shared_ptr<json_t> document =
        parse_response(finish_request(*client, client->Get(url), url, 200, TAG), TAG);
    std::list<Role> roles;
    append_records<Role>(data_of(document.get(), TAG), roles);
    return roles;
}

Role RoleAPI::get_role(int id) {
    constexpr char TAG[] = "RoleAPI::get_role";
    const std::string url = urlOfRole(id);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    return roleIn(finish_request(*client, client->Get(url), url, 200, TAG), TAG);
}

Role RoleAPI::create_role(const std::string& name, const std::string& description) {
    constexpr char TAG[] = "RoleAPI::create_role";
    requireLimits(name, LONGEST_NEW_NAME, description);
    const std::string document = roleDocument(name, description);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    return roleIn(finish_request(*client, client->Post(ROLES_URL, document), ROLES_URL, 201, TAG), TAG);
}

void RoleAPI::update_role(const Role& role) {
    requireLimits(role.name, LONGEST_NAME, role.description);
    const std::string url = "arkwell" + role.href;
    const std::string document = roleDocument(role.name, role.description);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    finish_request(*client, client->Put(url, document), url, 204, "RoleAPI::update_role");
}

void RoleAPI::delete_role_by_id(int id) {
    const std::string url = urlOfRole(id);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    finish_request(*client, client->Delete(url), url, 204, "RoleAPI::delete_role_by_id");
}

}  // namespace Tesmor::Arkwell::Rbac
