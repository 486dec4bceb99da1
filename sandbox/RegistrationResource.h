#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/ServiceRequest.h"

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// POST object-registration-requests: records an object and its children, as PENDING.
ServiceResponse registerObject(AccessService& service, const ServiceRequest& request);
/// POST bulk-object-registration-requests: the same for any number of objects, all of them or none.
ServiceResponse registerObjects(AccessService& service, const ServiceRequest& request);
/// POST bulk-object-update-requests: sets the states of any number of objects, all of them or none.
ServiceResponse updateObjects(AccessService& service, const ServiceRequest& request);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
