// Any bytes as the service's answer to a client of one of its resources. The first byte of an input says which request
// is answered, the second whether it succeeds, the others are the answer's body.

#include "FuzzHost.h"
#include "testing/ScriptedHttp.h"

#include <platform/Text.h>
#include <rbac/EC_exception.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/OperationAPI.h>
#include <rbac/RoleAPI.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

using namespace Tesmor::Arkwell::Rbac;
using testing_support::ScriptedHttp;

namespace {

const ObjectNamespace OBJECT("A", "OBJECT");

void requireText(const ObjectNamespace& ns) {
    require(boost::lexical_cast<ObjectNamespace>(ns.str()) == ns);
}

void look(const Role& role) {
    require(role.id >= 0);
}

void look(const ManagedObjectResource& object) {
    require((object.inherit == 0 || object.inherit == 1) && (object.state == READY || object.state == PENDING));
    requireText(object.objectNamespace);
}

void look(const AccessDefinition& definition) {
    require(definition.propagation.value() <= Propagation::OBJECT_AND_CHILDREN);
    requireText(definition.managedObject);
    for (const ObjectNamespace& operation : definition.operations) {
        requireText(operation);
    }
}

void look(const ObjectNamespace& operation) {
    requireText(operation);
}

template <class List>
void lookAtAll(const List& records) {
    for (const auto& record : records) {
        look(record);
    }
}

/// The clients, and whose requests are answered.
struct Clients {
    boost::shared_ptr<ScriptedHttp> http = boost::make_shared<ScriptedHttp>();
    RoleAPI roles{http};
    ManagedObjectAPI objects{http};
    OperationAPI operations{http};
    boost::shared_ptr<json_t> granted{json_array(), json_decref};

    /// A role that the service has described before.
    static Role knownRole() {
        const boost::shared_ptr<json_t> document(
            json_pack("{s:s, s:s, s:{s:s}}", "type", "accessControlRole", "id", "7", "attributes", "name", "auditors"),
            json_decref);
        return Role(document.get());
    }
};

struct Request {
    char letter;
    long success;
    std::function<void(Clients&)> send;
};

const Request REQUESTS[] = {
    {'l', 200, [](Clients& c) { lookAtAll(c.roles.get_roles("")); }},
    {'r', 200, [](Clients& c) { look(c.roles.get_role(7)); }},
    {'c', 201, [](Clients& c) { look(c.roles.create_role("auditors", "")); }},
    {'m', 200, [](Clients& c) { look(c.objects.get_object(OBJECT)); }},
    {'d', 200, [](Clients& c) { lookAtAll(c.objects.get_access_definitions(OBJECT)); }},
    {'a', 201,
     [](Clients& c) {
         look(c.objects.add_access_definition(OBJECT, Clients::knownRole(), Propagation::CHILDREN, c.granted));
     }},
    {'o', 200, [](Clients& c) { lookAtAll(c.operations.get_operations("")); }},
    {'x', 204, [](Clients& c) { c.roles.delete_role_by_id(7); }},
};

const Request& requestOf(std::uint8_t letter) {
    for (const Request& request : REQUESTS) {
        if (request.letter == static_cast<char>(letter)) {
            return request;
        }
    }
    return REQUESTS[letter % std::size(REQUESTS)];
}

void requireReason(int status, bool success, const std::string& body) {
    if (success) {
        require(status == 7610 || status == 9103);
        return;
    }
    // Bodies are read up to their first NUL here.
    int named = 0;
    require(status == 114 || (extractErrorFromJSON(body.c_str(), named) == 0 && status == named));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const FuzzHost host;
    static Clients clients;
    if (size < 2) {
        return 0;
    }
    const Request& request = requestOf(data[0]);
    const bool success = data[1] != '-';
    const std::string body(reinterpret_cast<const char*>(data) + 2, size - 2);
    clients.http->answer(success ? request.success : 400, body);
    try {
        request.send(clients);
        require(success);
    } catch (const EC_exception& failure) {
        requireReason(failure.status, success, body);
    } catch (const boost::bad_lexical_cast&) {
        require(success);
    }
    require(clients.http->liveClients() == 0 && clients.http->requests().size() == 1);
    clients.http->forgetRequests();
    return 0;
}
