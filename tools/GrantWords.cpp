#include "tools/GrantWords.h"

#include "rbac/enforcement/ClientQuery.h"

#include <algorithm>

namespace Tesmor::Arkwell::Tools {

namespace {

constexpr unsigned REMEMBERED_BITS = 14;

std::size_t placeOf(NodeOffset before, NodeOffset after) {
    const std::uint64_t both = std::uint64_t{before} << 32U | after;
    return both * 0x9E3779B97F4A7C15U >> (64 - REMEMBERED_BITS);
}

}  // namespace

void appendGrants(const RoleNode* nodes, NodeOffset root, std::vector<GrantWord>& words) {
    Rbac::detail::forEachNode(nodes, root, [&](const RoleNode& role) {
        if (role.key == Rbac::detail::ALL_POWERFUL_ROLE) {
            return;
        }
        Rbac::detail::forEachNode(nodes, role.payload, [&](const RoleNode& word) {
            words.push_back({{role.key, word.key}, word.payload});
        });
    });
}

void unite(std::vector<GrantWord>& words) {
    std::sort(words.begin(), words.end(), [](const GrantWord& a, const GrantWord& b) { return a.key < b.key; });
    std::size_t last = 0;
    for (std::size_t i = 1; i < words.size(); ++i) {
        if (words[i].key == words[last].key) {
            words[last].bits |= words[i].bits;
        } else {
            words[++last] = words[i];
        }
    }
    words.resize(std::min(words.size(), last + 1));
}

NodeBits bitsAt(const RoleNode* nodes, NodeOffset root, const WordKey& key) {
    if (root == 0) {
        return 0;
    }
    const RoleNode* const role = Rbac::detail::findNode(nodes, root, key.roleId);
    if (role == nullptr || role->payload == 0) {
        return 0;
    }
    const RoleNode* const word = Rbac::detail::findNode(nodes, role->payload, key.word);
    return word == nullptr ? 0 : word->payload;
}

TreeComparison::TreeComparison(const RoleNode* before, const RoleNode* after)
    : before_(before), after_(after), pairs_(std::size_t{1} << REMEMBERED_BITS) {}

const std::vector<WordPair>& TreeComparison::of(NodeOffset beforeRoot, NodeOffset afterRoot) {
    const bool sameTree = beforeRoot == afterRoot && (beforeRoot == 0 || before_ == after_);
    if (sameTree) {
        return none_;
    }
    Pair& pair = pairs_[placeOf(beforeRoot, afterRoot)];
    if (pair.before != beforeRoot || pair.after != afterRoot) {
        pair.before = beforeRoot;
        pair.after = afterRoot;
        compare(pair);
    }
    return pair.differences;
}

void TreeComparison::compare(Pair& pair) {
    beforeWords_.clear();
    afterWords_.clear();
    appendGrants(before_, pair.before, beforeWords_);
    appendGrants(after_, pair.after, afterWords_);
    pair.differences.clear();
    forEachKey(beforeWords_, afterWords_, [&](const WordKey& key, const GrantWord* before, const GrantWord* after) {
        const WordPair word{key, before == nullptr ? 0 : before->bits, after == nullptr ? 0 : after->bits};
        if (word.before != word.after) {
            pair.differences.push_back(word);
        }
    });
}

}  // namespace Tesmor::Arkwell::Tools
