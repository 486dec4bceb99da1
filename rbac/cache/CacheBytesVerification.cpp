#include "rbac/cache/FaultReport.h"
#include "rbac/cache/RecordUses.h"
#include "rbac/cache/TextRules.h"

#include <rbac/AccessCache.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Rbac::detail {

namespace {

using RoleNode = TreeNode<int, NodeBits>;

constexpr std::int32_t BAR = 0x7C000000;
constexpr std::int32_t WORDS = std::int32_t{1} << 26;  // operation numbers are 0 to 2^31 - 1, 32 in a word

// The head of the metadata file as the sandbox's writer fills it.
constexpr std::string_view WRITER_MAGIC = "ARKCACHE";
constexpr std::uint32_t WRITER_VERSION = 1;
constexpr std::size_t WRITER_METADATA_SIZE = 64;
constexpr std::size_t VERSION_AT = 8;
constexpr std::size_t OBJECT_COUNT_AT = 12;
constexpr std::size_t PUBLICATION_AT = 32;
constexpr std::size_t PUBLISHED_AT_AT = 40;
constexpr std::size_t GRANT_COUNT_AT = 48;

template <class Number>
Number numberAt(std::string_view bytes, std::size_t offset) {
    Number number{};
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

/// A field that leads to a record.
struct Link {
    const std::string& file;
    std::uint64_t position;
    const char* name;
    NodeOffset target;
};

/// A node on the way from a tree's root to where the walk is.
struct TreeStep {
    std::uint32_t record;
    std::uint32_t low;   // record of the node whose key is the next smaller one above; 0: there is none
    std::uint32_t high;  // the same of the next larger one
    std::uint32_t depth;
    bool inOrder;       // otherwise its key says nothing of those below
    std::uint8_t next;  // which of its links is next
};

/// The same in the segment trees, which begin anew where a segment ends.
struct SegmentStep : TreeStep {
    EscapeState escapeBefore;
    EscapeState escapeAfter;
    std::uint32_t textBefore;  // length of the text up to the segment
    std::uint32_t textAfter;
    std::uint32_t barsBefore;
};

/// Numbers, each with bits. Those of one number are put together now and then, so they take little memory.
class BitsByNumber {
public:
    void add(std::int32_t number, std::uint32_t bits) {
        entries_.push_back({number, bits});
        if (entries_.size() >= limit_) {
            merge();
            limit_ = std::max(SMALLEST_LIMIT, entries_.size() * 2);
        }
    }

    std::uint64_t numbers() {
        merge();
        return entries_.size();
    }
    std::uint64_t bits() {
        merge();
        std::uint64_t count = 0;
        for (const Entry& entry : entries_) {
            count += static_cast<unsigned>(__builtin_popcount(entry.bits));
        }
        return count;
    }

private:
    struct Entry {
        std::int32_t number;
        std::uint32_t bits;
    };
    static constexpr std::size_t SMALLEST_LIMIT = 4096;

    void merge() {
        std::sort(entries_.begin(), entries_.end(),
                  [](const Entry& left, const Entry& right) { return left.number < right.number; });
        std::size_t kept = 0;
        for (const Entry& entry : entries_) {
            if (kept != 0 && entries_[kept - 1].number == entry.number) {
                entries_[kept - 1].bits |= entry.bits;
            } else {
                entries_[kept++] = entry;
            }
        }
        entries_.resize(kept);
    }

    std::vector<Entry> entries_;
    std::size_t limit_ = SMALLEST_LIMIT;
};

bool isRoot(RecordUse use) {
    return use == RecordUse::ROLE_ROOT || use == RecordUse::WORD_ROOT;
}

/// The kind of tree that a record was reached in.
RecordUse treeOf(RecordUse use) {
    switch (use) {
        case RecordUse::ROLE_INNER:
            return RecordUse::ROLE_ROOT;
        case RecordUse::WORD_INNER:
            return RecordUse::WORD_ROOT;
        default:
            return use;
    }
}

const char* describe(RecordUse use) {
    switch (use) {
        case RecordUse::SEGMENT:
            return "a segment";
        case RecordUse::OBJECT:
            return "an object";
        case RecordUse::ROLE_ROOT:
            return "the root of a role tree";
        case RecordUse::ROLE_INNER:
            return "an inner node of a role tree";
        case RecordUse::WORD_ROOT:
            return "the root of a word tree";
        case RecordUse::WORD_INNER:
            return "an inner node of a word tree";
        default:
            return "a record";  // GCOVR_EXCL_LINE: there are no others
    }
}

std::string nameOf(const SegmentNode& node) {
    return "segment " + hexOf(static_cast<std::uint32_t>(node.key), 8);
}

/// Walks all that the metadata lead to, each record once, and then looks for what was not reached. Without recursion:
/// how deep trees lie within one another is the files' matter.
class Verification {
public:
    Verification(const CacheBytes& bytes, FaultReport& faults)
        : metadata_(bytes.metadata),
          objects_(AccessCache::OBJECT_FILE_NAME, bytes.objects),
          nodes_(AccessCache::NODE_FILE_NAME, bytes.nodes),
          segments_(AccessCache::SEGMENT_FILE_NAME, bytes.segments),
          faults_(faults) {}

    CacheStatistics run() {
        const std::optional<NodeOffset> root = readMetadata();
        checkSize(objects_);
        checkSize(nodes_);
        checkSize(segments_);
        const bool isRootKnown = root && segments_.isThere();
        if (isRootKnown) {
            walkSegments(*root);
            checkObjectCount();
        }
        // What a file leads to that could not be read is not lost.
        statistics_.segments = statisticsOf(segments_, isRootKnown);
        statistics_.objects = statisticsOf(objects_, isRootKnown);
        statistics_.nodes = statisticsOf(nodes_, isRootKnown && objects_.isThere());
        statistics_.roles = roles_.numbers();
        statistics_.operations = words_.bits();
        return std::move(statistics_);
    }

private:
    // The metadata and the files as such.

    /// The root of the tree of first segments.
    std::optional<NodeOffset> readMetadata() {
        if (!metadata_) {
            return std::nullopt;
        }
        statistics_.metadataBytes = metadata_->size();
        if (metadata_->size() < sizeof(MetadataHeader)) {
            metadataFault(metadata_->size(), "has " + std::to_string(metadata_->size()) + " bytes, readers need " +
                                                 std::to_string(sizeof(MetadataHeader)));
            return std::nullopt;
        }
        const auto header = numberAt<MetadataHeader>(*metadata_, 0);
        statistics_.writing = header.writing != 0;
        if (statistics_.writing) {
            metadataFault(offsetof(MetadataHeader, writing),
                          "the writing flag is " + std::to_string(header.writing) + ": a publication was interrupted");
        }
        readPublication();
        return header.segmentRoot;
    }

    void readPublication() {
        if (metadata_->substr(0, WRITER_MAGIC.size()) != WRITER_MAGIC ||
            numberAt<std::uint32_t>(*metadata_, VERSION_AT) != WRITER_VERSION) {
            return;
        }
        if (metadata_->size() < WRITER_METADATA_SIZE) {
            metadataFault(metadata_->size(), "has " + std::to_string(metadata_->size()) +
                                                 " bytes, its writer makes it " + std::to_string(WRITER_METADATA_SIZE));
            return;
        }
        statistics_.publication = {
            numberAt<std::uint64_t>(*metadata_, PUBLICATION_AT), numberAt<std::int64_t>(*metadata_, PUBLISHED_AT_AT),
            numberAt<std::uint64_t>(*metadata_, OBJECT_COUNT_AT), numberAt<std::uint64_t>(*metadata_, GRANT_COUNT_AT)};
    }

    template <class Record>
    void checkSize(const RecordUses<Record>& file) {
        const std::size_t rest = file.size() % sizeof(Record);
        if (rest != 0) {
            fault(file.name(), file.size() - rest,
                  "ends " + std::to_string(rest) + " bytes into a record, which has " + std::to_string(sizeof(Record)));
        }
    }

    void checkObjectCount() {
        if (!statistics_.publication || !objects_.isThere() || faults_.stopped()) {
            return;
        }
        const std::uint64_t count = statistics_.publication->objectCount;
        if (count != objects_.reached()) {
            metadataFault(OBJECT_COUNT_AT, "there are to be " + std::to_string(count) +
                                               " objects, the segments lead to " + std::to_string(objects_.reached()));
        }
    }

    /// Counts the records, those that nothing leads to included.
    template <class Record>
    CacheFileStatistics statisticsOf(const RecordUses<Record>& file, bool isWalked) {
        CacheFileStatistics statistics;
        statistics.bytes = file.size();
        statistics.records = file.count() == 0 ? 0 : file.count() - 1;
        statistics.reached = file.reached();
        for (std::size_t record = 1; isWalked && record < file.count() && !faults_.stopped(); ++record) {
            if (file.use(record) != RecordUse::NONE) {
                continue;
            }
            if (file.isZero(record)) {
                ++statistics.free;
            } else {
                fault(file.name(), record * sizeof(Record),
                      "the record is lost: nothing leads to it, but it is not free");
            }
        }
        return statistics;
    }

    // Links from record to record.

    /// The record that the link leads to, if there is one.
    template <class Record>
    std::optional<std::uint32_t> resolve(const RecordUses<Record>& file, const Link& link) {
        if (link.target == 0 || !file.isThere()) {
            return std::nullopt;
        }
        const std::size_t record = link.target / sizeof(Record);
        if (record >= file.count()) {
            linkFault(link, "beyond the " + std::to_string(file.count()) + " records of " + file.name());
            return std::nullopt;
        }
        if (link.target % sizeof(Record) != 0) {
            linkFault(link, "where no record of " + file.name() + " begins");
        }
        return record == 0 ? std::nullopt : std::optional<std::uint32_t>(static_cast<std::uint32_t>(record));
    }

    /// The record that the link leads to, if it is to be walked: it has not been reached before.
    template <class Record>
    std::optional<std::uint32_t> enter(RecordUses<Record>& file, const Link& link, RecordUse use) {
        const std::optional<std::uint32_t> record = resolve(file, link);
        if (!record) {
            return std::nullopt;
        }
        const RecordUse before = file.use(*record);
        if (before == RecordUse::NONE) {
            file.open(*record, use);
            return record;
        }
        const bool isOpen = file.isOpen(*record);
        if (isOpen && treeOf(before) == treeOf(use)) {
            linkFault(link, "back to where it comes from: a circle");
        } else if (before != use || !isRoot(use)) {
            linkFault(link, "to " + std::string(describe(before)) + " that something else leads to as well");
        }
        return std::nullopt;
    }

    /// The left or the right link of a node.
    template <class Node>
    static Link branch(const RecordUses<Node>& file, const TreeStep& step, const Node& node, bool isLeft) {
        const std::uint64_t position = std::uint64_t{step.record} * sizeof(Node);
        return isLeft ? Link{file.name(), position + offsetof(Node, left), "left", node.left}
                      : Link{file.name(), position + offsetof(Node, right), "right", node.right};
    }

    static TreeStep rootStep(std::uint32_t record) { return {record, 0, 0, 1, true, 0}; }

    static TreeStep stepBelow(const TreeStep& parent, std::uint32_t record, bool isLeft) {
        TreeStep step{record, parent.low, parent.high, parent.depth + 1, true, 0};
        if (parent.inOrder) {
            (isLeft ? step.high : step.low) = parent.record;
        }
        return step;
    }

    /// Compares the node's key with those that it stands between.
    template <class Node, class NameOf>
    bool checkOrder(const RecordUses<Node>& file, const TreeStep& step, const Node& node, const NameOf& name) {
        const auto report = [&](const char* side, std::uint32_t other) {
            fault(file.name(), std::uint64_t{step.record} * sizeof(Node) + offsetof(Node, key),
                  name(node) + " stands " + side + " of " + name(file.at(other)) + " at " +
                      std::to_string(std::uint64_t{other} * sizeof(Node)));
            return false;
        };
        if (step.low != 0 && node.key <= file.at(step.low).key) {
            return report("to the right", step.low);
        }
        if (step.high != 0 && node.key >= file.at(step.high).key) {
            return report("to the left", step.high);
        }
        return true;
    }

    // Segments.

    void walkSegments(NodeOffset root) {
        const Link link{AccessCache::METADATA_FILE_NAME, offsetof(MetadataHeader, segmentRoot), "root", root};
        if (const auto first = enter(segments_, link, RecordUse::SEGMENT)) {
            pushSegment({rootStep(*first), NO_ESCAPE, NO_ESCAPE, 0, 0, 0});
        }
        while (!segmentSteps_.empty() && !faults_.stopped()) {
            SegmentStep& step = segmentSteps_.back();
            text_.resize(step.textAfter);
            switch (step.next++) {
                case 0:
                    enterChild(step);
                    break;
                case 1:
                    enterBranch(step, true);
                    break;
                case 2:
                    enterBranch(step, false);
                    break;
                default:
                    segments_.close(step.record);
                    segmentSteps_.pop_back();
            }
        }
        text_.clear();
    }

    void enterChild(const SegmentStep& step) {
        const SegmentNode node = segments_.at(step.record);
        const Link link{segments_.name(), positionOf(step) + offsetof(SegmentNode, child), "child", node.child};
        if (const auto record = enter(segments_, link, RecordUse::SEGMENT)) {
            const std::uint32_t bars = step.barsBefore + (bytesOf(node.key).closed ? 1 : 0);
            pushSegment({rootStep(*record), step.escapeAfter, NO_ESCAPE, step.textAfter, 0, bars});
        }
    }

    void enterBranch(const SegmentStep& step, bool isLeft) {
        const SegmentNode node = segments_.at(step.record);
        if (const auto record = enter(segments_, branch(segments_, step, node, isLeft), RecordUse::SEGMENT)) {
            pushSegment(
                {stepBelow(step, *record, isLeft), step.escapeBefore, NO_ESCAPE, step.textBefore, 0, step.barsBefore});
        }
    }

    /// Goes to a segment, and looks at it and at its object.
    void pushSegment(SegmentStep step) {
        const SegmentNode node = segments_.at(step.record);
        const SegmentBytes bytes = bytesOf(node.key);
        text_.resize(step.textBefore);
        text_.append(bytes.text());
        step.textAfter = static_cast<std::uint32_t>(text_.size());
        step.inOrder = checkOrder(segments_, step, node, [](const SegmentNode& named) { return nameOf(named); });
        step.escapeAfter = checkSegment(step, node, bytes);
        statistics_.segmentTreeDepth = std::max<std::uint64_t>(statistics_.segmentTreeDepth, step.depth);
        enterObject(step, node, bytes);
        segmentSteps_.push_back(step);
    }

    /// Whether there are texts with this segment here. The state of an escape behind it.
    EscapeState checkSegment(const SegmentStep& step, const SegmentNode& node, const SegmentBytes& bytes) {
        const std::uint64_t position = positionOf(step) + offsetof(SegmentNode, key);
        if (!bytes.wellFormed) {
            fault(segments_.name(), position,
                  nameOf(node) + (bytes.closed ? " goes on after its |" : " has neither four bytes nor a |"));
            return NO_ESCAPE;
        }
        if (step.textBefore == 0 && node.key != BAR) {
            fault(segments_.name(), position, nameOf(node) + " begins a text, which only 7C000000 does");
            return NO_ESCAPE;
        }
        EscapeState escape = step.escapeBefore;
        if (const std::optional<std::string> wrong = textRules_.whatIsWrong(bytes, escape)) {
            fault(segments_.name(), position, nameOf(node) + " " + *wrong);
        }
        return escape;
    }

    void enterObject(const SegmentStep& step, const SegmentNode& node, const SegmentBytes& bytes) {
        const std::uint64_t position = positionOf(step) + offsetof(SegmentNode, object);
        if (node.object != 0 && !bytes.closed) {
            fault(segments_.name(), position,
                  nameOf(node) + " leads to the object at " + std::to_string(node.object) + ", but ends no component");
        }
        const Link link{segments_.name(), position, "object", node.object};
        const auto record = enter(objects_, link, RecordUse::OBJECT);
        if (!record) {
            return;
        }
        objects_.close(*record);
        statistics_.longestText = std::max<std::uint64_t>(statistics_.longestText, text_.size());
        statistics_.deepestNesting = std::max<std::uint64_t>(statistics_.deepestNesting, step.barsBefore);
        const ManagedObject object = objects_.at(*record);
        ++(object.inherit != 0 ? statistics_.inheriting : statistics_.notInheriting);
        const std::uint64_t fields = std::uint64_t{*record} * sizeof(ManagedObject);
        walkRoleTree({objects_.name(), fields + offsetof(ManagedObject, ownRoles), "own role tree", object.ownRoles});
        walkRoleTree(
            {objects_.name(), fields + offsetof(ManagedObject, childRoles), "child role tree", object.childRoles});
    }

    static std::uint64_t positionOf(const SegmentStep& step) {
        return std::uint64_t{step.record} * sizeof(SegmentNode);
    }

    // Role trees and word trees.

    void walkRoleTree(const Link& root) {
        const auto first = enter(nodes_, root, RecordUse::ROLE_ROOT);
        if (!first) {
            return;
        }
        ++statistics_.roleTrees;
        const auto visit = [this](std::uint32_t record, const RoleNode& node) {
            roles_.add(node.key, 0);
            const std::uint64_t position = std::uint64_t{record} * sizeof(RoleNode) + offsetof(RoleNode, payload);
            walkWordTree({nodes_.name(), position, "word tree", node.payload});
        };
        walkNodes(*first, RecordUse::ROLE_INNER, roleSteps_, statistics_.roleTreeDepth, visit);
    }

    void walkWordTree(const Link& root) {
        const auto first = enter(nodes_, root, RecordUse::WORD_ROOT);
        if (!first) {
            return;
        }
        ++statistics_.wordTrees;
        const auto visit = [this](std::uint32_t record, const RoleNode& node) {
            if (node.key < 0 || node.key >= WORDS) {
                fault(nodes_.name(), std::uint64_t{record} * sizeof(RoleNode) + offsetof(RoleNode, key),
                      "word " + std::to_string(node.key) + " holds no operation, words 0 to " +
                          std::to_string(WORDS - 1) + " do");
                return;
            }
            words_.add(node.key, node.payload);
        };
        walkNodes(*first, RecordUse::WORD_INNER, wordSteps_, statistics_.wordTreeDepth, visit);
    }

    /// Walks the tree whose root has been entered. `visit(record, node)` is called at each node.
    template <class Visit>
    void walkNodes(std::uint32_t root, RecordUse inner, std::vector<TreeStep>& steps, std::uint64_t& depth,
                   const Visit& visit) {
        const auto push = [&](TreeStep step) {
            const RoleNode node = nodes_.at(step.record);
            step.inOrder = checkOrder(nodes_, step, node, [inner](const RoleNode& named) {
                return (inner == RecordUse::ROLE_INNER ? "role " : "word ") + std::to_string(named.key);
            });
            depth = std::max<std::uint64_t>(depth, step.depth);
            steps.push_back(step);
            visit(step.record, node);
        };
        steps.clear();
        push(rootStep(root));
        while (!steps.empty() && !faults_.stopped()) {
            TreeStep& step = steps.back();
            if (step.next == 2) {
                nodes_.close(step.record);
                steps.pop_back();
                continue;
            }
            const bool isLeft = step.next++ == 0;
            const RoleNode node = nodes_.at(step.record);
            if (const auto record = enter(nodes_, branch(nodes_, step, node, isLeft), inner)) {
                push(stepBelow(step, *record, isLeft));
            }
        }
    }

    // Faults.

    void fault(const std::string& file, std::uint64_t offset, std::string what) {
        faults_.add(file, offset, text_, std::move(what));
    }

    void metadataFault(std::uint64_t offset, std::string what) {
        fault(AccessCache::METADATA_FILE_NAME, offset, std::move(what));
    }

    void linkFault(const Link& link, const std::string& where) {
        fault(link.file, link.position,
              "the " + std::string(link.name) + " offset " + std::to_string(link.target) + " leads " + where);
    }

    const std::optional<std::string_view> metadata_;
    RecordUses<ManagedObject> objects_;
    RecordUses<RoleNode> nodes_;
    RecordUses<SegmentNode> segments_;
    FaultReport& faults_;
    TextRules textRules_;
    CacheStatistics statistics_;

    std::string text_;  // up to where the walk is
    std::vector<SegmentStep> segmentSteps_;
    std::vector<TreeStep> roleSteps_;
    std::vector<TreeStep> wordSteps_;
    BitsByNumber roles_;
    BitsByNumber words_;
};

}  // namespace

CacheStatistics verifyRecords(const CacheBytes& bytes, FaultReport& faults) {
    CacheStatistics statistics = Verification(bytes, faults).run();
    statistics.faults = faults.count();
    statistics.complete = !faults.stopped();
    return statistics;
}

}  // namespace Tesmor::Arkwell::Rbac::detail

namespace Tesmor::Arkwell::Rbac {

CacheStatistics verifyCacheBytes(const CacheBytes& bytes, const OnCacheFault& onFault) {
    detail::FaultReport faults(onFault);
    return detail::verifyRecords(bytes, faults);
}

}  // namespace Tesmor::Arkwell::Rbac
