#pragma once

#include <rbac/AccessCache.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace Tesmor::Arkwell::Rbac::detail {

/// Up to four bytes of a namespace's text, ending after the first "|".
struct Segment {
    std::int32_t value;
    unsigned length;
    bool closed;  // ends with "|", so that a component ends here
};

/// The segment at `text`, of which `left` (at least 1) bytes remain.
inline Segment segmentAt(const char* text, std::size_t left) {
    std::uint32_t bytes = 0;
    if (left >= sizeof bytes) {
        std::memcpy(&bytes, text, sizeof bytes);
        bytes = __builtin_bswap32(bytes);
    } else {
        for (std::size_t i = 0; i < left; ++i) {
            bytes |= std::uint32_t{static_cast<unsigned char>(text[i])} << (24 - 8 * i);
        }
    }
    // The top bit of each byte that is a "|", found without carries between bytes.
    const std::uint32_t difference = bytes ^ 0x7C7C7C7CU;
    const std::uint32_t bars = ~(((difference & 0x7F7F7F7FU) + 0x7F7F7F7FU) | difference | 0x7F7F7F7FU);
    if (bars == 0) {
        const auto length = static_cast<unsigned>(left < sizeof bytes ? left : sizeof bytes);
        return {static_cast<std::int32_t>(bytes), length, false};
    }
    const auto length = static_cast<unsigned>(__builtin_clz(bars)) / 8 + 1;
    return {static_cast<std::int32_t>(bytes & (~std::uint32_t{0} << (32 - 8 * length))), length, true};
}

/// The mapped files of a cache whose lock is held, as one walk uses them.
struct CacheView {
    const SegmentNode* segments;
    const ManagedObject* objects;
    const TreeNode<int, NodeBits>* nodes;
    NodeOffset segmentRoot;
};

/// The node with the given key in the tree at `root` (not 0), or null.
template <class Node, class Key>
const Node* findNode(const Node* nodes, NodeOffset root, Key key) {
    const Node* node = nodes + root / sizeof(Node);
    while (node->key != key) {
        const NodeOffset next = key < node->key ? node->left : node->right;
        if (next == 0) {
            return nullptr;
        }
        node = nodes + next / sizeof(Node);
    }
    return node;
}

/// Follows `text` through the segment trees and calls `found(record, length)` for the record of every namespace on the
/// way, outermost first, with the length of that namespace's text.
///
/// A namespace's text begins with the text of each of its ancestors, and a segment never extends beyond the end of a
/// component. So the way to an object leads through the nodes where its ancestors' texts end, and one descent meets the
/// records that a lookup of each would find. Where the way ends early, the object and the ancestors beyond are absent.
template <class Found>
void descend(const CacheView& cache, const std::string& text, Found found) {
    NodeOffset root = cache.segmentRoot;
    std::size_t position = 0;
    while (root != 0) {
        const Segment segment = segmentAt(text.data() + position, text.size() - position);
        const SegmentNode* const node = findNode(cache.segments, root, segment.value);
        if (node == nullptr) {
            return;
        }
        position += segment.length;
        const bool end = position == text.size();
        if ((segment.closed || end) && node->object != 0) {
            found(cache.objects[node->object / sizeof(ManagedObject)], position);
        }
        if (end) {
            return;
        }
        root = node->child;
    }
}

/// Whether the word tree at `wordRoot` holds the bit with this number.
inline bool wordBit(const TreeNode<int, NodeBits>* nodes, NodeOffset wordRoot, std::int32_t bitNumber) {
    if (wordRoot == 0) {
        return false;
    }
    const auto number = static_cast<std::uint32_t>(bitNumber);
    const TreeNode<int, NodeBits>* const word = findNode(nodes, wordRoot, static_cast<std::int32_t>(number >> 5U));
    return word != nullptr && ((word->payload >> (number & 31U)) & 1U) != 0;
}

/// Whether the role tree at `roleRoot` gives the operation with this bit number to the role.
inline bool operationBit(const TreeNode<int, NodeBits>* nodes, NodeOffset roleRoot, std::int32_t roleId,
                         std::int32_t bitNumber) {
    if (roleRoot == 0) {
        return false;
    }
    const TreeNode<int, NodeBits>* const role = findNode(nodes, roleRoot, roleId);
    return role != nullptr && wordBit(nodes, role->payload, bitNumber);
}

/// The first of the ascending numbers that is not below `bound`.
inline const int* firstNotBelow(const int* first, const int* last, int bound) {
    constexpr std::ptrdiff_t FEW = 16;
    if (last - first > FEW) {
        return std::lower_bound(first, last, bound);
    }
    std::ptrdiff_t below = 0;
    for (const int* number = first; number != last; ++number) {
        below += *number < bound ? 1 : 0;
    }
    return first + below;
}

/// Whether operationBit() is true for one of the roles [first, last), which are in ascending order.
///
/// Enters only those subtrees that can hold one of the roles, each node once; as deep into recursion as there are
/// roles.
inline bool anyOperationBit(const TreeNode<int, NodeBits>* nodes, NodeOffset roleRoot, const int* first,
                            const int* last, std::int32_t bitNumber) {
    while (roleRoot != 0 && first != last) {
        const TreeNode<int, NodeBits>& node = nodes[roleRoot / sizeof(TreeNode<int, NodeBits>)];
        const int* const at = firstNotBelow(first, last, node.key);
        const bool isOne = at != last && *at == node.key;
        if (isOne && wordBit(nodes, node.payload, bitNumber)) {
            return true;
        }
        const int* const above = isOne ? at + 1 : at;
        if (above == last) {
            roleRoot = node.left;
            last = at;
            continue;
        }
        if (at != first && anyOperationBit(nodes, node.left, first, at, bitNumber)) {
            return true;
        }
        roleRoot = node.right;
        first = above;
    }
    return false;
}

/// Lets the library's own walks at the mapped files behind a reader.
struct CacheAccess {
    static CacheView view(const AccessCache::Reader& reader) {
        const AccessCache& cache = *reader.cache_;
        return {cache.segments_.records(), cache.objects_.records(), cache.nodes_.records(),
                cache.metadata_.at(0)->segmentRoot};
    }
};

}  // namespace Tesmor::Arkwell::Rbac::detail
