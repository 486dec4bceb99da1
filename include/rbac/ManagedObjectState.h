#pragma once

/// @file
/// The states of a registration.

#include <platform/Export.h>

#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// Where a managed object is in its registration.
enum ManagedObjectState : int {
    READY = 0,    ///< registered: access is granted as it is defined
    PENDING = 1,  ///< being registered or unregistered: nothing is granted
    DELETED = 2   ///< gone, with its access definitions
};

/// @name The states as the service's documents name them
/// @{
ARKWELL_EXPORT extern const std::string READY_STR;    ///< "READY"
ARKWELL_EXPORT extern const std::string PENDING_STR;  ///< "PENDING"
ARKWELL_EXPORT extern const std::string DELETED_STR;  ///< "DELETED"
/// @}

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
