#pragma once

#include <rbac/ObjectNamespace.h>

#include <boost/shared_ptr.hpp>
#include <jansson.h>

#include <filesystem>
#include <map>
#include <string>

/// The namespace of a file: ("ASSETS", "FILES", each name on its absolute path).
Tesmor::Arkwell::Rbac::ObjectNamespace nameOf(const std::filesystem::path& path);

/// The access that owners, groups and modes give to files, as the access-control attributes of their registrations: who
/// may read may VIEW, who may write may UPDATE, who may write the folder may ADD to it and DELETE from it, and the
/// owner may MANAGE_ACCESS. A folder's grants hold for what is below and inherits.
class FileAccess {
public:
    /// Asks the service for its roles, whose names are "everybody", "user NAME" and "group NAME". Owners and groups for
    /// whom it has none are left out.
    ///
    /// @throws EC_exception as RoleAPI does.
    FileAccess();

    /// @throws std::system_error: there is no such file.
    boost::shared_ptr<json_t> of(const std::filesystem::path& path) const;

    /// Of a file that has its access from its folder.
    static boost::shared_ptr<json_t> inherited();

    /// Whether owner, group and mode are the folder's. A symbolic link is not protected by itself.
    ///
    /// @throws std::system_error: there is no such file.
    static bool isLikeItsFolder(const std::filesystem::path& path);

private:
    std::map<std::string, int> roles_;
};
