#include "sandbox/UnixRoles.h"

#include <grp.h>
#include <pwd.h>

#include <array>
#include <stdexcept>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {

namespace unix_roles {

namespace {

constexpr int SUPERUSER = 0;
constexpr int FIRST_USER = 1'000'000'000;
constexpr int FIRST_GROUP = 1'500'000'000;
constexpr int IDS = FIRST_GROUP - FIRST_USER;

int roleFor(int first, unsigned id) {
    if (id >= static_cast<unsigned>(IDS)) {
        throw std::invalid_argument("no role id for the user or group " + std::to_string(id));
    }
    return first + static_cast<int>(id);
}

}  // namespace

int ofUser(uid_t user) {
    return roleFor(FIRST_USER, user);
}

int ofGroup(gid_t group) {
    return roleFor(FIRST_GROUP, group);
}

std::set<int> all(const std::string& userName) {
    const passwd* const user = getpwnam(userName.c_str());
    if (user == nullptr) {
        throw std::invalid_argument("there is no user " + userName);
    }
    std::set<int> roles{EVERYBODY, ofUser(user->pw_uid)};
    if (user->pw_uid == 0) {
        roles.insert(SUPERUSER);
    }
    std::array<gid_t, 1024> groups{};
    int count = static_cast<int>(groups.size());
    if (getgrouplist(userName.c_str(), user->pw_gid, groups.data(), &count) < 0) {
        throw std::invalid_argument("the user " + userName + " has too many groups");
    }
    for (int i = 0; i < count; ++i) {
        roles.insert(ofGroup(groups[static_cast<std::size_t>(i)]));
    }
    return roles;
}

std::set<int> ofThisMachine() {
    std::set<int> roles{EVERYBODY};
    setpwent();
    while (const passwd* const user = getpwent()) {
        roles.insert(ofUser(user->pw_uid));
    }
    endpwent();
    setgrent();
    while (const group* const known = getgrent()) {
        roles.insert(ofGroup(known->gr_gid));
    }
    endgrent();
    return roles;
}

std::string nameOf(int roleId) {
    if (roleId == SUPERUSER) {
        return "superuser";
    }
    if (roleId == EVERYBODY) {
        return "everybody";
    }
    if (roleId >= FIRST_GROUP) {
        const auto id = static_cast<gid_t>(roleId - FIRST_GROUP);
        const group* const known = getgrgid(id);
        return "group " + (known != nullptr ? std::string(known->gr_name) : std::to_string(id));
    }
    if (roleId >= FIRST_USER) {
        const auto id = static_cast<uid_t>(roleId - FIRST_USER);
        const passwd* const known = getpwuid(id);
        return "user " + (known != nullptr ? std::string(known->pw_name) : std::to_string(id));
    }
    return "role " + std::to_string(roleId);
}

}  // namespace unix_roles

const std::map<Rbac::ObjectNamespace, std::int32_t>& fileOperations() {
    using namespace Rbac::root_namespaces::operations;
    // Numbers in different words of the bit sets, as a service that has grown would have them.
    static const std::map<Rbac::ObjectNamespace, std::int32_t> numbers{
        {VIEW, 0}, {ADD, 1}, {UPDATE, 2}, {DELETE_NS, 37}, {MANAGE_ACCESS, 64}};
    return numbers;
}

}  // namespace Tesmor::Arkwell::Sandbox
