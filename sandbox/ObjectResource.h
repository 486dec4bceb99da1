#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/ServiceRequest.h"

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// GET managed-objects/NAMESPACE
ServiceResponse getObject(AccessService& service, const ServiceRequest& request);
/// PATCH managed-objects/NAMESPACE: switches the inheritance of access on or off.
ServiceResponse patchObject(AccessService& service, const ServiceRequest& request);

/// GET managed-objects/NAMESPACE/access-definitions
ServiceResponse listDefinitions(AccessService& service, const ServiceRequest& request);
/// POST managed-objects/NAMESPACE/access-definitions
ServiceResponse addDefinition(AccessService& service, const ServiceRequest& request);
/// DELETE managed-objects/NAMESPACE/access-definitions/ID
ServiceResponse deleteDefinition(AccessService& service, const ServiceRequest& request);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
