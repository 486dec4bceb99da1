#pragma once

/// @file
/// Whether the files of an access cache are sound.

#include <platform/Export.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// Something in an access cache's files that is not as readers take it to be.
struct CacheFault {
    std::string file;      ///< its name in the cache: "manifest.json", "metadata", "objects", "nodes" or "segments"
    std::uint64_t offset;  ///< in bytes, of the field that is wrong, or of the record where that is wrong as a whole
    /// The text of the namespace on the way to which this was found, as far as it had been read; empty where there is
    /// none. Bytes that cannot be printed stand as "\xHH". At most 1024 characters, and "..." where there were more.
    std::string objectText;
    std::string what;  ///< a sentence with the values that are wrong
};

/// Takes a fault; false: look no further.
using OnCacheFault = std::function<bool(const CacheFault&)>;

/// What a file of records holds. Record 0, which nothing can refer to, is not counted.
struct CacheFileStatistics {
    std::uint64_t bytes = 0;    ///< the file's size
    std::uint64_t records = 0;  ///< how many it has room for
    std::uint64_t reached = 0;  ///< those that a lookup can come to
    std::uint64_t free = 0;     ///< those that nothing leads to, and that are all zeros

    /// The share of the records that are reached; 1 where there are none.
    double fill() const { return records == 0 ? 1 : static_cast<double>(reached) / static_cast<double>(records); }
};

/// What the metadata of the sandbox's writer say of a publication.
struct CachePublication {
    std::uint64_t number = 0;       ///< counted from 1
    std::int64_t publishedAt = 0;   ///< nanoseconds since the epoch
    std::uint64_t objectCount = 0;  ///< how many objects were published
    std::uint64_t grantCount = 0;   ///< how many grants they had
};

/// What an access cache holds.
struct CacheStatistics {
    std::uint64_t faults = 0;  ///< how many there were
    bool complete = true;      ///< false: it was told to look no further, and the figures are those up to there
    bool locked = false;       ///< whether the cache's file lock was held meanwhile

    std::string namespaceText;        ///< from the manifest; empty where that is no good
    bool writing = false;             ///< the writing flag
    std::uint64_t metadataBytes = 0;  ///< the size of the file "metadata"
    CacheFileStatistics objects;      ///< the protected objects
    CacheFileStatistics nodes;        ///< the nodes of role trees and word trees
    CacheFileStatistics segments;     ///< the nodes of segment trees

    std::uint64_t inheriting = 0;      ///< objects that take access from their ancestors as well
    std::uint64_t notInheriting = 0;   ///< objects that do not
    std::uint64_t longestText = 0;     ///< of an object, in bytes
    std::uint64_t deepestNesting = 0;  ///< components of the object that has most of them

    std::uint64_t roleTrees = 0;   ///< each counted once, however many objects have it
    std::uint64_t wordTrees = 0;   ///< each counted once, however many roles have it
    std::uint64_t roles = 0;       ///< different role ids
    std::uint64_t operations = 0;  ///< different operation numbers that some role holds

    std::uint64_t segmentTreeDepth = 0;  ///< nodes on the longest way from a root to a leaf
    std::uint64_t roleTreeDepth = 0;     ///< the same of role trees
    std::uint64_t wordTreeDepth = 0;     ///< the same of word trees

    std::optional<CachePublication> publication;  ///< none: the metadata are another writer's
};

/// The contents of a cache's files. One that is not there could not be read: what it would hold is not judged.
struct CacheBytes {
    std::optional<std::string_view> metadata;  ///< the file "metadata"
    std::optional<std::string_view> objects;   ///< the file "objects"
    std::optional<std::string_view> nodes;     ///< the file "nodes"
    std::optional<std::string_view> segments;  ///< the file "segments"
};

/// Looks at every record of an access cache and reports what is not sound. Where there is no fault, no lookup leaves
/// the files or goes in circles, every object is found by its text and by no other, and nothing has been lost.
///
/// A fault is
///  - a file that is missing, cannot be read, is no regular file, is too short, or does not consist of whole records; a
///    manifest without a namespace (the reason is logged); a set writing flag;
///  - an offset that leads beyond its file's end or into the midst of a record;
///  - a circle; a tree whose keys are not in order; a record to which two ways lead. Whole role trees may be shared by
///    objects, and whole word trees by roles;
///  - a segment that no text has, as far as this process writes texts (which bytes are letters depends on its locale);
///    an object at a segment that does not end a component; a word that no operation is in;
///  - a lost record: nothing leads to it, but it is not free;
///  - a number of objects in the metadata of the sandbox's writer that is not that of the objects that are found.
///
/// The cache's lock is held, shared, so that no writer that takes it changes anything meanwhile; it waits for one
/// without limit, so the calling thread must not be that writer. Nothing on disk is changed: where the manifest is
/// missing there is no lock file, and none is made; where it cannot be locked (a read-only copy on a file system that
/// has no locks, say) the files are looked at all the same, and nobody else may write them meanwhile.
///
/// Takes time in proportion to the files' size; memory of about a twentieth of it in a cache whose trees are balanced,
/// and of no more than a few times it in any.
///
/// @param directory where the cache lies.
/// @param onFault called for each fault, on this thread. What it throws is passed on.
/// @throws EC_exception where waiting for the lock fails otherwise than by there being none.
ARKWELL_EXPORT CacheStatistics verifyCache(const std::string& directory, const OnCacheFault& onFault);

/// The same for a cache in memory, which has no manifest and no lock. The bytes need no alignment.
ARKWELL_EXPORT CacheStatistics verifyCacheBytes(const CacheBytes& bytes, const OnCacheFault& onFault);

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
