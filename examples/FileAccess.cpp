#include "FileAccess.h"

#include <rbac/ManagedObjectAPI.h>
#include <rbac/RoleAPI.h>

#include <boost/lexical_cast.hpp>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <new>
#include <set>
#include <system_error>
#include <utility>

using namespace Tesmor::Arkwell::Rbac;
namespace fs = std::filesystem;
namespace operations = root_namespaces::operations;

namespace {

constexpr mode_t READ_AND_WRITE = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

struct stat statusOf(const fs::path& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), path.string());
    }
    return status;
}

std::string roleOfUser(uid_t id) {
    std::array<char, 16384> texts{};
    passwd entry{};
    passwd* found = nullptr;
    const int failure = getpwuid_r(id, &entry, texts.data(), texts.size(), &found);
    return "user " + (failure == 0 && found != nullptr ? std::string(entry.pw_name) : std::to_string(id));
}

std::string roleOfGroup(gid_t id) {
    std::array<char, 16384> texts{};
    group entry{};
    group* found = nullptr;
    const int failure = getgrgid_r(id, &entry, texts.data(), texts.size(), &found);
    return "group " + (failure == 0 && found != nullptr ? std::string(entry.gr_name) : std::to_string(id));
}

/// The roles to which a permission bit of owner, group or others belongs.
std::set<std::string> rolesWith(const struct stat& status, mode_t ownerBit) {
    std::set<std::string> roles;
    if ((status.st_mode & ownerBit) != 0) {
        roles.insert(roleOfUser(status.st_uid));
    }
    if ((status.st_mode & (ownerBit >> 3U)) != 0) {
        roles.insert(roleOfGroup(status.st_gid));
    }
    if ((status.st_mode & (ownerBit >> 6U)) != 0) {
        roles.insert("everybody");
    }
    return roles;
}

/// Who is granted what, with one access definition for each role and propagation.
class Grants {
public:
    void add(const std::set<std::string>& roles, const ObjectNamespace& operation, Propagation::enum_type propagation) {
        for (const std::string& role : roles) {
            operations_[{role, propagation}].insert(operation);
        }
    }

    boost::shared_ptr<json_t> attributes(const std::map<std::string, int>& roleIds) const {
        json_t* const definitions = json_array();
        for (const auto& [holder, granted] : operations_) {
            const auto& [role, propagation] = holder;
            const auto id = roleIds.find(role);
            if (id == roleIds.end()) {
                continue;
            }
            json_t* const names = json_array();
            for (const ObjectNamespace& operation : granted) {
                json_array_append_new(names, json_string(operation.str().c_str()));
            }
            json_array_append_new(
                definitions, json_pack("{s:i, s:s, s:o}", "roleId", id->second, "propagation",
                                       boost::lexical_cast<std::string>(propagation).c_str(), "operations", names));
        }
        return {json_pack("{s:b, s:o}", "inherit", 0, "accessDefinitions", definitions), json_decref};
    }

private:
    std::map<std::pair<std::string, Propagation::enum_type>, std::set<ObjectNamespace>> operations_;
};

}  // namespace

ObjectNamespace nameOf(const fs::path& path) {
    ObjectNamespace name = root_namespaces::ASSETS | "FILES";
    for (const fs::path& part : path.relative_path()) {
        if (!part.empty()) {
            name = name | part.string();
        }
    }
    return name;
}

FileAccess::FileAccess() {
    for (const Role& role : RoleAPI().get_roles("")) {
        roles_[role.name] = role.id;
    }
}

boost::shared_ptr<json_t> FileAccess::of(const fs::path& path) const {
    const struct stat own = statusOf(path);
    const struct stat folder = statusOf(path.parent_path());
    const bool isFolder = S_ISDIR(own.st_mode);
    const auto scope = isFolder ? Propagation::OBJECT_AND_CHILDREN : Propagation::OBJECT;
    Grants grants;
    grants.add(rolesWith(own, S_IRUSR), operations::VIEW, scope);
    grants.add(rolesWith(own, S_IWUSR), operations::UPDATE, scope);
    grants.add({roleOfUser(own.st_uid)}, operations::MANAGE_ACCESS, scope);
    grants.add(rolesWith(folder, S_IWUSR), operations::DELETE_NS, Propagation::OBJECT);
    if (isFolder) {
        grants.add(rolesWith(own, S_IWUSR), operations::ADD, scope);
        grants.add(rolesWith(own, S_IWUSR), operations::DELETE_NS, Propagation::CHILDREN);
    }
    return grants.attributes(roles_);
}

boost::shared_ptr<json_t> FileAccess::inherited() {
    return {json_pack("{s:b}", "inherit", 1), json_decref};
}

bool FileAccess::isLikeItsFolder(const fs::path& path) {
    const struct stat own = statusOf(path);
    const struct stat folder = statusOf(path.parent_path());
    return S_ISLNK(own.st_mode) || (own.st_uid == folder.st_uid && own.st_gid == folder.st_gid &&
                                    (own.st_mode & READ_AND_WRITE) == (folder.st_mode & READ_AND_WRITE));
}
