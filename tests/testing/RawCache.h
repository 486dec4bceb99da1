#pragma once

#include <rbac/AccessCache.h>

#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

/// A role and the numbers of the operations that it holds.
struct Grant {
    std::int32_t role;
    std::vector<std::int32_t> operations;
};
using Grants = std::vector<Grant>;

/// The files of an access cache, record by record. All trees are plain binary
/// search trees, as deep as the order of insertion makes them. Fields that
/// readers have no business with hold noise, and so does record 0 of each file,
/// which nothing can refer to.
///
/// Knows namespaces by their text forms only, so that it depends on none of the
/// library's code.
class RawCache {
public:
    using ManagedObject = Tesmor::Arkwell::Rbac::ManagedObject;
    using Node = Tesmor::Arkwell::Rbac::TreeNode<int, Tesmor::Arkwell::Rbac::NodeBits>;
    using SegmentNode = Tesmor::Arkwell::Rbac::SegmentNode;
    using NodeOffset = Tesmor::Arkwell::Rbac::NodeOffset;
    using Header = Tesmor::Arkwell::Rbac::detail::MetadataHeader;

    explicit RawCache(std::string directory, std::string namespaceText = "|");

    /// Adds an object, or replaces it.
    ///
    /// @return the offset of its record.
    NodeOffset put(const std::string& text, std::uint8_t inherit, const Grants& own = {}, const Grants& child = {});
    /// Adds the segments of `text` without an object.
    ///
    /// @return the offset of the last one.
    NodeOffset putSegments(const std::string& text);
    /// Adds a role tree.
    ///
    /// @return the offset of its root; 0 for no grants.
    NodeOffset putGrants(const Grants& grants);
    /// Adds an object record that no segment leads to.
    NodeOffset putRecord(std::uint8_t inherit, NodeOffset ownRoles, NodeOffset childRoles);

    ManagedObject& objectAt(NodeOffset offset) { return objects[offset / sizeof(ManagedObject)]; }
    Node& nodeAt(NodeOffset offset) { return nodes[offset / sizeof(Node)]; }
    SegmentNode& segmentAt(NodeOffset offset) { return segments[offset / sizeof(SegmentNode)]; }

    /// Writes the files where they are, without replacing any.
    void write() const;

    const std::string& directory() const { return directory_; }
    std::string manifest() const { return directory_ + "/manifest.json"; }
    std::string metadataFile() const { return directory_ + "/metadata"; }
    std::string objectFile() const { return directory_ + "/objects"; }
    std::string nodeFile() const { return directory_ + "/nodes"; }
    std::string segmentFile() const { return directory_ + "/segments"; }

    Header header;
    std::vector<ManagedObject> objects;
    std::vector<Node> nodes;
    std::vector<SegmentNode> segments;

private:
    std::string directory_;
    std::string namespaceText_;
};

/// The segments of a text, by the definition: up to four bytes, ending after
/// the first "|", filled up with zeros.
std::vector<std::int32_t> segmentValues(const std::string& text);

/// Gives the file these contents without replacing it. Never shorter than the
/// new contents on the way.
void overwriteFile(const std::string& path, const std::string& contents);
/// Makes the file this long: cuts it off, or appends bytes of noise.
void resizeFile(const std::string& path, std::size_t size);
/// Sets the writing flag in the metadata file.
void setWritingFlag(const RawCache& cache, std::uint8_t value);

}  // namespace testing_support
