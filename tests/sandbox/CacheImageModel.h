#pragma once

#include "sandbox/CacheImage.h"
#include "testing/TemporaryDirectory.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sandbox_testing {

using Tesmor::Arkwell::Sandbox::CacheImage;
using Tesmor::Arkwell::Sandbox::Grant;
using Tesmor::Arkwell::Sandbox::GrantScope;
using Tesmor::Arkwell::Sandbox::ModelObject;
using Tesmor::Arkwell::Sandbox::ObjectState;

/// The bytes of a cache's files.
struct CacheFiles {
    std::string metadata;
    std::string objects;
    std::string nodes;
    std::string segments;
};

inline CacheFiles filesOf(const CacheImage& image) {
    return {std::string(image.metadataBytes()), std::string(image.objectBytes()), std::string(image.nodeBytes()),
            std::string(image.segmentBytes())};
}

inline CacheFiles filesIn(const std::string& directory) {
    using testing_support::readFile;
    return {readFile(directory + "/metadata"), readFile(directory + "/objects"), readFile(directory + "/nodes"),
            readFile(directory + "/segments")};
}

/// Reads a cache's bytes by the rules of their layout alone, and throws std::runtime_error where they are broken.
class CacheInterpreter {
public:
    enum Tree { OWN, CHILD };

    explicit CacheInterpreter(CacheFiles files) : files_(std::move(files)) {}

    const CacheFiles& files() const { return files_; }

    bool writing() const { return byteAt(files_.metadata, 20) != 0; }
    std::uint32_t root() const { return wordAt(files_.metadata, 28); }

    /// The offset of the object's record; none where there is no such object.
    std::optional<std::uint32_t> lookup(const std::string& text) const {
        std::uint32_t tree = root();
        std::size_t position = 0;
        while (tree != 0) {
            const std::size_t end = segmentEnd(text, position);
            const auto node = search(files_.segments, 32, tree, keyOf(text.substr(position, end - position)));
            if (!node) {
                return std::nullopt;
            }
            position = end;
            if (position == text.size()) {
                const std::uint32_t object = offsetAt(files_.segments, *node + 20, files_.objects, 16);
                return object == 0 ? std::nullopt : std::optional<std::uint32_t>(object);
            }
            tree = offsetAt(files_.segments, *node + 24, files_.segments, 32);
        }
        return std::nullopt;
    }

    bool inherits(std::uint32_t object) const { return byteAt(files_.objects, object + 4) != 0; }

    std::uint32_t roleTree(std::uint32_t object, Tree which) const {
        return offsetAt(files_.objects, object + (which == OWN ? 8 : 12), files_.nodes, 24);
    }

    bool granted(std::uint32_t object, Tree which, std::int32_t role, std::int32_t operation) const {
        const std::uint32_t tree = roleTree(object, which);
        const auto node = tree == 0 ? std::nullopt : search(files_.nodes, 24, tree, role);
        const std::uint32_t words = node ? offsetAt(files_.nodes, *node + 20, files_.nodes, 24) : 0;
        const auto word = words == 0 ? std::nullopt : search(files_.nodes, 24, words, operation / 32);
        return word && (wordAt(files_.nodes, *word + 20) >> (operation % 32) & 1U) != 0;
    }

    /// Goes everywhere that the metadata lead, and throws where an offset, an order or a height is wrong, or something
    /// can be reached by two ways that must not.
    void check() const {
        requireSize(files_.metadata, 64, 64);
        requireUnusedFirstRecord(files_.objects, 16);
        requireUnusedFirstRecord(files_.nodes, 24);
        requireUnusedFirstRecord(files_.segments, 32);
        std::set<std::uint32_t> objects;
        std::size_t segments = 0;
        std::vector<std::uint32_t> trees{offsetAt(files_.metadata, 28, files_.segments, 32)};
        while (!trees.empty()) {
            const std::vector<std::uint32_t> nodes = inOrder(files_.segments, 32, trees.back());
            trees.pop_back();
            segments += nodes.size();
            for (const std::uint32_t node : nodes) {
                const std::uint32_t child = offsetAt(files_.segments, node + 24, files_.segments, 32);
                const std::uint32_t object = offsetAt(files_.segments, node + 20, files_.objects, 16);
                require(child != 0 || object != 0, "a segment leads nowhere");
                if (child != 0) {
                    trees.push_back(child);
                }
                if (object != 0) {
                    require(objects.insert(object).second, "two texts lead to one object");
                    checkRoleTree(roleTree(object, OWN));
                    checkRoleTree(roleTree(object, CHILD));
                }
            }
        }
        require(segments == files_.segments.size() / 32 - 1, "not every segment can be reached, or one by two ways");
        require(objects.size() == files_.objects.size() / 16 - 1, "not every object can be reached");
    }

    /// The height of the tree at `tree` in a file of records of this size.
    static std::size_t height(const std::string& file, std::uint32_t size, std::uint32_t tree) {
        std::size_t height = 0;
        std::vector<std::pair<std::uint32_t, std::size_t>> waiting{{tree, 1}};
        while (!waiting.empty()) {
            const auto [node, level] = waiting.back();
            waiting.pop_back();
            if (node == 0) {
                continue;
            }
            require(level <= 64, "a tree has no end");
            height = std::max(height, level);
            waiting.emplace_back(offsetAt(file, node + 8, file, size), level + 1);
            waiting.emplace_back(offsetAt(file, node + 12, file, size), level + 1);
        }
        return height;
    }

    /// The records of a tree by their keys, which must be in order; the tree must be balanced.
    static std::vector<std::uint32_t> inOrder(const std::string& file, std::uint32_t size, std::uint32_t tree) {
        if (tree != 0 && wordAt(file, tree + 8) == 0 && wordAt(file, tree + 12) == 0) {
            return {tree};
        }
        const std::size_t levels = height(file, size, tree);
        std::vector<std::uint32_t> path;
        std::vector<std::uint32_t> nodes;
        for (std::uint32_t node = tree; node != 0 || !path.empty();) {
            while (node != 0) {
                path.push_back(node);
                node = offsetAt(file, node + 8, file, size);
            }
            node = path.back();
            path.pop_back();
            require(nodes.empty() || keyAt(file, nodes.back()) < keyAt(file, node), "keys are not in order");
            nodes.push_back(node);
            node = offsetAt(file, node + 12, file, size);
        }
        // The least number of levels L with 2^L >= n + 1.
        std::size_t least = 0;
        while ((std::size_t{1} << least) < nodes.size() + 1) {
            ++least;
        }
        require(levels <= least, "a tree is higher than it need be");
        return nodes;
    }

    static std::int32_t keyAt(const std::string& file, std::uint32_t node) {
        return static_cast<std::int32_t>(wordAt(file, node + 16));
    }

    static std::uint32_t wordAt(const std::string& file, std::size_t offset) {
        std::uint32_t word = 0;
        for (unsigned i = 0; i < 4; ++i) {
            word |= std::uint32_t{byteAt(file, offset + i)} << (8 * i);
        }
        return word;
    }

    static std::uint64_t longAt(const std::string& file, std::size_t offset) {
        return wordAt(file, offset) | std::uint64_t{wordAt(file, offset + 4)} << 32;
    }

private:
    static void require(bool condition, const char* otherwise) {
        if (!condition) {
            throw std::runtime_error(otherwise);
        }
    }

    static std::uint8_t byteAt(const std::string& file, std::size_t offset) {
        require(offset < file.size(), "an offset leads out of the file");
        return static_cast<std::uint8_t>(file[offset]);
    }

    static std::uint32_t offsetAt(const std::string& file, std::size_t position, const std::string& target,
                                  std::uint32_t size) {
        const std::uint32_t offset = wordAt(file, position);
        require(offset % size == 0, "an offset is not that of a record");
        require(offset == 0 || offset + size <= target.size(), "an offset leads out of the file");
        return offset;
    }

    static void requireSize(const std::string& file, std::size_t least, std::size_t multiple) {
        require(file.size() >= least && file.size() % multiple == 0, "a file does not consist of records");
    }

    static void requireUnusedFirstRecord(const std::string& file, std::size_t size) {
        requireSize(file, size, size);
        require(file.substr(0, size) == std::string(size, '\0'), "record 0 is in use");
    }

    static std::size_t segmentEnd(const std::string& text, std::size_t position) {
        const std::size_t bar = text.substr(position, 4).find('|');
        return std::min(position + (bar == std::string::npos ? 4 : bar + 1), text.size());
    }

    static std::int32_t keyOf(std::string segment) {
        segment.resize(4);
        std::int64_t key = 0;
        for (const char c : segment) {
            key = key * 256 + static_cast<unsigned char>(c);
        }
        return static_cast<std::int32_t>(key > std::numeric_limits<std::int32_t>::max() ? key - (std::int64_t{1} << 32)
                                                                                        : key);
    }

    static std::optional<std::uint32_t> search(const std::string& file, std::uint32_t size, std::uint32_t node,
                                               std::int32_t key) {
        for (int steps = 0; node != 0; ++steps) {
            require(steps < 64, "a tree has no end");
            const std::int32_t here = keyAt(file, node);
            if (here == key) {
                return node;
            }
            node = offsetAt(file, node + (key < here ? 8U : 12U), file, size);
        }
        return std::nullopt;
    }

    void checkRoleTree(std::uint32_t tree) const {
        for (const std::uint32_t role : inOrder(files_.nodes, 24, tree)) {
            const std::uint32_t words = offsetAt(files_.nodes, role + 20, files_.nodes, 24);
            require(words != 0, "a role has no operations");
            for (const std::uint32_t word : inOrder(files_.nodes, 24, words)) {
                require(keyAt(files_.nodes, word) >= 0, "a word has a negative number");
                require(wordAt(files_.nodes, word + 20) != 0, "a word has no operations");
            }
        }
    }

    CacheFiles files_;
};

/// Whether the cache says of the object what it should, for its grants and others nearby; what it says wrongly
/// otherwise.
inline std::string differenceInObject(const CacheInterpreter& cache, const ModelObject& object) {
    const std::string text = object.name.str();
    const std::optional<std::uint32_t> record = cache.lookup(text);
    if (record.has_value() != (object.state != ObjectState::DELETED)) {
        return text + (record ? " is there" : " is not there");
    }
    if (!record) {
        return "";
    }
    const bool ready = object.state == ObjectState::READY;
    if (cache.inherits(*record) != (ready && object.inherit)) {
        return text + " inherits wrongly";
    }
    std::set<std::pair<std::int32_t, std::int32_t>> own;
    std::set<std::pair<std::int32_t, std::int32_t>> child;
    for (const Grant& grant : ready ? object.grants : std::vector<Grant>()) {
        if (grant.scope != GrantScope::CHILDREN) {
            own.emplace(grant.roleId, grant.operationBit);
        }
        if (grant.scope != GrantScope::OBJECT) {
            child.emplace(grant.roleId, grant.operationBit);
        }
    }
    for (const Grant& grant : object.grants) {
        for (std::int64_t role = std::int64_t{grant.roleId} - 1; role <= std::int64_t{grant.roleId} + 1; ++role) {
            for (std::int64_t operation = std::int64_t{grant.operationBit} - 33;
                 operation <= std::int64_t{grant.operationBit} + 33; ++operation) {
                if (operation < 0 || operation != static_cast<std::int32_t>(operation) ||
                    role != static_cast<std::int32_t>(role)) {
                    continue;
                }
                const auto r = static_cast<std::int32_t>(role);
                const auto o = static_cast<std::int32_t>(operation);
                if (cache.granted(*record, CacheInterpreter::OWN, r, o) != (own.count({r, o}) != 0) ||
                    cache.granted(*record, CacheInterpreter::CHILD, r, o) != (child.count({r, o}) != 0)) {
                    return text + " has operation " + std::to_string(o) + " of role " + std::to_string(r) + " wrong";
                }
            }
        }
    }
    return "";
}

/// Empty if the cache is well formed and says of these objects, and of no others, what it should.
inline std::string differenceIn(const CacheInterpreter& cache, const std::vector<ModelObject>& objects) {
    try {
        cache.check();
        std::size_t present = 0;
        for (const ModelObject& object : objects) {
            std::string difference = differenceInObject(cache, object);
            if (!difference.empty()) {
                return difference;
            }
            present += object.state == ObjectState::DELETED ? 0 : 1;
        }
        return present == cache.files().objects.size() / 16 - 1 ? "" : "there are other objects";
    } catch (const std::runtime_error& broken) {
        return broken.what();
    }
}

}  // namespace sandbox_testing
