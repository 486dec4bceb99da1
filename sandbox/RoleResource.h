#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/ServiceRequest.h"

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// GET roles, with an optional filter on the name.
ServiceResponse listRoles(AccessService& service, const ServiceRequest& request);
/// POST roles
ServiceResponse createRole(AccessService& service, const ServiceRequest& request);
/// GET roles/ID
ServiceResponse getRole(AccessService& service, const ServiceRequest& request);
/// PUT roles/ID: replaces name and description. A role that the system defines keeps its name.
ServiceResponse updateRole(AccessService& service, const ServiceRequest& request);
/// DELETE roles/ID, unless the system defines it or an access definition refers to it.
ServiceResponse deleteRole(AccessService& service, const ServiceRequest& request);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
