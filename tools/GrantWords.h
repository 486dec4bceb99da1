#pragma once

#include "rbac/cache/RoleTrees.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tesmor::Arkwell::Tools {

using Rbac::NodeBits;
using Rbac::NodeOffset;
using Rbac::detail::RoleNode;

/// Which 32 operations of a role are meant: bit n of a word stands for operation `word` * 32 + n.
struct WordKey {
    std::int32_t roleId;
    std::int32_t word;

    friend bool operator==(const WordKey& a, const WordKey& b) { return a.roleId == b.roleId && a.word == b.word; }
    /// By role, then word: the order of a role tree.
    friend bool operator<(const WordKey& a, const WordKey& b) {
        return a.roleId != b.roleId ? a.roleId < b.roleId : a.word < b.word;
    }
};

/// Operations that a role holds.
struct GrantWord {
    WordKey key;
    NodeBits bits;
};

/// Operations that a role holds on two sides.
struct WordPair {
    WordKey key;
    NodeBits before;
    NodeBits after;

    friend bool operator==(const WordPair& a, const WordPair& b) {
        return a.key == b.key && a.before == b.before && a.after == b.after;
    }
};

/// Appends what a role tree grants, in ascending order. Role 0, which needs no grants, is left out.
void appendGrants(const RoleNode* nodes, NodeOffset root, std::vector<GrantWord>& words);

/// Makes one ascending list of the grants of several trees.
void unite(std::vector<GrantWord>& words);

/// One word of a role tree, which need not be there.
NodeBits bitsAt(const RoleNode* nodes, NodeOffset root, const WordKey& key);

/// Visits the keys of two ascending lists in their order, as visit(key, first, second), each of them null where its
/// list does not have the key.
template <class First, class Second, class Visit>
void forEachKey(const std::vector<First>& first, const std::vector<Second>& second, Visit visit) {
    auto a = first.begin();
    auto b = second.begin();
    while (a != first.end() || b != second.end()) {
        const bool takeFirst = b == second.end() || (a != first.end() && !(b->key < a->key));
        const bool takeSecond = a == first.end() || (b != second.end() && !(a->key < b->key));
        visit(takeFirst ? a->key : b->key, takeFirst ? &*a : nullptr, takeSecond ? &*b : nullptr);
        a += takeFirst ? 1 : 0;
        b += takeSecond ? 1 : 0;
    }
}

/// What role trees of two caches grant differently. Trees of the same content do not differ, whatever their shapes.
///
/// Remembers what it found, in memory for a fixed number of pairs of trees: objects share trees, and those that share
/// one here mostly share one there.
class TreeComparison {
public:
    TreeComparison(const RoleNode* before, const RoleNode* after);

    /// The words that are not the same on both sides, ascending; valid until the next call.
    const std::vector<WordPair>& of(NodeOffset beforeRoot, NodeOffset afterRoot);

private:
    struct Pair {
        NodeOffset before = 0;
        NodeOffset after = 0;
        std::vector<WordPair> differences;
    };

    void compare(Pair& pair);

    const RoleNode* before_;
    const RoleNode* after_;
    std::vector<Pair> pairs_;  // as many as a power of two, each where its hash says
    std::vector<GrantWord> beforeWords_;
    std::vector<GrantWord> afterWords_;
    const std::vector<WordPair> none_;
};

}  // namespace Tesmor::Arkwell::Tools
