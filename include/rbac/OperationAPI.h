#pragma once

#include <platform/Export.h>
#include <rbac/BaseAPI.h>
#include <rbac/ObjectNamespace.h>

#include <boost/shared_ptr.hpp>

#include <list>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// The client of the service's operations: what can be granted. Several threads may use one object at once.
class ARKWELL_EXPORT OperationAPI : public BaseAPI {
public:
    /// As BaseAPI's.
    OperationAPI();
    /// As BaseAPI's.
    explicit OperationAPI(boost::shared_ptr<AWClientCURL_BaseFactory> factory);

    /// Lists operations, in the service's order.
    ///
    /// @param filter in the service's syntax; empty for all.
    /// @throws EC_exception as RoleAPI's operations do; boost::bad_lexical_cast for an operation that is no namespace.
    std::list<ObjectNamespace> get_operations(const std::string& filter);
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
