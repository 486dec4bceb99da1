#include "ServiceCalls.h"

#include <platform/Status.h>
#include <rbac/AccessControlClient.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/ObjectRegistrationService.h>
#include <rbac/OperationAPI.h>
#include <rbac/RoleAPI.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <jansson.h>

#include <list>
#include <set>

namespace testing_support {

using namespace Tesmor::Arkwell::Rbac;

namespace {

const std::string SERVICE = "/arkwell/access-control/";

const std::string ROLE = R"({"type":"accessControlRole","links":{"self":{"href":"/access-control/roles/7"}},"id":"7",)"
                         R"("attributes":{"name":"auditors","description":"read everything","systemDefined":false}})";
const std::string OBJECT =
    R"({"type":"managedObject","id":"|A|OBJECT|","attributes":{"inherit":true,"state":"READY"}})";
const std::string DEFINITION =
    R"({"type":"accessDefinition","id":"1","attributes":{"propagation":"OBJECT"},"relationships":{)"
    R"("role":{"data":{"type":"accessControlRole","id":"7"}},)"
    R"("operations":{"data":[{"type":"accessControlOperation","id":"|OPERATIONS|VIEW|"}]},)"
    R"("managedObject":{"data":{"type":"managedObject","id":"|A|OBJECT|"}}}})";
const std::string OPERATION = R"({"type":"accessControlOperation","id":"|OPERATIONS|VIEW|"})";
const std::string REGISTERED =
    R"({"id":"|A|OBJECT|","relationships":{"registeredObjects":{"data":[{"id":"|A|OBJECT|"}]}}})";

ObjectNamespace object() {
    return {"A", "OBJECT"};
}

boost::shared_ptr<json_t> documentOf(const std::string& text) {
    return {json_loadb(text.data(), text.size(), 0, nullptr), json_decref};
}

Role role() {
    return Role(documentOf(ROLE).get());
}

boost::shared_ptr<ObjectRegistrationData> registrationData() {
    return boost::make_shared<ObjectRegistrationData>(object(), "DATABASE", documentOf("{}"),
                                                      std::list<ObjectNamespace>(), false);
}

/// Who is called back: with the failure that the workflow returns, or to work.
struct Caller {
    bool worked = false;
    int toldStatus = 0;

    int check(int status) const {
        EXPECT_TRUE(worked ? toldStatus == 0 : toldStatus == status) << status;
        return status;
    }
};

template <class Interface>
struct Callback : Interface, Caller {
    int process() override {
        worked = true;
        return 0;
    }
    void failed(int status) override { toldStatus = status; }
};

struct BulkCallback : BulkObjectRegistrationCallback, Caller {
    int process(std::set<ObjectNamespace>& succeeded) override {
        worked = true;
        succeeded.insert(object());
        return 0;
    }
    void failed(int status) override { toldStatus = status; }
};

int createClient() {
    boost::shared_ptr<AccessControlClient> client;
    const int status = AccessControlClient::create(ObjectNamespace(), client);
    EXPECT_EQ(client != nullptr, status == 0);
    return status;
}

int registerObject() {
    const auto caller = boost::make_shared<Callback<ObjectRegistrationCallback>>();
    return caller->check(DefaultObjectRegistrationService().registerObject(registrationData(), caller));
}

int unregisterObject() {
    const auto caller = boost::make_shared<Callback<ObjectUnregistrationCallback>>();
    return caller->check(DefaultObjectRegistrationService().unregisterObject(object(), caller));
}

int registerInBulk() {
    const auto caller = boost::make_shared<BulkCallback>();
    return caller->check(DefaultObjectRegistrationService().bulkRegisterObjects({registrationData()}, caller));
}

/// A call of a REST client.
template <class Call>
ServiceCall restCall(const char* name, int unreadable, Call call) {
    return {name, ServiceCall::THROWN, unreadable, 114, true, [call] {
                call();
                return 0;
            }};
}

ServiceCall registration(const char* name, ServiceCall::Report report, int unreadable, std::function<int()> call) {
    return {name, report, unreadable, 9103, true, std::move(call)};
}

std::vector<ServiceCall> makeCalls() {
    return {
        {"create", ServiceCall::RETURNED, 7610, 114, false, createClient},
        restCall("get_roles", 7610, [] { RoleAPI().get_roles("name eq 'x'"); }),
        restCall("get_role", 7610, [] { RoleAPI().get_role(7); }),
        restCall("create_role", 7610, [] { RoleAPI().create_role("auditors", ""); }),
        restCall("update_role", 0, [] { RoleAPI().update_role(role()); }),
        restCall("delete_role_by_id", 0, [] { RoleAPI().delete_role_by_id(7); }),
        restCall("get_object", 7610, [] { ManagedObjectAPI().get_object(object()); }),
        restCall("set_inherit", 0, [] { ManagedObjectAPI().set_inherit(object(), false); }),
        restCall("get_access_definitions", 7610, [] { ManagedObjectAPI().get_access_definitions(object()); }),
        restCall(
            "add_access_definition", 7610,
            [] { ManagedObjectAPI().add_access_definition(object(), role(), Propagation::OBJECT, documentOf("[]")); }),
        restCall("delete_access_definition_by_id", 0,
                 [] { ManagedObjectAPI().delete_access_definition_by_id(object(), "1"); }),
        restCall("get_operations", 7610, [] { OperationAPI().get_operations(""); }),
        registration("registerObject", ServiceCall::RETURNED, 9103, registerObject),
        registration("unregisterObject", ServiceCall::RETURNED, 0, unregisterObject),
        registration("bulkRegisterObjects", ServiceCall::RETURNED, 9103, registerInBulk),
        registration("changeObjectState", ServiceCall::THROWN, 0,
                     [] {
                         DefaultObjectRegistrationService().changeObjectState(object(), READY);
                         return 0;
                     }),
    };
}

bool isBelow(const std::string& path, const std::string& resource) {
    return path.rfind(SERVICE + resource, 0) == 0;
}

std::string quoted(const std::string& member) {
    return R"({"data":)" + member + "}";
}

/// The body of the answer to a GET or a POST.
std::string bodyFor(const std::string& path, bool isPost) {
    if (isBelow(path, "access-caches/")) {
        return quoted(std::string(R"({"type":"accessCache","id":")") + CACHE_ID + "\"}");
    }
    if (isBelow(path, "roles")) {
        return quoted(isPost || isBelow(path, "roles/") ? ROLE : "[" + ROLE + "]");
    }
    if (isBelow(path, "operations")) {
        return quoted("[" + OPERATION + "]");
    }
    if (isBelow(path, "object-registration-requests")) {
        return quoted(REGISTERED);
    }
    if (isBelow(path, "bulk-object-registration-requests")) {
        return quoted("[" + REGISTERED + "]");
    }
    if (path.find("/access-definitions") != std::string::npos) {
        return quoted(isPost ? DEFINITION : "[" + DEFINITION + "]");
    }
    return isBelow(path, "managed-objects/") ? quoted(OBJECT) : "";
}

}  // namespace

const std::vector<ServiceCall>& serviceCalls() {
    static const std::vector<ServiceCall> calls = makeCalls();
    return calls;
}

std::string outcomeOf(const ServiceCall& call) {
    try {
        return "returned " + std::to_string(call.call());
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.what(), getECmsg(failure.status));
        return "threw " + std::to_string(failure.status);
    } catch (const boost::bad_lexical_cast&) {
        return "threw bad_lexical_cast";
    } catch (const std::exception& failure) {
        return std::string("threw ") + failure.what();
    }
}

std::string outcomeWith(const ServiceCall& call, int status) {
    return (call.report == ServiceCall::RETURNED || status == 0 ? "returned " : "threw ") + std::to_string(status);
}

HonestAnswer honestAnswer(const HttpMessage& request) {
    const std::string method = request.line.substr(0, request.line.find(' '));
    const std::string path = request.line.substr(method.size() + 1);
    if (method == "GET") {
        return {200, bodyFor(path, false)};
    }
    return method == "POST" ? HonestAnswer{201, bodyFor(path, true)} : HonestAnswer{204, ""};
}

std::string honestBytes(const HttpMessage& request) {
    const HonestAnswer answer = honestAnswer(request);
    const std::string length =
        answer.status == 204 ? "" : "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
    return "HTTP/1.1 " + std::to_string(answer.status) + " Answer\r\n" + length + "\r\n" + answer.body;
}

}  // namespace testing_support
