#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using Tesmor::Arkwell::Rbac::ManagedObject;
using Tesmor::Arkwell::Rbac::NodeBits;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using Tesmor::Arkwell::Rbac::TreeNode;
using Tesmor::Arkwell::Rbac::detail::get_operation_bit;
using Tesmor::Arkwell::Rbac::detail::MemoryMap;
using Tesmor::Arkwell::Rbac::detail::namespaceSegments;
using Tesmor::Arkwell::Rbac::detail::ReadOnlyBlockAllocator;
using Tesmor::Arkwell::Rbac::detail::RoleTree;
using Tesmor::Arkwell::Rbac::detail::segment_iterator;
using testing_support::Grants;
using testing_support::RawCache;
using testing_support::segmentValues;
using testing_support::TemporaryDirectory;

namespace {

constexpr std::int32_t MIN = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t MAX = std::numeric_limits<std::int32_t>::max();

std::vector<std::int32_t> valuesOf(const std::string& text) {
    std::vector<std::int32_t> values;
    const segment_iterator end(text, text.size());
    for (segment_iterator at(text, 0); at != end; ++at) {
        values.push_back(*at);
    }
    return values;
}

std::vector<std::int32_t> segmentsOf(const ObjectNamespace& ns) {
    std::vector<std::int32_t> values;
    const std::pair<segment_iterator, segment_iterator> range = namespaceSegments(ns);
    for (segment_iterator at = range.first; at != range.second; ++at) {
        values.push_back(*at);
    }
    return values;
}

std::vector<std::size_t> positionsOf(const std::string& text) {
    std::vector<std::size_t> positions;
    const segment_iterator end(text, text.size());
    for (segment_iterator at(text, 0); at != end; ++at) {
        positions.push_back(at.position());
    }
    return positions;
}

using Values = std::vector<std::int32_t>;

/// Asks the role trees of one record.
class OperationBitTest : public testing::Test {
protected:
    bool holds(std::int32_t role, std::int32_t operation, RoleTree tree = RoleTree::OWN) {
        if (!map_) {
            files_.write();
            map_ = std::make_unique<MemoryMap>(files_.nodeFile());
        }
        const ReadOnlyBlockAllocator<TreeNode<int, NodeBits>> nodes(*map_);
        return get_operation_bit(object_, nodes, role, Operation(operation), tree);
    }

    void grantOwn(const Grants& grants) { object_.ownRoles = files_.putGrants(grants); }
    void grantChild(const Grants& grants) { object_.childRoles = files_.putGrants(grants); }

    TemporaryDirectory directory_;
    RawCache files_{directory_.path()};
    ManagedObject object_{};

private:
    std::unique_ptr<MemoryMap> map_;
};

}  // namespace

TEST(Segments, OfTheRoot) {
    EXPECT_EQ(segmentsOf(ObjectNamespace()), (Values{2'080'374'784}));
}

TEST(Segments, EndAfterABarOrFourBytes) {
    // |, ROOT, |, AB|
    EXPECT_EQ(segmentsOf(ObjectNamespace("ROOT", "AB")), (Values{0x7C000000, 0x524F4F54, 0x7C000000, 0x41427C00}));
}

TEST(Segments, BeginWhereTheLastOneEnded) {
    EXPECT_EQ(positionsOf("|ROOT|AB|"), (std::vector<std::size_t>{0, 1, 5, 6}));
}

TEST(Segments, OfComponentsAroundMultiplesOfFour) {
    EXPECT_EQ(segmentsOf(ObjectNamespace("")), (Values{0x7C000000, 0x7C000000}));
    EXPECT_EQ(segmentsOf(ObjectNamespace("A")), (Values{0x7C000000, 0x417C0000}));
    EXPECT_EQ(segmentsOf(ObjectNamespace("ABC")), (Values{0x7C000000, 0x4142437C}));
    EXPECT_EQ(segmentsOf(ObjectNamespace("ABCD")), (Values{0x7C000000, 0x41424344, 0x7C000000}));
    EXPECT_EQ(segmentsOf(ObjectNamespace("ABCDE")), (Values{0x7C000000, 0x41424344, 0x457C0000}));
    EXPECT_EQ(segmentsOf(ObjectNamespace("ABCDEFG")), (Values{0x7C000000, 0x41424344, 0x4546477C}));
    EXPECT_EQ(segmentsOf(ObjectNamespace("ABCDEFGH")), (Values{0x7C000000, 0x41424344, 0x45464748, 0x7C000000}));
}

TEST(Segments, AreThoseOfTheEscapedText) {
    // %7C, |
    EXPECT_EQ(segmentsOf(ObjectNamespace("|")), (Values{0x7C000000, 0x2537437C}));
}

TEST(Segments, WithAHighFirstByteAreNegative) {
    EXPECT_EQ(valuesOf("\x80|"), (Values{static_cast<std::int32_t>(0x807C0000)}));
    EXPECT_EQ(valuesOf("\xFF\xFF\xFF\xFF"), (Values{-1}));
    EXPECT_LT(valuesOf("\x80")[0], valuesOf("|")[0]);
}

TEST(Segments, HighBytesAfterTheFirstAreTakenAsTheyAre) {
    EXPECT_EQ(valuesOf("A\x80\xFF\xFC|"), (Values{0x4180FFFC, 0x7C000000}));
}

TEST(Segments, BytesThatDifferFromABarByOneBitAreNoBars) {
    for (const char byte : {'\x7D', '\x7E', '\x78', '\x74', '\x6C', '\x5C', '\x3C', '\xFC', '{'}) {
        const std::string text(4, byte);
        EXPECT_EQ(valuesOf(text).size(), 1U) << text;
    }
}

TEST(Segments, ABarEndsThemAtEveryPlace) {
    EXPECT_EQ(valuesOf("|xyz").front(), 0x7C000000);
    EXPECT_EQ(valuesOf("a|yz").front(), 0x617C0000);
    EXPECT_EQ(valuesOf("ab|z").front(), 0x61627C00);
    EXPECT_EQ(valuesOf("abc|").front(), 0x6162637C);
    EXPECT_EQ(valuesOf("{|}}").front(), 0x7B7C0000);
    EXPECT_EQ(valuesOf("}{|x").front(), 0x7D7B7C00);
}

TEST(Segments, EndWithTheText) {
    EXPECT_EQ(valuesOf("ABCDE"), (Values{0x41424344, 0x45000000}));
    EXPECT_EQ(valuesOf("ABC"), (Values{0x41424300}));
    EXPECT_EQ(valuesOf(std::string("\0\0", 2)), (Values{0}));
    EXPECT_EQ(valuesOf(""), Values());
}

TEST(Segments, OfManyTextsFollowTheDefinition) {
    const std::string alphabet("|a\x80\xFC{", 5);
    for (int number = 0; number < 5 * 5 * 5 * 5 * 5 * 5; ++number) {
        std::string text;
        for (int rest = number; rest > 0; rest /= 5) {
            text += alphabet[static_cast<std::size_t>(rest % 5)];
        }
        EXPECT_EQ(valuesOf(text), segmentValues(text)) << number;
    }
}

TEST(Segments, RangeOfANamespaceSpansItsText) {
    const auto range = namespaceSegments(ObjectNamespace("ROOT", "AB"));
    EXPECT_EQ(range.first.position(), 0U);
    EXPECT_EQ(range.second.position(), 9U);
}

TEST(Segments, IteratorsOutliveTheNamespace) {
    auto at = namespaceSegments(ObjectNamespace("A component that is not short at all")).first;
    ++at;
    EXPECT_EQ(*at, 0x412B636F);  // A+co
}

TEST(Segments, AdvancingNeedsNoValue) {
    const std::string text = "|ROOT|AB|";
    segment_iterator at(text, 0);
    ++at;
    ++at;
    EXPECT_EQ(at.position(), 5U);
    EXPECT_EQ(*(++at).operator->(), 0x41427C00);
}

TEST(Segments, ValueIsReadAsOftenAsWanted) {
    const std::string text = "|ROOT|";
    const segment_iterator at(text, 1);
    EXPECT_EQ(*at, 0x524F4F54);
    EXPECT_EQ(*at, 0x524F4F54);
    EXPECT_EQ(at.position(), 1U);
}

TEST(Segments, IteratorsAreCopied) {
    const std::string text = "|ROOT|AB|";
    segment_iterator at(text, 0);
    const segment_iterator before = at;
    ++at;
    EXPECT_EQ(*before, 0x7C000000);
    EXPECT_NE(at, before);
    at = before;
    EXPECT_EQ(at, before);
    EXPECT_EQ(*at, 0x7C000000);
}

TEST_F(OperationBitTest, NoRoleTreeNoBit) {
    EXPECT_FALSE(holds(1, 0));
    EXPECT_FALSE(holds(1, 0, RoleTree::CHILD));
}

TEST_F(OperationBitTest, EachTreeAnswersForItself) {
    grantOwn({{1, {3}}});
    grantChild({{2, {4}}});
    EXPECT_TRUE(holds(1, 3));
    EXPECT_FALSE(holds(1, 3, RoleTree::CHILD));
    EXPECT_FALSE(holds(2, 4));
    EXPECT_TRUE(holds(2, 4, RoleTree::CHILD));
}

TEST_F(OperationBitTest, MissingRoleHoldsNothing) {
    grantOwn({{10, {3}}, {5, {3}}, {20, {3}}});
    for (const std::int32_t role : {0, 4, 6, 11, 21, -10, MIN, MAX}) {
        EXPECT_FALSE(holds(role, 3)) << role;
    }
}

TEST_F(OperationBitTest, EveryRoleOfATreeIsFound) {
    const std::vector<std::int32_t> roles{10, -7, 20, 15, 0, MAX, MIN, -1, 1};
    Grants grants;
    for (const std::int32_t role : roles) {
        grants.push_back({role, {3}});
    }
    grantOwn(grants);
    for (const std::int32_t role : roles) {
        EXPECT_TRUE(holds(role, 3)) << role;
        EXPECT_FALSE(holds(role, 4)) << role;
    }
}

TEST_F(OperationBitTest, RoleWithoutAWordTreeHoldsNothing) {
    grantOwn({{1, {}}});
    EXPECT_FALSE(holds(1, 0));
}

TEST_F(OperationBitTest, Number37IsBit5OfWord1) {
    grantOwn({{1, {37}}});
    ASSERT_EQ(files_.nodes.back().key, 1);
    ASSERT_EQ(files_.nodes.back().payload, 1U << 5U);
    EXPECT_TRUE(holds(1, 37));
    for (const std::int32_t number : {5, 36, 38, 32, 63, 69}) {
        EXPECT_FALSE(holds(1, number)) << number;
    }
}

TEST_F(OperationBitTest, EveryBitOfAWordHasItsNumber) {
    for (std::int32_t number = 0; number < 100; ++number) {
        RawCache files(directory_ / std::to_string(number));
        const auto root = files.putGrants({{1, {number}}});
        files.write();
        const MemoryMap map(files.nodeFile());
        const ReadOnlyBlockAllocator<TreeNode<int, NodeBits>> nodes(map);
        ManagedObject object{};
        object.ownRoles = root;
        for (std::int32_t asked = 0; asked < 128; ++asked) {
            EXPECT_EQ(get_operation_bit(object, nodes, 1, Operation(asked), RoleTree::OWN), asked == number)
                << asked << " of " << number;
        }
    }
}

TEST_F(OperationBitTest, MissingWordHoldsNothing) {
    grantOwn({{1, {64, 32, 128}}});
    for (const std::int32_t number : {0, 96, 160, 1'000'000}) {
        EXPECT_FALSE(holds(1, number)) << number;
    }
    EXPECT_TRUE(holds(1, 32));
    EXPECT_TRUE(holds(1, 64));
    EXPECT_TRUE(holds(1, 128));
}

TEST_F(OperationBitTest, NumbersReachBothEndsOf32Bits) {
    // The word index is that of the number taken as unsigned.
    grantOwn({{1, {MAX}}, {2, {MIN}}, {3, {-1}}});
    EXPECT_TRUE(holds(1, MAX));
    EXPECT_FALSE(holds(1, -1));
    EXPECT_TRUE(holds(2, MIN));
    EXPECT_FALSE(holds(2, 0));
    EXPECT_TRUE(holds(3, -1));
    EXPECT_FALSE(holds(3, MAX));
    EXPECT_FALSE(holds(3, 31));
}

TEST_F(OperationBitTest, WordOfANegativeNumberHasAPositiveKey) {
    grantOwn({{1, {-1}}});
    EXPECT_EQ(files_.nodes.back().key, 0x07FFFFFF);
    EXPECT_EQ(files_.nodes.back().payload, 0x80000000U);
    EXPECT_TRUE(holds(1, -1));
}

TEST_F(OperationBitTest, OffsetsSelectTheNodeThatContainsThem) {
    grantOwn({{2, {3}}, {1, {3}}, {3, {3}}});
    auto& root = files_.nodeAt(object_.ownRoles);
    root.left += 23;
    root.right += 1;
    root.payload += 11;
    object_.ownRoles += 23;
    for (const std::int32_t role : {1, 2, 3}) {
        EXPECT_TRUE(holds(role, 3)) << role;
        EXPECT_FALSE(holds(role, 4)) << role;
    }
}
