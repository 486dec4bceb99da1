#include "rbac/namespace/NamespaceText.h"
#include "rbac/rest/Rbac2Curl.h"
#include "rbac/rest/Rbac2Json.h"
#include "rbac/rest/Resources.h"

#include <platform/Logger.h>
#include <rbac/EC_exception.h>
#include <rbac/ManagedObjectAPI.h>

#include <boost/lexical_cast.hpp>
#include <boost/scoped_ptr.hpp>

#include <istream>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr char OBJECTS_URL[] = "arkwell/access-control/managed-objects/";
constexpr char OBJECT_TYPE[] = "managedObject";
constexpr char DEFINITION_TYPE[] = "accessDefinition";

constexpr char OBJECT_TAG[] = "ManagedObject::ManagedObject";
constexpr char DEFINITION_TAG[] = "AccessDefinition::AccessDefinition";

constexpr const char* PROPAGATION_NAMES[] = {"OBJECT", "CHILDREN", "OBJECT_AND_CHILDREN"};

ManagedObjectState parseState(const std::string& text) {
    if (text == READY_STR) {
        return READY;
    }
    if (text == PENDING_STR) {
        return PENDING;
    }
    logmsgf(16, OBJECT_TAG, "Unexpected object state: %s", text.c_str());
    throw EC_exception(DOCUMENT_UNEXPECTED);
}

ObjectNamespace readOperationReference(const json_t* reference, int index) {
    const char* id = nullptr;
    const char* type = nullptr;
    json_error_t error;
    if (json_unpack_ex(unpackable(reference), &error, 0, "{s:s, s:s}", "id", &id, "type", &type) != 0) {
        logmsgf(16, DEFINITION_TAG, "Error parsing operation relationship %d at position %d: %s", index, error.position,
                error.text);
        throw EC_exception(DOCUMENT_INCOMPLETE);
    }
    if (type != std::string(OPERATION_TYPE)) {
        logmsgf(16, DEFINITION_TAG, "Invalid operation %d relationship type: %s", index, type);
        throw EC_exception(DOCUMENT_UNEXPECTED);
    }
    return NamespaceText::parse(id);
}

std::string urlOfObject(const ObjectNamespace& ns) {
    return OBJECTS_URL + encode_uri_part(NamespaceText::of(ns));
}

std::string urlOfDefinitions(const ObjectNamespace& ns) {
    return urlOfObject(ns) + "/access-definitions";
}

}  // namespace

const std::string READY_STR = "READY";
const std::string PENDING_STR = "PENDING";
const std::string DELETED_STR = "DELETED";

std::ostream& operator<<(std::ostream& out, Propagation::enum_type value) {
    const auto index = static_cast<std::size_t>(value);
    if (index >= std::size(PROPAGATION_NAMES)) {
        throw std::invalid_argument("invalid propagation value");
    }
    return out << PROPAGATION_NAMES[index];
}

std::ostream& operator<<(std::ostream& out, const Propagation& propagation) {
    return out << propagation.value();
}

std::istream& operator>>(std::istream& in, Propagation::enum_type& value) {
    std::string word;
    if (in.good()) {
        in >> word;
    }
    for (std::size_t i = 0; i < std::size(PROPAGATION_NAMES); ++i) {
        if (word == PROPAGATION_NAMES[i]) {
            value = static_cast<Propagation::enum_type>(i);
            return in;
        }
    }
    in.setstate(std::ios::failbit);
    return in;
}

std::istream& operator>>(std::istream& in, Propagation& propagation) {
    Propagation::enum_type value = propagation.value();
    in >> value;
    propagation = value;
    return in;
}

ManagedObjectResource::ManagedObjectResource(const json_t* resource) {
    const char* type = nullptr;
    const char* id = nullptr;
    const char* stateText = nullptr;
    json_error_t error;
    if (json_unpack_ex(unpackable(resource), &error, 0, "{s:s, s:s, s:{s:b, s:s}}", "type", &type, "id", &id,
                       "attributes", "inherit", &inherit, "state", &stateText) != 0) {
        throw_incomplete(error, OBJECT_TAG);
    }
    require_type(type, OBJECT_TYPE, OBJECT_TAG);
    objectNamespace = NamespaceText::parse(id);
    state = parseState(stateText);
}

AccessDefinition::AccessDefinition(const json_t* resource) {
    const char* link = nullptr;
    const char* type = nullptr;
    const char* idText = nullptr;
    const char* propagationText = nullptr;
    const char* roleType = nullptr;
    const char* roleText = nullptr;
    json_t* operationReferences = nullptr;
    const char* objectType = nullptr;
    const char* objectText = nullptr;
    json_error_t error;
    if (json_unpack_ex(unpackable(resource), &error, 0,
                       "{s?:{s:{s:s}}, s:s, s:s, s:{s:s}, s:{s:{s:{s:s, s:s}}, s:{s:o}, s:{s:{s:s, s:s}}}}", "links",
                       "self", "href", &link, "type", &type, "id", &idText, "attributes", "propagation",
                       &propagationText, "relationships", "role", "data", "type", &roleType, "id", &roleText,
                       "operations", "data", &operationReferences, "managedObject", "data", "type", &objectType, "id",
                       &objectText) != 0) {
        throw_incomplete(error, DEFINITION_TAG);
    }
    require_type(type, DEFINITION_TYPE, DEFINITION_TAG);
    if (link != nullptr) {
        href = link;
    }
    // The format asks for the id already, so that a definition without one has failed above.
    if (idText == nullptr) {
        // GCOVR_EXCL_START
        logmsg(16, DEFINITION_TAG, "Missing 'id' value");
        throw EC_exception(DOCUMENT_UNEXPECTED);
        // GCOVR_EXCL_STOP
    }
    id = idText;
    propagation = boost::lexical_cast<Propagation>(propagationText);
    if (roleType != std::string(ROLE_TYPE)) {
        logmsgf(16, DEFINITION_TAG, "Invalid role relationship type: %s", roleType);
        throw EC_exception(DOCUMENT_UNEXPECTED);
    }
    roleId = parse_role_id(roleText);
    managedObject = NamespaceText::parse(objectText);
    if (objectType != std::string(OBJECT_TYPE)) {
        logmsgf(16, DEFINITION_TAG, "Invalid object relationship type: %s", objectType);
        throw EC_exception(DOCUMENT_UNEXPECTED);
    }
    for (std::size_t i = 0; i < json_array_size(operationReferences); ++i) {
        operations.push_back(readOperationReference(json_array_get(operationReferences, i), static_cast<int>(i)));
    }
}

ManagedObjectAPI::ManagedObjectAPI() = default;

ManagedObjectAPI::ManagedObjectAPI(boost::shared_ptr<AWClientCURL_BaseFactory> factory) : BaseAPI(std::move(factory)) {}

ManagedObjectResource ManagedObjectAPI::get_object(const ObjectNamespace& ns) {
    constexpr char TAG[] = "ManagedObjectAPI::get_managed_object";
    const std::string url = urlOfObject(ns);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    const boost::shared_ptr<json_t> document =
        parse_response(finish_request(*client, client->Get(url), url, 200, TAG), TAG);
    return ManagedObjectResource(data_of(document.get(), TAG));
}

void ManagedObjectAPI::set_inherit(const ObjectNamespace& ns, bool inherit) {
    const std::string url = urlOfObject(ns);
    const boost::shared_ptr<json_t> document =
        json_pack_shared("{s:{s:s, s:{s:b}}}", "data", "type", OBJECT_TYPE, "attributes", "inherit", inherit ? 1 : 0);
    const boost::shared_ptr<char> body = json_dumps_shared(document);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    finish_request(*client, client->Patch(url, body.get()), url, 204, "ManagedObjectAPI::set_inherit");
}

std::list<AccessDefinition> ManagedObjectAPI::get_access_definitions(const ObjectNamespace& ns) {
    constexpr char TAG[] = "ManagedObjectAPI::get_access_definitions";
    const std::string url = urlOfDefinitions(ns);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    const boost::shared_ptr<json_t> document =
        parse_response(finish_request(*client, client->Get(url), url, 200, TAG), TAG);
    std::list<AccessDefinition> definitions;
    append_records<AccessDefinition>(data_of(document.get(), TAG), definitions);
    return definitions;
}

AccessDefinition ManagedObjectAPI::add_access_definition(
    const ObjectNamespace& ns, const Role& role, Propagation propagation,
    boost::shared_ptr<json_t> operations) {  // NOLINT(performance-unnecessary-value-param)
    constexpr char TAG[] = "ManagedObjectAPI::add_access_definition";
    const std::string url = urlOfDefinitions(ns);
    const auto propagationText = boost::lexical_cast<std::string>(propagation);
    const std::string roleText = std::to_string(role.id);
    const boost::shared_ptr<json_t> document =
        json_pack_shared("{s:{s:s, s:{s:s}, s:{s:{s:{s:s, s:s}}, s:{s:O}}}}", "data", "type", DEFINITION_TYPE,
                         "attributes", "propagation", propagationText.c_str(), "relationships", "role", "data", "id",
                         roleText.c_str(), "type", ROLE_TYPE, "operations", "data", operations.get());
    const boost::shared_ptr<char> body = json_dumps_shared(document);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    const boost::shared_ptr<json_t> answer =
        parse_response(finish_request(*client, client->Post(url, body.get()), url, 201, TAG), TAG);
    return AccessDefinition(data_of(answer.get(), TAG));
}

void ManagedObjectAPI::delete_access_definition_by_id(const ObjectNamespace& ns, const std::string& id) {
    const std::string url = urlOfDefinitions(ns) + "/" + id;
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    finish_request(*client, client->Delete(url), url, 204, "ManagedObjectAPI::delete_access_definition_by_id");
}

}  // namespace Tesmor::Arkwell::Rbac
