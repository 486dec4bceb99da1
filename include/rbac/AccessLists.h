#pragma once

#include <platform/Export.h>
#include <rbac/AccessControlClient.h>
#include <rbac/ObjectNamespace.h>

#include <functional>
#include <set>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// @file
/// Lists from the access cache of a client, each complete, in an order that stays the same, from one state of the
/// cache, and in memory that does not grow with it.
///
/// The cache's lock is held while a list is visited, which keeps a writer waiting: a visitor must be quick, and returns
/// false when it has had enough. Nor should it ask the same cache: where a writer waits, each such question takes 50
/// ms.
///
/// Each returns 0, or the status with which createAccessChecker() would fail; nothing is then visited. An operation
/// that the service does not know is allowed nowhere and to nobody.
///
/// They throw std::invalid_argument for a client that reads no access cache (enforcement is off, or the client is a
/// program's own), what AccessChecker::checkAccess() and OperationCache::load() throw beside EC_exception, and what the
/// visitor throws. They may be called from several threads at once; the texts of objects and operations are computed
/// where they have not been, so those that threads share must have theirs already.

/// Visits the objects at and below `below` on which the roles may perform the operation, of those that the cache holds,
/// in the bytewise order of their texts. (Bytes beyond ASCII, which few locales let into texts, may come first.)
///
///     std::vector<std::string> hosts;
///     forEachAllowedObject(client, roles, root_namespaces::operations::VIEW, root_namespaces::ASSETS,
///                          [&](const std::string& text) { hosts.push_back(text); return hosts.size() < 1000; });
///
/// @param client whose cache is asked.
/// @param roleIds the roles that the user has.
/// @param operation what the user wants to do.
/// @param below the root for all objects.
/// @param visit called with the text of each object; whether to go on.
ARKWELL_EXPORT int forEachAllowedObject(AccessControlClient& client, const std::set<int>& roleIds,
                                        const ObjectNamespace& operation, const ObjectNamespace& below,
                                        const std::function<bool(const std::string& objectText)>& visit);

/// Visits the roles that may perform the operation on the object, ascending. Role 0, which may do everything, is always
/// one of them.
///
/// @param client whose cache is asked.
/// @param operation what somebody wants to do.
/// @param object to what.
/// @param visit called with each role id; whether to go on.
ARKWELL_EXPORT int forEachAllowedRole(AccessControlClient& client, const ObjectNamespace& operation,
                                      const ObjectNamespace& object, const std::function<bool(int roleId)>& visit);

/// Visits the operations that the roles may perform on the object, of those that the service knows, in the order of
/// their namespaces. Reads the operation cache's file each time, for new ones; where that fails the status is 13, also
/// for a client that knows operations already.
///
/// @param client whose cache is asked.
/// @param roleIds the roles that the user has.
/// @param object what the user wants to do something to.
/// @param visit called with each operation; whether to go on.
ARKWELL_EXPORT int forEachAllowedOperation(AccessControlClient& client, const std::set<int>& roleIds,
                                           const ObjectNamespace& object,
                                           const std::function<bool(const ObjectNamespace& operation)>& visit);

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
