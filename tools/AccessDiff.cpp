#include "tools/AccessDiff.h"

#include "rbac/cache/ObjectCursor.h"
#include "tools/ChangeFolding.h"
#include "tools/GrantWords.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Tools {

namespace {

using Rbac::AccessCache;
using Rbac::ManagedObject;
using Rbac::detail::CacheAccess;
using Rbac::detail::CacheView;
using Rbac::detail::ObjectCursor;
using Rbac::detail::RoleTree;

/// What a cache says of an object. Where it has no record of it, the walk from below passes the object by, just as if
/// its record granted nothing and inherited.
struct Record {
    bool inherits = true;
    NodeOffset ownRoles = 0;
    NodeOffset childRoles = 0;

    static Record of(const ManagedObject* object) {
        return object == nullptr ? Record() : Record{object->inherit != 0, object->ownRoles, object->childRoles};
    }
    NodeOffset root(RoleTree tree) const { return tree == RoleTree::OWN ? ownRoles : childRoles; }
};

struct RecordPair {
    Record before;
    Record after;

    bool bothInherit() const { return before.inherits && after.inherits; }
    /// Whether what comes from above passes the tree unchanged.
    bool lets(RoleTree tree) const { return bothInherit() && before.root(tree) == 0 && after.root(tree) == 0; }
};

/// Those of the first list that are not in the second one.
ChangeList without(const ChangeList& list, const ChangeList& others) {
    ChangeList rest;
    forEachKey(list.words(), others.words(), [&](const WordKey&, const WordPair* word, const WordPair* other) {
        if (word == nullptr) {
            return;
        }
        const WordPair taken = other == nullptr ? WordPair{word->key, 0, 0} : *other;
        rest.add({word->key, word->before & ~taken.before, word->after & ~taken.after});
    });
    return rest;
}

/// Compares objects in the order of the caches.
///
/// From level to level it carries what the two caches pass on differently, which mostly is nothing. Only where records
/// differ is what they pass on alike looked up as well.
class Comparison {
public:
    Comparison(const CacheView& before, const CacheView& after, DiffForm form,
               const std::function<void(const AccessChange&)>& visit)
        : before_(before.nodes), after_(after.nodes), trees_(before.nodes, after.nodes), visit_(visit) {
        if (form == DiffForm::FOLDED) {
            folding_.emplace(visit);
        }
        levels_.emplace_back();
        levels_.back().entered = true;
    }

    /// Goes on to an object, which a cache that does not have it says null to.
    void compare(const std::string& text, const ManagedObject* before, const ManagedObject* after) {
        leaveUnless(
            [&](const Level& level) { return text.compare(0, level.textLength, way_, 0, level.textLength) == 0; });
        way_ = text;
        enterLast();
        const RecordPair records{Record::of(before), Record::of(after)};
        count(before, after, records);
        compareOwn(records);
        Level level;
        level.textLength = text.size();
        level.records = records;
        level.objectsBefore = summary_.objects;
        levels_.push_back(std::move(level));
    }

    DiffSummary finish() {
        leaveUnless([](const Level&) { return false; });
        return summary_;
    }

private:
    /// An object on the way. Level 0 is what is above the root: nothing.
    struct Level {
        std::size_t textLength = 0;
        RecordPair records = {};
        std::uint64_t objectsBefore = 0;  // and this one
        bool entered = false;             // what follows is known; most objects have nothing below
        std::size_t passedOnBy = 0;       // the level whose list is also what this one passes on
        ChangeList passedOn = {};
        ChangeList firstPassedOn = {};   // of these, what the level above does not pass on
        bool changesAsPassedOn = false;  // an object below it
    };

    const ChangeList& passedOn(std::size_t level) const { return levels_[levels_[level].passedOnBy].passedOn; }

    template <class Stays>
    void leaveUnless(Stays stays) {
        while (levels_.size() > 1 && !stays(levels_.back())) {
            if (!levels_.back().entered && mayPassOnMore(levels_.back().records)) {
                enterLast();
            }
            leaveLast();
            levels_.pop_back();
        }
    }

    /// Whether a level can pass on changes that do not come from above: seldom, so that most objects with nothing below
    /// need not be entered.
    bool mayPassOnMore(const RecordPair& records) {
        return !records.bothInherit() || !trees_.of(records.before.childRoles, records.after.childRoles).empty();
    }

    void leaveLast() {
        const Level& level = levels_.back();
        if (level.changesAsPassedOn) {
            unshown_.show(level.passedOn);
        }
        const std::vector<GrantChange> unshown = unshown_.leave(level.firstPassedOn);
        const std::string_view text = std::string_view(way_).substr(0, level.textLength);
        for (const GrantChange& change : unshown) {
            ++(change.gained ? summary_.gainedToCome : summary_.lostToCome);
            if (!folding_) {
                visit_({text, change.roleId, change.operationBit, change.gained, false, 0, 0, true});
            }
        }
        if (folding_) {
            folding_->leave(levels_.size() - 1, text, summary_.objects - level.objectsBefore, level.passedOn, unshown);
        }
    }

    void enterLast() {
        const std::size_t number = levels_.size() - 1;
        Level& level = levels_[number];
        if (level.entered) {
            return;
        }
        level.entered = true;
        if (level.records.lets(RoleTree::CHILD)) {
            level.passedOnBy = levels_[number - 1].passedOnBy;
            return;
        }
        ChangeList changes = changesOf(level.records, RoleTree::CHILD, number - 1);
        if (changes == passedOn(number - 1)) {
            level.passedOnBy = levels_[number - 1].passedOnBy;
            return;
        }
        level.passedOnBy = number;
        level.passedOn = std::move(changes);
        level.firstPassedOn = without(level.passedOn, passedOn(number - 1));
        unshown_.enter(level.firstPassedOn);
        if (folding_) {
            folding_->enter(number, level.passedOn);
        }
    }

    void count(const ManagedObject* before, const ManagedObject* after, const RecordPair& records) {
        ++summary_.objects;
        summary_.onlyBefore += after == nullptr ? 1 : 0;
        summary_.onlyAfter += before == nullptr ? 1 : 0;
        const bool inBoth = before != nullptr && after != nullptr;
        summary_.inheritChanged += inBoth && records.before.inherits != records.after.inherits ? 1 : 0;
    }

    void compareOwn(const RecordPair& records) {
        const std::size_t above = levels_.size() - 1;
        if (records.lets(RoleTree::OWN)) {
            takeAsPassedOn(above);
            return;
        }
        const ChangeList changes = changesOf(records, RoleTree::OWN, above);
        if (changes == passedOn(above)) {
            takeAsPassedOn(above);
            return;
        }
        tell(changes);
        unshown_.show(changes);
        if (folding_) {
            folding_->add(levels_.size(), changes);
        }
    }

    void takeAsPassedOn(std::size_t level) {
        const ChangeList& changes = passedOn(level);
        if (changes.empty()) {
            return;
        }
        tell(changes);
        levels_[levels_[level].passedOnBy].changesAsPassedOn = true;
        if (folding_) {
            folding_->addPassedOn(levels_[level].passedOnBy);
        }
    }

    void tell(const ChangeList& changes) {
        summary_.objectsAffected += changes.empty() ? 0 : 1;
        summary_.gained += changes.gained();
        summary_.lost += changes.lost();
        if (!folding_) {
            changes.forEach([this](const GrantChange& change) {
                visit_({way_, change.roleId, change.operationBit, change.gained, true, 0, 0, false});
            });
        }
    }

    /// What changes where the records' trees meet what comes from level `above`.
    ChangeList changesOf(const RecordPair& records, RoleTree tree, std::size_t above) {
        return records.bothInherit() ? changesBelowBoth(records, tree, above) : changesAtStop(records, tree, above);
    }

    ChangeList changesBelowBoth(const RecordPair& records, RoleTree tree, std::size_t above) {
        const NodeOffset root = records.before.root(tree);
        const auto& own = trees_.of(root, records.after.root(tree));
        ChangeList changes;
        forEachKey(passedOn(above).words(), own, [&](const WordKey& key, const WordPair* passed, const WordPair* held) {
            const NodeBits lost = passed == nullptr ? 0 : passed->before;
            const NodeBits gained = passed == nullptr ? 0 : passed->after;
            if (held == nullptr) {
                const NodeBits same = bitsAt(before_, root, key);
                changes.add({key, same | lost, same | gained});
                return;
            }
            const NodeBits inherited = bitsFromAbove(key, above);
            changes.add({key, held->before | inherited, held->after | (inherited & ~lost) | gained});
        });
        return changes;
    }

    /// At least one of the records takes nothing from above.
    ChangeList changesAtStop(const RecordPair& records, RoleTree tree, std::size_t above) {
        const NodeOffset root = records.before.root(tree);
        const auto& own = trees_.of(root, records.after.root(tree));
        ChangeList changes;
        forEachKey(allFromAbove(records, above), own,
                   [&](const WordKey& key, const GrantWord* inherited, const WordPair* held) {
                       WordPair word{key, 0, 0};
                       if (held == nullptr) {
                           word.before = word.after = bitsAt(before_, root, key);
                       } else {
                           word = *held;
                       }
                       if (inherited != nullptr) {
                           (records.before.inherits ? word.before : word.after) |= inherited->bits;
                       }
                       changes.add(word);
                   });
        return changes;
    }

    /// What level `last` and those above it pass on before.
    NodeBits bitsFromAbove(const WordKey& key, std::size_t last) const {
        NodeBits bits = 0;
        for (std::size_t level = last;; --level) {
            const Record& record = levels_[level].records.before;
            bits |= bitsAt(before_, record.childRoles, key);
            if (!record.inherits || level == 0) {
                return bits;
            }
        }
    }

    /// All that the record that inherits, where one does, takes from level `last` and those above it.
    std::vector<GrantWord> allFromAbove(const RecordPair& records, std::size_t last) const {
        std::vector<GrantWord> words;
        if (!records.before.inherits && !records.after.inherits) {
            return words;
        }
        for (std::size_t level = last;; --level) {
            const RecordPair& pair = levels_[level].records;
            const Record& record = records.before.inherits ? pair.before : pair.after;
            appendGrants(records.before.inherits ? before_ : after_, record.childRoles, words);
            if (!record.inherits || level == 0) {
                break;
            }
        }
        unite(words);
        return words;
    }

    const RoleNode* before_;
    const RoleNode* after_;
    TreeComparison trees_;
    const std::function<void(const AccessChange&)>& visit_;
    UnshownChanges unshown_;
    std::optional<ChangeFolding> folding_;
    std::vector<Level> levels_;
    std::string way_;  // the text of the object that was compared last
    DiffSummary summary_;
};

/// The order in which a cursor visits texts: that of their segments, which are signed numbers.
bool comesBefore(const std::string& a, const std::string& b) {
    const auto [inA, inB] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    if (inA == a.end() || inB == b.end()) {
        return inB != b.end();
    }
    const auto common = static_cast<std::size_t>(inA - a.begin());
    const std::size_t bar = common == 0 ? std::string::npos : a.rfind('|', common - 1);
    const std::size_t component = bar == std::string::npos ? 0 : bar + 1;
    const std::size_t segment = common - (common - component) % sizeof(std::int32_t);
    return Rbac::detail::segmentAt(a.data() + segment, a.size() - segment).value <
           Rbac::detail::segmentAt(b.data() + segment, b.size() - segment).value;
}

}  // namespace

DiffSummary diffAccess(const AccessCache& before, const AccessCache& after, DiffForm form,
                       const std::function<void(const AccessChange&)>& visit) {
    const AccessCache::Reader beforeReader = before.lock();
    const AccessCache::Reader afterReader = &before == &after ? beforeReader : after.lock();
    const CacheView beforeView = CacheAccess::view(beforeReader);
    const CacheView afterView = CacheAccess::view(afterReader);
    Comparison comparison(beforeView, afterView, form, visit);
    ObjectCursor ofBefore(beforeView, "|");
    ObjectCursor ofAfter(afterView, "|");
    bool inBefore = ofBefore.next();
    bool inAfter = ofAfter.next();
    while (inBefore || inAfter) {
        const bool same = inBefore && inAfter && ofBefore.text() == ofAfter.text();
        const bool takeBefore = same || !inAfter || (inBefore && comesBefore(ofBefore.text(), ofAfter.text()));
        const bool takeAfter = same || !takeBefore;
        comparison.compare(takeBefore ? ofBefore.text() : ofAfter.text(), takeBefore ? &ofBefore.record() : nullptr,
                           takeAfter ? &ofAfter.record() : nullptr);
        inBefore = takeBefore ? ofBefore.next() : inBefore;
        inAfter = takeAfter ? ofAfter.next() : inAfter;
    }
    return comparison.finish();
}

}  // namespace Tesmor::Arkwell::Tools
