#include "platform/Handles.h"
#include "rbac/namespace/NamespaceText.h"
#include "rbac/rest/Rbac2Curl.h"
#include "rbac/rest/Rbac2Json.h"
#include "rbac/rest/Resources.h"

#include <platform/Logger.h>
#include <platform/Text.h>
#include <rbac/EC_exception.h>
#include <rbac/ObjectRegistrationService.h>

#include <boost/make_shared.hpp>
#include <boost/scoped_ptr.hpp>

#include <new>
#include <stdexcept>
#include <utility>

// What the registration service sends, and what it reads out of the answers.

namespace Tesmor::Arkwell::Rbac {

namespace {

using platform_detail::JsonPointer;

const std::string MAX_VERSION = "6.0";
const std::string VERSION_PARAMETER = ";version=" + MAX_VERSION;

constexpr char SEND_TAG[] = "DefaultObjectRegistrationService::sendHttpRequest";
constexpr char SINGLE_TAG[] = "DefaultObjectRegistrationService::extractRegisteredNamespaces";
constexpr char BULK_TAG[] = "DefaultObjectRegistrationService::extractBulkRegisteredNamespaces";

/// Sends a request of a kind that there is; nothing for any other.
///
/// @throws EC_exception with the transport's status, which is logged.
void transmit(AWClientCURL_Base& client, HttpRequestType type, const std::string& url, const std::string& payload) {
    int status = 0;
    switch (type) {
        case HTTP_POST:
            status = client.Post(url, payload);
            if (status != 0) {
                logmsgf(16, SEND_TAG,
                        "Failed to send the POST object register request(%s). CURL request failed. error  = %d",
                        url.c_str(), status);
            }
            break;
        case HTTP_DELETE:
            status = client.Delete(url);
            if (status != 0) {
                logmsgf(16, SEND_TAG, "Failed to send the DELETE object request(%s). CURL request failed. error  = %d",
                        url.c_str(), status);
            }
            break;
        case HTTP_PATCH:
            status = client.Patch(url, payload);
            if (status != 0) {
                logmsgf(16, SEND_TAG,
                        "Failed to send the PATCH object unregister request(%s). CURL request failed. error  = %d",
                        url.c_str(), status);
            }
            break;
    }
    if (status != 0) {
        throw EC_exception(status);
    }
}

/// The HTTP status that a request of this kind succeeds with.
long successStatus(HttpRequestType type) {
    switch (type) {
        case HTTP_POST:
            return 201;
        case HTTP_DELETE:
        case HTTP_PATCH:
            return 204;
    }
    return 0;  // what a client has that has sent nothing
}

[[noreturn]] void throwServiceError(const AWClientCURL_Base& client) {
    int error = 0;
    if (const int parseError = extractErrorFromJSON(client.responseBody, error); parseError != 0) {
        logmsgf(16, SEND_TAG, "Failed to parse error from JSON response. HTTP response code = %ld. parse error = %d",
                client.httpStatus, parseError);
        throw EC_exception(DOCUMENT_UNEXPECTED);
    }
    logmsgf(16, SEND_TAG, "Failed to register object. HTTP response code = %ld. error = %d", client.httpStatus, error);
    throw EC_exception(error);
}

void append(json_t* array, const boost::shared_ptr<json_t>& element) {
    if (json_array_append(array, element.get()) != 0) {
        throw std::bad_alloc();
    }
}

void appendStatePairs(json_t* array, const std::list<ObjectNamespace>& objects, const std::string& state) {
    for (const ObjectNamespace& ns : objects) {
        append(array, DefaultObjectRegistrationService::buildNamespaceStatePair(ns, state));
    }
}

[[noreturn]] void throwUnreadable(const char* who, const json_error_t& error) {
    logmsgf(16, who, "Error parsing JSON response at position %d: %s", error.position, error.text);
    throw EC_exception(DOCUMENT_UNEXPECTED);
}

/// An answer and its member "data", which is borrowed from it.
struct Answer {
    JsonPointer document;
    json_t* data = nullptr;
};

Answer parseAnswer(const std::string& body, const char* who) {
    json_error_t error;
    Answer answer{JsonPointer(json_loads(body.c_str(), 0, &error))};
    if (!answer.document || json_unpack_ex(answer.document.get(), &error, 0, "{s:o}", "data", &answer.data) != 0) {
        throwUnreadable(who, error);
    }
    return answer;
}

/// What an answer to a bulk registration says.
DefaultObjectRegistrationService::BulkRegisteredNamespaces readBulk(const Answer& answer) {
    if (!json_is_array(answer.data)) {
        logmsg(16, BULK_TAG, "Invalid bulk registration response. data is not an array");
        throw EC_exception(DOCUMENT_UNEXPECTED);
    }
    DefaultObjectRegistrationService::BulkRegisteredNamespaces registered;
    for (std::size_t i = 0; i < json_array_size(answer.data); ++i) {
        auto [ns, objects] =
            DefaultObjectRegistrationService::extractRegisteredNamespaces(json_array_get(answer.data, i));
        // Objects that are answered in order are not searched for.
        std::list<ObjectNamespace>& all = registered.try_emplace(registered.end(), std::move(ns))->second;
        all.splice(all.end(), objects);
    }
    return registered;
}

}  // namespace

const std::string DefaultObjectRegistrationService::OBJECT_REGISTRATION_URI =
    "arkwell/access-control/object-registration-requests";
const std::string DefaultObjectRegistrationService::BULK_OBJECT_REGISTRATION_URI =
    "arkwell/access-control/bulk-object-registration-requests";
const std::string DefaultObjectRegistrationService::BULK_OBJECT_UPDATE_URI =
    "arkwell/access-control/bulk-object-update-requests";
const std::string DefaultObjectRegistrationService::MANAGED_OBJECT_URI = "arkwell/access-control/managed-objects";

const std::string DefaultObjectRegistrationService::JSON_MEDIA_TYPE =
    "application/vnd.arkwell+json" + VERSION_PARAMETER;
const std::string DefaultObjectRegistrationService::OCTET_STREAM_MEDIA_TYPE =
    "application/vnd.arkwell+octet-stream" + VERSION_PARAMETER;

ObjectRegistrationData::ObjectRegistrationData(ObjectNamespace objectNamespace_, std::string objectType_,
                                               boost::shared_ptr<json_t> accessControlAttributes_,
                                               std::list<ObjectNamespace> relativeChildNamespaces_,
                                               bool ignoreAlreadyRegistered_)
    : objectNamespace(std::move(objectNamespace_)),
      objectType(std::move(objectType_)),
      accessControlAttributes(std::move(accessControlAttributes_)),
      relativeChildNamespaces(std::move(relativeChildNamespaces_)),
      ignoreAlreadyRegistered(ignoreAlreadyRegistered_) {}

DefaultObjectRegistrationService::DefaultObjectRegistrationService()
    : DefaultObjectRegistrationService(SERVICE_PORT, boost::make_shared<AWClientCURLFactory>(CERT_HOST)) {}

DefaultObjectRegistrationService::DefaultObjectRegistrationService(int port,
                                                                   boost::shared_ptr<AWClientCURL_BaseFactory> factory)
    : port_(port), host_(get_master()), factory_(std::move(factory)) {}

void DefaultObjectRegistrationService::sendHttpRequest(HttpRequestType type, const std::string& url,
                                                       const std::string& payload, std::string& response) {
    const boost::scoped_ptr<AWClientCURL_Base> client(factory_->create(host_, port_, SESSION_SERVICE));
    client->setApiVersion(MAX_VERSION);
    logmsgf(4, SEND_TAG, "Send request type %d to URL %s", type, url.c_str());
    logmsgvf(2, 5, SEND_TAG, "Request payload: %s", payload.c_str());
    transmit(*client, type, url, payload);
    if (client->httpStatus != successStatus(type)) {
        throwServiceError(*client);
    }
    response = std::move(client->responseBody);
}

void DefaultObjectRegistrationService::sendHttpRequest(HttpRequestType type, const std::string& url,
                                                       const std::string& payload) {
    std::string response;
    sendHttpRequest(type, url, payload, response);
}

boost::shared_ptr<json_t> DefaultObjectRegistrationService::buildNamespaceStatePair(const ObjectNamespace& ns,
                                                                                    const std::string& state) {
    return json_pack_shared("{s:s, s:s}", "objectId", NamespaceText::of(ns).c_str(), "state", state.c_str());
}

boost::shared_ptr<json_t> DefaultObjectRegistrationService::buildBulkStateUpdateRequest(
    const std::list<ObjectNamespace>& ready, const std::list<ObjectNamespace>& pending,
    const std::list<ObjectNamespace>& deleted) {
    const boost::shared_ptr<json_t> pairs = json_array_shared();
    appendStatePairs(pairs.get(), ready, READY_STR);
    appendStatePairs(pairs.get(), pending, PENDING_STR);
    appendStatePairs(pairs.get(), deleted, DELETED_STR);
    return json_pack_shared("{s:{s:s, s:{s:O}}}", "data", "type", "managedObjectUpdate", "attributes",
                            "managedObjectsWithAttributes", pairs.get());
}

boost::shared_ptr<json_t> DefaultObjectRegistrationService::buildRegistrationJSON(
    const boost::shared_ptr<ObjectRegistrationData>& data) {
    if (!data) {
        throw std::invalid_argument("registration data is required");
    }
    const boost::shared_ptr<json_t> children = json_namespaces_shared(data->relativeChildNamespaces);
    // Else children that no memory was left for would stay unprotected.
    if (json_array_size(children.get()) != data->relativeChildNamespaces.size()) {
        throw std::bad_alloc();
    }
    return json_pack_shared("{s:s, s:s, s:{s:s%, s:b, s:O, s:O}}", "id",
                            NamespaceText::of(data->objectNamespace).c_str(), "type", "objectRegistrationData",
                            "attributes", "objectType", data->objectType.data(), data->objectType.size(),
                            "ignoreAlreadyRegistered", data->ignoreAlreadyRegistered ? 1 : 0, "accessControlAttributes",
                            data->accessControlAttributes.get(), "relativeChildNamespaces", children.get());
}

boost::shared_ptr<json_t> DefaultObjectRegistrationService::buildRegistrationRequest(
    const boost::shared_ptr<ObjectRegistrationData>& data) {
    return json_pack_shared("{s:O}", "data", buildRegistrationJSON(data).get());
}

boost::shared_ptr<json_t> DefaultObjectRegistrationService::buildBulkRegistrationRequest(
    const std::list<boost::shared_ptr<ObjectRegistrationData> >& data) {
    const boost::shared_ptr<json_t> objects = json_array_shared();
    for (const boost::shared_ptr<ObjectRegistrationData>& object : data) {
        append(objects.get(), buildRegistrationJSON(object));
    }
    return json_pack_shared("{s:O}", "data", objects.get());
}

DefaultObjectRegistrationService::RegisteredNamespaces DefaultObjectRegistrationService::extractRegisteredNamespaces(
    const json_t* object) {
    const char* id = nullptr;
    json_t* children = nullptr;
    json_error_t error;
    if (json_unpack_ex(unpackable(object), &error, 0, "{s:s, s?:{s:{s:o}}}", "id", &id, "relationships",
                       "registeredObjects", "data", &children) != 0) {
        throwUnreadable(SINGLE_TAG, error);
    }
    RegisteredNamespaces registered(NamespaceText::parse(id), {});
    for (std::size_t i = 0; i < json_array_size(children); ++i) {
        const char* childId = nullptr;
        if (json_unpack_ex(json_array_get(children, i), &error, 0, "{s:s}", "id", &childId) != 0) {
            throwUnreadable(SINGLE_TAG, error);
        }
        registered.second.push_back(NamespaceText::parse(childId));
    }
    return registered;
}

DefaultObjectRegistrationService::RegisteredNamespaces DefaultObjectRegistrationService::extractRegisteredNamespaces(
    const std::string& body) {
    const Answer answer = parseAnswer(body, SINGLE_TAG);
    return extractRegisteredNamespaces(answer.data);
}

DefaultObjectRegistrationService::BulkRegisteredNamespaces
DefaultObjectRegistrationService::extractBulkRegisteredNamespaces(const std::string& body) {
    return readBulk(parseAnswer(body, BULK_TAG));
}

DefaultObjectRegistrationService::BulkRegisteredNamespaces
DefaultObjectRegistrationService::extractBulkRegisteredNamespaces(std::string&& body) {
    const Answer answer = parseAnswer(body, BULK_TAG);
    std::string().swap(body);  // that of a large registration is large, and so is what is read out of it
    return readBulk(answer);
}

}  // namespace Tesmor::Arkwell::Rbac
