#pragma once

#include "rbac/cache/SegmentDescent.h"

#include <cstdint>
#include <vector>

namespace Tesmor::Arkwell::Rbac::detail {

using RoleNode = TreeNode<int, NodeBits>;

/// Goes through the nodes of a role tree or word tree in the order of their keys, in memory for the height of the tree.
class NodeCursor {
public:
    /// Stands at the smallest.
    NodeCursor(const RoleNode* nodes, NodeOffset root) : nodes_(nodes) { push(root); }

    /// The node that it stands at; null behind the last.
    const RoleNode* node() const { return pending_.empty() ? nullptr : pending_.back(); }

    void advance() {
        const RoleNode& left = *pending_.back();
        pending_.pop_back();
        push(left.right);
    }

private:
    void push(NodeOffset root) {
        while (root != 0) {
            pending_.push_back(nodes_ + root / sizeof(RoleNode));
            root = pending_.back()->left;
        }
    }

    const RoleNode* nodes_;
    std::vector<const RoleNode*> pending_;  // to be visited with what is right of them, the next one last
};

/// Visits the nodes of a role tree or word tree in the order of their keys.
template <class Visit>
void forEachNode(const RoleNode* nodes, NodeOffset root, Visit visit) {
    for (NodeCursor cursor(nodes, root); cursor.node() != nullptr; cursor.advance()) {
        visit(*cursor.node());
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
