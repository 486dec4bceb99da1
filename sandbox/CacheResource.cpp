#include "sandbox/CacheResource.h"

#include "sandbox/Json.h"
#include "sandbox/Publisher.h"
#include "sandbox/ResourceTypes.h"

namespace Tesmor::Arkwell::Sandbox {

ServiceResponse getAccessCache(AccessService& /*service*/, const ServiceRequest& request) {
    parseNamespace(request.path.back());
    // The one cache covers the root, and with it everything.
    return {200, json::dump(json::pack("{s:{s:s, s:s, s:{s:s}}}", "data", "type", CACHE_TYPE, "id", Publisher::CACHE_ID,
                                       "attributes", "namespace", "|"))};
}

}  // namespace Tesmor::Arkwell::Sandbox
