#include <jwt/JWT.h>
#include <jwt/JWTHandler.h>
#include <jwt/RBACDbConnectionMgr.h>
#include <jwt/RBACDbQueryMgr.h>
#include <platform/Logger.h>

#include <boost/make_shared.hpp>
#include <jansson.h>

#include <climits>
#include <memory>

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr int TOKEN_INVALID = 8002;

constexpr char EXTRACT_CONTEXT[] = "JWTHandler::extractRoleIds";

int refuse(const char* text) {
    logmsg(16, EXTRACT_CONTEXT, text);
    return TOKEN_INVALID;
}

}  // namespace

int JWTHandler::getRoleIds(Tesmor::Dal::DbConnectionManager* manager, const std::string& sessionToken,
                           std::set<int>& roleIds) {
    std::string azToken;
    int status = fetchAzToken(manager, sessionToken, azToken);
    if (status == 0) {
        status = extractRoleIds(azToken, roleIds);
    }
    if (status != 0) {
        logmsgf(16, "JWTHandler::getRoleIds", "Failed to get role IDS, error=%d", status);
    }
    return status;
}

int JWTHandler::fetchAzToken(Tesmor::Dal::DbConnectionManager* manager, const std::string& sessionToken,
                             std::string& azToken) {
    const auto connection = boost::make_shared<RBACDbConnectionMgr>(manager);
    const boost::shared_ptr<RBACQueryMgr> query = boost::make_shared<RBACDbQueryMgr>(connection);
    const int status = query->fetchAzToken(sessionToken, azToken);
    if (status != 0) {
        logmsgf(16, "JWTHandler::fetchAzToken", "Failed to fetch authorization token, error=%d", status);
    }
    return status;
}

int JWTHandler::extractRoleIds(const std::string& azToken, std::set<int>& roleIds) {
    JWT* parsed = nullptr;
    if (const int status = JWT::createJWT(azToken, parsed); status != 0) {
        logmsgf(16, EXTRACT_CONTEXT, "Failed to create JWT, error=%d", status);
        return status;
    }
    const std::unique_ptr<JWT> jwt(parsed);
    if (jwt->payload() == nullptr) {
        return refuse("Failed to extract body from JWT");  // GCOVR_EXCL_LINE: createJWT() failed without one
    }
    const json_t* roles = json_object_get(jwt->payload(), "roles");
    if (!json_is_array(roles)) {
        return refuse("JSON is invalid. Roles is NULL or not an array");
    }
    for (std::size_t i = 0; i < json_array_size(roles); ++i) {
        const json_t* role = json_array_get(roles, i);
        const json_int_t id = json_integer_value(role);
        // An id beyond 32 bits is no role id. Cut short it could become another role's, the all-powerful 0 for one.
        if (!json_is_integer(role) || id < INT_MIN || id > INT_MAX) {
            return refuse("JSON is invalid. Role ID is NULL or not an integer");
        }
        roleIds.insert(static_cast<int>(id));
    }
    return 0;
}

}  // namespace Tesmor::Arkwell::Rbac
