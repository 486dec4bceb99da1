#include "rbac/enforcement/DiskAccessChecker.h"
#include "testing/RawCache.h"
#include "testing/Sanitized.h"
#include "testing/TemporaryDirectory.h"
#include "tools/AccessDiff.h"

#include <rbac/AccessCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// Random pairs of caches, compared by the tool and by asking a checker for every object, role and operation, and for
// objects below those that neither cache holds.

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::DiskAccessChecker;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using Tesmor::Arkwell::Tools::AccessChange;
using Tesmor::Arkwell::Tools::diffAccess;
using Tesmor::Arkwell::Tools::DiffForm;
using Tesmor::Arkwell::Tools::DiffSummary;
using testing_support::Grants;
using testing_support::lessIfSanitized;
using testing_support::RawCache;
using testing_support::TemporaryDirectory;

namespace {

const std::vector<std::int32_t> ROLES{-2147483647 - 1, -7, 0, 1, 5, 2147483647};
const std::vector<std::int32_t> OPERATIONS{0, 1, 31, 32, 37, 1000};
const std::vector<std::string> COMPONENTS{"A", "AAA", "AAAA", "AAAAB", "", "\xE9", "B C"};

using Rights = std::set<std::pair<std::int32_t, std::int32_t>>;  // role, operation

struct ModelObject {
    bool inherits = true;
    Rights own;
    Rights child;
};
using Model = std::map<std::string, ModelObject>;

struct Change {
    std::string text;
    std::int32_t role;
    std::int32_t operation;
    bool gained;

    auto key() const { return std::tie(text, role, operation, gained); }
    bool isSameAs(const Change& other) const {
        return role == other.role && operation == other.operation && gained == other.gained;
    }
    friend bool operator==(const Change& a, const Change& b) { return a.key() == b.key(); }
    friend bool operator<(const Change& a, const Change& b) { return a.key() < b.key(); }
    friend std::ostream& operator<<(std::ostream& out, const Change& change) {
        return out << (change.gained ? "+" : "-") << change.role << ":" << change.operation << " " << change.text;
    }
};

Change changeOf(const AccessChange& change) {
    return {std::string(change.objectText), change.roleId, change.operationBit, change.gained};
}

class Dice {
public:
    explicit Dice(unsigned seed) : engine_(seed) {}

    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(engine_); }
    bool once(std::size_t in) { return below(in) == 0; }
    template <class List>
    const auto& pick(const List& list) {
        return *std::next(list.begin(), static_cast<long>(below(list.size())));
    }

    std::string text() {
        ObjectNamespace name;
        for (std::size_t i = below(6); i > 0; --i) {
            name = name | pick(COMPONENTS);
        }
        return name.str();
    }
    Rights rights() {
        Rights rights;
        for (std::size_t i = once(2) ? 0 : below(5); i > 0; --i) {
            rights.emplace(pick(ROLES), pick(OPERATIONS));
        }
        return rights;
    }
    ModelObject object() {
        ModelObject object{!once(5), rights(), {}};
        object.child = once(2) ? object.own : rights();
        return object;
    }
    Model model() {
        Model model;
        for (std::size_t i = below(40); i > 0; --i) {
            model[text()] = object();
        }
        return model;
    }

    /// A few things are changed.
    Model changed(Model model) {
        for (std::size_t i = 1 + below(4); i > 0; --i) {
            if (model.empty() || once(6)) {
                model[text()] = object();
                continue;
            }
            const std::string text = pick(model).first;
            ModelObject& object = model[text];
            switch (below(5)) {
                case 0:
                    model.erase(text);
                    break;
                case 1:
                    object.inherits = !object.inherits;
                    break;
                case 2:
                    toggle(object.own);
                    break;
                default:
                    toggle(object.child);
            }
        }
        return model;
    }

    /// The order of insertion is the shape of the tree.
    Grants grants(const Rights& rights) {
        std::map<std::int32_t, std::vector<std::int32_t>> byRole;
        for (const auto& [role, operation] : rights) {
            byRole[role].push_back(operation);
        }
        Grants grants;
        for (auto& [role, operations] : byRole) {
            std::shuffle(operations.begin(), operations.end(), engine_);
            grants.push_back({role, operations});
        }
        std::shuffle(grants.begin(), grants.end(), engine_);
        return grants;
    }

private:
    void toggle(Rights& rights) {
        const std::pair<std::int32_t, std::int32_t> right(pick(ROLES), pick(OPERATIONS));
        if (rights.erase(right) == 0) {
            rights.insert(right);
        }
    }

    std::mt19937 engine_;
};

/// The files of a model.
class Cache {
public:
    Cache(const Model& model, Dice& dice) {
        RawCache raw(directory_.path());
        for (const auto& [text, object] : model) {
            const auto inherit = static_cast<std::uint8_t>(object.inherits ? 1 + dice.below(255) : 0);
            raw.put(text, inherit, dice.grants(object.own), dice.grants(object.child));
        }
        raw.write();
        cache_ = boost::make_shared<const AccessCache>(Manifest("test", directory_.path()));
    }

    const AccessCache& cache() const { return *cache_; }

    bool allows(std::int32_t role, std::int32_t operation, const ObjectNamespace& object) const {
        return DiskAccessChecker(cache_, {role}, Operation(operation), 0).checkAccess(object);
    }

private:
    TemporaryDirectory directory_;
    boost::shared_ptr<const AccessCache> cache_;
};

/// Two caches and the truth about them.
class Pair {
public:
    Pair(const Model& before, const Model& after, Dice& dice) : before_(before, dice), after_(after, dice) {
        for (const Model* model : {&before, &after}) {
            for (const auto& [text, object] : *model) {
                texts_.insert(text);
            }
        }
        for (const std::string& text : texts_) {
            const auto object = boost::lexical_cast<ObjectNamespace>(text);
            ask(object, text, changes_);
            ask(object | ABSENT, text, passedOn_[text]);
        }
        findChangesToCome();
        count(before, after);
    }

    void checkEveryObject() const {
        std::vector<Change> changes;
        std::vector<Change> toCome;
        const DiffSummary summary =
            diffAccess(before_.cache(), after_.cache(), DiffForm::EVERY_OBJECT, [&](const AccessChange& change) {
                EXPECT_NE(change.onObject, change.toCome);
                (change.toCome ? toCome : changes).push_back(changeOf(change));
            });
        EXPECT_EQ(changes, changes_);
        checkToCome(toCome);
        checkSummary(summary);
    }

    void checkTheWayBack() const {
        std::vector<Change> changes;
        std::vector<Change> toCome;
        diffAccess(after_.cache(), before_.cache(), DiffForm::EVERY_OBJECT, [&](const AccessChange& change) {
            std::vector<Change>& list = change.toCome ? toCome : changes;
            list.push_back(changeOf(change));
            list.back().gained = !change.gained;
        });
        EXPECT_EQ(changes, changes_);
        checkToCome(toCome);
    }

    void checkFolded() const {
        std::vector<Change> expanded;
        std::vector<Change> toCome;
        const DiffSummary summary =
            diffAccess(before_.cache(), after_.cache(), DiffForm::FOLDED, [&](const AccessChange& change) {
                if (change.toCome) {
                    EXPECT_EQ(change.changedBelow, 0U);
                    toCome.push_back(changeOf(change));
                }
                if (change.onObject || !change.toCome) {
                    expand(change, expanded);
                }
            });
        std::sort(expanded.begin(), expanded.end());
        EXPECT_EQ(expanded, changes_);
        checkToCome(toCome);
        checkSummary(summary);
    }

    /// With some object, also one that neither cache holds, whatever its place.
    void checkThatAnyDifferenceIsSeen(Dice& dice) const {
        const DiffSummary summary =
            diffAccess(before_.cache(), after_.cache(), DiffForm::FOLDED, [](const AccessChange&) {});
        std::vector<Change> found;
        for (int i = 0; i < 8; ++i) {
            const std::string text = dice.text();
            ask(boost::lexical_cast<ObjectNamespace>(text) | ABSENT, text, found);
        }
        EXPECT_TRUE(found.empty() || summary.objectsAffected + summary.gainedToCome + summary.lostToCome != 0)
            << found.front();
    }

    bool differ() const { return !changes_.empty(); }
    bool differInWhatIsToCome() const { return !toCome_.empty(); }

private:
    static constexpr char ABSENT[] = "absent";

    /// Adds the changes to an object as those of one with this text.
    void ask(const ObjectNamespace& object, const std::string& text, std::vector<Change>& changes) const {
        for (const std::int32_t role : ROLES) {
            for (const std::int32_t operation : OPERATIONS) {
                const bool before = role == 0 || before_.allows(role, operation, object);
                const bool after = role == 0 || after_.allows(role, operation, object);
                if (before != after) {
                    changes.push_back({text, role, operation, after});
                }
            }
        }
    }

    static bool isBelow(const std::string& text, const std::string& top) {
        return text.size() > top.size() && text.compare(0, top.size(), top) == 0;
    }

    /// Passed on by an object, not by the next one above it, and not to be seen with any below it.
    void findChangesToCome() {
        for (const auto& [text, passedOn] : passedOn_) {
            std::vector<Change> fromAbove;
            for (const auto& [other, changes] : passedOn_) {
                if (isBelow(text, other)) {
                    fromAbove = changes;  // the nearest is the last
                }
            }
            for (const Change& change : passedOn) {
                const auto isSame = [&change = change](const Change& other) { return other.isSameAs(change); };
                const auto isSeen = [&change = change](const Change& other) {
                    return other.isSameAs(change) && isBelow(other.text, change.text);
                };
                if (std::none_of(fromAbove.begin(), fromAbove.end(), isSame) &&
                    std::none_of(changes_.begin(), changes_.end(), isSeen)) {
                    toCome_.push_back(change);
                    ++(change.gained ? expected_.gainedToCome : expected_.lostToCome);
                }
            }
        }
        std::sort(toCome_.begin(), toCome_.end());
    }

    void checkToCome(std::vector<Change> toCome) const {
        std::sort(toCome.begin(), toCome.end());
        EXPECT_EQ(toCome, toCome_);
    }

    void count(const Model& before, const Model& after) {
        std::set<std::string> affected;
        for (const Change& change : changes_) {
            affected.insert(change.text);
            ++(change.gained ? expected_.gained : expected_.lost);
        }
        expected_.objectsAffected = affected.size();
        expected_.objects = texts_.size();
        expected_.onlyAfter = texts_.size() - before.size();
        expected_.onlyBefore = texts_.size() - after.size();
        for (const auto& [text, object] : before) {
            const auto found = after.find(text);
            expected_.inheritChanged += found != after.end() && found->second.inherits != object.inherits ? 1 : 0;
        }
    }

    void checkSummary(const DiffSummary& summary) const {
        EXPECT_EQ(summary.objects, expected_.objects);
        EXPECT_EQ(summary.onlyBefore, expected_.onlyBefore);
        EXPECT_EQ(summary.onlyAfter, expected_.onlyAfter);
        EXPECT_EQ(summary.inheritChanged, expected_.inheritChanged);
        EXPECT_EQ(summary.objectsAffected, expected_.objectsAffected);
        EXPECT_EQ(summary.gained, expected_.gained);
        EXPECT_EQ(summary.lost, expected_.lost);
        EXPECT_EQ(summary.gainedToCome, expected_.gainedToCome);
        EXPECT_EQ(summary.lostToCome, expected_.lostToCome);
    }

    /// All changes that a folded one stands for: the same change on the object and whatever is below. If one were
    /// folded into two, or into none, there would be other changes than there are.
    void expand(const AccessChange& folded, std::vector<Change>& expanded) const {
        const Change top = changeOf(folded);
        const auto isBelowTop = [&](const std::string& text) { return isBelow(text, top.text); };
        std::uint64_t changedBelow = 0;
        bool onObject = false;
        for (const Change& change : changes_) {
            if (change.isSameAs(top) && (change.text == top.text || isBelowTop(change.text))) {
                expanded.push_back(change);
                changedBelow += change.text == top.text ? 0 : 1;
                onObject = onObject || change.text == top.text;
            }
        }
        EXPECT_EQ(folded.onObject, onObject) << top;
        EXPECT_EQ(folded.changedBelow, changedBelow) << top;
        EXPECT_EQ(folded.objectsBelow,
                  static_cast<std::uint64_t>(std::count_if(texts_.begin(), texts_.end(), isBelowTop)))
            << top;
        EXPECT_TRUE(onObject || changedBelow != 0) << top;
    }

    Cache before_;
    Cache after_;
    std::set<std::string> texts_;
    std::vector<Change> changes_;                          // by object, role and operation
    std::map<std::string, std::vector<Change>> passedOn_;  // to what neither cache holds
    std::vector<Change> toCome_;
    DiffSummary expected_;
};

/// How many of the pairs differed.
struct Differences {
    int inObjects = 0;
    int toCome = 0;
};

template <class MakeAfter>
Differences checkPairs(unsigned firstSeed, int count, MakeAfter makeAfter) {
    Differences different;
    for (unsigned seed = firstSeed; seed < firstSeed + static_cast<unsigned>(count); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Dice dice(seed);
        const Model before = dice.model();
        const Pair pair(before, makeAfter(before, dice), dice);
        pair.checkEveryObject();
        pair.checkTheWayBack();
        pair.checkFolded();
        pair.checkThatAnyDifferenceIsSeen(dice);
        different.inObjects += pair.differ() ? 1 : 0;
        different.toCome += pair.differInWhatIsToCome() ? 1 : 0;
        if (testing::Test::HasFailure()) {
            break;
        }
    }
    return different;
}

}  // namespace

TEST(AccessDiffPropertyTest, CachesThatDifferInAFewThingsAreComparedAsByCheckers) {
    const Differences found =
        checkPairs(1, lessIfSanitized(240), [](const Model& before, Dice& dice) { return dice.changed(before); });
    EXPECT_GT(found.inObjects, lessIfSanitized(120));
    EXPECT_GT(found.toCome, lessIfSanitized(60));
}

TEST(AccessDiffPropertyTest, CachesThatAreFarApartAreComparedAsByCheckers) {
    const Differences found =
        checkPairs(1000, lessIfSanitized(120), [](const Model&, Dice& dice) { return dice.model(); });
    EXPECT_GT(found.inObjects, lessIfSanitized(90));
    EXPECT_GT(found.toCome, lessIfSanitized(60));
}

TEST(AccessDiffPropertyTest, CachesOfTheSameModelDoNotDiffer) {
    const Differences found = checkPairs(2000, lessIfSanitized(60), [](const Model& before, Dice&) { return before; });
    EXPECT_EQ(found.inObjects, 0);
    EXPECT_EQ(found.toCome, 0);
}
