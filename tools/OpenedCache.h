#pragma once

#include "rbac/enforcement/DiskAccessControlClient.h"
#include "tools/Options.h"

#include <rbac/CacheVerification.h>

#include <boost/shared_ptr.hpp>

#include <optional>
#include <string>

namespace Tesmor::Arkwell::Tools {

/// An access cache whose files are sound, with the operations that it speaks of.
///
/// The files are looked at before it is read, not while: a writer that publishes in between publishes a sound cache.
class OpenedCache {
public:
    /// @throws Unusable
    OpenedCache(const std::string& directory, const ReadingOptions& reading);

    const Rbac::AccessCache& cache() const { return *cache_; }
    const Rbac::Manifest& manifest() const { return manifest_; }
    Rbac::OperationCache& operations() { return operations_; }
    /// Answers as the clients of programs do.
    Rbac::AccessControlClient& client() { return client_; }
    /// What was found when the files were looked at; none where they are trusted.
    const std::optional<Rbac::CacheStatistics>& statistics() const { return statistics_; }

private:
    std::string operationsFile_;
    std::optional<Rbac::CacheStatistics> statistics_;  // before what is read of the cache
    Rbac::Manifest manifest_;
    boost::shared_ptr<const Rbac::AccessCache> cache_;
    Rbac::OperationCache operations_;
    Rbac::DiskAccessControlClient client_;
};

/// The folder of a cache, as it is named in messages and looked for; the cache may lack files.
///
/// @throws Unusable: there is nothing of a cache in it, or it cannot be looked into.
std::string requireCacheFolder(const std::string& directory);

/// Where the numbers of the operations are that a cache in this folder speaks of.
///
/// @throws Unusable: there is no such file.
std::string operationsFileOf(const std::string& directory, const ReadingOptions& reading);

/// Reads the file that the operation cache is over.
///
/// @throws Unusable
void loadOperations(Rbac::OperationCache& operations, const std::string& path);

}  // namespace Tesmor::Arkwell::Tools
