#include "testing/RawCache.h"

#include "testing/TemporaryDirectory.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <utility>

namespace testing_support {

namespace {

constexpr char NOISE = '\xA5';
constexpr std::size_t METADATA_SIZE = 96;

template <class Record>
Record noise() {
    Record record{};
    std::memset(&record, NOISE, sizeof record);
    return record;
}

template <class Record>
RawCache::NodeOffset offsetOf(std::size_t index) {
    const std::size_t offset = index * sizeof(Record);
    if (offset > std::numeric_limits<RawCache::NodeOffset>::max()) {
        throw std::length_error("too many records");
    }
    return static_cast<RawCache::NodeOffset>(offset);
}

template <class Record>
RawCache::NodeOffset append(std::vector<Record>& records, const Record& record) {
    records.push_back(record);
    return offsetOf<Record>(records.size() - 1);
}

/// Adds a node with this key to the tree at `root` (0: a new tree), where it
/// has none.
template <class Node>
RawCache::NodeOffset insert(std::vector<Node>& nodes, RawCache::NodeOffset root, const Node& added) {
    RawCache::NodeOffset at = root;
    while (at != 0) {
        Node& node = nodes[at / sizeof(Node)];
        if (node.key == added.key) {
            return at;
        }
        const bool isLeft = added.key < node.key;
        const RawCache::NodeOffset next = isLeft ? node.left : node.right;
        if (next == 0) {
            const RawCache::NodeOffset made = offsetOf<Node>(nodes.size());
            (isLeft ? node.left : node.right) = made;
            return append(nodes, added);
        }
        at = next;
    }
    return append(nodes, added);
}

RawCache::Node treeNode(std::int32_t key) {
    auto node = noise<RawCache::Node>();
    node.left = 0;
    node.right = 0;
    node.key = key;
    node.payload = 0;
    return node;
}

RawCache::SegmentNode segmentNode(std::int32_t key) {
    auto node = noise<RawCache::SegmentNode>();
    node.left = 0;
    node.right = 0;
    node.key = key;
    node.object = 0;
    node.child = 0;
    return node;
}

template <class Record>
std::string bytesOf(const std::vector<Record>& records) {
    return {reinterpret_cast<const char*>(records.data()), records.size() * sizeof(Record)};
}

/// An open file, for the length of one statement.
class OpenFile {
public:
    explicit OpenFile(const std::string& path) : descriptor_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        if (descriptor_ < 0) {
            throw std::runtime_error("cannot open " + path);
        }
    }
    ~OpenFile() { close(descriptor_); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    void write(const std::string& bytes, std::size_t offset) const {
        require(pwrite(descriptor_, bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
                static_cast<ssize_t>(bytes.size()));
    }
    void resize(std::size_t size) const { require(ftruncate(descriptor_, static_cast<off_t>(size)) == 0); }

private:
    static void require(bool done) {
        if (!done) {
            throw std::runtime_error("cannot write a file");
        }
    }

    int descriptor_;
};

}  // namespace

RawCache::RawCache(std::string directory, std::string namespaceText)
    : header(noise<Header>()),
      objects{noise<ManagedObject>()},
      nodes{noise<Node>()},
      segments{noise<SegmentNode>()},
      directory_(std::move(directory)),
      namespaceText_(std::move(namespaceText)) {
    header.writing = 0;
    header.segmentRoot = 0;
}

RawCache::NodeOffset RawCache::put(const std::string& text, std::uint8_t inherit, const Grants& own,
                                   const Grants& child) {
    const NodeOffset ownRoles = putGrants(own);
    const NodeOffset record = putRecord(inherit, ownRoles, putGrants(child));
    const NodeOffset last = putSegments(text);
    segmentAt(last).object = record;
    return record;
}

RawCache::NodeOffset RawCache::putSegments(const std::string& text) {
    NodeOffset last = 0;
    for (const std::int32_t value : segmentValues(text)) {
        const NodeOffset root = last == 0 ? header.segmentRoot : segmentAt(last).child;
        const NodeOffset next = insert(segments, root, segmentNode(value));
        if (root == 0) {
            (last == 0 ? header.segmentRoot : segmentAt(last).child) = next;
        }
        last = next;
    }
    return last;
}

RawCache::NodeOffset RawCache::putGrants(const Grants& grants) {
    NodeOffset root = 0;
    for (const Grant& grant : grants) {
        const NodeOffset role = insert(nodes, root, treeNode(grant.role));
        root = root == 0 ? role : root;
        for (const std::int32_t operation : grant.operations) {
            const auto number = static_cast<std::uint32_t>(operation);
            const NodeOffset words = nodeAt(role).payload;
            const NodeOffset word = insert(nodes, words, treeNode(static_cast<std::int32_t>(number / 32)));
            nodeAt(role).payload = words == 0 ? word : words;
            nodeAt(word).payload |= std::uint32_t{1} << (number % 32);
        }
    }
    return root;
}

RawCache::NodeOffset RawCache::putRecord(std::uint8_t inherit, NodeOffset ownRoles, NodeOffset childRoles) {
    auto record = noise<ManagedObject>();
    record.inherit = inherit;
    record.ownRoles = ownRoles;
    record.childRoles = childRoles;
    return append(objects, record);
}

void RawCache::write() const {
    std::filesystem::create_directories(directory_);
    std::string metadata(METADATA_SIZE, NOISE);
    std::memcpy(metadata.data(), &header, sizeof header);
    overwriteFile(metadataFile(), metadata);
    overwriteFile(objectFile(), bytesOf(objects));
    overwriteFile(nodeFile(), bytesOf(nodes));
    overwriteFile(segmentFile(), bytesOf(segments));
    overwriteFile(manifest(), R"({"namespace": ")" + namespaceText_ + "\"}");
}

std::vector<std::int32_t> segmentValues(const std::string& text) {
    std::vector<std::int32_t> values;
    for (std::size_t at = 0; at < text.size();) {
        std::uint32_t value = 0;
        bool ended = false;
        for (int i = 0; i < 4; ++i) {
            const bool taken = !ended && at < text.size();
            const unsigned char byte = taken ? static_cast<unsigned char>(text[at++]) : std::uint8_t{0};
            ended = ended || byte == '|';
            value = value * 256 + byte;
        }
        values.push_back(static_cast<std::int32_t>(value));
    }
    return values;
}

void overwriteFile(const std::string& path, const std::string& contents) {
    const OpenFile file(path);
    file.write(contents, 0);
    file.resize(contents.size());
}

void resizeFile(const std::string& path, std::size_t size) {
    const auto before = std::filesystem::file_size(path);
    const OpenFile file(path);
    if (size > before) {
        file.write(std::string(size - before, NOISE), before);
    } else {
        file.resize(size);
    }
}

void setWritingFlag(const RawCache& cache, std::uint8_t value) {
    OpenFile(cache.metadataFile()).write(std::string(1, static_cast<char>(value)), 20);
}

}  // namespace testing_support
