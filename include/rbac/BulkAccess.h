#pragma once

/// @file
/// Answers for many objects at once.

#include <platform/Export.h>
#include <rbac/AccessControlClient.h>
#include <rbac/ObjectNamespace.h>

#include <cstddef>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// The most objects that are answered while an access cache's lock is held once. A writer waits for that: 1 to 11 ms on
/// the machine of docs/performance.md, the less the closer the objects lie together, as long as the files are in
/// memory.
constexpr std::size_t MOST_OBJECTS_AT_ONCE = 16384;

/// What a checker says of each of many objects, for a fraction of what as many single checks cost.
///
/// Up to MOST_OBJECTS_AT_ONCE objects are answered from one state of the access cache, each as checkAccess() would
/// answer it in that state. A longer sequence is answered in slices of that many, in order, and a writer may change the
/// cache between two of them. Objects of one folder that follow one another are the cheapest. A checker that does not
/// read an access cache (a constant one, or a program's own) is asked object by object.
///
/// Several threads may ask one checker at once. The objects' texts are computed where they have not been: objects that
/// threads share must have theirs already.
///
///     std::vector<ObjectNamespace> folder = list(...);
///     const std::vector<bool> visible = checkAccessToAll(*checker, folder);
///
/// @return the answer for each object, in order.
/// @throws what AccessChecker::checkAccess() throws.
ARKWELL_EXPORT std::vector<bool> checkAccessToAll(const AccessChecker& checker,
                                                  const std::vector<ObjectNamespace>& objects);

/// The same for `count` objects in a row; writes as many answers.
ARKWELL_EXPORT void checkAccessToAll(const AccessChecker& checker, const ObjectNamespace* objects, std::size_t count,
                                     bool* allowed);

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
