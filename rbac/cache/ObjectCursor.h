#pragma once

#include "rbac/cache/SegmentDescent.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tesmor::Arkwell::Rbac::detail {

/// Appends the bytes that a segment stands for.
inline void appendSegment(std::string& text, std::int32_t value) {
    auto bytes = static_cast<std::uint32_t>(value);
    for (; bytes != 0; bytes <<= 8U) {
        text.push_back(static_cast<char>(bytes >> 24U));
    }
}

/// Visits the objects of a cache whose lock is held, in the order of their texts, each compared byte by byte. So an
/// object comes directly before the objects below it.
///
/// Needs memory for the way to one object, not for what the cache holds. The view must outlive it.
class ObjectCursor {
public:
    /// Stands before the first object at or below the namespace with the text `below`, which is not empty.
    ObjectCursor(const CacheView& cache, std::string_view below) : cache_(cache) {
        NodeOffset root = cache.segmentRoot;
        while (root != 0 && text_.size() < below.size()) {
            const Segment segment = segmentAt(below.data() + text_.size(), below.size() - text_.size());
            const SegmentNode* const node = findNode(cache.segments, root, segment.value);
            if (node == nullptr) {
                return;
            }
            text_.append(below, text_.size(), segment.length);
            if (text_.size() == below.size()) {
                first_ = node;
            }
            root = node->child;
        }
    }

    /// Goes to the next object. Whether there is one.
    bool next() {
        shared_ = text_.size();
        if (const SegmentNode* const first = first_) {
            first_ = nullptr;
            push(first->child, text_.size());
            if (take(*first)) {
                return true;
            }
        }
        while (!pending_.empty()) {
            const Pending place = pending_.back();
            pending_.pop_back();
            shared_ = place.textLength < shared_ ? place.textLength : shared_;
            text_.resize(place.textLength);
            appendSegment(text_, place.node->key);
            push(place.node->right, place.textLength);
            push(place.node->child, text_.size());
            if (take(*place.node)) {
                return true;
            }
        }
        return false;
    }

    /// The object's text.
    const std::string& text() const { return text_; }
    const ManagedObject& record() const { return *record_; }
    /// How many bytes at the beginning of the text are what they were before the last step.
    std::size_t sharedLength() const { return shared_; }

private:
    /// A node that is yet to be visited, with all to the right of it and below it.
    struct Pending {
        const SegmentNode* node;
        std::size_t textLength;  // of what leads to its tree
    };

    /// The nodes of the tree, from its root to the smallest.
    void push(NodeOffset root, std::size_t textLength) {
        while (root != 0) {
            const SegmentNode* const node = cache_.segments + root / sizeof(SegmentNode);
            pending_.push_back({node, textLength});
            root = node->left;
        }
    }

    /// Whether a namespace ends at the node and the cache holds it.
    bool take(const SegmentNode& node) {
        record_ = cache_.objects + node.object / sizeof(ManagedObject);
        return node.object != 0 && text_.back() == '|';
    }

    const CacheView& cache_;
    const SegmentNode* first_ = nullptr;
    std::vector<Pending> pending_;
    std::string text_;
    const ManagedObject* record_ = nullptr;
    std::size_t shared_ = 0;
};

}  // namespace Tesmor::Arkwell::Rbac::detail
