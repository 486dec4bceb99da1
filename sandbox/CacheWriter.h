#pragma once

#include "sandbox/CacheImage.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

struct CacheWriterOptions {
    /// Whether a publication also outlives the end of the operating system: with it, what is on disk is at every moment
    /// the old cache, the new one, or one that says of itself that it is being rewritten. Without it, that is promised
    /// only for the end of the process.
    bool durable = true;
    /// Whether the new cache is verified, in memory, before anything on disk is touched.
    bool verify = false;
    ImageLimits limits = {};
    /// Called before every step that changes something on disk, with what is about to be done ("write objects"). What
    /// it throws ends the publication there. For tests of interrupted publications.
    std::function<void(const char* step)> beforeStep = {};
};

/// What a publication did.
struct PublicationReport {
    std::uint64_t publication;  ///< its number
    std::uint64_t objects;      ///< records in use
    std::uint64_t nodes;
    std::uint64_t segments;
    std::uint64_t bytes;                ///< of the metadata, objects, nodes and segments files
    std::uint64_t bytesWritten;         ///< to these and to the manifest
    std::uint64_t chunksChanged;        ///< of 64 KiB each, of the objects, nodes and segments files
    std::chrono::nanoseconds lockHeld;  ///< how long readers were shut out
};

/// Publishes access caches in a directory.
///
/// Files are rewritten in place, and only where they change. Readers are shut out by the exclusive file lock named by
/// the manifest's path, for as long as changed chunks are written. Meanwhile the metadata's writing flag is set: a
/// writer that ends in between, however that happens, leaves a cache that readers refuse, and the next publication
/// repairs it, whatever the files hold. Several writers wait for one another.
class CacheWriter {
public:
    explicit CacheWriter(std::string directory, CacheWriterOptions options = {});

    /// Publishes the model. Waits without limit for readers and other writers, so the calling thread must not hold a
    /// Reader of this cache.
    ///
    /// @throws std::length_error: the model is too large; std::invalid_argument: its scope is not UTF-8;
    /// std::runtime_error: the new cache was verified and is not sound. Nothing is touched then. std::system_error,
    /// naming the file: the disk does not do its part; EC_exception: the same of a lock. The cache is then what it was,
    /// or refused by readers.
    PublicationReport publish(const AccessModel& model) const;

private:
    std::string directory_;
    CacheWriterOptions options_;
};

/// Replaces the operation cache file, under the exclusive file lock named by its path with ".lck" appended: who opens
/// the file sees the old contents or the new ones.
///
/// @throws std::invalid_argument: a namespace is not UTF-8; std::system_error, naming the file; EC_exception of the
/// lock. The old contents are then still there.
void writeOperationCache(const std::string& path, const std::map<ObjectNamespace, std::int32_t>& operations);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
