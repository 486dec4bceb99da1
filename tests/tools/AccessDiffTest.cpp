#include "sandbox/AccessModel.h"
#include "sandbox/CacheWriter.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"
#include "tools/AccessDiff.h"

#include <platform/FileLock.h>
#include <platform/Status.h>
#include <rbac/AccessCache.h>

#include <boost/lexical_cast.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Sandbox::AccessModel;
using Tesmor::Arkwell::Sandbox::CacheWriter;
using Tesmor::Arkwell::Sandbox::CacheWriterOptions;
using Tesmor::Arkwell::Sandbox::Grant;
using Tesmor::Arkwell::Sandbox::GrantScope;
using Tesmor::Arkwell::Sandbox::ModelObject;
using Tesmor::Arkwell::Sandbox::ObjectState;
using Tesmor::Arkwell::Tools::AccessChange;
using Tesmor::Arkwell::Tools::diffAccess;
using Tesmor::Arkwell::Tools::DiffForm;
using Tesmor::Arkwell::Tools::DiffSummary;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::RawCache;
using testing_support::TemporaryDirectory;

namespace {

using Lines = std::vector<std::string>;
using Objects = std::vector<ModelObject>;

constexpr GrantScope OWN = GrantScope::OBJECT;
constexpr GrantScope CHILDREN = GrantScope::CHILDREN;
constexpr GrantScope BOTH = GrantScope::OBJECT_AND_CHILDREN;
constexpr bool STOPS = false;
constexpr bool INHERITS = true;

ModelObject object(const std::string& text, const std::vector<Grant>& grants = {}, bool inherit = INHERITS) {
    return {boost::lexical_cast<ObjectNamespace>(text), inherit, ObjectState::READY, grants};
}

/// Such as "+5:0 |A|": role 5 gains operation 0.
std::string lineOf(const AccessChange& change) {
    return (change.gained ? "+" : "-") + std::to_string(change.roleId) + ":" + std::to_string(change.operationBit) +
           " " + std::string(change.objectText);
}

/// Such as "+5:0 |A| and 2 of 3 below"; without "|A|" itself, "+5:0 2 of 3 below |A|". "0 and more of 3" where the
/// change is to come.
std::string foldedLineOf(const AccessChange& change) {
    const std::string counts = std::to_string(change.changedBelow) + (change.toCome ? " and more" : "") + " of " +
                               std::to_string(change.objectsBelow);
    if (change.onObject) {
        return lineOf(change) + " and " + counts + " below";
    }
    const std::string line = lineOf(change);
    const std::size_t object = line.find(' ') + 1;
    return line.substr(0, object) + counts + " below " + line.substr(object);
}

Lines everyLine(const AccessCache& before, const AccessCache& after) {
    Lines lines;
    diffAccess(before, after, DiffForm::EVERY_OBJECT, [&](const AccessChange& change) {
        if (change.onObject) {
            lines.push_back(lineOf(change));
        }
    });
    return lines;
}

/// The changes to come, and the others, which come before those.
Lines linesToCome(const AccessCache& before, const AccessCache& after) {
    Lines lines;
    diffAccess(before, after, DiffForm::EVERY_OBJECT, [&](const AccessChange& change) {
        EXPECT_NE(change.onObject, change.toCome);
        lines.push_back((change.toCome ? "below: " : "") + lineOf(change));
    });
    return lines;
}

Lines foldedLines(const AccessCache& before, const AccessCache& after) {
    Lines lines;
    diffAccess(before, after, DiffForm::FOLDED,
               [&](const AccessChange& change) { lines.push_back(foldedLineOf(change)); });
    return lines;
}

/// A cache of these objects.
class Cache {
public:
    explicit Cache(const Objects& objects) : cache_(publish(objects)) {}

    operator const AccessCache&() const { return cache_; }  // NOLINT(google-explicit-constructor): it stands for it

private:
    Manifest publish(const Objects& objects) const {
        AccessModel model;
        for (const ModelObject& object : objects) {
            model.add(object);
        }
        CacheWriterOptions options;
        options.durable = false;
        CacheWriter(directory_.path(), options).publish(model);
        return {"test", directory_.path()};
    }

    TemporaryDirectory directory_;
    AccessCache cache_;
};

Lines everyChange(const Objects& before, const Objects& after) {
    return everyLine(Cache(before), Cache(after));
}

Lines foldedChanges(const Objects& before, const Objects& after) {
    return foldedLines(Cache(before), Cache(after));
}

Lines changesToCome(const Objects& before, const Objects& after) {
    return linesToCome(Cache(before), Cache(after));
}

DiffSummary summaryOf(const Objects& before, const Objects& after) {
    return diffAccess(Cache(before), Cache(after), DiffForm::FOLDED, [](const AccessChange&) {});
}

}  // namespace

TEST(AccessDiffTest, AGrantOnAnObjectIsGainedThereOnly) {
    EXPECT_THAT(everyChange({object("|A|"), object("|A|B|")}, {object("|A|", {{5, 0, OWN}}), object("|A|B|")}),
                ElementsAre("+5:0 |A|"));
}

TEST(AccessDiffTest, AGrantToAFolderIsGainedOnItAndBelow) {
    EXPECT_THAT(everyChange({object("|A|"), object("|A|B|"), object("|A|B|C|"), object("|B|")},
                            {object("|A|", {{5, 0, BOTH}}), object("|A|B|"), object("|A|B|C|"), object("|B|")}),
                ElementsAre("+5:0 |A|", "+5:0 |A|B|", "+5:0 |A|B|C|"));
}

TEST(AccessDiffTest, AGrantToWhatIsBelowIsNotGainedOnTheFolder) {
    EXPECT_THAT(everyChange({object("|A|"), object("|A|B|"), object("|A|B|C|")},
                            {object("|A|", {{5, 0, CHILDREN}}), object("|A|B|"), object("|A|B|C|")}),
                ElementsAre("+5:0 |A|B|", "+5:0 |A|B|C|"));
}

TEST(AccessDiffTest, AGrantThatIsRemovedIsLost) {
    EXPECT_THAT(everyChange({object("|A|", {{5, 0, BOTH}, {6, 1, OWN}}), object("|A|B|")},
                            {object("|A|", {{6, 1, OWN}}), object("|A|B|")}),
                ElementsAre("-5:0 |A|", "-5:0 |A|B|"));
}

TEST(AccessDiffTest, ChangesToOneObjectComeByRoleThenOperation) {
    EXPECT_THAT(everyChange({object("|A|", {{2, 40, OWN}, {2, 3, OWN}})},
                            {object("|A|", {{2, 5, OWN}, {-1, 64, OWN}, {2, 70, OWN}})}),
                ElementsAre("+-1:64 |A|", "-2:3 |A|", "+2:5 |A|", "-2:40 |A|", "+2:70 |A|"));
}

TEST(AccessDiffTest, ARoleThatMovesToAnotherOperationGainsAndLoses) {
    EXPECT_THAT(everyChange({object("|A|", {{5, 0, OWN}})}, {object("|A|", {{5, 1, OWN}})}),
                ElementsAre("-5:0 |A|", "+5:1 |A|"));
}

TEST(AccessDiffTest, InheritanceSwitchedOffLosesWhatComesFromAbove) {
    const ModelObject top = object("|A|", {{5, 0, BOTH}, {6, 1, BOTH}});
    EXPECT_THAT(everyChange({top, object("|A|B|", {{6, 1, OWN}}), object("|A|B|C|")},
                            {top, object("|A|B|", {{6, 1, OWN}}, STOPS), object("|A|B|C|")}),
                ElementsAre("-5:0 |A|B|", "-5:0 |A|B|C|", "-6:1 |A|B|C|"));
}

TEST(AccessDiffTest, InheritanceSwitchedOnGainsWhatComesFromAbove) {
    const ModelObject top = object("|A|", {{5, 0, BOTH}});
    const ModelObject between = object("|A|B|", {{6, 33, CHILDREN}});
    EXPECT_THAT(everyChange({top, between, object("|A|B|C|", {}, STOPS)}, {top, between, object("|A|B|C|")}),
                ElementsAre("+5:0 |A|B|C|", "+6:33 |A|B|C|"));
}

TEST(AccessDiffTest, InheritanceAndGrantsThatCompensateEachOtherChangeNothing) {
    const ModelObject top = object("|A|", {{5, 0, BOTH}});
    EXPECT_THAT(everyChange({top, object("|A|B|")}, {top, object("|A|B|", {{5, 0, BOTH}}, STOPS)}), IsEmpty());
}

TEST(AccessDiffTest, WhatIsBelowASwitchInBothCachesIsNotTouchedByChangesAbove) {
    EXPECT_THAT(everyChange({object("|A|"), object("|A|B|", {}, STOPS), object("|A|B|C|")},
                            {object("|A|", {{5, 0, BOTH}}), object("|A|B|", {}, STOPS), object("|A|B|C|")}),
                ElementsAre("+5:0 |A|"));
}

TEST(AccessDiffTest, AnObjectThatIsAddedWithoutGrantsChangesNothing) {
    EXPECT_THAT(everyChange({object("|A|", {{5, 0, BOTH}})}, {object("|A|", {{5, 0, BOTH}}), object("|A|B|")}),
                IsEmpty());
}

TEST(AccessDiffTest, AnObjectThatIsAddedBringsItsGrants) {
    EXPECT_THAT(everyChange({object("|A|", {{5, 0, BOTH}})},
                            {object("|A|", {{5, 0, BOTH}}), object("|A|B|", {{5, 0, OWN}, {6, 1, OWN}})}),
                ElementsAre("+6:1 |A|B|"));
}

TEST(AccessDiffTest, AnObjectThatIsAddedAndDoesNotInheritLosesWhatItsAncestorsGaveToItsText) {
    EXPECT_THAT(
        everyChange({object("|A|", {{5, 0, BOTH}})}, {object("|A|", {{5, 0, BOTH}}), object("|A|B|", {}, STOPS)}),
        ElementsAre("-5:0 |A|B|"));
}

TEST(AccessDiffTest, AnObjectThatIsRemovedTakesItsGrantsFromWhatIsBelow) {
    EXPECT_THAT(everyChange({object("|A|B|", {{5, 0, CHILDREN}, {6, 1, OWN}}), object("|A|B|C|")}, {object("|A|B|C|")}),
                ElementsAre("-6:1 |A|B|", "-5:0 |A|B|C|"));
}

TEST(AccessDiffTest, AnObjectThatIsRemovedAndDidNotInheritOpensWhatIsBelow) {
    const ModelObject top = object("|", {{5, 0, BOTH}});
    EXPECT_THAT(everyChange({top, object("|A|", {}, STOPS), object("|A|B|C|")}, {top, object("|A|B|C|")}),
                ElementsAre("+5:0 |A|", "+5:0 |A|B|C|"));
}

TEST(AccessDiffTest, ExceptionsInExceptionsAreFollowed) {
    const auto tree = [](const ModelObject& top) {
        return Objects{top,
                       object("|A|1|", {}, STOPS),
                       object("|A|1|x|", {{5, 0, BOTH}}),
                       object("|A|1|x|y|"),
                       object("|A|2|", {{5, 0, CHILDREN}}),
                       object("|A|2|x|"),
                       object("|A|2|x|y|", {}, STOPS),
                       object("|A|3|")};
    };
    EXPECT_THAT(everyChange(tree(object("|A|")), tree(object("|A|", {{5, 0, BOTH}}))),
                ElementsAre("+5:0 |A|", "+5:0 |A|2|", "+5:0 |A|3|"));
}

TEST(AccessDiffTest, EqualAccessThroughDifferentObjectsIsNoDifference) {
    EXPECT_THAT(
        everyChange({object("|A|", {{5, 0, BOTH}}), object("|A|B|"), object("|A|C|")},
                    {object("|A|", {{5, 0, OWN}}), object("|A|B|", {{5, 0, BOTH}}), object("|A|C|", {{5, 0, OWN}})}),
        IsEmpty());
}

TEST(AccessDiffTest, AGrantThatIsHeldFromAboveAnywayIsNoDifference) {
    const ModelObject top = object("|", {{5, 0, BOTH}});
    EXPECT_THAT(
        everyChange({top, object("|A|"), object("|A|B|")}, {top, object("|A|"), object("|A|B|", {{5, 0, BOTH}})}),
        IsEmpty());
}

TEST(AccessDiffTest, AGrantThatReplacesOneFromAboveIsNoDifferenceWhereBothReach) {
    EXPECT_THAT(everyChange({object("|", {{5, 0, BOTH}}), object("|A|B|"), object("|C|")},
                            {object("|"), object("|A|B|", {{5, 0, BOTH}}), object("|C|")}),
                ElementsAre("-5:0 |", "-5:0 |C|"));
}

TEST(AccessDiffTest, WordsOfOperationsAreToldApart) {
    EXPECT_THAT(everyChange({object("|A|", {{5, 31, OWN}, {5, 37, BOTH}}), object("|A|B|")},
                            {object("|A|", {{5, 32, OWN}, {5, 37, OWN}}), object("|A|B|")}),
                ElementsAre("-5:31 |A|", "+5:32 |A|", "-5:37 |A|B|"));
}

TEST(AccessDiffTest, RolesMayBeNegative) {
    EXPECT_THAT(everyChange({object("|A|", {{-2147483647 - 1, 0, OWN}})}, {object("|A|", {{2147483647, 0, OWN}})}),
                ElementsAre("--2147483648:0 |A|", "+2147483647:0 |A|"));
}

TEST(AccessDiffTest, TheRootIsAnObjectAsAnyOther) {
    EXPECT_THAT(everyChange({object("|"), object("|A|")}, {object("|", {{5, 0, BOTH}}), object("|A|")}),
                ElementsAre("+5:0 |", "+5:0 |A|"));
}

TEST(AccessDiffTest, RoleZeroNeverChanges) {
    EXPECT_THAT(everyChange({object("|A|", {{0, 0, BOTH}}), object("|A|B|")},
                            {object("|A|", {}, STOPS), object("|A|B|", {{0, 7, BOTH}})}),
                IsEmpty());
}

TEST(AccessDiffTest, EmptyCachesDoNotDiffer) {
    EXPECT_THAT(everyChange({}, {}), IsEmpty());
}

TEST(AccessDiffTest, AgainstAnEmptyCacheEverythingIsGained) {
    EXPECT_THAT(everyChange({}, {object("|A|", {{5, 0, BOTH}}), object("|A|B|")}),
                ElementsAre("+5:0 |A|", "+5:0 |A|B|"));
}

TEST(AccessDiffTest, TreesOfTheSameContentDoNotDifferWhateverTheirShapes) {
    const TemporaryDirectory one;
    const TemporaryDirectory other;
    RawCache before(one.path());
    RawCache after(other.path());
    before.put("|A|", 1, {{1, {0}}, {2, {64, 0, 32}}, {3, {5}}}, {{9, {1}}});
    after.putGrants({{7, {7}}});  // so that nothing is at the same offset
    // A role without words, and a word without operations.
    const auto record = after.put("|A|", 255, {{3, {5}}, {4, {}}, {2, {0, 32, 64}}, {1, {0, 100}}}, {{9, {1}}});
    for (RawCache::Node& node : after.nodes) {
        node.payload = node.key == 100 / 32 && node.payload == 1U << 100 % 32 ? 0 : node.payload;
    }
    ASSERT_NE(after.objectAt(record).ownRoles, 0U);
    before.write();
    after.write();
    EXPECT_THAT(everyLine(AccessCache(Manifest("before", one.path())), AccessCache(Manifest("after", other.path()))),
                IsEmpty());
}

TEST(AccessDiffTest, ARightOnTheSecondOfTwoLikeTreesIsSeen) {
    const TemporaryDirectory one;
    const TemporaryDirectory other;
    RawCache before(one.path());
    RawCache after(other.path());
    before.put("|A|", 1, {{1, {0}}, {2, {0, 32}}});
    after.put("|A|", 1, {{2, {32, 0}}, {1, {0, 33}}});
    before.write();
    after.write();
    EXPECT_THAT(everyLine(AccessCache(Manifest("before", one.path())), AccessCache(Manifest("after", other.path()))),
                ElementsAre("+1:33 |A|"));
}

TEST(AccessDiffTest, ObjectsAreMatchedByTheirTextsAlsoWhereBytesAreBeyondAscii) {
    const TemporaryDirectory one;
    const TemporaryDirectory other;
    RawCache before(one.path());
    RawCache after(other.path());
    for (const char* text : {"|B|", "|BBBBC|", "|BBBC|"}) {
        before.put(text, 1, {{1, {0}}});
        after.put(text, 1, {{1, {0}}});
    }
    for (const char* text : {"|\xE9|", "|BBBB\xE9|", "|BBB\xE9|"}) {
        before.put(text, 1, {{1, {0}}});
    }
    before.write();
    after.write();
    EXPECT_THAT(everyLine(AccessCache(Manifest("before", one.path())), AccessCache(Manifest("after", other.path()))),
                ElementsAre("-1:0 |\xE9|", "-1:0 |BBBB\xE9|", "-1:0 |BBB\xE9|"));
}

TEST(AccessDiffTest, ACacheDoesNotDifferFromItself) {
    const Cache cache({object("|A|", {{5, 0, BOTH}}), object("|A|B|", {{6, 1, OWN}}, STOPS)});
    EXPECT_THAT(everyLine(cache, cache), IsEmpty());
}

TEST(AccessDiffTest, ACacheDoesNotDifferFromItselfOpenedTwice) {
    const Cache cache({object("|A|", {{5, 0, BOTH}}), object("|A|B|", {{6, 1, OWN}}, STOPS)});
    const std::string& manifest = static_cast<const AccessCache&>(cache).manifest_filename();
    const AccessCache again(Manifest("again", manifest.substr(0, manifest.rfind('/'))));
    EXPECT_THAT(everyLine(cache, again), IsEmpty());
}

TEST(AccessDiffTest, AFoldedChangeIsVisitedWithTheTopmostObjectAndCountsWhatIsBelow) {
    EXPECT_THAT(foldedChanges({object("|A|"), object("|A|B|"), object("|A|B|C|"), object("|D|")},
                              {object("|A|", {{5, 0, BOTH}}), object("|A|B|"), object("|A|B|C|"), object("|D|")}),
                ElementsAre("+5:0 |A| and 2 of 2 below"));
}

TEST(AccessDiffTest, AFoldedChangeThatIsPassedOnOnlyDoesNotNameTheObjectItself) {
    EXPECT_THAT(foldedChanges({object("|A|"), object("|A|B|"), object("|A|C|"), object("|A|C|D|")},
                              {object("|A|", {{5, 0, CHILDREN}}), object("|A|B|"), object("|A|C|"), object("|A|C|D|")}),
                ElementsAre("+5:0 3 of 3 below |A|"));
}

TEST(AccessDiffTest, AFoldedChangeToTheObjectOnlyHasNothingBelow) {
    EXPECT_THAT(foldedChanges({object("|A|"), object("|A|B|")}, {object("|A|", {{5, 0, OWN}}), object("|A|B|")}),
                ElementsAre("+5:0 |A| and 0 of 1 below"));
}

TEST(AccessDiffTest, AFoldedChangeThatIsPassedOnToNobodyIsToCome) {
    EXPECT_THAT(foldedChanges({object("|A|"), object("|A|B|", {}, STOPS)},
                              {object("|A|", {{5, 0, CHILDREN}}), object("|A|B|", {}, STOPS)}),
                ElementsAre("+5:0 0 and more of 1 below |A|"));
}

TEST(AccessDiffTest, AChangeToAnObjectThatIsToComeBelowItIsFoldedIntoOne) {
    EXPECT_THAT(foldedChanges({object("|A|", {{6, 1, BOTH}})}, {object("|A|", {{5, 0, BOTH}, {7, 2, OWN}})}),
                ElementsAre("+5:0 |A| and 0 and more of 0 below", "-6:1 |A| and 0 and more of 0 below",
                            "+7:2 |A| and 0 of 0 below"));
}

TEST(AccessDiffTest, AFoldedChangeToComeIsVisitedWithTheObjectThatPassesItOn) {
    EXPECT_THAT(foldedChanges(
                    {object("|A|"), object("|A|B|"), object("|A|B|C|", {}, STOPS)},
                    {object("|A|", {{5, 0, OWN}}), object("|A|B|", {{5, 0, CHILDREN}}), object("|A|B|C|", {}, STOPS)}),
                ElementsAre("+5:0 0 and more of 1 below |A|B|", "+5:0 |A| and 0 of 2 below"));
}

TEST(AccessDiffTest, AGrantToWhatIsBelowIsToComeWhereNothingIs) {
    EXPECT_THAT(changesToCome({object("|A|"), object("|B|")}, {object("|A|", {{5, 0, CHILDREN}}), object("|B|")}),
                ElementsAre("below: +5:0 |A|"));
}

TEST(AccessDiffTest, WhatAnObjectBelowShowsIsNotToCome) {
    EXPECT_THAT(changesToCome({object("|A|"), object("|A|B|", {}, STOPS), object("|A|C|")},
                              {object("|A|", {{5, 0, CHILDREN}}), object("|A|B|", {}, STOPS), object("|A|C|")}),
                ElementsAre("+5:0 |A|C|"));
}

TEST(AccessDiffTest, WhatAnObjectBelowShowsByItsOwnGrantIsNotToCome) {
    EXPECT_THAT(changesToCome({object("|A|"), object("|A|B|", {}, STOPS)},
                              {object("|A|", {{5, 0, CHILDREN}}), object("|A|B|", {{5, 0, OWN}}, STOPS)}),
                ElementsAre("+5:0 |A|B|"));
}

TEST(AccessDiffTest, WhatIsToComeBelowAnObjectIsNotSaidAgainOfThoseThatPassItOn) {
    const ModelObject holds = object("|A|B|", {{5, 0, OWN}});
    EXPECT_THAT(changesToCome({object("|A|"), holds}, {object("|A|", {{5, 0, CHILDREN}}), holds}),
                ElementsAre("below: +5:0 |A|"));
}

TEST(AccessDiffTest, WhatIsToComeBelowAnExceptionInAnExceptionIsSaidOfIt) {
    const auto tree = [](const std::vector<Grant>& grants) {
        return Objects{object("|A|", grants), object("|A|B|", {}, STOPS), object("|A|B|D|", grants), object("|A|C|")};
    };
    EXPECT_THAT(changesToCome(tree({}), tree({{5, 0, CHILDREN}})), ElementsAre("below: +5:0 |A|B|D|", "+5:0 |A|C|"));
}

TEST(AccessDiffTest, AnInheritFlagIsToComeWhereNothingIsBelow) {
    const ModelObject top = object("|A|", {{5, 0, CHILDREN}, {6, 1, CHILDREN}});
    EXPECT_THAT(changesToCome({top, object("|A|B|", {{5, 0, OWN}, {6, 1, OWN}})},
                              {top, object("|A|B|", {{5, 0, OWN}, {6, 1, BOTH}}, STOPS)}),
                ElementsAre("below: -5:0 |A|B|"));
}

TEST(AccessDiffTest, AnObjectThatIsRemovedChangesWhatIsToCome) {
    EXPECT_THAT(changesToCome({object("|A|", {{5, 0, CHILDREN}})}, {}), ElementsAre("below: -5:0 |A|"));
}

TEST(AccessDiffTest, FoldingCountsOnlyWhatChangesInAPartlyOverriddenTree) {
    const auto tree = [](const ModelObject& top) {
        return Objects{top,
                       object("|A|1|", {}, STOPS),
                       object("|A|1|x|"),
                       object("|A|2|", {{5, 0, OWN}}),
                       object("|A|2|x|"),
                       object("|A|3|")};
    };
    EXPECT_THAT(foldedChanges(tree(object("|A|")), tree(object("|A|", {{5, 0, BOTH}}))),
                ElementsAre("+5:0 |A| and 2 of 5 below"));
}

TEST(AccessDiffTest, TheSameChangeBelowAnExceptionIsFoldedIntoTheTopmost) {
    EXPECT_THAT(
        foldedChanges({object("|A|"), object("|A|1|", {}, STOPS), object("|A|1|x|")},
                      {object("|A|", {{5, 0, BOTH}}), object("|A|1|", {}, STOPS), object("|A|1|x|", {{5, 0, OWN}})}),
        ElementsAre("+5:0 |A| and 1 of 2 below"));
}

TEST(AccessDiffTest, OtherChangesBelowAreVisitedBeforeTheTopmostOnes) {
    EXPECT_THAT(
        foldedChanges(
            {object("|A|"), object("|A|B|", {{6, 1, BOTH}}), object("|A|B|C|"), object("|A|D|")},
            {object("|A|", {{5, 0, BOTH}}), object("|A|B|"), object("|A|B|C|"), object("|A|D|", {{5, 40, OWN}})}),
        ElementsAre("-6:1 |A|B| and 1 of 1 below", "+5:40 |A|D| and 0 of 0 below", "+5:0 |A| and 3 of 3 below"));
}

TEST(AccessDiffTest, TheOppositeChangeBelowIsAChangeOfItsOwn) {
    EXPECT_THAT(foldedChanges({object("|A|", {{5, 0, BOTH}}), object("|A|B|", {}, STOPS), object("|A|B|C|")},
                              {object("|A|"), object("|A|B|", {{5, 0, BOTH}}, STOPS), object("|A|B|C|")}),
                ElementsAre("+5:0 |A|B| and 1 of 1 below", "-5:0 |A| and 0 and more of 2 below"));
}

TEST(AccessDiffTest, SiblingsWithTheSameChangeAreVisitedOneByOne) {
    EXPECT_THAT(foldedChanges({object("|A|"), object("|A|B|"), object("|A|C|")},
                              {object("|A|"), object("|A|B|", {{5, 0, OWN}}), object("|A|C|", {{5, 0, OWN}})}),
                ElementsAre("+5:0 |A|B| and 0 of 0 below", "+5:0 |A|C| and 0 of 0 below"));
}

TEST(AccessDiffTest, TheSummaryCountsObjectsAndChanges) {
    const DiffSummary summary =
        summaryOf({object("|A|", {{5, 0, BOTH}}), object("|A|1|"),
                   object("|A|2|", {{8, 0, CHILDREN}, {8, 1, CHILDREN}}, STOPS), object("|A|gone|")},
                  {object("|A|", {{6, 0, BOTH}, {6, 32, BOTH}}), object("|A|1|", {}, STOPS), object("|A|2|", {}, STOPS),
                   object("|A|new|"), object("|B|", {{7, 1, CHILDREN}})});
    EXPECT_EQ(summary.objects, 6U);
    EXPECT_EQ(summary.onlyBefore, 1U);
    EXPECT_EQ(summary.onlyAfter, 2U);
    EXPECT_EQ(summary.inheritChanged, 1U);
    EXPECT_EQ(summary.objectsAffected, 4U);  // not |A|2| and |B|
    EXPECT_EQ(summary.gained, 6U);
    EXPECT_EQ(summary.lost, 4U);
    EXPECT_EQ(summary.gainedToCome, 1U);
    EXPECT_EQ(summary.lostToCome, 2U);
}

TEST(AccessDiffTest, TheSummaryIsTheSameForBothForms) {
    const Cache before({object("|A|", {{5, 0, BOTH}}), object("|A|B|"), object("|A|B|C|", {{5, 0, OWN}})});
    const Cache after({object("|A|", {{6, 0, CHILDREN}}), object("|A|B|"), object("|A|B|C|", {{5, 0, OWN}})});
    for (const DiffForm form : {DiffForm::FOLDED, DiffForm::EVERY_OBJECT}) {
        const DiffSummary summary = diffAccess(before, after, form, [](const AccessChange&) {});
        EXPECT_EQ(summary.objectsAffected, 3U);
        EXPECT_EQ(summary.gained, 2U);
        EXPECT_EQ(summary.lost, 2U);
        EXPECT_EQ(summary.gainedToCome, 0U);
        EXPECT_EQ(summary.lostToCome, 0U);
    }
}

TEST(AccessDiffTest, BothCachesAreLockedForAsLongAsChangesAreVisited) {
    const Cache before({object("|A|")});
    const Cache after({object("|A|", {{5, 0, OWN}})});
    std::vector<int> statuses;
    const auto tryToWrite = [&](const AccessCache& cache) {
        try {
            constexpr int EXCLUSIVE = 1;
            const FileLockGuard guard(FileLockManager::instance().getLock(cache.manifest_filename()), EXCLUSIVE, 0,
                                      FileLock::DEFAULT_INTERVAL);
            statuses.push_back(0);
        } catch (const EC_exception& refusal) {
            statuses.push_back(refusal.status);
        }
    };
    diffAccess(before, after, DiffForm::FOLDED, [&](const AccessChange&) {
        tryToWrite(before);
        tryToWrite(after);
    });
    tryToWrite(before);
    tryToWrite(after);
    EXPECT_THAT(statuses, ElementsAre(platform_status::LOCK_TIMED_OUT, platform_status::LOCK_TIMED_OUT, 0, 0));
}

TEST(AccessDiffTest, ACacheThatIsBeingRewrittenIsRefused) {
    const TemporaryDirectory directory;
    RawCache raw(directory.path());
    raw.put("|A|", 1);
    raw.header.writing = 1;
    raw.write();
    const AccessCache rewritten(Manifest("rewritten", directory.path()));
    const Cache sound({object("|A|")});
    int status = 0;
    try {
        everyLine(sound, rewritten);
    } catch (const EC_exception& refusal) {
        status = refusal.status;
    }
    EXPECT_EQ(status, 12);
}

TEST(AccessDiffTest, WhatTheVisitorThrowsEndsTheComparison) {
    const Cache before({object("|A|"), object("|B|")});
    const Cache after({object("|A|", {{5, 0, OWN}}), object("|B|", {{5, 0, OWN}})});
    int visited = 0;
    EXPECT_THROW(diffAccess(before, after, DiffForm::EVERY_OBJECT,
                            [&](const AccessChange&) {
                                ++visited;
                                throw std::length_error("enough");
                            }),
                 std::length_error);
    EXPECT_EQ(visited, 1);
}
