#pragma once

#include "rbac/enforcement/DiskAccessControlClient.h"

#include <boost/optional.hpp>

#include <set>
#include <vector>

namespace Tesmor::Arkwell::Rbac::detail {

/// The role that may do everything.
constexpr int ALL_POWERFUL_ROLE = 0;

/// The client as one that reads an access cache.
///
/// @throws std::invalid_argument: it reads none.
const DiskAccessControlClient& diskClient(const AccessControlClient& client);

/// Looks the operation up as createAccessChecker() does.
///
/// @return 0, with none where the service knows no such operation; or the status that the operation cache failed with,
/// which it has logged.
int findOperation(const DiskAccessControlClient& client, const ObjectNamespace& operation,
                  boost::optional<Operation>& found);

inline std::vector<int> ascending(const std::set<int>& roleIds) {
    return {roleIds.begin(), roleIds.end()};
}

}  // namespace Tesmor::Arkwell::Rbac::detail
