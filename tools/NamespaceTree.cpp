#include "tools/NamespaceTree.h"

#include "rbac/cache/ObjectCursor.h"

#include <algorithm>

namespace Tesmor::Arkwell::Tools {

using Rbac::NodeOffset;
using Rbac::SegmentNode;
using Rbac::detail::CacheView;

namespace {

/// Lengthens the text to that of the last object in the tree of segments at `root`, if there is one.
bool appendLast(const CacheView& cache, NodeOffset root, std::string& text) {
    while (root != 0) {
        const SegmentNode& node = cache.segments[root / sizeof(SegmentNode)];
        if (appendLast(cache, node.right, text)) {
            return true;
        }
        const std::size_t length = text.size();
        Rbac::detail::appendSegment(text, node.key);
        if (appendLast(cache, node.child, text) || (node.object != 0 && text.back() == '|')) {
            return true;
        }
        text.resize(length);
        root = node.left;
    }
    return false;
}

/// The root of the tree of the segments that may follow the text, or 0.
NodeOffset rootAfter(const CacheView& cache, std::string_view text) {
    NodeOffset root = cache.segmentRoot;
    while (root != 0 && !text.empty()) {
        const Rbac::detail::Segment segment = Rbac::detail::segmentAt(text.data(), text.size());
        const SegmentNode* const node = Rbac::detail::findNode(cache.segments, root, segment.value);
        if (node == nullptr) {
            return 0;
        }
        root = node->child;
        text.remove_prefix(segment.length);
    }
    return root;
}

/// The text of the last object at or below a namespace at or below which there is one.
std::string lastBelow(const CacheView& cache, std::string_view text) {
    std::string last(text);
    appendLast(cache, rootAfter(cache, text), last);
    return last;
}

}  // namespace

void NamespaceTree::forEach(const std::function<void(const Node&)>& visit) {
    levels_.clear();
    Rbac::detail::ObjectCursor cursor(cache_, top_);
    while (cursor.next()) {
        visitObject(cursor.text(), cursor.record(), visit);
    }
}

/// Visits those namespaces on the way to the object that have not been visited.
void NamespaceTree::visitObject(const std::string& text, const Rbac::ManagedObject& record,
                                const std::function<void(const Node&)>& visit) {
    while (!levels_.empty() &&
           text.compare(0, levels_.back().textLength, levels_.back().lastBelow, 0, levels_.back().textLength) != 0) {
        levels_.pop_back();
    }
    auto components = static_cast<std::size_t>(
        std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(top_.size()), '|') - 1);
    components += levels_.empty() ? 0 : levels_.size();
    std::size_t length = levels_.empty() ? top_.size() : text.find('|', levels_.back().textLength) + 1;
    while (length != 0 && components <= deepest_) {
        const std::size_t parent = levels_.empty() ? 0 : levels_.back().textLength;
        const std::string_view here(text.data(), length);
        levels_.push_back({length, lastBelow(cache_, here), levels_.empty() || isLastChild(here)});
        const std::string name = parent == 0 ? text.substr(0, length) : text.substr(parent, length - parent - 1);
        visit({branches(), name, length == text.size() ? &record : nullptr});
        length = text.find('|', length) + 1;
        ++components;
    }
}

bool NamespaceTree::isLastChild(std::string_view text) const {
    return levels_.back().lastBelow.compare(0, text.size(), text) == 0;
}

/// The lines that lead to the last level.
std::string NamespaceTree::branches() const {
    std::string drawn;
    for (std::size_t i = 1; i < levels_.size(); ++i) {
        const bool isEnd = i + 1 == levels_.size();
        if (isEnd) {
            drawn += levels_[i].isLast ? (utf8_ ? "└── " : "`-- ") : (utf8_ ? "├── " : "|-- ");
        } else {
            drawn += levels_[i].isLast ? "    " : (utf8_ ? "│   " : "|   ");
        }
    }
    return drawn;
}

}  // namespace Tesmor::Arkwell::Tools
