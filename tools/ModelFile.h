#pragma once

#include "sandbox/AccessModel.h"

#include <rbac/AccessCache.h>
#include <rbac/OperationCache.h>

#include <string>

namespace Tesmor::Arkwell::Tools {

/// Reads objects and the access that is defined on them from a file. Either it is one document,
///
///     {"namespace": "|", "objects": [
///       {"namespace": "|ASSETS|db|", "inherit": true, "accessDefinitions": [
///         {"roleId": 2, "propagation": "OBJECT_AND_CHILDREN", "operations": ["|OPERATIONS|VIEW|"]}]}]}
///
/// or every line of it is one of the objects, blank lines aside; without any there are no objects. "namespace" of the
/// document and "accessDefinitions" may be missing. An operation without a name is written as its number. Nothing else
/// may be in it.
///
/// @param operations where names of operations are looked up.
/// @throws std::invalid_argument naming the file, the place in it and what is wrong there; std::system_error naming the
/// file where it cannot be read; what OperationCache::load() throws.
Sandbox::AccessModel readModelFile(const std::string& path, Rbac::OperationCache& operations);

/// A model as an access cache of its own, which nobody else uses and which goes with this object.
class ModelCache {
public:
    /// @throws what Sandbox::CacheWriter::publish() throws; std::system_error where there is no place for it.
    explicit ModelCache(const Sandbox::AccessModel& model);

    const Rbac::AccessCache& cache() const { return cache_; }

private:
    /// A folder that only its owner may enter, removed with its contents.
    class TemporaryFolder {
    public:
        TemporaryFolder();
        ~TemporaryFolder();
        TemporaryFolder(const TemporaryFolder&) = delete;
        TemporaryFolder& operator=(const TemporaryFolder&) = delete;

        const std::string& path() const { return path_; }

    private:
        std::string path_;
    };

    static Rbac::Manifest publish(const Sandbox::AccessModel& model, const std::string& directory);

    TemporaryFolder folder_;
    Rbac::AccessCache cache_;
};

}  // namespace Tesmor::Arkwell::Tools
