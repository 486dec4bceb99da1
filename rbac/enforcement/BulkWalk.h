#pragma once

#include "rbac/enforcement/AccessWalk.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace Tesmor::Arkwell::Rbac::detail {

/// Answers for many objects of one cache whose lock is held.
///
/// Most of the time of a descent is spent waiting for the next node to come from memory. So the descents of a block of
/// objects take turns, one node each: while one node is on its way, the other descents go on. Objects of one folder
/// that follow one another share the way to the folder, and what it says of its descendants.
class BulkWalk {
public:
    /// Objects that take turns.
    static constexpr std::size_t BLOCK = 32;

    BulkWalk(const CacheView& cache, const AccessQuestion& question) : cache_(cache), question_(question) {}

    /// @param textOf gives the text of object number i, as long as the walk lives.
    template <class TextOf>
    void answer(std::size_t first, std::size_t count, TextOf textOf, bool* allowed) {
        takeBlock(first, count, textOf);
        descendAll(folders_, folderCount_);
        for (std::size_t i = 0; i < count; ++i) {
            const Folder& folder = folders_[folderOf_[i]];
            objects_[i].begin(folder.isReached() ? folder.child : 0, objects_[i].text, folder.text.size());
        }
        descendAll(objects_, count);
        for (std::size_t i = 0; i < count; ++i) {
            if (const ManagedObject* const record = objects_[i].record) {
                __builtin_prefetch(cache_.nodes + record->ownRoles / sizeof(TreeNode<int, NodeBits>));
            }
        }
        for (std::size_t i = 0; i < count; ++i) {
            allowed[i] = decide(objects_[i], folders_[folderOf_[i]]);
        }
    }

private:
    /// A descent that stands still between two nodes.
    struct Descent {
        std::string_view text;
        std::size_t position = 0;
        Segment segment{};
        NodeOffset next = 0;   // the node to look at; 0: the descent is over
        NodeOffset child = 0;  // the tree of what follows, once the end of the text is reached

        bool isReached() const { return position == text.size(); }

        void begin(NodeOffset root, std::string_view wholeText, std::size_t from) {
            text = wholeText;
            position = from;
            child = root;
            next = isReached() ? 0 : root;
            if (next != 0) {
                segment = segmentAt(text.data() + position, text.size() - position);
            }
        }
    };

    /// The way to a folder with the records on it.
    struct Folder : Descent {
        PathRecords path;
        enum { UNKNOWN, NO, YES } inherited = UNKNOWN;  // the answer for a descendant that says nothing itself

        void found(const ManagedObject& record, std::size_t length) { path.push_back({&record, length}); }
    };

    /// The way from the folder to the object.
    struct Object : Descent {
        const ManagedObject* record = nullptr;

        void found(const ManagedObject& itself, std::size_t /*length*/) { record = &itself; }
    };

    /// The text of the folder that an object is in; nothing for the root.
    static std::string_view folderText(std::string_view text) {
        const std::size_t bar = text.size() < 2 ? std::string_view::npos : text.rfind('|', text.size() - 2);
        return text.substr(0, bar == std::string_view::npos ? 0 : bar + 1);
    }

    template <class TextOf>
    void takeBlock(std::size_t first, std::size_t count, TextOf textOf) {
        folderCount_ = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const std::string_view text = textOf(first + i);
            const std::string_view folder = folderText(text);
            objects_[i].text = text;
            objects_[i].record = nullptr;
            if (folderCount_ == 0 || folders_[folderCount_ - 1].text != folder) {
                Folder& next = folders_[folderCount_++];
                next.path.clear();
                next.inherited = Folder::UNKNOWN;
                next.begin(cache_.segmentRoot, folder, 0);
            }
            folderOf_[i] = folderCount_ - 1;
        }
    }

    template <class Descents>
    void descendAll(Descents& descents, std::size_t count) {
        std::array<std::size_t, BLOCK> active{};
        std::size_t left = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (descents[i].next != 0) {
                active[left++] = i;
            }
        }
        while (left != 0) {
            for (std::size_t i = 0; i < left;) {
                if (step(descents[active[i]])) {
                    ++i;
                } else {
                    active[i] = active[--left];
                }
            }
        }
    }

    /// Looks at one node. Whether there is another.
    template <class Way>
    bool step(Way& way) {
        const SegmentNode& node = cache_.segments[way.next / sizeof(SegmentNode)];
        if (node.key != way.segment.value) {
            way.next = way.segment.value < node.key ? node.left : node.right;
        } else {
            way.position += way.segment.length;
            if ((way.segment.closed || way.isReached()) && node.object != 0) {
                const ManagedObject& record = cache_.objects[node.object / sizeof(ManagedObject)];
                __builtin_prefetch(&record);
                way.found(record, way.position);
            }
            way.child = node.child;
            way.next = way.isReached() ? 0 : node.child;
            if (way.next != 0) {
                way.segment = segmentAt(way.text.data() + way.position, way.text.size() - way.position);
            }
        }
        __builtin_prefetch(cache_.segments + way.next / sizeof(SegmentNode));
        return way.next != 0;
    }

    bool decide(const Object& object, Folder& folder) const {
        if (object.record != nullptr) {
            const StepOutcome own = askStep(cache_, *object.record, RoleTree::OWN, question_);
            if (own != StepOutcome::PASSED_ON) {
                return own == StepOutcome::GRANTED;
            }
        }
        if (folder.inherited == Folder::UNKNOWN) {
            folder.inherited = inherits(folder.path) ? Folder::YES : Folder::NO;
        }
        return folder.inherited == Folder::YES;
    }

    bool inherits(const PathRecords& path) const {
        for (auto step = path.rbegin(); step != path.rend(); ++step) {
            const StepOutcome outcome = askStep(cache_, *step->record, RoleTree::CHILD, question_);
            if (outcome != StepOutcome::PASSED_ON) {
                return outcome == StepOutcome::GRANTED;
            }
        }
        return false;
    }

    const CacheView& cache_;
    const AccessQuestion& question_;
    std::array<Folder, BLOCK> folders_;
    std::size_t folderCount_ = 0;
    std::array<Object, BLOCK> objects_;
    std::array<std::size_t, BLOCK> folderOf_{};
};

}  // namespace Tesmor::Arkwell::Rbac::detail
