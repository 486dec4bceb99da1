#pragma once

#include <platform/Export.h>
#include <rbac/ObjectNamespace.h>

#include <boost/shared_ptr.hpp>

#include <set>
#include <string>

namespace Tesmor {
namespace Dal {
class DbConnectionManager;
}
namespace Arkwell {
namespace Rbac {

/// Answers, for one user and one operation, on which objects the user may perform it.
///
/// Immutable, shared as `boost::shared_ptr<const AccessChecker>`, and valid for as long as it is held, whatever becomes
/// of the client that made it. Any number of threads may use one checker at once.
class ARKWELL_EXPORT AccessChecker {
public:
    AccessChecker() = default;
    AccessChecker(const AccessChecker&) = delete;
    AccessChecker& operator=(const AccessChecker&) = delete;
    virtual ~AccessChecker();

    /// Whether the operation is allowed on `object`. Where the answer cannot be found, an exception says so; treat it
    /// as a no.
    ///
    /// @throws EC_exception (12: the access cache is invalid, for example because its writer was interrupted),
    /// std::runtime_error (a cache file cannot be mapped), std::bad_alloc.
    virtual bool checkAccess(const ObjectNamespace& object) const = 0;
};

/// Makes checkers.
///
///     boost::shared_ptr<const AccessChecker> checker;
///     if (int status = client->createAccessChecker(roleIds, root_namespaces::operations::VIEW, 0, checker)) {
///         return status;
///     }
///     if (checker && checker->checkAccess(object)) { ... }
class ARKWELL_EXPORT AccessControlClient {
public:
    AccessControlClient() = default;
    AccessControlClient(const AccessControlClient&) = delete;
    AccessControlClient& operator=(const AccessControlClient&) = delete;
    virtual ~AccessControlClient();

    /// Makes the client for this installation, once in a program or whenever the service may have another cache.
    ///
    /// Where the installation enforces access in the second generation, the access-control service on the primary
    /// server is asked for the access cache that covers `scope`, and the cache is opened: every later check is local.
    /// In the first generation nothing is asked, and the client's checkers allow everything.
    ///
    /// May be called from several threads. The clients share the operation cache of the process. Throws nothing.
    ///
    /// @param scope the namespace whose objects are to be checked; the root for all.
    /// @param client set on success, untouched on failure.
    /// @return 0; the status of a failed name lookup or transport; 114: the service gave no cache, or the cache cannot
    /// be opened for a reason without a status, or `scope` has no text form, or memory ran out; 7610: its answer is not
    /// as it should be; 12: the cache's manifest is invalid. Failures are logged, except those of `scope` and those
    /// without a status.
    static int create(const ObjectNamespace& scope, boost::shared_ptr<AccessControlClient>& client);

    /// Makes a checker for the user whose session token is given.
    ///
    /// @param db where the user's authorization token is looked up; null uses a connection manager of the library's
    /// own.
    /// @param sessionToken as the product's login service issued it.
    /// @param operation names the operation to check, for example root_namespaces::operations::VIEW.
    /// @param option carried by the checker; no checker of this library consults it.
    /// @param checker replaced on success.
    /// @return 0, or a status with `checker` untouched. Where memory for the checker runs out, the failure is logged
    /// and the result is 0 with `checker` untouched, so pass an empty pointer and test it.
    virtual int createAccessChecker(Tesmor::Dal::DbConnectionManager* db, const std::string& sessionToken,
                                    const ObjectNamespace& operation, int option,
                                    boost::shared_ptr<const AccessChecker>& checker) = 0;

    /// Makes a checker for a user who has the given roles. Otherwise as above.
    virtual int createAccessChecker(const std::set<int>& roleIds, const ObjectNamespace& operation, int option,
                                    boost::shared_ptr<const AccessChecker>& checker) = 0;
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
