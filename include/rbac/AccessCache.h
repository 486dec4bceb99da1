#pragma once

/// @file
/// An access cache, its manifest and its records.

#include <platform/Export.h>
#include <platform/FileLock.h>
#include <rbac/EC_exception.h>
#include <rbac/ObjectNamespace.h>
#include <rbac/OperationCache.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// A byte offset into one of a cache's files; 0 means "none". It selects the record that contains it.
using NodeOffset = std::uint32_t;
/// The payload of a node: 32 operation bits, or the NodeOffset of another tree.
using NodeBits = std::uint32_t;

/// A record of the objects file: one protected object.
struct ManagedObject {
    std::uint32_t writerData;     ///< not looked at
    std::uint8_t inherit;         ///< nonzero: the object also takes its access from its ancestors
    std::uint8_t writerFlags[3];  ///< not looked at
    NodeOffset ownRoles;          ///< role tree: rights on the object itself
    NodeOffset childRoles;        ///< role tree: rights that the object grants to its descendants
};
static_assert(sizeof(ManagedObject) == 16, "a record of the objects file");

/// A record of the nodes file: a node of a binary search tree. In a role tree the key is a role id and the payload the
/// offset of the role's word tree; in a word tree the key is a word index and the payload 32 operation bits.
template <class Key, class Payload>
struct TreeNode {
    std::uint32_t writerData[2];  ///< not looked at
    NodeOffset left;              ///< the nodes with smaller keys
    NodeOffset right;             ///< the nodes with larger keys
    Key key;                      ///< role id or word index
    Payload payload;              ///< word tree or operation bits
};
static_assert(sizeof(TreeNode<int, NodeBits>) == 24, "a record of the nodes file");

/// A record of the segments file: a node of the tree of the segments that may stand at one place of a namespace's text.
struct SegmentNode {
    std::uint32_t writerData[2];  ///< not looked at
    NodeOffset left;              ///< the nodes with smaller keys
    NodeOffset right;             ///< the nodes with larger keys
    std::int32_t key;             ///< segment value
    NodeOffset object;            ///< the object whose text ends here
    NodeOffset child;             ///< root of the tree of the segments that may follow
    std::uint32_t writerTail;     ///< not looked at
};
static_assert(sizeof(SegmentNode) == 32, "a record of the segments file");

class AccessCache;

namespace detail {

using Rbac::NodeBits;
using Rbac::NodeOffset;
using Rbac::SegmentNode;
using Rbac::TreeNode;

/// The part of the metadata file that readers use.
struct MetadataHeader {
    std::uint8_t writerHead[20];
    std::uint8_t writing;  ///< nonzero: the files are being rewritten
    std::uint8_t writerFlags[7];
    NodeOffset segmentRoot;  ///< root of the tree of first segments; 0: the cache is empty
};
static_assert(sizeof(MetadataHeader) == 32, "the head of the metadata file");

/// One mapping of a file, unmapped when destroyed.
class ARKWELL_EXPORT Mapping {
public:
    Mapping() = default;
    Mapping(void* base, std::uint64_t size) : base_(base), size_(size) {}
    Mapping(Mapping&& other) noexcept;
    Mapping& operator=(Mapping&& other) noexcept;
    ~Mapping();

    const char* base() const { return static_cast<const char*>(base_); }
    std::uint64_t size() const { return size_; }

private:
    void* base_ = nullptr;
    std::uint64_t size_ = 0;
};

/// A file mapped read-only and shared. Failures are written to the standard error stream and thrown as
/// std::runtime_error.
///
/// base() and mapped_size() may be called while another thread remaps; map(), unmap(), refresh() and replace() must not
/// run at once on one map.
class ARKWELL_EXPORT MemoryMap {
public:
    /// Opens and maps the file.
    ///
    /// @throws std::runtime_error "error opening file", "error statting file" or "error mapping file".
    explicit MemoryMap(const std::string& path);
    ~MemoryMap();
    MemoryMap(const MemoryMap&) = delete;
    MemoryMap& operator=(const MemoryMap&) = delete;

    /// Maps the file at its current size; an empty file is a valid, empty map.
    void map();
    /// Removes the mapping.
    void unmap();
    /// Maps the file anew where its size has changed.
    void refresh();
    /// The file's size in bytes now.
    std::uint64_t current_size() const;

    /// Whether the file's size differs from the mapped one, so that refresh() would remap.
    bool resized() const { return current_size() != mapped_size(); }
    /// Maps the file anew and returns the mapping that this replaces, for a caller who knows when nobody reads through
    /// it any more. Where it throws, the map is left empty and the old mapping is in `old` all the same.
    void replace(Mapping& old);

    const char* base() const { return base_.load(); }
    std::uint64_t mapped_size() const { return size_.load(); }

private:
    void publish(Mapping mapping);

    std::string path_;
    int descriptor_;
    Mapping mapping_;
    std::atomic<const char*> base_{nullptr};
    std::atomic<std::uint64_t> size_{0};
};

/// The records of type T in a mapped file. The base is read anew at every access, so a view outlives remaps.
template <class T>
class ReadOnlyBlockAllocator {
public:
    explicit ReadOnlyBlockAllocator(const MemoryMap& map) : map_(&map) {}

    /// Record number `index`. Nothing is checked.
    const T* at(std::size_t index) const { return records() + index; }
    /// The record that holds byte `offset`.
    const T* containing(NodeOffset offset) const { return at(offset / sizeof(T)); }
    /// Record number 0; for the length of one lookup.
    const T* records() const { return reinterpret_cast<const T*>(map_->base()); }

private:
    const MemoryMap* map_;
    std::uint64_t unused_ = 0;
};

/// Steps through the text form of a namespace, up to four bytes at a time, never past a "|".
class ARKWELL_EXPORT segment_iterator {
public:
    segment_iterator(const std::string& text, std::size_t position);

    /// The segment's value: its bytes, most significant first, filled up with zeros.
    const std::int32_t* operator->() const;
    std::int32_t operator*() const { return *operator->(); }
    segment_iterator& operator++();
    /// Where in the text the segment begins.
    std::size_t position() const { return position_; }

    friend bool operator==(const segment_iterator& a, const segment_iterator& b) { return a.position_ == b.position_; }
    friend bool operator!=(const segment_iterator& a, const segment_iterator& b) { return !(a == b); }

private:
    std::string text_;
    std::size_t position_;
    mutable std::int32_t value_ = 0;
};

/// The segments of the text form of `ns`.
ARKWELL_EXPORT std::pair<segment_iterator, segment_iterator> namespaceSegments(const ObjectNamespace& ns);

/// Which of an object's two role trees is asked.
enum class RoleTree { OWN, CHILD };

/// Whether `roleId` holds `operation` in the given role tree of `object`.
ARKWELL_EXPORT bool get_operation_bit(const ManagedObject& object,
                                      const ReadOnlyBlockAllocator<TreeNode<int, NodeBits>>& nodes, std::int32_t roleId,
                                      const Operation& operation, RoleTree tree);

class ReaderSessions;
struct ReaderSession;
struct CacheAccess;

}  // namespace detail

/// Where an access cache lies and what it covers, from its manifest file.
class ARKWELL_EXPORT Manifest {
public:
    /// Reads `directory`/manifest.json.
    ///
    /// @param name the cache's name, kept as it is.
    /// @param directory where its files lie.
    /// @throws EC_exception with status 12: the manifest is missing, not JSON, or has no string "namespace" (logged).
    /// boost::bad_lexical_cast: "namespace" holds no namespace.
    Manifest(const std::string& name, const std::string& directory);

    /// The namespace whose objects the cache covers.
    const ObjectNamespace& objectNamespace() const { return objectNamespace_; }
    /// The cache's name.
    const std::string& name() const { return name_; }
    /// Where its files lie.
    const std::string& directory() const { return directory_; }
    /// Of the manifest file, which names the cache's file lock.
    const std::string& path() const { return path_; }

private:
    ObjectNamespace objectNamespace_;
    std::string name_;
    std::string directory_;
    std::string path_;
};

/// An access cache: files, written by the access-control service, that say for every protected object which roles hold
/// which operations on it and on its descendants. They are mapped and used in place.
///
/// The service rewrites the files in place, under an exclusive file lock named by the manifest's path. lock() takes the
/// same lock shared, and is the only way to read. One AccessCache may be used by any number of threads at once.
///
/// After fork(), a child may use an AccessCache of its parent; Readers that the parent held at that moment may only be
/// destroyed there.
class ARKWELL_EXPORT AccessCache {
public:
    class Reader;

    static const std::string MANIFEST_FILE_NAME;  ///< "manifest.json"
    static const std::string METADATA_FILE_NAME;  ///< "metadata"
    static const std::string OBJECT_FILE_NAME;    ///< "objects"
    static const std::string NODE_FILE_NAME;      ///< "nodes"
    static const std::string SEGMENT_FILE_NAME;   ///< "segments"
    static const std::string AD_COUNT_FILE_NAME;  ///< "counts"; nothing here reads it

    /// Opens and maps the cache's files.
    ///
    /// @throws std::runtime_error "error opening file", "error statting file" or "error mapping file".
    explicit AccessCache(const Manifest& manifest);
    ~AccessCache();
    AccessCache(const AccessCache&) = delete;
    AccessCache& operator=(const AccessCache&) = delete;

    /// Takes the cache's lock and brings the mappings up to the files' sizes. Waits for a writer without limit.
    ///
    /// @throws EC_exception with status 12: a writer was interrupted, or the metadata file is too short; or what the
    /// file lock throws. std::runtime_error: a file cannot be mapped; the next lock() tries again.
    Reader lock() const;

    /// How many records the objects file holds, as far as it is mapped.
    std::size_t managedObjectCount() const;

    /// The manifest's path, which is also the name of the cache's file lock.
    const std::string& manifest_filename() const { return manifest_.path(); }

private:
    friend class Reader;
    friend struct detail::CacheAccess;

    void refresh(detail::ReaderSession& session) const;

    Manifest manifest_;
    std::string directory_;
    std::string name_;
    mutable detail::MemoryMap metadataMap_;
    mutable detail::MemoryMap objectMap_;
    mutable detail::MemoryMap nodeMap_;
    mutable detail::MemoryMap segmentMap_;
    detail::ReadOnlyBlockAllocator<detail::MetadataHeader> metadata_;
    detail::ReadOnlyBlockAllocator<ManagedObject> objects_;
    detail::ReadOnlyBlockAllocator<TreeNode<int, NodeBits>> nodes_;
    detail::ReadOnlyBlockAllocator<SegmentNode> segments_;
    std::unique_ptr<detail::ReaderSessions> sessions_;
};

/// A locked view of an access cache: while it or a copy of it lives, no writer changes the files.
///
/// The cache must outlive it. Records that it returns are valid as long as it lives. A Reader must not be used by two
/// threads at once, but copies may be.
class ARKWELL_EXPORT AccessCache::Reader {
public:
    /// Takes the cache's lock; AccessCache::lock() is how to call this.
    explicit Reader(const AccessCache& cache);
    /// Shares the lock of `other`.
    Reader(const Reader& other);
    /// Lets go of its own lock and shares that of `other`.
    Reader& operator=(const Reader& other);
    ~Reader();

    /// Whether the files are being rewritten, or were when their writer stopped.
    bool writing_in_progress() const;

    /// The record of exactly this object, or null where the cache has none.
    const ManagedObject* lookup(const ObjectNamespace& ns) const;

    /// The record that holds byte `offset` of the objects file.
    const ManagedObject* getManagedObject(NodeOffset offset) const;

    /// Whether the role holds the operation on the object itself.
    bool getOperationBit(const ManagedObject& object, std::int32_t roleId, const Operation& operation) const;
    /// The same; false for an object that the cache does not hold.
    bool getOperationBit(const ObjectNamespace& ns, std::int32_t roleId, const Operation& operation) const;

    /// Whether the role holds the operation on the object's descendants.
    bool getChildOperationBit(const ManagedObject& object, std::int32_t roleId, const Operation& operation) const;
    /// The same; false for an object that the cache does not hold.
    bool getChildOperationBit(const ObjectNamespace& ns, std::int32_t roleId, const Operation& operation) const;

private:
    friend class AccessCache;
    friend struct detail::CacheAccess;

    Reader(const AccessCache& cache, detail::ReaderSession& session);

    const AccessCache* cache_;
    detail::ReaderSession* session_;
    unsigned long forkGeneration_;
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
