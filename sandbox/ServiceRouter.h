#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/ServiceRequest.h"

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// Answers any request: with the document of the resource that it names, or with a body that says why not. Never throws
/// anything but std::bad_alloc. Safe from any thread.
ServiceResponse answer(AccessService& service, ServiceRequest request);

/// The answer to a request that is refused.
ServiceResponse refusal(int status, int code, const std::string& message, const std::vector<std::string>& details);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
