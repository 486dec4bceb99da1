#include "sandbox/CacheImage.h"
#include "sandbox/CacheImageModel.h"

#include <boost/lexical_cast.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {
namespace {

using sandbox_testing::CacheInterpreter;
using sandbox_testing::differenceIn;
using sandbox_testing::filesOf;

const ObjectNamespace A("A");

AccessModel modelOf(const std::vector<ModelObject>& objects) {
    AccessModel model;
    for (const ModelObject& object : objects) {
        model.add(object);
    }
    return model;
}

CacheInterpreter published(const std::vector<ModelObject>& objects) {
    return CacheInterpreter(filesOf(CacheImage::build(modelOf(objects))));
}

ModelObject named(const ObjectNamespace& name, std::vector<Grant> grants = {}) {
    return {name, true, ObjectState::READY, std::move(grants)};
}

std::string hexOf(std::int32_t key) {
    std::ostringstream text;
    text << std::hex << std::uppercase << std::setw(8) << std::setfill('0') << static_cast<std::uint32_t>(key);
    return text.str();
}

TEST(FirstSegment, EndsAfterFourBytes) {
    EXPECT_EQ(hexOf(firstSegment("ROOT|").key), "524F4F54");
    EXPECT_EQ(firstSegment("ROOT|").length, 4U);
}

TEST(FirstSegment, EndsAfterTheFirstBar) {
    EXPECT_EQ(hexOf(firstSegment("|ROOT|").key), "7C000000");
    EXPECT_EQ(firstSegment("|ROOT|").length, 1U);
    EXPECT_EQ(hexOf(firstSegment("AB|CD|").key), "41427C00");
    EXPECT_EQ(firstSegment("AB|CD|").length, 3U);
    EXPECT_EQ(hexOf(firstSegment("ABC|").key), "4142437C");
    EXPECT_EQ(firstSegment("ABC|").length, 4U);
}

TEST(FirstSegment, EndsWithTheText) {
    EXPECT_EQ(firstSegment("|").key, 2080374784);
    EXPECT_EQ(firstSegment("|").length, 1U);
    EXPECT_EQ(hexOf(firstSegment("AB").key), "41420000");
    EXPECT_EQ(firstSegment("AB").length, 2U);
}

TEST(FirstSegment, OfAByteWithTheTopBitIsNegativeAndBeforeAllOthers) {
    EXPECT_EQ(hexOf(firstSegment("\x80|").key), "807C0000");
    EXPECT_LT(firstSegment("\x80|").key, firstSegment("\xFFzzz").key);
    EXPECT_LT(firstSegment("\xFFzzz").key, firstSegment("%00").key);
    EXPECT_LT(firstSegment("\xE9|").key, firstSegment("|").key);
}

TEST(FirstSegment, IsOrderedByBytesAfterTheFirst) {
    EXPECT_LT(firstSegment("A\x7F|").key, firstSegment("A\x80|").key);
}

/// The places on the way to a rank, the root's first.
std::vector<std::uint32_t> wayTo(const std::vector<TreePlace>& layout, std::uint32_t rank) {
    std::vector<std::uint32_t> way;
    for (std::uint32_t place = 0; place != TreePlace::NONE;) {
        way.push_back(place);
        if (layout.at(place).rank == rank || way.size() > 40) {
            break;
        }
        place = rank < layout[place].rank ? layout[place].left : layout[place].right;
    }
    return way;
}

TEST(LayoutOrder, OfNothingIsEmpty) {
    EXPECT_TRUE(layoutOrder(0).empty());
}

TEST(LayoutOrder, ReachesEveryRankFromTheFirstPlaceWithFewSteps) {
    for (std::uint32_t count = 1; count < 600; ++count) {
        const std::vector<TreePlace> layout = layoutOrder(count);
        ASSERT_EQ(layout.size(), count);
        unsigned levels = 0;
        while ((1U << levels) < count + 1) {
            ++levels;
        }
        for (std::uint32_t rank = 0; rank < count; ++rank) {
            const std::vector<std::uint32_t> way = wayTo(layout, rank);
            ASSERT_EQ(layout[way.back()].rank, rank) << count;
            ASSERT_LE(way.size(), levels) << count;
        }
    }
}

TEST(LayoutOrder, UsesEveryPlaceOnce) {
    for (const std::uint32_t count : {1U, 2U, 127U, 128U, 1000U, 70000U}) {
        std::set<std::uint32_t> ranks;
        std::set<std::uint32_t> children;
        for (const TreePlace& place : layoutOrder(count)) {
            ranks.insert(place.rank);
            children.insert(place.left);
            children.insert(place.right);
        }
        children.erase(TreePlace::NONE);
        EXPECT_EQ(ranks.size(), count);
        EXPECT_EQ(children.size(), count - 1);
        EXPECT_EQ(children.count(0), 0U);
    }
}

TEST(LayoutOrder, PutsASmallerKeyOnTheCacheLineOfItsParent) {
    const std::vector<TreePlace> layout = layoutOrder(127);
    for (std::uint32_t i = 0; i < layout.size(); ++i) {
        if (layout[i].left != TreePlace::NONE) {
            EXPECT_EQ(layout[i].left, i + 1);
        }
    }
}

TEST(LayoutOrder, KeepsSearchesOfALargeTreeToTwoRunsOfPlaces) {
    const std::uint32_t levels = 14;
    const std::uint32_t run = (1U << (levels / 2)) - 1;
    const std::vector<TreePlace> layout = layoutOrder((1U << levels) - 1);
    for (std::uint32_t rank = 0; rank < layout.size(); ++rank) {
        std::set<std::uint32_t> runs;
        for (const std::uint32_t place : wayTo(layout, rank)) {
            runs.insert(place / run);
        }
        ASSERT_LE(runs.size(), 2U) << rank;
    }
}

TEST(CacheImage, OfAnEmptyModelHasNoRoot) {
    const CacheInterpreter cache = published({});
    EXPECT_EQ(cache.root(), 0U);
    EXPECT_EQ(cache.files().objects, std::string(16, '\0'));
    EXPECT_EQ(cache.files().nodes, std::string(24, '\0'));
    EXPECT_EQ(cache.files().segments, std::string(32, '\0'));
    EXPECT_FALSE(cache.lookup("|"));
    EXPECT_EQ(differenceIn(cache, std::vector<ModelObject>{}), "");
}

TEST(CacheImage, HoldsTheRootAsAnObject) {
    const std::vector<ModelObject> objects{named(ObjectNamespace(), {{1, 0, GrantScope::CHILDREN}})};
    EXPECT_EQ(differenceIn(published(objects), objects), "");
    EXPECT_FALSE(published(objects).lookup("|A|"));
}

TEST(CacheImage, HoldsObjectsAndTheirDescendants) {
    const std::vector<ModelObject> objects{named(ObjectNamespace("ROOT", "AB")), named(ObjectNamespace()),
                                           named(ObjectNamespace("ROOT")), named(ObjectNamespace("ROOT", "AB", "C"))};
    EXPECT_EQ(differenceIn(published(objects), objects), "");
}

TEST(CacheImage, HasNoObjectsInBetween) {
    const CacheInterpreter cache = published({named(ObjectNamespace("ROOT", "AB", "C"))});
    EXPECT_TRUE(cache.lookup("|ROOT|AB|C|"));
    for (const char* absent :
         {"|", "|ROOT|", "|ROOT|AB|", "|ROOT|AB|C|D|", "|ROOT|AB|D|", "|ROOT|A|", "|R|", "|ROOTS|", "|ROOT|AB|CC|"}) {
        EXPECT_FALSE(cache.lookup(absent)) << absent;
    }
}

TEST(CacheImage, TellsSimilarNamesApart) {
    std::vector<ModelObject> objects;
    for (const char* name : {"", "A", "AA", "AAA", "AAAA", "AAAAA", "AAAAAAAA", "a", "B", " ", "|", "||", "%7C", "+",
                             "\xE9", "AAA|", "AAAA|"}) {
        objects.push_back(named(ObjectNamespace(name)));
        objects.push_back(named(ObjectNamespace(name, name)));
        objects.push_back(named(ObjectNamespace("A", name, "z")));
    }
    std::set<std::string> texts;
    std::vector<ModelObject> unique;
    std::copy_if(objects.begin(), objects.end(), std::back_inserter(unique),
                 [&](const ModelObject& object) { return texts.insert(object.name.str()).second; });
    EXPECT_EQ(differenceIn(published(unique), unique), "");
}

TEST(CacheImage, GrantsOnTheObjectOnly) {
    const CacheInterpreter cache = published({named(A, {{3, 5, GrantScope::OBJECT}})});
    const std::uint32_t object = cache.lookup("|A|").value();
    EXPECT_TRUE(cache.granted(object, CacheInterpreter::OWN, 3, 5));
    EXPECT_EQ(cache.roleTree(object, CacheInterpreter::CHILD), 0U);
}

TEST(CacheImage, GrantsOnDescendantsOnly) {
    const CacheInterpreter cache = published({named(A, {{3, 5, GrantScope::CHILDREN}})});
    const std::uint32_t object = cache.lookup("|A|").value();
    EXPECT_TRUE(cache.granted(object, CacheInterpreter::CHILD, 3, 5));
    EXPECT_EQ(cache.roleTree(object, CacheInterpreter::OWN), 0U);
}

TEST(CacheImage, GrantsOnBothWithOneTree) {
    const CacheInterpreter cache = published({named(A, {{3, 5, GrantScope::OBJECT_AND_CHILDREN}})});
    const std::uint32_t object = cache.lookup("|A|").value();
    EXPECT_TRUE(cache.granted(object, CacheInterpreter::OWN, 3, 5));
    EXPECT_TRUE(cache.granted(object, CacheInterpreter::CHILD, 3, 5));
    EXPECT_EQ(cache.roleTree(object, CacheInterpreter::OWN), cache.roleTree(object, CacheInterpreter::CHILD));
}

TEST(CacheImage, KeepsGrantsOfBothKindsApart) {
    const std::vector<ModelObject> objects{named(A, {{3, 5, GrantScope::OBJECT_AND_CHILDREN},
                                                     {3, 6, GrantScope::OBJECT},
                                                     {3, 7, GrantScope::CHILDREN},
                                                     {4, 6, GrantScope::CHILDREN}})};
    EXPECT_EQ(differenceIn(published(objects), objects), "");
}

TEST(CacheImage, HasEveryOperationNumber) {
    for (const std::int32_t operation : {0, 1, 31, 32, 37, 63, 64, 1000000, 2147483616, 2147483647}) {
        const std::vector<ModelObject> objects{named(A, {{3, operation, GrantScope::OBJECT}})};
        const CacheInterpreter cache = published(objects);
        EXPECT_EQ(differenceIn(cache, objects), "") << operation;
        EXPECT_TRUE(cache.granted(cache.lookup("|A|").value(), CacheInterpreter::OWN, 3, operation)) << operation;
    }
}

TEST(CacheImage, HasAllOperationNumbersOfOneRoleAtOnce) {
    std::vector<Grant> grants;
    for (const std::int32_t operation : {0, 31, 32, 37, 63, 64, 95, 96, 1000, 100000, 2147483647}) {
        grants.push_back({-2, operation, GrantScope::OBJECT_AND_CHILDREN});
    }
    const std::vector<ModelObject> objects{named(A, grants)};
    EXPECT_EQ(differenceIn(published(objects), objects), "");
}

TEST(CacheImage, PutsOperation37IntoBit5OfWord1) {
    const CacheImage image = CacheImage::build(modelOf({named(A, {{3, 37, GrantScope::OBJECT}})}));
    ASSERT_EQ(image.nodes.size(), 3U);
    EXPECT_EQ(image.nodes[1].key, 3);
    EXPECT_EQ(image.nodes[1].payload, 48U);
    EXPECT_EQ(image.nodes[2].key, 1);
    EXPECT_EQ(image.nodes[2].payload, 1U << 5);
}

TEST(CacheImage, HasRolesOfEveryNumber) {
    std::vector<Grant> grants;
    for (const std::int32_t role : {-2147483647 - 1, -1, 0, 1, 7, 2147483647}) {
        grants.push_back({role, 3, GrantScope::OBJECT});
    }
    const std::vector<ModelObject> objects{named(A, grants)};
    EXPECT_EQ(differenceIn(published(objects), objects), "");
}

TEST(CacheImage, InheritsAsModelled) {
    EXPECT_EQ(published({named(A)}).inherits(16), true);
    EXPECT_EQ(published({{A, false, ObjectState::READY, {}}}).inherits(16), false);
}

TEST(CacheImage, PendingObjectsGrantNothingAndInheritNothing) {
    const ModelObject pending{A, true, ObjectState::PENDING, {{3, 5, GrantScope::OBJECT_AND_CHILDREN}}};
    const CacheInterpreter cache = published({pending, named(A | "x")});
    const std::uint32_t object = cache.lookup("|A|").value();
    EXPECT_FALSE(cache.inherits(object));
    EXPECT_EQ(cache.roleTree(object, CacheInterpreter::OWN), 0U);
    EXPECT_EQ(cache.roleTree(object, CacheInterpreter::CHILD), 0U);
    EXPECT_EQ(differenceIn(cache, {pending, named(A | "x")}), "");
}

TEST(CacheImage, DeletedObjectsHaveNoRecord) {
    const ModelObject deleted{A, true, ObjectState::DELETED, {{3, 5, GrantScope::OBJECT_AND_CHILDREN}}};
    const CacheInterpreter cache = published({deleted, named(A | "x")});
    EXPECT_FALSE(cache.lookup("|A|"));
    EXPECT_EQ(differenceIn(cache, {deleted, named(A | "x")}), "");
    EXPECT_EQ(published({deleted}).root(), 0U);
}

TEST(CacheImage, SharesEqualRoleTrees) {
    const std::vector<Grant> grants{{3, 5, GrantScope::OBJECT}, {4, 40, GrantScope::OBJECT}};
    std::vector<ModelObject> objects;
    objects.reserve(100);
    for (int i = 0; i < 100; ++i) {
        objects.push_back(named(A | std::to_string(i), grants));
    }
    EXPECT_EQ(CacheImage::build(modelOf(objects)).nodes.size(), 5U);
}

TEST(CacheImage, SharesOneTreeBetweenTheObjectsOfOneListAndTheDescendantsOfAnother) {
    const CacheInterpreter cache =
        published({named(A, {{3, 5, GrantScope::OBJECT}}), named(A | "x", {{3, 5, GrantScope::CHILDREN}})});
    EXPECT_EQ(cache.roleTree(cache.lookup("|A|").value(), CacheInterpreter::OWN),
              cache.roleTree(cache.lookup("|A|x|").value(), CacheInterpreter::CHILD));
}

TEST(CacheImage, SharesEqualWordTreesOfOneRoleTree) {
    std::vector<Grant> grants;
    for (std::int32_t role = 0; role < 10; ++role) {
        grants.push_back({role, 5, GrantScope::OBJECT});
        grants.push_back({role, 50, GrantScope::OBJECT});
    }
    grants.push_back({10, 5, GrantScope::OBJECT});
    const std::vector<ModelObject> objects{named(A, grants)};
    EXPECT_EQ(CacheImage::build(modelOf(objects)).nodes.size(), 1 + 11 + 2 + 1U);
    EXPECT_EQ(differenceIn(published(objects), objects), "");
}

TEST(CacheImage, KeepsARoleTreeWithItsWordTreesTogether) {
    const CacheInterpreter cache =
        published({named(A, {{1, 1, GrantScope::OBJECT}, {2, 40, GrantScope::OBJECT}}),
                   named(A | "x", {{1, 1, GrantScope::OBJECT}, {3, 40, GrantScope::OBJECT}})});
    const std::uint32_t first = cache.roleTree(cache.lookup("|A|").value(), CacheInterpreter::OWN);
    const std::uint32_t second = cache.roleTree(cache.lookup("|A|x|").value(), CacheInterpreter::OWN);
    EXPECT_EQ(first, 24U);
    EXPECT_EQ(second, 24U * 5);
    EXPECT_EQ(cache.files().nodes.size(), 24U * 9);
}

TEST(CacheImage, LaysAChainOfSingleSegmentsOutInOneRun) {
    const CacheImage image = CacheImage::build(modelOf({named(ObjectNamespace("ROOT", "ABCDEFGH"))}));
    ASSERT_EQ(image.segments.size(), 7U);  // none, |, ROOT, |, ABCD, EFGH, |
    EXPECT_EQ(image.metadata.segmentRoot, 32U);
    for (std::uint32_t i = 1; i < 6; ++i) {
        EXPECT_EQ(image.segments[i].child, 32 * (i + 1));
        EXPECT_EQ(image.segments[i].object, 0U);
    }
    EXPECT_EQ(image.segments[6].child, 0U);
    EXPECT_EQ(image.segments[6].object, 16U);
}

TEST(CacheImage, LaysObjectsOutDepthFirstInTheOrderOfTheKeys) {
    const CacheInterpreter cache =
        published({named(A | "y"), named(ObjectNamespace("B")), named(A | "x" | "1"), named(A), named(A | "x")});
    EXPECT_EQ(cache.lookup("|A|"), 16U);
    EXPECT_EQ(cache.lookup("|A|x|"), 32U);
    EXPECT_EQ(cache.lookup("|A|x|1|"), 48U);
    EXPECT_EQ(cache.lookup("|A|y|"), 64U);
    EXPECT_EQ(cache.lookup("|B|"), 80U);
}

TEST(CacheImage, DoesNotDependOnTheOrderOfAdding) {
    std::vector<ModelObject> objects;
    objects.reserve(2000);
    for (int i = 0; i < 2000; ++i) {
        objects.push_back(named(A | std::to_string(i % 40) | std::to_string(i)));
    }
    const CacheImage image = CacheImage::build(modelOf(objects));
    std::shuffle(objects.begin(), objects.end(),
                 std::mt19937(7));  // NOLINT(cert-msc32-c,cert-msc51-cpp): repeatable
    const CacheImage other = CacheImage::build(modelOf(objects));
    EXPECT_TRUE(image.segmentBytes() == other.segmentBytes());
    EXPECT_TRUE(image.objectBytes() == other.objectBytes());
}

TEST(CacheImage, HoldsNamesOfManyComponents) {
    std::string deep = "|";
    std::vector<ModelObject> objects;
    for (int i = 1; i <= 5000; ++i) {
        deep += "c|";
        if (i % 500 == 0) {
            objects.push_back(named(boost::lexical_cast<ObjectNamespace>(deep), {{i, i, GrantScope::OBJECT}}));
        }
    }
    EXPECT_EQ(differenceIn(published(objects), objects), "");
}

TEST(CacheImage, HoldsLongNames) {
    const std::string longName(1 << 20, 'n');
    const std::vector<ModelObject> objects{named(ObjectNamespace(longName)), named(ObjectNamespace(longName + "o")),
                                           named(ObjectNamespace(longName, longName)), named(A)};
    const CacheInterpreter cache = published(objects);
    EXPECT_EQ(differenceIn(cache, objects), "");
    EXPECT_FALSE(cache.lookup(ObjectNamespace(longName.substr(1)).str()));
}

TEST(CacheImage, BalancesWideSegmentTrees) {
    std::vector<ModelObject> objects;
    for (int i = 100; i < 1000; ++i) {
        objects.push_back(named(ObjectNamespace(std::to_string(i))));
    }
    const CacheInterpreter cache = published(objects);
    EXPECT_EQ(differenceIn(cache, objects), "");
    // Below "|", the root of 900 nodes like "100|".
    EXPECT_EQ(CacheInterpreter::height(cache.files().segments, 32, 64), 10U);
}

TEST(CacheImage, BalancesRoleTreesAndWordTrees) {
    std::vector<Grant> grants;
    for (std::int32_t i = 0; i < 1000; ++i) {
        grants.push_back({i * 3 - 1500, i * 32, GrantScope::OBJECT});
        grants.push_back({7, i * 32, GrantScope::OBJECT});
    }
    const std::vector<ModelObject> objects{named(A, grants)};
    EXPECT_EQ(differenceIn(published(objects), objects), "");
}

TEST(CacheImage, HoldsAThousandObjectsOfAllKinds) {
    std::mt19937 random(11);  // NOLINT(cert-msc32-c,cert-msc51-cpp): repeatable
    std::vector<ModelObject> objects;
    for (int i = 0; i < 1000; ++i) {
        ObjectNamespace name("ASSETS", std::to_string(random() % 20));
        for (auto depth = random() % 4; depth > 0; --depth) {
            name = name | std::string(random() % 9, static_cast<char>('a' + random() % 3));
        }
        ModelObject object = named(name | std::to_string(i));
        object.inherit = random() % 2 == 0;
        object.state = random() % 10 < 8   ? ObjectState::READY
                       : random() % 2 == 0 ? ObjectState::PENDING
                                           : ObjectState::DELETED;
        for (auto grants = random() % 6; grants > 0; --grants) {
            object.grants.push_back({static_cast<std::int32_t>(random() % 5), static_cast<std::int32_t>(random() % 70),
                                     static_cast<GrantScope>(random() % 3)});
        }
        objects.push_back(object);
    }
    EXPECT_EQ(differenceIn(published(objects), objects), "");
}

TEST(CacheImage, ChangedGrantsMoveNothing) {
    std::vector<ModelObject> objects;
    objects.reserve(100);
    for (std::int32_t i = 0; i < 100; ++i) {
        objects.push_back(named(A | std::to_string(i), {{i, 1, GrantScope::OBJECT}}));
    }
    AccessModel model = modelOf(objects);
    const CacheImage before = CacheImage::build(model);
    model.add(named(A | "50", {{500, 1, GrantScope::OBJECT}, {501, 1, GrantScope::CHILDREN}}));
    const CacheImage after = CacheImage::build(model);
    EXPECT_TRUE(before.segmentBytes() == after.segmentBytes());
    // Record 0, and two for each of the lists before.
    std::string kept(before.nodeBytes());
    kept.replace(std::size_t{24} * 101, 48, std::string(48, '\0'));
    EXPECT_TRUE(kept == after.nodeBytes().substr(0, kept.size()));
    unsigned changed = 0;
    for (std::size_t i = 0; i < before.objects.size(); ++i) {
        changed += before.objectBytes().substr(i * 16, 16) == after.objectBytes().substr(i * 16, 16) ? 0U : 1U;
    }
    EXPECT_EQ(changed, 1U);
}

TEST(CacheImage, ListThatIsUsedAgainHasItsOldPlace) {
    AccessModel model = modelOf({named(A, {{3, 5, GrantScope::OBJECT}}), named(A | "x", {{4, 5, GrantScope::OBJECT}})});
    const CacheImage before = CacheImage::build(model);
    model.add(named(A));
    const CacheImage between = CacheImage::build(model);
    model.add(named(A, {{3, 5, GrantScope::OBJECT}}));
    const CacheImage after = CacheImage::build(model);
    EXPECT_EQ(between.nodeBytes().substr(24, 48), std::string(48, '\0'));
    EXPECT_EQ(between.nodeBytes().substr(72), before.nodeBytes().substr(72));
    EXPECT_EQ(after.nodeBytes(), before.nodeBytes());
}

TEST(CacheImage, TreesOfObjectsThatAreNotReadyAreFree) {
    const CacheImage image =
        CacheImage::build(modelOf({{A, true, ObjectState::PENDING, {{3, 5, GrantScope::OBJECT}}},
                                   {A | "d", true, ObjectState::DELETED, {{4, 5, GrantScope::OBJECT}}}}));
    EXPECT_EQ(image.nodeBytes(), std::string(std::size_t{24} * 5, '\0'));
}

TEST(CacheImage, MetadataSayWhatTheCacheIs) {
    const CacheImage image = CacheImage::build(modelOf({
        named(A, {{1, 1, GrantScope::OBJECT}, {1, 1, GrantScope::OBJECT}, {2, 1, GrantScope::OBJECT_AND_CHILDREN}}),
        {A | "p", true, ObjectState::PENDING, {{1, 1, GrantScope::OBJECT}}},
        {A | "d", true, ObjectState::DELETED, {{1, 1, GrantScope::OBJECT}}},
        named(A | "x", {{1, 1, GrantScope::CHILDREN}}),
    }));
    const std::string bytes(image.metadataBytes());
    ASSERT_EQ(bytes.size(), 64U);
    EXPECT_EQ(bytes.substr(0, 8), "ARKCACHE");
    EXPECT_EQ(CacheInterpreter::wordAt(bytes, 8), 1U);
    EXPECT_EQ(CacheInterpreter::longAt(bytes, 12), 3U);   // objects
    EXPECT_EQ(CacheInterpreter::longAt(bytes, 20), 0U);   // not being written
    EXPECT_EQ(CacheInterpreter::wordAt(bytes, 28), 32U);  // root
    EXPECT_EQ(CacheInterpreter::longAt(bytes, 32), 0U);   // no publication yet
    EXPECT_EQ(CacheInterpreter::longAt(bytes, 40), 0U);
    EXPECT_EQ(CacheInterpreter::longAt(bytes, 48), 3U);  // grants
    EXPECT_EQ(CacheInterpreter::longAt(bytes, 56), 0U);
}

std::string refusalOf(const AccessModel& model, const ImageLimits& limits) {
    try {
        CacheImage::build(model, limits);
    } catch (const std::length_error& refusal) {
        return refusal.what();
    }
    return "accepted";
}

class CacheImageLimits : public testing::Test {
protected:
    // 2 objects, 3 nodes, 5 segments: |, A|, ROOT, |, and record 0 of each file.
    const AccessModel model = modelOf(
        {named(A, {{1, 1, GrantScope::OBJECT}}), named(ObjectNamespace("ROOT"), {{1, 70, GrantScope::OBJECT}})});
};

TEST_F(CacheImageLimits, AreFourGibibytes) {
    EXPECT_EQ(ImageLimits().objects, 4294967296U);
    EXPECT_EQ(ImageLimits().nodes, 4294967296U);
    EXPECT_EQ(ImageLimits().segments, 4294967296U);
}

TEST_F(CacheImageLimits, MayBeReached) {
    EXPECT_EQ(refusalOf(model, {48, 120, 160}), "accepted");
}

TEST_F(CacheImageLimits, HoldForTheObjects) {
    EXPECT_EQ(refusalOf(model, {47, 120, 160}), "the objects file would need 48 bytes, the limit is 47");
}

TEST_F(CacheImageLimits, HoldForTheNodes) {
    EXPECT_EQ(refusalOf(model, {48, 119, 160}), "the nodes file would need 120 bytes, the limit is 119");
}

TEST_F(CacheImageLimits, HoldForTheSegments) {
    EXPECT_EQ(refusalOf(model, {48, 120, 159}), "the segments file would need 160 bytes, the limit is 159");
}

}  // namespace
}  // namespace Tesmor::Arkwell::Sandbox
