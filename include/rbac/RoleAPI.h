#pragma once

#include <platform/Export.h>
#include <rbac/BaseAPI.h>

#include <boost/shared_ptr.hpp>

#include <list>
#include <string>

struct json_t;

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// A role as the service describes it.
struct ARKWELL_EXPORT Role {
    /// Reads a role's resource object.
    ///
    /// @param resource borrowed for the call.
    /// @throws EC_exception 7610: it is not of the right shape; 9103: it is not a role, or its id is no number that a
    /// role can have. Both are logged.
    explicit Role(const json_t* resource);

    std::string href;            ///< its own link, below the service's root; empty where the service gave none
    int id = 0;                  ///< never negative
    std::string name;            ///< 1 to 256 bytes
    std::string description;     ///< at most 256 bytes
    bool systemDefined = false;  ///< made by the system, not to be deleted or renamed
};

/// The client of the service's roles.
///
///     RoleAPI roles;
///     const Role auditors = roles.create_role("auditors", "read everything");
///     for (const Role& role : roles.get_roles("startswith(name,'aud')")) { ... }
///
/// Every operation throws EC_exception: the status of a failed transport; the "errorCode" of the service, or 114 where
/// it gave none; 7610 and 9103 for an answer that cannot be read. All but a failed transport are logged here. Several
/// threads may use one object at once.
class ARKWELL_EXPORT RoleAPI : public BaseAPI {
public:
    /// As BaseAPI's.
    RoleAPI();
    /// As BaseAPI's.
    explicit RoleAPI(boost::shared_ptr<AWClientCURL_BaseFactory> factory);

    /// Lists roles, in the service's order.
    ///
    /// @param filter in the service's syntax; empty for all.
    std::list<Role> get_roles(const std::string& filter);

    /// Gets one role.
    Role get_role(int id);

    /// Creates a role and gives it as the service has it now.
    ///
    /// @param name 1 to 64 bytes.
    /// @param description at most 256 bytes.
    /// @throws std::length_error, std::invalid_argument, and std::bad_alloc for text that is not UTF-8: before anything
    /// is sent.
    Role create_role(const std::string& name, const std::string& description);

    /// Changes the name and the description of the role that `role.href` links to.
    ///
    /// @param role its name has 1 to 256 bytes, its description at most 256.
    /// @throws as create_role().
    void update_role(const Role& role);

    /// Deletes a role that no access definition refers to.
    void delete_role_by_id(int id);
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
