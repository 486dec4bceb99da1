#include "sandbox/CacheImage.h"

#include <rbac/CacheVerification.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are stored as they are in memory");

namespace Tesmor::Arkwell::Sandbox {

namespace {

using detail::HashIndex;
using Rbac::ManagedObject;
using Rbac::NodeBits;
using Rbac::NodeOffset;
using Rbac::SegmentNode;
using RoleNode = CacheImage::RoleNode;

constexpr unsigned LEVELS_IN_A_PAGE = 7;  // 127 nodes of 32 bytes

template <class Record>
NodeOffset offsetOf(std::size_t record) {
    return static_cast<NodeOffset>(record * sizeof(Record));
}

template <class Record>
void checkSize(const char* file, std::uint64_t records, std::uint64_t limit) {
    const std::uint64_t bytes = records * sizeof(Record);
    if (bytes > limit) {
        throw std::length_error(std::string("the ") + file + " file would need " + std::to_string(bytes) +
                                " bytes, the limit is " + std::to_string(limit));
    }
}

template <class Record>
std::string_view bytesOf(const std::vector<Record>& records) {
    return {reinterpret_cast<const char*>(records.data()), records.size() * sizeof(Record)};
}

/// Ranks of a balanced tree's subtree. Its root is the one in the middle.
struct RankRange {
    std::uint32_t begin;
    std::uint32_t end;

    bool empty() const { return begin == end; }
    std::uint32_t middle() const { return begin + (end - begin) / 2; }
    RankRange left() const { return {begin, middle()}; }
    RankRange right() const { return {middle() + 1, end}; }
};

unsigned levelsOf(std::size_t count) {
    unsigned levels = 0;
    for (; count != 0; count /= 2) {
        ++levels;
    }
    return levels;
}

/// Calls `visit` for the subtrees that begin `depth` levels below the root of `tree`.
template <class Visit>
void forSubtrees(RankRange tree, unsigned depth, const Visit& visit) {
    if (tree.empty()) {
        return;
    }
    if (depth == 0) {
        visit(tree);
        return;
    }
    forSubtrees(tree.left(), depth - 1, visit);
    forSubtrees(tree.right(), depth - 1, visit);
}

/// Appends the ranks of the upper `levels` levels of `tree`. What fits into a page is laid out depth first, so that
/// every other step of a search stays on its cache line. Anything higher is cut in half, again and again: a part at the
/// top, and the many below it, each of them laid out by itself. So a search changes pages as rarely as it can.
void appendLevels(RankRange tree, unsigned levels, std::vector<std::uint32_t>& order) {
    if (tree.empty() || levels == 0) {
        return;
    }
    if (levels > LEVELS_IN_A_PAGE) {
        const unsigned upper = levels / 2;
        appendLevels(tree, upper, order);
        forSubtrees(tree, upper, [&](RankRange part) { appendLevels(part, levels - upper, order); });
        return;
    }
    order.push_back(tree.middle());
    appendLevels(tree.left(), levels - 1, order);
    appendLevels(tree.right(), levels - 1, order);
}

void linkChildren(RankRange tree, const std::vector<std::uint32_t>& placeOfRank, std::vector<TreePlace>& places) {
    if (tree.empty()) {
        return;
    }
    TreePlace& root = places[placeOfRank[tree.middle()]];
    root.rank = tree.middle();
    root.left = tree.left().empty() ? TreePlace::NONE : placeOfRank[tree.left().middle()];
    root.right = tree.right().empty() ? TreePlace::NONE : placeOfRank[tree.right().middle()];
    linkChildren(tree.left(), placeOfRank, places);
    linkChildren(tree.right(), placeOfRank, places);
}

/// Remembers the layouts of small trees, which are nearly all.
class TreeLayouts {
public:
    TreeLayouts() : small_(REMEMBERED) {}

    /// Valid until the next call.
    const std::vector<TreePlace>& of(std::size_t count) {
        std::vector<TreePlace>& layout = count < REMEMBERED ? small_[count] : large_;
        if (layout.size() != count) {
            layout = layoutOrder(count);
        }
        return layout;
    }

private:
    static constexpr std::size_t REMEMBERED = 256;

    std::vector<std::vector<TreePlace>> small_;
    std::vector<TreePlace> large_;
};

/// Writes a tree's nodes from record `first` on. `fill(node, rank)` gives a node what its rank stands for.
template <class Node, class Fill>
void writeTree(std::vector<Node>& nodes, std::size_t first, const std::vector<TreePlace>& layout, const Fill& fill) {
    const auto link = [first](std::uint32_t place) {
        return place == TreePlace::NONE ? 0 : offsetOf<Node>(first + place);
    };
    for (std::size_t i = 0; i < layout.size(); ++i) {
        Node& node = nodes[first + i];
        node.left = link(layout[i].left);
        node.right = link(layout[i].right);
        fill(node, layout[i].rank);
    }
}

/// The role trees of a model's grant lists. Those of lists that no object has keep their place, so that the others keep
/// theirs, but are not written: their records are free.
class RoleTrees {
public:
    struct Roots {
        NodeOffset own = 0;
        NodeOffset child = 0;
    };

    /// Finds out what trees there can be, and where.
    explicit RoleTrees(const AccessModel& model) {
        lists_.reserve(model.grantListCount());
        for (std::uint32_t list = 0; list < model.grantListCount(); ++list) {
            const std::uint32_t own = treeOf(model.grants(list), GrantScope::CHILDREN);
            const std::uint32_t child = treeOf(model.grants(list), GrantScope::OBJECT);
            lists_.push_back({own, child});
        }
    }

    /// Record 0 included.
    std::uint64_t records() const { return records_; }

    /// Writes those that have been used.
    void write(std::vector<RoleNode>& nodes) {
        TreeLayouts layouts;
        for (const Tree& tree : trees_) {
            if (tree.isUsed) {
                writeRoleTree(nodes, tree, layouts);
            }
        }
    }

    /// The roots of the trees of an object that has this list. For an image whose nodes file is within its limit.
    Roots use(std::uint32_t list) { return {useTree(lists_[list].own), useTree(lists_[list].child)}; }

private:
    /// 32 operations of one role.
    struct RoleWord {
        std::int32_t role;
        std::int32_t word;
        NodeBits bits;
    };
    /// Part of `words_`, in order.
    struct Words {
        std::size_t first;
        std::size_t count;
    };
    struct Tree {
        Words words;
        std::uint64_t firstRecord;
        bool isUsed;
    };
    /// Trees by number.
    struct List {
        std::uint32_t own;
        std::uint32_t child;
    };
    struct Role {
        std::int32_t id;
        std::size_t wordTree;
    };
    struct WordTree {
        Words words;
        std::size_t record;  // counted from behind the roles
    };
    /// A tree taken apart: its roles, and the different word trees that they point to.
    struct Parts {
        std::vector<Role> roles;
        std::vector<WordTree> wordTrees;
        std::size_t wordRecords = 0;
    };

    NodeOffset useTree(std::uint32_t number) {
        if (number == HashIndex::NONE) {
            return 0;
        }
        Tree& tree = trees_[number];
        tree.isUsed = true;
        return offsetOf<RoleNode>(tree.firstRecord);
    }

    /// The number of the tree that holds all grants but those of one scope, or NONE where there are no others.
    std::uint32_t treeOf(const AccessModel::GrantList& grants, GrantScope without) {
        const std::size_t first = words_.size();
        for (const Grant& grant : grants) {
            if (grant.scope != without) {
                addBit(first, grant.roleId, static_cast<std::uint32_t>(grant.operationBit));
            }
        }
        const Words words{first, words_.size() - first};
        if (words.count == 0) {
            return HashIndex::NONE;
        }
        const std::uint32_t hash = hashOf(words, true);
        const std::uint32_t known =
            treeIndex_.find(hash, [&](std::uint32_t tree) { return sameWords(trees_[tree].words, words, true); });
        if (known != HashIndex::NONE) {
            words_.resize(first);
            return known;
        }
        return addTree(hash, words);
    }

    /// Grants come in the order of roles and operations, so only the last word can be the right one.
    void addBit(std::size_t first, std::int32_t role, std::uint32_t operation) {
        const auto word = static_cast<std::int32_t>(operation / 32);
        if (words_.size() == first || words_.back().role != role || words_.back().word != word) {
            words_.push_back({role, word, 0});
        }
        words_.back().bits |= NodeBits{1} << (operation % 32);
    }

    std::uint32_t hashOf(Words words, bool withRoles) const {
        std::uint64_t hash = words.count;
        const auto mix = [&hash](std::int64_t value) {
            hash = (hash ^ static_cast<std::uint64_t>(value)) * 0x9E3779B97F4A7C15U;
            hash ^= hash >> 32U;
        };
        for (std::size_t i = words.first; i < words.first + words.count; ++i) {
            mix(withRoles ? words_[i].role : 0);
            mix(words_[i].word);
            mix(words_[i].bits);
        }
        return static_cast<std::uint32_t>(hash);
    }

    bool sameWords(Words left, Words right, bool withRoles) const {
        const auto same = [withRoles](const RoleWord& a, const RoleWord& b) {
            return (!withRoles || a.role == b.role) && a.word == b.word && a.bits == b.bits;
        };
        const RoleWord* const first = words_.data();
        return std::equal(first + left.first, first + left.first + left.count, first + right.first,
                          first + right.first + right.count, same);
    }

    std::uint32_t addTree(std::uint32_t hash, Words words) {
        const auto number = static_cast<std::uint32_t>(trees_.size());
        trees_.push_back({words, records_, false});
        treeIndex_.add(hash, number);
        takeApart(words);
        records_ += parts_.roles.size() + parts_.wordRecords;
        return number;
    }

    void takeApart(Words words) {
        parts_.roles.clear();
        parts_.wordTrees.clear();
        parts_.wordRecords = 0;
        HashIndex known;
        const std::size_t end = words.first + words.count;
        for (std::size_t first = words.first; first != end;) {
            std::size_t next = first + 1;
            while (next != end && words_[next].role == words_[first].role) {
                ++next;
            }
            const bool only = next - first == words.count;
            const Words ofRole{first, next - first};
            parts_.roles.push_back({words_[first].role, only ? addWordTree(ofRole) : sharedWordTree(ofRole, known)});
            first = next;
        }
    }

    /// The word tree with these words, of an earlier role of the same role tree if that has the same operations.
    std::size_t sharedWordTree(Words words, HashIndex& known) {
        const std::uint32_t hash = hashOf(words, false);
        const std::uint32_t same =
            known.find(hash, [&](std::uint32_t tree) { return sameWords(parts_.wordTrees[tree].words, words, false); });
        if (same != HashIndex::NONE) {
            return same;
        }
        const std::size_t number = addWordTree(words);
        known.add(hash, static_cast<std::uint32_t>(number));
        return number;
    }

    std::size_t addWordTree(Words words) {
        parts_.wordTrees.push_back({words, parts_.wordRecords});
        parts_.wordRecords += words.count;
        return parts_.wordTrees.size() - 1;
    }

    void writeRoleTree(std::vector<RoleNode>& nodes, const Tree& tree, TreeLayouts& layouts) {
        takeApart(tree.words);
        const std::size_t firstWord = tree.firstRecord + parts_.roles.size();
        writeTree(nodes, tree.firstRecord, layouts.of(parts_.roles.size()), [&](RoleNode& node, std::uint32_t rank) {
            const Role& role = parts_.roles[rank];
            node.key = role.id;
            node.payload = offsetOf<RoleNode>(firstWord + parts_.wordTrees[role.wordTree].record);
        });
        for (const WordTree& wordTree : parts_.wordTrees) {
            const Words words = wordTree.words;
            writeTree(nodes, firstWord + wordTree.record, layouts.of(words.count),
                      [&](RoleNode& node, std::uint32_t rank) {
                          node.key = words_[words.first + rank].word;
                          node.payload = words_[words.first + rank].bits;
                      });
        }
    }

    std::vector<RoleWord> words_;
    std::vector<Tree> trees_;
    HashIndex treeIndex_;
    std::vector<List> lists_;
    std::uint64_t records_ = 1;
    Parts parts_;
};

/// An object on its way into the segment trees.
struct PendingText {
    const char* text;
    std::uint32_t length;
    std::uint32_t entry;    // of the model
    std::int32_t key;       // of the segment at the place that is being looked at
    std::uint32_t segment;  // length of that segment
};

/// Texts that begin with the same segments.
struct TextGroup {
    std::uint32_t begin;
    std::uint32_t end;
    std::uint32_t position;  // behind those segments
    std::uint32_t node;      // of the last of those segments
};

/// Walks the texts in the order in which trees and objects are laid out and puts the texts into that order on the way.
/// How deep the trees lie within one another is no matter of the call stack.
///
/// Calls `layout.object(node, entry)` where a text ends at a node and `layout.tree(parent, groups, texts)` for the tree
/// that follows a node (0: the first segments), which gives each group its node.
template <class Layout>
void walkTexts(std::vector<PendingText>& texts, Layout& layout) {
    const auto byKey = [](const PendingText& a, const PendingText& b) { return a.key < b.key; };
    std::vector<TextGroup> waiting{{0, static_cast<std::uint32_t>(texts.size()), 0, 0}};
    std::vector<TextGroup> next;
    while (!waiting.empty()) {
        TextGroup group = waiting.back();
        waiting.pop_back();
        for (std::uint32_t i = group.begin; i < group.end; ++i) {
            PendingText& text = texts[i];
            if (text.length == group.position) {
                layout.object(group.node, text.entry);
                std::swap(text, texts[group.begin++]);
                continue;
            }
            const TextSegment segment = firstSegment({text.text + group.position, text.length - group.position});
            text.key = segment.key;
            text.segment = segment.length;
        }
        if (group.begin == group.end) {
            continue;
        }
        const auto begin = texts.begin() + group.begin;
        const auto end = texts.begin() + group.end;
        if (!std::is_sorted(begin, end, byKey)) {
            std::sort(begin, end, byKey);
        }
        next.clear();
        for (std::uint32_t i = group.begin; i < group.end; ++i) {
            if (i == group.begin || texts[i].key != texts[i - 1].key) {
                next.push_back({i, i, group.position + texts[i].segment, 0});
            }
            next.back().end = i + 1;
        }
        layout.tree(group.node, next, texts);
        waiting.insert(waiting.end(), next.rbegin(), next.rend());
    }
}

/// Counts what there will be.
struct SegmentCount {
    std::uint64_t records = 1;

    void object(std::uint32_t, std::uint32_t) {}
    void tree(std::uint32_t, const std::vector<TextGroup>& groups, const std::vector<PendingText>&) {
        records += groups.size();
    }
};

/// Writes segments and objects.
class SegmentLayout {
public:
    SegmentLayout(const AccessModel& model, RoleTrees& roleTrees, CacheImage& image)
        : model_(model), roleTrees_(roleTrees), image_(image) {}

    void object(std::uint32_t node, std::uint32_t index) {
        const AccessModel::Entry entry = model_.entry(index);
        if (entry.state == ObjectState::READY) {
            const RoleTrees::Roots roots = roleTrees_.use(entry.grantList);
            ManagedObject& record = image_.objects[objects_];
            record.inherit = entry.inherit ? 1 : 0;
            record.ownRoles = roots.own;
            record.childRoles = roots.child;
            image_.metadata.grantCount += model_.grants(entry.grantList).size();
        }
        image_.segments[node].object = offsetOf<ManagedObject>(objects_++);
    }

    void tree(std::uint32_t parent, std::vector<TextGroup>& groups, const std::vector<PendingText>& texts) {
        const std::size_t first = segments_;
        const std::vector<TreePlace>& layout = layouts_.of(groups.size());
        writeTree(image_.segments, first, layout,
                  [&](SegmentNode& node, std::uint32_t rank) { node.key = texts[groups[rank].begin].key; });
        for (std::size_t i = 0; i < layout.size(); ++i) {
            groups[layout[i].rank].node = static_cast<std::uint32_t>(first + i);
        }
        segments_ += groups.size();
        if (parent == 0) {
            image_.metadata.segmentRoot = offsetOf<SegmentNode>(first);
        } else {
            image_.segments[parent].child = offsetOf<SegmentNode>(first);
        }
    }

private:
    const AccessModel& model_;
    RoleTrees& roleTrees_;
    CacheImage& image_;
    TreeLayouts layouts_;
    std::size_t objects_ = 1;
    std::size_t segments_ = 1;
};

std::vector<PendingText> textsOf(const AccessModel& model) {
    std::vector<PendingText> texts;
    texts.reserve(model.objectCount());
    for (std::uint32_t index = 0; index < model.objectCount(); ++index) {
        const AccessModel::Entry entry = model.entry(index);
        if (entry.state != ObjectState::DELETED) {
            texts.push_back({entry.text.data(), static_cast<std::uint32_t>(entry.text.size()), index, 0, 0});
        }
    }
    return texts;
}

CacheMetadata newMetadata(std::uint64_t objectCount) {
    CacheMetadata metadata{};
    std::memcpy(metadata.magic, CacheMetadata::MAGIC, sizeof metadata.magic);
    metadata.version = CacheMetadata::VERSION;
    metadata.objectCount = objectCount;
    return metadata;
}

}  // namespace

TextSegment firstSegment(std::string_view text) {
    std::uint32_t bytes = 0;
    std::uint32_t length = 0;
    while (length < 4 && length < text.size()) {
        const auto byte = static_cast<unsigned char>(text[length]);
        bytes |= std::uint32_t{byte} << (24 - 8 * length);
        ++length;
        if (byte == '|') {
            break;
        }
    }
    return {static_cast<std::int32_t>(bytes), length};
}

std::vector<TreePlace> layoutOrder(std::size_t count) {
    const RankRange tree{0, static_cast<std::uint32_t>(count)};
    std::vector<std::uint32_t> order;
    order.reserve(count);
    appendLevels(tree, levelsOf(count), order);

    std::vector<std::uint32_t> placeOfRank(count);
    for (std::uint32_t place = 0; place < count; ++place) {
        placeOfRank[order[place]] = place;
    }
    std::vector<TreePlace> places(count);
    linkChildren(tree, placeOfRank, places);
    return places;
}

CacheImage CacheImage::build(const AccessModel& model, const ImageLimits& limits) {
    std::vector<PendingText> texts = textsOf(model);
    RoleTrees roleTrees(model);
    SegmentCount segmentCount;
    checkSize<ManagedObject>("objects", texts.size() + 1, limits.objects);
    checkSize<RoleNode>("nodes", roleTrees.records(), limits.nodes);
    walkTexts(texts, segmentCount);
    checkSize<SegmentNode>("segments", segmentCount.records, limits.segments);

    CacheImage image;
    image.metadata = newMetadata(texts.size());
    image.objects.resize(texts.size() + 1);
    image.nodes.resize(roleTrees.records());
    image.segments.resize(segmentCount.records);
    SegmentLayout layout(model, roleTrees, image);
    walkTexts(texts, layout);
    roleTrees.write(image.nodes);
    return image;
}

void CacheImage::requireSound() const {
    Rbac::verifyCacheBytes({metadataBytes(), objectBytes(), nodeBytes(), segmentBytes()},
                           [](const Rbac::CacheFault& fault) -> bool {
                               throw std::runtime_error("the new cache is not sound: " + fault.file + " at " +
                                                        std::to_string(fault.offset) + ", object \"" +
                                                        fault.objectText + "\": " + fault.what);
                           });
}

std::string_view CacheImage::metadataBytes() const {
    return {reinterpret_cast<const char*>(&metadata), sizeof metadata};
}

std::string_view CacheImage::objectBytes() const {
    return bytesOf(objects);
}

std::string_view CacheImage::nodeBytes() const {
    return bytesOf(nodes);
}

std::string_view CacheImage::segmentBytes() const {
    return bytesOf(segments);
}

}  // namespace Tesmor::Arkwell::Sandbox
