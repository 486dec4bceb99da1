#pragma once

#include <platform/Export.h>

#include <set>
#include <string>

namespace Tesmor {
namespace Dal {
class DbConnectionManager;
}
namespace Arkwell {
namespace Rbac {

/// Turns a session token into the role ids of its user. Stateless; make one wherever it is needed, on any thread.
/// Failures are logged at level 16 and returned as statuses; nothing throws but std::bad_alloc.
class ARKWELL_EXPORT JWTHandler {
public:
    /// Verifies the session token, looks the session up in the authorization database and reads the roles of its
    /// authorization token.
    ///
    /// @param manager borrowed for the call. Null connects for this one call, which costs far more than the query.
    /// @param sessionToken as the product's login service issued it.
    /// @param roleIds the ids are added; what was there stays, and so do ids added before a failure.
    /// @return 0; 8002: a token is not genuine or lacks a claim; 8001: the session token has expired; 117: the session
    /// is unknown to the database; 220: the database failed; 7610, 10, 20: a token is malformed.
    int getRoleIds(Tesmor::Dal::DbConnectionManager* manager, const std::string& sessionToken, std::set<int>& roleIds);

    /// Verifies the session token and gets its authorization token from the database.
    ///
    /// @param manager as for getRoleIds().
    /// @param sessionToken as for getRoleIds().
    /// @param azToken untouched on failure.
    /// @return as getRoleIds().
    int fetchAzToken(Tesmor::Dal::DbConnectionManager* manager, const std::string& sessionToken, std::string& azToken);

    /// Reads the claim `roles` of an authorization token. The token comes from the database and is trusted: neither its
    /// signature nor its expiry is looked at, so never pass one that came from elsewhere.
    ///
    /// @param azToken its text.
    /// @param roleIds as for getRoleIds().
    /// @return 0, or 8002, 7610, 10 or 20.
    int extractRoleIds(const std::string& azToken, std::set<int>& roleIds);
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
