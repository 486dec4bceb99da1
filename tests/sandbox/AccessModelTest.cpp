#include "sandbox/AccessModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {

void PrintTo(const Grant& grant, std::ostream* out) {
    *out << "role " << grant.roleId << " operation " << grant.operationBit << " scope "
         << static_cast<int>(grant.scope);
}

namespace {

using detail::HashIndex;
using detail::TextArena;
using testing::ElementsAre;

const ObjectNamespace A("A");
const ObjectNamespace B("B");

constexpr Grant VIEW{7, 0, GrantScope::OBJECT};
constexpr Grant UPDATE{7, 2, GrantScope::CHILDREN};
constexpr Grant MANAGE{9, 1, GrantScope::OBJECT_AND_CHILDREN};

ModelObject named(const ObjectNamespace& name, std::vector<Grant> grants = {}) {
    return {name, true, ObjectState::READY, std::move(grants)};
}

boost::optional<ModelObject> find(const AccessModel& model, const ObjectNamespace& name) {
    for (std::size_t i = 0; i < model.objectCount(); ++i) {
        const AccessModel::Entry entry = model.entry(i);
        if (entry.text == name.str()) {
            const AccessModel::GrantList grants = model.grants(entry.grantList);
            return ModelObject{name, entry.inherit, entry.state, {grants.begin(), grants.end()}};
        }
    }
    return boost::none;
}

std::uint32_t listOf(const AccessModel& model, std::size_t object) {
    return model.entry(object).grantList;
}

TEST(AccessModel, IsEmptyAtFirst) {
    const AccessModel model;
    EXPECT_EQ(model.objectCount(), 0U);
    EXPECT_TRUE(model.scope.is_root());
}

TEST(AccessModel, KeepsTheScopeOfTheCache) {
    const AccessModel model(A);
    EXPECT_EQ(model.scope, A);
}

TEST(AccessModel, FindsWhatWasAdded) {
    AccessModel model;
    model.add({A | "x y|z", false, ObjectState::PENDING, {VIEW, MANAGE}});
    const boost::optional<ModelObject> found = find(model, A | "x y|z");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->name, A | "x y|z");
    EXPECT_FALSE(found->inherit);
    EXPECT_EQ(found->state, ObjectState::PENDING);
    EXPECT_THAT(found->grants, ElementsAre(VIEW, MANAGE));
}

TEST(AccessModel, FindsNothingElse) {
    AccessModel model;
    model.add(named(A | "x"));
    EXPECT_FALSE(find(model, A));
    EXPECT_FALSE(find(model, A | "x" | "y"));
    EXPECT_FALSE(find(model, A | "y"));
    EXPECT_FALSE(find(AccessModel(), A));
}

TEST(AccessModel, HoldsTheRootAsAnObject) {
    AccessModel model;
    model.add(named(ObjectNamespace(), {VIEW}));
    ASSERT_TRUE(find(model, ObjectNamespace()));
    EXPECT_EQ(model.entry(0).text, "|");
}

TEST(AccessModel, TellsEmptyComponentsFromNone) {
    AccessModel model;
    model.add(named(ObjectNamespace("")));
    EXPECT_TRUE(find(model, ObjectNamespace("")));
    EXPECT_FALSE(find(model, ObjectNamespace()));
    EXPECT_FALSE(find(model, ObjectNamespace("", "")));
}

TEST(AccessModel, AddingANameAgainReplacesTheObject) {
    AccessModel model;
    model.add(named(A, {VIEW}));
    model.add(named(B, {VIEW}));
    model.add({A, false, ObjectState::DELETED, {UPDATE}});
    EXPECT_EQ(model.objectCount(), 2U);
    const boost::optional<ModelObject> found = find(model, A);
    EXPECT_FALSE(found->inherit);
    EXPECT_EQ(found->state, ObjectState::DELETED);
    EXPECT_THAT(found->grants, ElementsAre(UPDATE));
    EXPECT_THAT(find(model, B)->grants, ElementsAre(VIEW));
}

TEST(AccessModel, ListsObjectsInTheOrderOfTheirFirstAdding) {
    AccessModel model;
    model.add(named(B));
    model.add(named(A));
    model.add(named(B));
    ASSERT_EQ(model.objectCount(), 2U);
    EXPECT_EQ(model.entry(0).text, "|B|");
    EXPECT_EQ(model.entry(1).text, "|A|");
}

TEST(AccessModel, GrantsBecomeASet) {
    AccessModel model;
    const Grant viewOfChildren{7, 0, GrantScope::CHILDREN};
    const Grant ofNegativeRole{-1, 5, GrantScope::OBJECT};
    model.add(named(A, {MANAGE, UPDATE, viewOfChildren, VIEW, UPDATE, ofNegativeRole, MANAGE}));
    EXPECT_THAT(find(model, A)->grants, ElementsAre(ofNegativeRole, VIEW, viewOfChildren, UPDATE, MANAGE));
}

TEST(AccessModel, StoresEqualGrantsOnce) {
    AccessModel model;
    model.add(named(A, {VIEW, UPDATE}));
    model.add(named(B, {UPDATE, VIEW, VIEW}));
    EXPECT_EQ(listOf(model, 0), listOf(model, 1));
    model.add(named(A | "x", {VIEW}));
    EXPECT_NE(listOf(model, 2), listOf(model, 0));
}

TEST(AccessModel, ObjectsWithoutGrantsHaveAnEmptyList) {
    AccessModel model;
    model.add(named(A));
    EXPECT_EQ(model.grants(listOf(model, 0)).size(), 0U);
}

TEST(AccessModel, ListsKeepTheirNumbersWhenAnObjectChanges) {
    AccessModel model;
    model.add(named(A, {VIEW}));
    model.add(named(B, {UPDATE}));
    const std::uint32_t listOfB = listOf(model, 1);
    model.add(named(A, {MANAGE}));
    EXPECT_EQ(listOf(model, 1), listOfB);
    EXPECT_GT(listOf(model, 0), listOfB);
}

TEST(AccessModel, ListsThatCameOutOfUseAreFoundAgain) {
    AccessModel model;
    model.add(named(A, {VIEW}));
    const std::uint32_t list = listOf(model, 0);
    model.add(named(A, {UPDATE}));
    model.add(named(A, {VIEW}));
    EXPECT_EQ(listOf(model, 0), list);
}

TEST(AccessModel, DropsListsThatNobodyHasWhenThereAreTooMany) {
    AccessModel model;
    model.add(named(B, {VIEW, MANAGE}));
    for (std::int32_t role = 0; role < 10000; ++role) {
        model.add(named(A, {{role, 3, GrantScope::OBJECT}}));
        ASSERT_LE(model.grantListCount(), 2100U);
        ASSERT_EQ(find(model, A)->grants.front().roleId, role);
    }
    EXPECT_THAT(find(model, B)->grants, ElementsAre(VIEW, MANAGE));
}

TEST(AccessModel, DropsDeletedObjectsWhenThereAreTooMany) {
    AccessModel model;
    model.add(named(B, {VIEW, MANAGE}));
    for (int i = 0; i < 10000; ++i) {
        model.add({A | std::to_string(i), true, ObjectState::READY, {VIEW}});
        model.add({A | std::to_string(i), true, ObjectState::DELETED, {}});
        ASSERT_LE(model.objectCount(), 2100U);
    }
    model.add(named(A, {UPDATE}));
    EXPECT_THAT(find(model, B)->grants, ElementsAre(VIEW, MANAGE));
    EXPECT_THAT(find(model, A)->grants, ElementsAre(UPDATE));
    EXPECT_EQ(model.entry(0).text, "|B|");
}

TEST(AccessModel, KeepsDeletedObjectsThatAreFew) {
    AccessModel model;
    for (int i = 0; i < 100; ++i) {
        model.add({A | std::to_string(i), true, ObjectState::DELETED, {}});
    }
    EXPECT_EQ(model.objectCount(), 100U);
}

TEST(AccessModel, CountsADeletedObjectThatIsAddedAgainAsOneThatIsThere) {
    AccessModel model;
    for (int round = 0; round < 3000; ++round) {
        model.add({A, true, ObjectState::DELETED, {}});
        model.add(named(A, {VIEW}));
    }
    for (int i = 0; i < 900; ++i) {
        model.add({B | std::to_string(i), true, ObjectState::DELETED, {}});
    }
    EXPECT_EQ(model.objectCount(), 901U);
}

TEST(AccessModel, KeepsEveryListThatSomebodyHas) {
    AccessModel model;
    for (std::int32_t role = 0; role < 5000; ++role) {
        model.add(named(A | std::to_string(role), {{role, 3, GrantScope::OBJECT}}));
    }
    for (std::int32_t role = 0; role < 5000; ++role) {
        ASSERT_EQ(find(model, A | std::to_string(role))->grants.front().roleId, role);
    }
}

TEST(AccessModel, RefusesNegativeOperationNumbers) {
    AccessModel model;
    try {
        model.add(named(A | "b c", {VIEW, {1, -3, GrantScope::CHILDREN}}));
        FAIL() << "accepted";
    } catch (const std::invalid_argument& refusal) {
        EXPECT_STREQ(refusal.what(), "operation number -3 of object |A|b+c| is negative");
    }
}

TEST(AccessModel, IsUnchangedByARefusal) {
    AccessModel model;
    model.add(named(A, {VIEW}));
    EXPECT_THROW(model.add(named(A, {{1, -1, GrantScope::OBJECT}})), std::invalid_argument);
    EXPECT_THROW(model.add(named(B, {{1, -1, GrantScope::OBJECT}})), std::invalid_argument);
    EXPECT_EQ(model.objectCount(), 1U);
    EXPECT_THAT(find(model, A)->grants, ElementsAre(VIEW));
}

TEST(AccessModel, CopiesAreIndependent) {
    AccessModel model(A);
    model.add(named(A, {VIEW}));
    AccessModel copy = model;
    copy.add(named(A, {UPDATE}));
    copy.add(named(B));
    EXPECT_EQ(model.objectCount(), 1U);
    EXPECT_THAT(find(model, A)->grants, ElementsAre(VIEW));
    EXPECT_EQ(copy.scope, A);
    EXPECT_TRUE(find(copy, B));
}

TEST(AccessModel, KnowsEveryOneOfManyAgain) {
    AccessModel model;
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 20000; ++i) {
            model.add(named(A | std::to_string(i)));
        }
    }
    EXPECT_EQ(model.objectCount(), 20000U);
    EXPECT_EQ(model.entry(19999).text, "|A|19999|");
}

TEST(TextArena, KeepsTextsOfAnyLength) {
    TextArena arena;
    std::vector<std::pair<TextArena::Place, std::string>> texts;
    for (const std::size_t length : {0U, 1U, 700000U, 700000U, 5U, 3000000U, 1U}) {
        const std::string text(length, static_cast<char>('a' + texts.size()));
        texts.emplace_back(arena.add(text), text);
    }
    for (const auto& [place, text] : texts) {
        EXPECT_TRUE(arena.at(place) == text) << text.size();
    }
}

TEST(HashIndex, FindsNothingWhileItIsEmpty) {
    EXPECT_EQ(HashIndex().find(1, [](std::uint32_t) { return true; }), HashIndex::NONE);
}

TEST(HashIndex, TellsThingsOfTheSameHashApart) {
    HashIndex index;
    for (std::uint32_t number = 0; number < 100; ++number) {
        index.add(5, number);
    }
    EXPECT_EQ(index.find(5, [](std::uint32_t number) { return number == 73; }), 73U);
    EXPECT_EQ(index.find(5, [](std::uint32_t number) { return number == 100; }), HashIndex::NONE);
    EXPECT_EQ(index.find(6, [](std::uint32_t) { return true; }), HashIndex::NONE);
}

}  // namespace
}  // namespace Tesmor::Arkwell::Sandbox
