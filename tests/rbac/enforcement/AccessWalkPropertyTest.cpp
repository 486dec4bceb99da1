#include "rbac/enforcement/AccessWalk.h"
#include "rbac/enforcement/DiskAccessChecker.h"
#include "testing/RawCache.h"
#include "testing/Sanitized.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/BulkAccess.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

// Random caches and random questions, answered by the library's one descent, by a model in memory, and by a lookup of
// each ancestor of its own.

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::checkAccessToAll;
using Tesmor::Arkwell::Rbac::DiskAccessChecker;
using Tesmor::Arkwell::Rbac::ManagedObject;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using Tesmor::Arkwell::Rbac::detail::CacheAccess;
using Tesmor::Arkwell::Rbac::detail::PathRecord;
using Tesmor::Arkwell::Rbac::detail::RoleTree;
using Tesmor::Arkwell::Rbac::detail::StepOutcome;
using Tesmor::Arkwell::Rbac::detail::walkAccess;
using testing_support::Grant;
using testing_support::Grants;
using testing_support::RawCache;
using testing_support::TemporaryDirectory;

namespace {

using Components = std::vector<std::string>;
/// For each role the operations that it holds.
using Rights = std::map<std::int32_t, std::set<std::int32_t>>;

struct ModelObject {
    bool inherits = false;
    Rights own;
    Rights child;
};

struct Question {
    Components object;
    std::set<int> roles;
    std::int32_t operation;
};

std::ostream& operator<<(std::ostream& out, const Question& question) {
    ObjectNamespace ns;
    for (const std::string& component : question.object) {
        ns = ns | component;
    }
    out << ns << ", operation " << question.operation << ", roles";
    for (const int role : question.roles) {
        out << " " << role;
    }
    return out;
}

/// A namespace that was asked on the way, by its number of components, and what it answered.
struct Step {
    std::size_t depth;
    RoleTree tree;
    bool granted;

    friend bool operator==(const Step& a, const Step& b) {
        return a.depth == b.depth && a.tree == b.tree && a.granted == b.granted;
    }
};

struct Answer {
    bool allowed = false;
    std::vector<Step> steps;
};

bool anyHolds(const Rights& rights, const Question& question) {
    return std::any_of(question.roles.begin(), question.roles.end(), [&](int role) {
        const auto found = rights.find(role);
        return found != rights.end() && found->second.count(question.operation) != 0;
    });
}

/// The objects of a cache, in memory.
class Model {
public:
    void put(const Components& path, const ModelObject& object) { objects_[path] = object; }

    const std::map<Components, ModelObject>& objects() const { return objects_; }

    /// The answer by the rules: the object, then its ancestors, one at a time.
    Answer answer(const Question& question) const {
        Answer answer;
        for (std::size_t depth = question.object.size() + 1; depth-- > 0;) {
            const auto found =
                objects_.find(Components(question.object.begin(), question.object.begin() + static_cast<long>(depth)));
            if (found == objects_.end()) {
                continue;
            }
            const bool isOwn = depth == question.object.size();
            answer.allowed = anyHolds(isOwn ? found->second.own : found->second.child, question);
            answer.steps.push_back({depth, isOwn ? RoleTree::OWN : RoleTree::CHILD, answer.allowed});
            if (answer.allowed || !found->second.inherits) {
                return answer;
            }
        }
        return answer;
    }

private:
    std::map<Components, ModelObject> objects_;
};

ObjectNamespace namespaceOf(const Components& path) {
    ObjectNamespace ns;
    for (const std::string& component : path) {
        ns = ns | component;
    }
    return ns;
}

/// The answer by a lookup of each ancestor.
bool answerByLookups(const AccessCache::Reader& reader, const Question& question) {
    const ObjectNamespace object = namespaceOf(question.object);
    const Operation operation(question.operation);
    if (const ManagedObject* const record = reader.lookup(object)) {
        for (const int role : question.roles) {
            if (reader.getOperationBit(*record, role, operation)) {
                return true;
            }
        }
        if (record->inherit == 0) {
            return false;
        }
    }
    for (auto current = object.parentNamespace(); current; current = current->parentNamespace()) {
        const ManagedObject* const record = reader.lookup(*current);
        if (record == nullptr) {
            continue;
        }
        for (const int role : question.roles) {
            if (reader.getChildOperationBit(*record, role, operation)) {
                return true;
            }
        }
        if (record->inherit == 0) {
            return false;
        }
    }
    return false;
}

/// How many components the text with this length is the text of.
std::size_t depthOf(const std::string& text, std::size_t length) {
    return static_cast<std::size_t>(std::count(text.begin(), text.begin() + static_cast<long>(length), '|')) - 1;
}

Answer answerByWalk(const AccessCache::Reader& reader, const Question& question) {
    const ObjectNamespace object = namespaceOf(question.object);
    const std::string& text = object.str();
    const std::vector<int> roles(question.roles.begin(), question.roles.end());
    Answer answer;
    answer.allowed =
        walkAccess(CacheAccess::view(reader), text, {roles, question.operation},
                   [&](const PathRecord& step, RoleTree tree, StepOutcome outcome) {
                       answer.steps.push_back({depthOf(text, step.textLength), tree, outcome == StepOutcome::GRANTED});
                   });
    return answer;
}

/// What random caches and questions are made of.
class Dice {
public:
    explicit Dice(unsigned seed) : engine_(seed) {
        for (int i = 0; i < 12; ++i) {
            components_.push_back(component());
        }
        for (int i = 0; i < 40; ++i) {
            roles_.push_back(role());
        }
    }

    /// A number from 0 to `limit` - 1.
    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(engine_); }
    bool once(std::size_t in) { return below(in) == 0; }

    Components path() {
        Components path(below(6));
        for (std::string& component : path) {
            component = components_[below(components_.size())];
        }
        return path;
    }
    const std::string& knownComponent() { return components_[below(components_.size())]; }

    /// A component that shares its beginnings with others, of bytes that need escaping and bytes that don't.
    std::string component() {
        static const std::string BYTES("AAAAB|% +\x80\xE9\xFF\0\n/", 15);
        std::string made(below(10), 'A');
        for (std::size_t i = made.size() - std::min(made.size(), below(4)); i < made.size(); ++i) {
            made[i] = BYTES[below(BYTES.size())];
        }
        return made;
    }

    ModelObject object() {
        ModelObject object;
        object.inherits = !once(4);
        object.own = rights();
        object.child = rights();
        return object;
    }

    Rights rights() {
        Rights rights;
        for (std::size_t i = below(6); i > 0; --i) {
            std::set<std::int32_t>& operations = rights[knownRole()];
            for (std::size_t j = below(12); j > 0; --j) {
                operations.insert(operation());
            }
        }
        return rights;
    }

    std::set<int> roleSet() {
        std::set<int> roles;
        // Small sets mostly; sometimes as many as a user may have.
        for (std::size_t i = once(4) ? below(50) : below(6); i > 0; --i) {
            roles.insert(once(5) ? role() : knownRole());
        }
        return roles;
    }

    std::int32_t operation() { return static_cast<std::int32_t>(once(3) ? below(3) * 31 : below(101)); }

private:
    int role() {
        switch (below(8)) {
            case 0:
                return std::numeric_limits<int>::min();
            case 1:
                return std::numeric_limits<int>::max();
            case 2:
                return -static_cast<int>(below(20));
            default:
                return static_cast<int>(below(60));
        }
    }
    int knownRole() { return roles_[below(roles_.size())]; }

    std::mt19937 engine_;
    Components components_;
    std::vector<int> roles_;
};

Grants grantsOf(const Rights& rights, Dice& dice) {
    Grants grants;
    for (const auto& [role, operations] : rights) {
        grants.push_back({role, {operations.begin(), operations.end()}});
    }
    // The order of insertion is the shape of the tree.
    for (std::size_t i = grants.size(); i > 1; --i) {
        std::swap(grants[i - 1], grants[dice.below(i)]);
    }
    return grants;
}

/// A random cache and its model.
class World {
public:
    explicit World(unsigned seed) : dice_(seed) {
        for (int i = 0; i < 150; ++i) {
            const Components path = dice_.path();
            paths_.push_back(path);
            // Every third is only a way to others, or to nothing.
            if (!dice_.once(3)) {
                put(path);
            }
        }
    }

    void put(const Components& path) {
        const ModelObject object = dice_.object();
        model_.put(path, object);
        const auto inherit = static_cast<std::uint8_t>(object.inherits ? 1 + dice_.below(255) : 0);
        files_.put(namespaceOf(path).str(), inherit, grantsOf(object.own, dice_), grantsOf(object.child, dice_));
    }

    Question question() {
        Components object = paths_[dice_.below(paths_.size())];
        for (std::size_t i = dice_.below(3); i > 0; --i) {
            switch (dice_.below(4)) {
                case 0:
                    object.push_back(dice_.knownComponent());
                    break;
                case 1:
                    object.push_back(dice_.component());
                    break;
                case 2:
                    object.resize(dice_.below(object.size() + 1));
                    break;
                default:
                    if (!object.empty()) {
                        object.back() += object.back().empty() ? "A" : object.back().substr(0, 1);
                    }
            }
        }
        return {object, dice_.roleSet(), dice_.operation()};
    }

    /// Compares all ways to answer.
    ///
    /// @return whether the answer is yes.
    bool check(const Question& question) {
        open();
        const Answer expected = model_.answer(question);
        const Answer walked = answerByWalk(*reader_, question);
        EXPECT_EQ(DiskAccessChecker(cache_, question.roles, Operation(question.operation), 0)
                      .checkAccess(namespaceOf(question.object)),
                  expected.allowed)
            << question;
        EXPECT_EQ(walked.allowed, expected.allowed) << question;
        EXPECT_TRUE(walked.steps == expected.steps) << question;
        EXPECT_EQ(answerByLookups(*reader_, question), expected.allowed) << question;
        return expected.allowed;
    }

    /// Compares the answers for many objects at once with the model's.
    void checkMany(std::size_t count) {
        open();
        Question question = this->question();
        std::vector<ObjectNamespace> objects;
        std::vector<bool> expected;
        for (std::size_t i = 0; i < count; ++i) {
            // Now and then another one in the same folder, or the same again.
            if (i == 0 || !dice_.once(2)) {
                question.object = this->question().object;
            } else if (!question.object.empty() && !dice_.once(4)) {
                question.object.back() = dice_.knownComponent();
            }
            objects.push_back(namespaceOf(question.object));
            expected.push_back(model_.answer(question).allowed);
        }
        const DiskAccessChecker checker(cache_, question.roles, Operation(question.operation), 0);
        EXPECT_TRUE(checkAccessToAll(checker, objects) == expected) << question;
    }

    Dice& dice() { return dice_; }

private:
    void open() {
        if (!cache_) {
            files_.write();
            cache_ = boost::make_shared<AccessCache>(Manifest("some cache", files_.directory()));
            reader_ = std::make_unique<AccessCache::Reader>(cache_->lock());
        }
    }

    Dice dice_;
    Model model_;
    std::vector<Components> paths_;
    TemporaryDirectory directory_;
    RawCache files_{directory_.path()};
    boost::shared_ptr<AccessCache> cache_;
    std::unique_ptr<AccessCache::Reader> reader_;
};

class AccessWalkProperty : public testing::TestWithParam<unsigned> {};

}  // namespace

TEST_P(AccessWalkProperty, OneDescentAnswersAsLookupsOfEachAncestorDo) {
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    World world(GetParam());
    constexpr int QUESTIONS = testing_support::lessIfSanitized(4000);
    int allowed = 0;
    for (int i = 0; i < QUESTIONS && !HasFailure(); ++i) {
        allowed += world.check(world.question()) ? 1 : 0;
    }
    // Neither answer is so rare that nothing is shown.
    EXPECT_GT(allowed, QUESTIONS / 50);
    EXPECT_LT(allowed, QUESTIONS - QUESTIONS / 50);
}

TEST_P(AccessWalkProperty, ManyObjectsAreAnsweredAsOneIs) {
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    World world(GetParam());
    for (int i = 0; i < 150 && !HasFailure(); ++i) {
        world.checkMany(world.dice().below(150));
    }
}

TEST_P(AccessWalkProperty, DeepObjectsToo) {
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    World world(GetParam());
    Components path;
    for (std::size_t depth = 60 + world.dice().below(20); depth > 0; --depth) {
        path.push_back(world.dice().knownComponent());
        if (!world.dice().once(4)) {
            world.put(path);
        }
    }
    for (int i = 0; i < 500 && !HasFailure(); ++i) {
        Question question = world.question();
        question.object = path;
        question.object.resize(path.size() - world.dice().below(20), "x");
        world.check(question);
    }
}

TEST_P(AccessWalkProperty, LongTextsToo) {
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    World world(GetParam());
    const std::size_t length = 10'000 + world.dice().below(8);
    const Components parent{world.dice().knownComponent(), std::string(length, 'L')};
    Components object = parent;
    object.push_back(std::string(length, '\xE9'));
    world.put(parent);
    world.put(object);
    for (int i = 0; i < 20 && !HasFailure(); ++i) {
        Question question = world.question();
        question.object = world.dice().once(2) ? object : parent;
        question.object.back().resize(length - world.dice().below(2), 'L');
        world.check(question);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, AccessWalkProperty, testing::Values(1U, 2U, 3U, 5U, 8U, 13U, 21U, 34U));

TEST(AccessWalk, StepsAreReportedNearestFirst) {
    const TemporaryDirectory directory;
    RawCache files(directory.path());
    files.put("|", 1, {{7, {1}}}, {{7, {1}}});
    files.put("|A|B|", 1);
    files.put("|A|B|C|D|", 1, {{8, {1}}});
    files.write();
    const AccessCache cache(Manifest("name", directory.path()));
    const AccessCache::Reader reader = cache.lock();
    const Answer answer = answerByWalk(reader, {{"A", "B", "C", "D"}, {7}, 1});
    EXPECT_TRUE(answer.allowed);
    EXPECT_TRUE(
        answer.steps ==
        (std::vector<Step>{{4, RoleTree::OWN, false}, {2, RoleTree::CHILD, false}, {0, RoleTree::CHILD, true}}));
}
