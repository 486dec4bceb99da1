#pragma once

#include "sandbox/AccessModel.h"

#include <rbac/AccessCache.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// The metadata file. Readers use `writing` and `segmentRoot`.
struct __attribute__((packed)) CacheMetadata {
    static constexpr char MAGIC[] = "ARKCACHE";
    static constexpr std::uint32_t VERSION = 1;

    char magic[8];              ///< MAGIC, without the NUL
    std::uint32_t version;      ///< of this layout: VERSION
    std::uint64_t objectCount;  ///< objects in the cache; the objects file holds one record more
    std::uint8_t writing;       ///< 1 while the files are being rewritten
    std::uint8_t unused[7];
    std::uint32_t segmentRoot;  ///< byte offset of the root of the tree of first segments; 0: there are no objects
    std::uint64_t publication;  ///< number of this publication, from 1
    std::int64_t publishedAt;   ///< nanoseconds since the epoch
    std::uint64_t grantCount;   ///< access definitions of the objects in the cache
    std::uint8_t reserved[8];
};
static_assert(sizeof(CacheMetadata) == 64, "the metadata file");

/// How large the files may become, in bytes. What the records point to must lie within 32 bits.
struct ImageLimits {
    std::uint64_t objects = std::uint64_t{1} << 32;
    std::uint64_t nodes = std::uint64_t{1} << 32;
    std::uint64_t segments = std::uint64_t{1} << 32;
};

/// The contents of a cache's files.
///
/// Record 0 of the objects, the nodes and the segments is unused, since offset 0 means "none". All trees are balanced:
/// none is higher than the binary logarithm of its size, rounded up, asks for. Equal role trees are stored once.
///
/// A segment tree's nodes lie together, in layoutOrder(), followed by the trees of the segments that may follow each of
/// them, in the order of the keys and depth first. Objects have the same order. A role tree's nodes are followed by its
/// word trees; role trees have the order of the model's grant lists. The place of those that no object has is all
/// zeros.
struct CacheImage {
    using RoleNode = Rbac::TreeNode<int, Rbac::NodeBits>;

    CacheMetadata metadata = {};
    std::vector<Rbac::ManagedObject> objects;
    std::vector<RoleNode> nodes;
    std::vector<Rbac::SegmentNode> segments;

    /// Builds the files of a publication that has no number and no time yet.
    ///
    /// @throws std::length_error if a file would exceed its limit.
    static CacheImage build(const AccessModel& model, const ImageLimits& limits = {});

    /// Makes sure that readers can rely on the image.
    ///
    /// @throws std::runtime_error with the first fault that Rbac::verifyCacheBytes() finds.
    void requireSound() const;

    std::string_view metadataBytes() const;
    std::string_view objectBytes() const;
    std::string_view nodeBytes() const;
    std::string_view segmentBytes() const;
};

/// Up to four bytes of a namespace's text form, ending after the first "|".
struct TextSegment {
    std::int32_t key;  ///< the bytes, most significant first, filled up with zeros
    std::uint32_t length;
};
/// The first segment of `text`, which is not empty.
TextSegment firstSegment(std::string_view text);

/// One node of a balanced binary tree.
struct TreePlace {
    static constexpr std::uint32_t NONE = 0xFFFFFFFFU;

    std::uint32_t rank;   ///< how many smaller keys there are
    std::uint32_t left;   ///< place of the left child, or NONE
    std::uint32_t right;  ///< place of the right child, or NONE
};

/// A balanced tree of `count` keys, its nodes in the order in which they are to lie in a file: the root first, and such
/// that a search from there touches few cache lines and few pages.
std::vector<TreePlace> layoutOrder(std::size_t count);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
