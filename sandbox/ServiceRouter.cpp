#include "sandbox/ServiceRouter.h"

#include "sandbox/CacheResource.h"
#include "sandbox/LogLevels.h"
#include "sandbox/MediaType.h"
#include "sandbox/ObjectResource.h"
#include "sandbox/OperationResource.h"
#include "sandbox/RegistrationResource.h"
#include "sandbox/RoleResource.h"
#include "sandbox/ServiceError.h"

#include <platform/Logger.h>
#include <platform/Text.h>

#include <cstring>

namespace Tesmor::Arkwell::Sandbox {

namespace {

using Handler = ServiceResponse (*)(AccessService&, const ServiceRequest&);

struct Route {
    const char* method;
    std::vector<const char*> path;  // "*" stands for any part that is not empty
    Handler handler;
};

constexpr char TAG[] = "ServiceRouter::answer";
constexpr char ANY[] = "*";
constexpr char PLAIN_JSON[] = "application/json";

std::vector<Route> makeRoutes() {
    const char* const top = "arkwell";
    const char* const service = "access-control";
    const std::vector<const char*> roles{top, service, "roles"};
    const std::vector<const char*> role{top, service, "roles", ANY};
    const std::vector<const char*> object{top, service, "managed-objects", ANY};
    const std::vector<const char*> definitions{top, service, "managed-objects", ANY, "access-definitions"};
    const std::vector<const char*> definition{top, service, "managed-objects", ANY, "access-definitions", ANY};
    return {
        {"GET", {top, service, "access-caches", ANY}, getAccessCache},
        {"GET", roles, listRoles},
        {"POST", roles, createRole},
        {"GET", role, getRole},
        {"PUT", role, updateRole},
        {"DELETE", role, deleteRole},
        {"GET", object, getObject},
        {"PATCH", object, patchObject},
        {"GET", definitions, listDefinitions},
        {"POST", definitions, addDefinition},
        {"DELETE", definition, deleteDefinition},
        {"GET", {top, service, "operations"}, listOperations},
        {"POST", {top, service, "object-registration-requests"}, registerObject},
        {"POST", {top, service, "bulk-object-registration-requests"}, registerObjects},
        {"POST", {top, service, "bulk-object-update-requests"}, updateObjects},
    };
}

const std::vector<Route> ROUTES = makeRoutes();

bool leadsTo(const Route& route, const std::vector<std::string>& path) {
    if (route.path.size() != path.size()) {
        return false;
    }
    for (std::size_t i = 0; i < path.size(); ++i) {
        const bool isAny = std::strcmp(route.path[i], ANY) == 0;
        if (isAny ? path[i].empty() : path[i] != route.path[i]) {
            return false;
        }
    }
    return true;
}

std::string decoded(const std::string& text) {
    std::string plain;
    if (percentDecodeUriPart(text, plain) != 0) {
        throw ServiceError(error_kinds::ADDRESS_MALFORMED, "a \"%\" without two hexadecimal digits: " + text);
    }
    return plain;
}

/// In a path, unlike in a query, "+" is no blank.
std::string decodedPathPart(std::string text) {
    for (std::size_t plus = text.find('+'); plus != std::string::npos; plus = text.find('+', plus)) {
        text.replace(plus, 1, "%2B");
    }
    return decoded(text);
}

void readPath(ServiceRequest& request, const std::string& path) {
    if (path.empty() || path.front() != '/') {
        throw ServiceError(error_kinds::ADDRESS_MALFORMED, "no absolute path: " + path);
    }
    for (std::size_t begin = 1; begin != 0;) {
        const std::size_t end = path.find('/', begin);
        request.path.push_back(
            decodedPathPart(path.substr(begin, end == std::string::npos ? std::string::npos : end - begin)));
        begin = end == std::string::npos ? 0 : end + 1;
    }
}

void readQuery(ServiceRequest& request, const std::string& query) {
    for (std::size_t begin = 0; begin < query.size();) {
        const std::size_t end = std::min(query.find('&', begin), query.size());
        const std::string part = query.substr(begin, end - begin);
        const std::size_t equals = std::min(part.find('='), part.size());
        const std::string value = equals < part.size() ? part.substr(equals + 1) : std::string();
        request.query[decoded(part.substr(0, equals))] = decoded(value);
        begin = end + 1;
    }
}

void readTarget(ServiceRequest& request) {
    const std::string target = request.target.substr(0, request.target.find('#'));
    const std::size_t question = target.find('?');
    readPath(request, target.substr(0, question));
    if (question != std::string::npos) {
        readQuery(request, target.substr(question + 1));
    }
}

/// @return null, with `allowed` the methods that the resource takes, where there is no route for the method.
Handler handlerFor(const ServiceRequest& request, std::string& allowed) {
    const std::string& method = request.method == "HEAD" ? "GET" : request.method;
    for (const Route& route : ROUTES) {
        if (!leadsTo(route, request.path)) {
            continue;
        }
        if (method == route.method) {
            return route.handler;
        }
        allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
    }
    if (allowed.empty()) {
        throw ServiceError(error_kinds::RESOURCE_UNKNOWN, request.target);
    }
    return nullptr;
}

bool carriesDocument(const ServiceRequest& request) {
    return request.method == "POST" || request.method == "PUT" || request.method == "PATCH";
}

ServiceResponse refusalFor(const ServiceError& error) {
    return refusal(error.kind().httpStatus, error.kind().code, error.kind().message, error.details());
}

ServiceResponse carryOut(AccessService& service, ServiceRequest& request) {
    readTarget(request);
    std::string allowed;
    const Handler handler = handlerFor(request, allowed);
    if (handler == nullptr) {
        ServiceResponse response = refusalFor(ServiceError(error_kinds::METHOD_NOT_ALLOWED, request.method));
        response.allow = allowed;
        return response;
    }
    const std::string mediaType = mediaTypeFor(request.accept);
    if (mediaType.empty()) {
        throw ServiceError(error_kinds::NOT_ACCEPTABLE, request.accept);
    }
    if (carriesDocument(request) && !request.contentEncoding.empty()) {
        throw ServiceError(error_kinds::MEDIA_TYPE_UNSUPPORTED, "Content-Encoding: " + request.contentEncoding);
    }
    if (carriesDocument(request) && !isMediaTypeTaken(request.contentType)) {
        throw ServiceError(error_kinds::MEDIA_TYPE_UNSUPPORTED,
                           request.contentType.empty() ? "there is none" : request.contentType);
    }
    ServiceResponse response = handler(service, request);
    response.contentType = mediaType;
    return response;
}

}  // namespace

ServiceResponse answer(AccessService& service, ServiceRequest request) {
    ServiceResponse response;
    try {
        response = carryOut(service, request);
    } catch (const ServiceError& error) {
        response = refusalFor(error);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        logmsgf(LEVEL_ERROR, TAG, "%s %s: %s", request.method.c_str(), request.target.c_str(), failure.what());
        response = refusalFor(ServiceError(error_kinds::INTERNAL, failure.what()));
    }
    logmsgf(LEVEL_PROGRESS, TAG, "%s %s by %s: %d", request.method.c_str(), request.target.c_str(),
            request.client.c_str(), response.status);
    return response;
}

ServiceResponse refusal(int status, int code, const std::string& message, const std::vector<std::string>& details) {
    ServiceResponse response;
    response.status = status;
    response.body = errorBody(code, message, details);
    response.contentType = PLAIN_JSON;
    return response;
}

}  // namespace Tesmor::Arkwell::Sandbox
