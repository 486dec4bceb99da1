#include "sandbox/TreeImport.h"

#include "sandbox/UnixRoles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

namespace fs = std::filesystem;
namespace operations = Rbac::root_namespaces::operations;
using Rbac::ObjectNamespace;

/// What decides about access to a file.
struct Protection {
    uid_t owner;
    gid_t group;
    mode_t mode;

    static Protection of(const struct stat& status) {
        return {status.st_uid, status.st_gid,
                status.st_mode & static_cast<mode_t>(S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH)};
    }
    friend bool operator==(const Protection& a, const Protection& b) {
        return a.owner == b.owner && a.group == b.group && a.mode == b.mode;
    }
};

std::int32_t bitOf(const ObjectNamespace& operation) {
    const auto known = fileOperations().find(operation);
    if (known == fileOperations().end()) {
        throw std::invalid_argument("files have no operation " + operation.str());
    }
    return known->second;
}

/// The roles to which a permission bit of owner, group or others belongs.
std::vector<int> rolesWith(const Protection& protection, mode_t ownerBit) {
    std::vector<int> roles;
    if ((protection.mode & ownerBit) != 0) {
        roles.push_back(unix_roles::ofUser(protection.owner));
    }
    if ((protection.mode & (ownerBit >> 3U)) != 0) {
        roles.push_back(unix_roles::ofGroup(protection.group));
    }
    if ((protection.mode & (ownerBit >> 6U)) != 0) {
        roles.push_back(unix_roles::EVERYBODY);
    }
    return roles;
}

class GrantList {
public:
    void add(const std::vector<int>& roles, const ObjectNamespace& operation, GrantScope scope) {
        for (const int role : roles) {
            grants_.push_back({role, bitOf(operation), scope});
        }
    }
    std::vector<Grant> take() { return std::move(grants_); }

private:
    std::vector<Grant> grants_;
};

/// Grants for an object that does not inherit.
std::vector<Grant> grantsOf(const Protection& own, const Protection& folder, bool isFolder) {
    const GrantScope scope = isFolder ? GrantScope::OBJECT_AND_CHILDREN : GrantScope::OBJECT;
    GrantList grants;
    grants.add(rolesWith(own, S_IRUSR), operations::VIEW, scope);
    grants.add(rolesWith(own, S_IWUSR), operations::UPDATE, scope);
    grants.add({unix_roles::ofUser(own.owner)}, operations::MANAGE_ACCESS, scope);
    grants.add(rolesWith(folder, S_IWUSR), operations::DELETE_NS, GrantScope::OBJECT);
    if (isFolder) {
        grants.add(rolesWith(own, S_IWUSR), operations::ADD, scope);
        grants.add(rolesWith(own, S_IWUSR), operations::DELETE_NS, GrantScope::CHILDREN);
    }
    return grants.take();
}

struct stat statusOf(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return status;
}

class Importer {
public:
    explicit Importer(const std::vector<Revocation>& revocations)
        : revocations_(revocations), revoked_(revocations.size(), false) {}

    void run(const std::string& root) {
        const struct stat top = statusOf(root);
        const Protection own = Protection::of(top);
        addObject(root, own, own, S_ISDIR(top.st_mode), false);
        std::vector<std::pair<fs::path, Protection>> folders;
        if (S_ISDIR(top.st_mode)) {
            folders.emplace_back(root, own);
        }
        while (!folders.empty()) {
            const auto [folder, protection] = std::move(folders.back());
            folders.pop_back();
            addEntries(folder, protection, folders);
        }
        const auto unused = std::find(revoked_.begin(), revoked_.end(), false);
        if (unused != revoked_.end()) {
            throw std::invalid_argument("nothing to revoke, this path is not in the tree: " +
                                        revocations_[static_cast<std::size_t>(unused - revoked_.begin())].path);
        }
    }

    AccessModel takeModel() { return std::move(model_); }
    const ImportCounts& counts() const { return counts_; }

private:
    void addEntries(const fs::path& folder, const Protection& protection,
                    std::vector<std::pair<fs::path, Protection>>& folders) {
        std::error_code failure;
        for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end; entry.increment(failure)) {
            const std::string path = entry->path().string();
            struct stat status {};
            if (lstat(path.c_str(), &status) != 0) {
                continue;  // gone since the folder was read
            }
            // A link is not protected by itself.
            const Protection own = S_ISLNK(status.st_mode) ? protection : Protection::of(status);
            addObject(path, own, protection, S_ISDIR(status.st_mode), own == protection);
            if (S_ISDIR(status.st_mode)) {
                folders.emplace_back(path, own);
            }
        }
        if (failure) {
            ++counts_.unreadable;
        }
    }

    void addObject(const std::string& path, const Protection& own, const Protection& folder, bool isFolder,
                   bool inherit) {
        ModelObject object;
        object.name = namespaceOfPath(path);
        object.inherit = inherit;
        if (!inherit) {
            object.grants = grantsOf(own, folder, isFolder);
            ++counts_.protectedOnTheirOwn;
        }
        for (std::size_t i = 0; i < revocations_.size(); ++i) {
            if (namespaceOfPath(revocations_[i].path) == object.name) {
                revoke(object, revocations_[i], grantsOf(own, folder, isFolder));
                revoked_[i] = true;
            }
        }
        model_.add(object);
        ++counts_.objects;
    }

    static void revoke(ModelObject& object, const Revocation& revocation, std::vector<Grant> grants) {
        if (!object.inherit) {
            grants = std::move(object.grants);
        }
        const std::int32_t bit = bitOf(revocation.operation);
        grants.erase(std::remove_if(grants.begin(), grants.end(),
                                    [&](const Grant& grant) {
                                        return grant.roleId == revocation.roleId && grant.operationBit == bit;
                                    }),
                     grants.end());
        object.inherit = false;
        object.grants = std::move(grants);
    }

    const std::vector<Revocation>& revocations_;
    std::vector<bool> revoked_;
    AccessModel model_;
    ImportCounts counts_;
};

}  // namespace

ObjectNamespace namespaceOfPath(const std::string& path) {
    ObjectNamespace name = Rbac::root_namespaces::ASSETS | "FILES";
    for (const fs::path& part : fs::path(path).relative_path()) {
        if (!part.empty()) {
            name = name | part.string();
        }
    }
    return name;
}

AccessModel importTree(const std::string& root, const std::vector<Revocation>& revocations, ImportCounts& counts) {
    Importer importer(revocations);
    importer.run(root);
    counts = importer.counts();
    return importer.takeModel();
}

}  // namespace Tesmor::Arkwell::Sandbox
