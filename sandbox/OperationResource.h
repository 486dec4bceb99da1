#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/ServiceRequest.h"

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// GET operations, with an optional filter on the name or on an object that they apply to.
ServiceResponse listOperations(AccessService& service, const ServiceRequest& request);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
