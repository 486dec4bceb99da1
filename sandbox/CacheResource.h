#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/ServiceRequest.h"

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// GET access-caches/NAMESPACE: which access cache covers the namespace.
ServiceResponse getAccessCache(AccessService& service, const ServiceRequest& request);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
