#pragma once

#include <platform/Export.h>
#include <rbac/AccessControlClient.h>

#include <boost/shared_ptr.hpp>

#include <set>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// The client of the first enforcement generation, in which this library does not restrict access: its checkers grant
/// every operation on every object to everybody. Stateless: any number of threads may use one.
class ARKWELL_EXPORT StubAccessControlClient : public AccessControlClient {
public:
    ~StubAccessControlClient() override;

    /// Sets `checker` to a new one that always answers yes; looks at nothing else. Always 0.
    ///
    /// @throws std::bad_alloc with `checker` untouched.
    int createAccessChecker(Tesmor::Dal::DbConnectionManager* db, const std::string& sessionToken,
                            const ObjectNamespace& operation, int option,
                            boost::shared_ptr<const AccessChecker>& checker) override;
    int createAccessChecker(const std::set<int>& roleIds, const ObjectNamespace& operation, int option,
                            boost::shared_ptr<const AccessChecker>& checker) override;
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
