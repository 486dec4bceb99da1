#pragma once

#include "sandbox/AccessModel.h"

#include <rbac/ObjectNamespace.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {

/// The namespace of a file: ("ASSETS", "FILES", each name on its absolute path). An empty path component is dropped.
Rbac::ObjectNamespace namespaceOfPath(const std::string& path);

/// A grant that is taken away from a folder and everything below that inherits it.
struct Revocation {
    int roleId;
    Rbac::ObjectNamespace operation;
    std::string path;
};

/// How an import went.
struct ImportCounts {
    std::size_t objects = 0;
    std::size_t protectedOnTheirOwn = 0;  ///< whose owner or mode differs from their folder's
    std::size_t unreadable = 0;           ///< folders that this user may not list
};

/// Makes an access model of a directory tree: files and folders are the objects, their owners, groups and modes the
/// grants. Who may read may VIEW, who may write may UPDATE, who may write the folder may ADD to it and DELETE from it,
/// and the owner may MANAGE_ACCESS. An object that is protected just like its folder has no grants and inherits.
///
/// Symbolic links are objects and are not followed; other file systems below `root` are entered.
///
/// @throws std::system_error where `root` cannot be read; std::invalid_argument where a revocation names a path that is
/// not in the tree or an operation that there is not.
AccessModel importTree(const std::string& root, const std::vector<Revocation>& revocations, ImportCounts& counts);

}  // namespace Tesmor::Arkwell::Sandbox
