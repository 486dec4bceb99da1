#pragma once

#include "rbac/cache/SegmentDescent.h"

#include <cstdint>
#include <limits>
#include <vector>

namespace Tesmor::Arkwell::Rbac::detail {

using RoleNode = TreeNode<int, NodeBits>;

/// The node with the smallest key above `key` in the tree at `root`, or null.
inline const RoleNode* nodeAbove(const RoleNode* nodes, NodeOffset root, std::int64_t key) {
    const RoleNode* above = nullptr;
    while (root != 0) {
        const RoleNode* const node = nodes + root / sizeof(RoleNode);
        if (node->key > key) {
            above = node;
            root = node->left;
        } else {
            root = node->right;
        }
    }
    return above;
}

constexpr std::int64_t BELOW_ALL_KEYS = std::numeric_limits<std::int64_t>::min();

/// Visits the nodes of a role tree or word tree in the order of their keys, in memory for the height of the tree.
template <class Visit>
void forEachNode(const RoleNode* nodes, NodeOffset root, Visit visit) {
    std::vector<const RoleNode*> pending;
    const auto push = [&](NodeOffset offset) {
        while (offset != 0) {
            pending.push_back(nodes + offset / sizeof(RoleNode));
            offset = pending.back()->left;
        }
    };
    push(root);
    while (!pending.empty()) {
        const RoleNode& node = *pending.back();
        pending.pop_back();
        visit(node);
        push(node.right);
    }
}

/// Visits the numbers of the operations in the word tree at `wordRoot`, ascending.
template <class Visit>
void forEachOperationBit(const RoleNode* nodes, NodeOffset wordRoot, Visit visit) {
    forEachNode(nodes, wordRoot, [&visit](const RoleNode& word) {
        for (NodeBits bits = word.payload; bits != 0; bits &= bits - 1) {
            const auto bit = static_cast<std::uint32_t>(__builtin_ctz(bits));
            visit(static_cast<std::int32_t>(static_cast<std::uint32_t>(word.key) * 32 + bit));
        }
    });
}

/// Visits what a role tree grants, as visit(roleId, operationBit), ascending.
template <class Visit>
void forEachGrant(const RoleNode* nodes, NodeOffset roleRoot, Visit visit) {
    forEachNode(nodes, roleRoot, [&](const RoleNode& role) {
        forEachOperationBit(nodes, role.payload, [&](std::int32_t bit) { visit(role.key, bit); });
    });
}

}  // namespace Tesmor::Arkwell::Rbac::detail
