#pragma once

#include <rbac/ObjectNamespace.h>

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace Tesmor::Arkwell::Sandbox {

/// Role ids for the users and groups of this machine.
namespace unix_roles {

constexpr int EVERYBODY = 1;

int ofUser(uid_t user);
int ofGroup(gid_t group);

/// All roles of a user: everybody's, the user's own, and those of the user's groups; for the superuser also role 0.
///
/// @throws std::invalid_argument where there is no such user.
std::set<int> all(const std::string& userName);

/// The roles of every user and every group that this machine lists.
std::set<int> ofThisMachine();

/// A role's name for people: "everybody", "user www-data", "group adm".
std::string nameOf(int roleId);

}  // namespace unix_roles

/// The operations on imported files, with their bit numbers.
const std::map<Rbac::ObjectNamespace, std::int32_t>& fileOperations();

}  // namespace Tesmor::Arkwell::Sandbox
