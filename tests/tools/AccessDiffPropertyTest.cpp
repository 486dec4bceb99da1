#include "rbac/enforcement/DiskAccessChecker.h"
#include "testing/RawCache.h"
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

// Random pairs of caches, compared by the tool and by asking a checker for every object, role and operation.

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
            ask(boost::lexical_cast<ObjectNamespace>(text));
        }
        count(before, after);
    }

    void checkEveryObject() const {
        std::vector<Change> changes;
        const DiffSummary summary =
            diffAccess(before_.cache(), after_.cache(), DiffForm::EVERY_OBJECT,
                       [&](const AccessChange& change) { changes.push_back(changeOf(change)); });
        EXPECT_EQ(changes, changes_);
        checkSummary(summary);
    }

    void checkTheWayBack() const {
        std::vector<Change> changes;
        diffAccess(after_.cache(), before_.cache(), DiffForm::EVERY_OBJECT, [&](const AccessChange& change) {
            changes.push_back(changeOf(change));
            changes.back().gained = !change.gained;
        });
        EXPECT_EQ(changes, changes_);
    }

    void checkFolded() const {
        std::vector<Change> expanded;
        const DiffSummary summary = diffAccess(before_.cache(), after_.cache(), DiffForm::FOLDED,
                                               [&](const AccessChange& change) { expand(change, expanded); });
        std::sort(expanded.begin(), expanded.end());
        EXPECT_EQ(expanded, changes_);
        checkSummary(summary);
    }

    bool differ() const { return !changes_.empty(); }

private:
    void ask(const ObjectNamespace& object) {
        for (const std::int32_t role : ROLES) {
            for (const std::int32_t operation : OPERATIONS) {
                const bool before = role == 0 || before_.allows(role, operation, object);
                const bool after = role == 0 || after_.allows(role, operation, object);
                if (before != after) {
                    changes_.push_back({object.str(), role, operation, after});
                }
            }
        }
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
    }

    /// All changes that a folded one stands for: the same change on the object and whatever is below. If one were
    /// folded into two, or into none, there would be other changes than there are.
    void expand(const AccessChange& folded, std::vector<Change>& expanded) const {
        const Change top = changeOf(folded);
        const auto isBelow = [&](const std::string& text) {
            return text.size() > top.text.size() && text.compare(0, top.text.size(), top.text) == 0;
        };
        std::uint64_t changedBelow = 0;
        bool onObject = false;
        for (const Change& change : changes_) {
            if (change.isSameAs(top) && (change.text == top.text || isBelow(change.text))) {
                expanded.push_back(change);
                changedBelow += change.text == top.text ? 0 : 1;
                onObject = onObject || change.text == top.text;
            }
        }
        EXPECT_EQ(folded.onObject, onObject) << top;
        EXPECT_EQ(folded.changedBelow, changedBelow) << top;
        EXPECT_EQ(folded.objectsBelow, static_cast<std::uint64_t>(std::count_if(texts_.begin(), texts_.end(), isBelow)))
            << top;
        EXPECT_TRUE(onObject || changedBelow != 0) << top;
    }

    Cache before_;
    Cache after_;
    std::set<std::string> texts_;
    std::vector<Change> changes_;  // by object, role and operation
    DiffSummary expected_;
};

/// @return how many of the pairs differed.
template <class MakeAfter>
int checkPairs(unsigned firstSeed, int count, MakeAfter makeAfter) {
    int different = 0;
    for (unsigned seed = firstSeed; seed < firstSeed + static_cast<unsigned>(count); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Dice dice(seed);
        const Model before = dice.model();
        const Pair pair(before, makeAfter(before, dice), dice);
        pair.checkEveryObject();
        pair.checkTheWayBack();
        pair.checkFolded();
        different += pair.differ() ? 1 : 0;
        if (testing::Test::HasFailure()) {
            break;
        }
    }
    return different;
}

}  // namespace

TEST(AccessDiffPropertyTest, CachesThatDifferInAFewThingsAreComparedAsByCheckers) {
    EXPECT_GT(checkPairs(1, 400, [](const Model& before, Dice& dice) { return dice.changed(before); }), 200);
}

TEST(AccessDiffPropertyTest, CachesThatAreFarApartAreComparedAsByCheckers) {
    EXPECT_GT(checkPairs(1000, 200, [](const Model&, Dice& dice) { return dice.model(); }), 150);
}

TEST(AccessDiffPropertyTest, CachesOfTheSameModelDoNotDiffer) {
    EXPECT_EQ(checkPairs(2000, 100, [](const Model& before, Dice&) { return before; }), 0);
}
