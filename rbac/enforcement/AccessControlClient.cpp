#include "InstallationPaths.h"
#include "platform/Handles.h"
#include "rbac/enforcement/DiskAccessControlClient.h"
#include "rbac/enforcement/StubAccessControlClient.h"
#include "rbac/rest/Rbac2Curl.h"

#include <platform/HttpClient.h>
#include <platform/Installation.h>
#include <platform/Logger.h>
#include <platform/Text.h>
#include <rbac/AccessControlClient.h>
#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>

#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

using platform_detail::JsonPointer;

constexpr char TAG[] = "AccessControlClient::create";
constexpr char RESPONSE_TAG[] = "process_access_cace_response";  // log readers look for it as it is

constexpr char CACHE_ROOT[] = TARVO_ROOT "/wmc/webserver/temp/access-caches";
constexpr char CACHE_RESOURCE[] = "/arkwell/access-control/access-caches/";
constexpr char RESPONSE_TYPE[] = "accessCache";

constexpr int CACHE_INVALID = 12;
constexpr int REQUEST_FAILED = 114;
constexpr int RESPONSE_INVALID = 7610;
constexpr long HTTP_OK = 200;

// Shared by the clients of all caches, from the loading of the library to its unloading.
OperationCache operationCache;

/// The id of the access cache that the service names.
std::string processResponse(const std::string& body) {
    json_error_t error;
    const JsonPointer document(json_loads(body.c_str(), 0, &error));
    if (!document) {
        logmsgf(16, RESPONSE_TAG, "Error parsing response at position %d: %s", error.position, error.text);
        throw EC_exception(RESPONSE_INVALID);
    }
    const char* type = nullptr;
    const char* id = nullptr;
    if (json_unpack_ex(document.get(), &error, 0, "{s: {s:s, s:s, *}, *}", "data", "type", &type, "id", &id) != 0) {
        logmsgf(16, RESPONSE_TAG, "Error parsing response: %s", error.text);
        throw EC_exception(RESPONSE_INVALID);
    }
    if (type != std::string(RESPONSE_TYPE)) {
        logmsgf(16, RESPONSE_TAG, "Unexpected response type. Got %s; expected %s", type, RESPONSE_TYPE);
        throw EC_exception(RESPONSE_INVALID);
    }
    std::string copy = id;
    if (copy.find_first_of("/\\") != std::string::npos) {
        logmsgf(16, RESPONSE_TAG, "Unexpected access-cache ID format: %s", id);
        throw EC_exception(RESPONSE_INVALID);
    }
    return copy;
}

Manifest loadManifest(const std::string& id) {
    const std::string directory = std::string(CACHE_ROOT) + "/" + id;
    logmsgf(4, TAG, "cache dir is %s", directory.c_str());
    // The one id without a slash that leads out of the caches' folder, to where others may put files.
    if (id == "..") {
        logmsgf(16, "Manifest constructor", "Error loading %s: it is not an access cache's directory",
                directory.c_str());
        throw EC_exception(CACHE_INVALID);
    }
    return {id, directory};
}

boost::shared_ptr<AccessControlClient> openCache(const std::string& responseBody) {
    const Manifest manifest = loadManifest(processResponse(responseBody));
    logmsgf(4, TAG, "instantiating access cache");
    const auto cache = boost::make_shared<const AccessCache>(manifest);
    logmsgf(4, TAG, "instantiating disk access cache for %s",
            boost::lexical_cast<std::string>(manifest.objectNamespace()).c_str());
    return boost::make_shared<DiskAccessControlClient>(manifest.objectNamespace(), cache, operationCache);
}

/// Asks the service for the cache that covers a namespace.
///
/// @param body of the answer.
int requestCache(const std::string& scopeText, std::string& body) {
    logmsgf(4, TAG, "Requesting cache for %s", scopeText.c_str());
    std::string encoded;
    if (const int status = percentEncodeUriPart(scopeText, encoded); status != 0) {
        return status;
    }
    const std::string path = CACHE_RESOURCE + encoded;
    std::string server;
    if (const int status = find_master(server); status != 0) {
        return status;
    }
    AWClientCURL client(server, SERVICE_PORT, SESSION_SERVICE, CERT_HOST);
    if (const int status = client.Get(path); status != 0) {
        logmsgf(16, TAG, "Curl error requesting access cache: %d", status);
        return status;
    }
    logmsgf(4, TAG, "Request for %s; http status %ld", path.c_str(), client.httpStatus);
    if (client.httpStatus != HTTP_OK) {
        logmsgf(16, TAG, "Get access-cache return HTTP status %ld", client.httpStatus);
        return REQUEST_FAILED;
    }
    body = std::move(client.responseBody);
    return 0;
}

int createDiskClient(const ObjectNamespace& scope, boost::shared_ptr<AccessControlClient>& client) {
    std::string body;
    if (const int status = requestCache(boost::lexical_cast<std::string>(scope), body); status != 0) {
        return status;
    }
    client = openCache(body);
    return 0;
}

}  // namespace

AccessChecker::~AccessChecker() = default;

AccessControlClient::~AccessControlClient() = default;

int AccessControlClient::create(const ObjectNamespace& scope, boost::shared_ptr<AccessControlClient>& client) {
    try {
        if (secondGenerationEnforcementEnabled()) {
            logmsgvf(2, 5, TAG, "Gen2 enforcement.");
            return createDiskClient(scope, client);
        }
        logmsgvf(2, 5, TAG, "Gen1 enforcement.");
        client = boost::make_shared<StubAccessControlClient>();
        return 0;
    } catch (const EC_exception& failure) {
        return failure.status;
    } catch (...) {
        return REQUEST_FAILED;
    }
}

}  // namespace Tesmor::Arkwell::Rbac
