#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/TreeImport.h"

#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// Reads "ROLE:OPERATION:PATH", where ROLE is a number or "everybody" and OPERATION a name such as VIEW.
///
/// @throws std::invalid_argument
Revocation parseRevocation(const std::string& text);

/// Makes a directory tree of this machine managed objects of the service, as importTree() describes them, in one
/// change. Whatever the service knew at and below the tree's namespace is replaced. The roles of the users and groups
/// are added where they are missing.
///
/// @throws what importTree() and AccessService::change() throw.
ImportCounts importIntoState(AccessService& service, const std::string& path,
                             const std::vector<Revocation>& revocations);

/// Adds the roles of the users and groups of this machine that are missing.
///
/// @return how many were added.
/// @throws what AccessService::change() throws.
std::size_t importRoles(AccessService& service);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
