#include <rbac/ObjectNamespace.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using Tesmor::Arkwell::Rbac::ObjectNamespace;
namespace root_namespaces = Tesmor::Arkwell::Rbac::root_namespaces;

namespace {

// The same numbers in every run.
std::mt19937 numbersFrom(unsigned seed) {
    return std::mt19937(seed);
}

using Path = std::vector<std::string>;

ObjectNamespace fromPath(const Path& path) {
    ObjectNamespace ns;
    for (const std::string& component : path) {
        ns = ns | component;
    }
    return ns;
}

// Few different components, so that random paths often share a beginning.
Path randomPath(std::mt19937& random) {
    static const std::vector<std::string> COMPONENTS = {"",
                                                        "A",
                                                        "AB",
                                                        "B",
                                                        "a",
                                                        "b",
                                                        "|",
                                                        "%",
                                                        " ",
                                                        "\x7F",
                                                        "\x80",
                                                        "\xFF",
                                                        std::string(1, '\0'),
                                                        "A long component, on the heap"};
    Path path(random() % 5);
    std::generate(path.begin(), path.end(), [&random] { return COMPONENTS[random() % COMPONENTS.size()]; });
    return path;
}

bool isPrefix(const Path& prefix, const Path& path) {
    return prefix.size() <= path.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

bool equivalent(const ObjectNamespace& a, const ObjectNamespace& b) {
    return !(a < b) && !(b < a);
}

}  // namespace

TEST(ObjectNamespace, DefaultIsTheRoot) {
    EXPECT_TRUE(ObjectNamespace().is_root());
}

TEST(ObjectNamespace, NamespaceWithAComponentIsNotTheRoot) {
    EXPECT_FALSE(ObjectNamespace("A").is_root());
}

TEST(ObjectNamespace, EmptyComponentIsNotTheRoot) {
    EXPECT_FALSE(ObjectNamespace("").is_root());
    EXPECT_FALSE(ObjectNamespace("") == ObjectNamespace());
}

TEST(ObjectNamespace, ConstructorsTakeComponentsInArgumentOrder) {
    EXPECT_EQ(ObjectNamespace("1").str(), "|1|");
    EXPECT_EQ(ObjectNamespace("1", "2").str(), "|1|2|");
    EXPECT_EQ(ObjectNamespace("1", "2", "3").str(), "|1|2|3|");
    EXPECT_EQ(ObjectNamespace("1", "2", "3", "4").str(), "|1|2|3|4|");
    EXPECT_EQ(ObjectNamespace("1", "2", "3", "4", "5").str(), "|1|2|3|4|5|");
    EXPECT_EQ(ObjectNamespace("1", "2", "3", "4", "5", "6").str(), "|1|2|3|4|5|6|");
}

TEST(ObjectNamespace, ConstructorNeitherSplitsNorDecodes) {
    EXPECT_EQ(ObjectNamespace("A|B").str(), "|A%7CB|");
    EXPECT_EQ(ObjectNamespace("A%7CB").str(), "|A%257CB|");
    EXPECT_EQ(ObjectNamespace(" A ").str(), "|+A+|");
}

TEST(ObjectNamespace, ComponentMayHoldAZeroByte) {
    EXPECT_EQ(ObjectNamespace(std::string("A\0B", 3)).str(), "|A%00B|");
    EXPECT_FALSE(ObjectNamespace(std::string("A\0B", 3)) == ObjectNamespace("A"));
}

TEST(ObjectNamespace, StringConvertsToANamespaceOfOneComponent) {
    const ObjectNamespace ns = std::string("A");
    EXPECT_EQ(ns, ObjectNamespace("A"));
}

TEST(ObjectNamespace, MovesWithoutThrowing) {
    EXPECT_TRUE(std::is_nothrow_move_constructible<ObjectNamespace>::value);
    EXPECT_TRUE(std::is_nothrow_move_assignable<ObjectNamespace>::value);
}

TEST(ObjectNamespace, CopyIsIndependentOfItsOriginal) {
    ObjectNamespace original("A", "B");
    const ObjectNamespace copy = original;
    original = ObjectNamespace("C");
    EXPECT_EQ(copy, ObjectNamespace("A", "B"));
    EXPECT_EQ(copy.str(), "|A|B|");
}

TEST(ObjectNamespace, AssignmentReplacesComponentsAndText) {
    ObjectNamespace target("A", "B");
    ASSERT_EQ(target.str(), "|A|B|");
    const ObjectNamespace withoutText("C");
    target = withoutText;
    EXPECT_EQ(target, withoutText);
    EXPECT_EQ(target.str(), "|C|");
}

TEST(ObjectNamespace, AssignmentToItselfChangesNothing) {
    ObjectNamespace ns("A", "B");
    const ObjectNamespace& alias = ns;
    ns = alias;
    EXPECT_EQ(ns, ObjectNamespace("A", "B"));
    EXPECT_EQ(ns.str(), "|A|B|");
}

TEST(ObjectNamespace, MovedFromNamespaceMayBeAssignedTo) {
    ObjectNamespace source("A");
    const ObjectNamespace target = std::move(source);
    source = ObjectNamespace("B");
    EXPECT_EQ(target.str(), "|A|");
    EXPECT_EQ(source.str(), "|B|");
}

TEST(ObjectNamespace, RootEqualsRoot) {
    EXPECT_TRUE(ObjectNamespace() == ObjectNamespace());
    EXPECT_FALSE(ObjectNamespace() != ObjectNamespace());
}

TEST(ObjectNamespace, EqualComponentsAreEqual) {
    EXPECT_TRUE(ObjectNamespace("A", "B") == ObjectNamespace("A", "B"));
    EXPECT_FALSE(ObjectNamespace("A", "B") != ObjectNamespace("A", "B"));
}

TEST(ObjectNamespace, EqualityIgnoresTheComputedText) {
    const ObjectNamespace computed("A", "B");
    ASSERT_EQ(computed.str(), "|A|B|");
    EXPECT_TRUE(computed == ObjectNamespace("A", "B"));
}

TEST(ObjectNamespace, DifferentComponentsAreUnequal) {
    EXPECT_FALSE(ObjectNamespace("A", "B") == ObjectNamespace("A", "C"));
    EXPECT_FALSE(ObjectNamespace("A", "B") == ObjectNamespace("A", "BC"));
    EXPECT_FALSE(ObjectNamespace("A", "B") == ObjectNamespace("a", "B"));
    EXPECT_TRUE(ObjectNamespace("A", "B") != ObjectNamespace("A", "C"));
}

TEST(ObjectNamespace, NamespaceIsUnequalToItsPrefix) {
    EXPECT_FALSE(ObjectNamespace("A", "B") == ObjectNamespace("A"));
    EXPECT_FALSE(ObjectNamespace("A") == ObjectNamespace("A", "B"));
    EXPECT_FALSE(ObjectNamespace("A") == ObjectNamespace());
}

TEST(ObjectNamespace, SameBytesCutDifferentlyAreUnequal) {
    EXPECT_FALSE(ObjectNamespace("AB", "C") == ObjectNamespace("A", "BC"));
}

TEST(ObjectNamespace, RootIsSmallerThanEverythingElse) {
    EXPECT_TRUE(ObjectNamespace() < ObjectNamespace("A"));
    EXPECT_TRUE(ObjectNamespace() < ObjectNamespace(""));
    EXPECT_FALSE(ObjectNamespace("A") < ObjectNamespace());
}

TEST(ObjectNamespace, RootIsNotSmallerThanRoot) {
    EXPECT_FALSE(ObjectNamespace() < ObjectNamespace());
}

TEST(ObjectNamespace, NamespaceIsNotSmallerThanItself) {
    EXPECT_FALSE(ObjectNamespace("A", "B") < ObjectNamespace("A", "B"));
}

TEST(ObjectNamespace, NamespaceSortsBeforeItsDescendants) {
    EXPECT_TRUE(ObjectNamespace("A") < ObjectNamespace("A", "B"));
    EXPECT_FALSE(ObjectNamespace("A", "B") < ObjectNamespace("A"));
}

TEST(ObjectNamespace, DescendantsSortBeforeTheNextSibling) {
    EXPECT_TRUE(ObjectNamespace("A", "B") < ObjectNamespace("B"));
    EXPECT_FALSE(ObjectNamespace("B") < ObjectNamespace("A", "B"));
}

TEST(ObjectNamespace, UpperCaseSortsBeforeLowerCase) {
    EXPECT_TRUE(ObjectNamespace("B") < ObjectNamespace("a"));
    EXPECT_FALSE(ObjectNamespace("a") < ObjectNamespace("B"));
}

TEST(ObjectNamespace, ComponentSortsBeforeItsExtension) {
    EXPECT_TRUE(ObjectNamespace("A") < ObjectNamespace("AB"));
    EXPECT_TRUE(ObjectNamespace("AB") < ObjectNamespace("B"));
    EXPECT_TRUE(ObjectNamespace("A", "Z") < ObjectNamespace("AB"));
}

TEST(ObjectNamespace, EmptyComponentSortsBeforeEveryOther) {
    EXPECT_TRUE(ObjectNamespace("") < ObjectNamespace(std::string(1, '\0')));
    EXPECT_TRUE(ObjectNamespace("A", "") < ObjectNamespace("A", "A"));
    EXPECT_FALSE(ObjectNamespace("A", "A") < ObjectNamespace("A", ""));
}

TEST(ObjectNamespace, BytesCompareUnsigned) {
    EXPECT_TRUE(ObjectNamespace("\x7F") < ObjectNamespace("\x80"));
    EXPECT_TRUE(ObjectNamespace("z") < ObjectNamespace("\xFF"));
}

TEST(ObjectNamespace, FirstDifferenceDecides) {
    EXPECT_TRUE(ObjectNamespace("A", "B", "Z") < ObjectNamespace("A", "C", "A"));
    EXPECT_FALSE(ObjectNamespace("A", "C", "A") < ObjectNamespace("A", "B", "Z"));
}

TEST(ObjectNamespace, ServesAsAKeyOfMapsAndSets) {
    const std::set<ObjectNamespace> set = {ObjectNamespace("B"), ObjectNamespace("A", "B"), ObjectNamespace(),
                                           ObjectNamespace("A"), ObjectNamespace("A", "B")};
    const std::vector<ObjectNamespace> inOrder(set.begin(), set.end());
    EXPECT_EQ(inOrder, (std::vector<ObjectNamespace>{{}, {"A"}, {"A", "B"}, {"B"}}));
    EXPECT_EQ((std::map<ObjectNamespace, int>{{{"A", "B"}, 7}}.at(ObjectNamespace("A", "B"))), 7);
}

TEST(ObjectNamespace, IsItsOwnAncestor) {
    EXPECT_TRUE(ObjectNamespace("A", "B").is_ancestor_of(ObjectNamespace("A", "B")));
    EXPECT_TRUE(ObjectNamespace().is_ancestor_of(ObjectNamespace()));
}

TEST(ObjectNamespace, RootIsEverybodysAncestor) {
    EXPECT_TRUE(ObjectNamespace().is_ancestor_of(ObjectNamespace("A")));
    EXPECT_TRUE(ObjectNamespace().is_ancestor_of(ObjectNamespace("", "B", "C")));
}

TEST(ObjectNamespace, PrefixIsAnAncestor) {
    EXPECT_TRUE(ObjectNamespace("A").is_ancestor_of(ObjectNamespace("A", "B")));
    EXPECT_TRUE(ObjectNamespace("A", "B").is_ancestor_of(ObjectNamespace("A", "B", "C", "D")));
}

TEST(ObjectNamespace, DescendantIsNotAnAncestor) {
    EXPECT_FALSE(ObjectNamespace("A", "B").is_ancestor_of(ObjectNamespace("A")));
    EXPECT_FALSE(ObjectNamespace("A").is_ancestor_of(ObjectNamespace()));
}

TEST(ObjectNamespace, PrefixOfAComponentIsNoAncestor) {
    EXPECT_FALSE(ObjectNamespace("A", "B").is_ancestor_of(ObjectNamespace("A", "BC")));
    EXPECT_FALSE(ObjectNamespace("A", "BC").is_ancestor_of(ObjectNamespace("A", "B", "C")));
}

TEST(ObjectNamespace, DifferenceAnywhereInThePrefixIsNoAncestor) {
    EXPECT_FALSE(ObjectNamespace("X", "B").is_ancestor_of(ObjectNamespace("A", "B", "C")));
    EXPECT_FALSE(ObjectNamespace("A", "X").is_ancestor_of(ObjectNamespace("A", "B", "C")));
}

TEST(ObjectNamespace, RootHasNoParent) {
    EXPECT_FALSE(ObjectNamespace().parentNamespace().is_initialized());
}

TEST(ObjectNamespace, ParentOfATopLevelNamespaceIsTheRoot) {
    const boost::optional<ObjectNamespace> parent = ObjectNamespace("A").parentNamespace();
    ASSERT_TRUE(parent.is_initialized());
    EXPECT_TRUE(parent->is_root());
    EXPECT_EQ(parent->str(), "|");
}

TEST(ObjectNamespace, ParentLacksTheLastComponent) {
    const boost::optional<ObjectNamespace> parent = ObjectNamespace("A", "B", "C").parentNamespace();
    ASSERT_TRUE(parent.is_initialized());
    EXPECT_EQ(*parent, ObjectNamespace("A", "B"));
}

TEST(ObjectNamespace, ParentHasItsOwnText) {
    const ObjectNamespace ns("A", "B");
    ASSERT_EQ(ns.str(), "|A|B|");
    EXPECT_EQ(ns.parentNamespace()->str(), "|A|");
    EXPECT_EQ(ns.str(), "|A|B|");
}

TEST(ObjectNamespace, JoinAppendsAComponent) {
    EXPECT_EQ(ObjectNamespace("A") | "B", ObjectNamespace("A", "B"));
    EXPECT_EQ(ObjectNamespace() | std::string("A"), ObjectNamespace("A"));
}

TEST(ObjectNamespace, JoinNeitherSplitsNorDecodesTheComponent) {
    EXPECT_EQ(ObjectNamespace("A") | "B|C%20", ObjectNamespace("A", "B|C%20"));
}

TEST(ObjectNamespace, JoinAppendsAnEmptyComponent) {
    EXPECT_EQ((ObjectNamespace("A") | "").str(), "|A||");
}

TEST(ObjectNamespace, JoinAppendsAllComponentsOfTheTail) {
    EXPECT_EQ(ObjectNamespace("A", "B") | ObjectNamespace("C", "D"), ObjectNamespace("A", "B", "C", "D"));
}

TEST(ObjectNamespace, JoinWithTheRootChangesNothing) {
    EXPECT_EQ(ObjectNamespace("A", "B") | ObjectNamespace(), ObjectNamespace("A", "B"));
    EXPECT_EQ(ObjectNamespace() | ObjectNamespace("A", "B"), ObjectNamespace("A", "B"));
    EXPECT_EQ(ObjectNamespace() | ObjectNamespace(), ObjectNamespace());
}

TEST(ObjectNamespace, JoinWithItselfDoublesThePath) {
    const ObjectNamespace ns("A", "B");
    EXPECT_EQ(ns | ns, ObjectNamespace("A", "B", "A", "B"));
    EXPECT_EQ(ns, ObjectNamespace("A", "B"));
}

TEST(ObjectNamespace, JoinLeavesBothOperandsAlone) {
    const ObjectNamespace ns("A");
    const ObjectNamespace tail("B");
    ASSERT_EQ(ns.str(), "|A|");
    ASSERT_EQ(tail.str(), "|B|");
    EXPECT_EQ((ns | tail).str(), "|A|B|");
    EXPECT_EQ(ns, ObjectNamespace("A"));
    EXPECT_EQ(ns.str(), "|A|");
    EXPECT_EQ(tail, ObjectNamespace("B"));
    EXPECT_EQ(tail.str(), "|B|");
}

TEST(ObjectNamespace, JoinHasItsOwnText) {
    const ObjectNamespace ns("A");
    ASSERT_EQ(ns.str(), "|A|");
    EXPECT_EQ((ns | "x").str(), "|A|x|");
}

TEST(ObjectNamespace, JoinsBuildPathsOfAnyLength) {
    ObjectNamespace ns;
    std::string text = "|";
    for (int i = 0; i < 1000; ++i) {
        ns = ns | std::to_string(i);
        text += std::to_string(i) + "|";
    }
    EXPECT_EQ(ns.str(), text);
}

TEST(ObjectNamespace, RootConstantsAreTopLevelNamespaces) {
    EXPECT_EQ(root_namespaces::ARKWELL, ObjectNamespace("ARKWELL"));
    EXPECT_EQ(root_namespaces::SECURITY, ObjectNamespace("SECURITY"));
    EXPECT_EQ(root_namespaces::MANAGE, ObjectNamespace("MANAGE"));
    EXPECT_EQ(root_namespaces::PROTECTION, ObjectNamespace("PROTECTION"));
    EXPECT_EQ(root_namespaces::STORAGE, ObjectNamespace("STORAGE"));
    EXPECT_EQ(root_namespaces::DEPLOYMENT, ObjectNamespace("DEPLOYMENT"));
    EXPECT_EQ(root_namespaces::OBJECT_TYPES, ObjectNamespace("OBJECT_TYPES"));
    EXPECT_EQ(root_namespaces::ASSETS, ObjectNamespace("ASSETS"));
}

TEST(ObjectNamespace, OperationConstantsLieBelowOperations) {
    EXPECT_EQ(root_namespaces::operations::VIEW, ObjectNamespace("OPERATIONS", "VIEW"));
    EXPECT_EQ(root_namespaces::operations::ADD, ObjectNamespace("OPERATIONS", "ADD"));
    EXPECT_EQ(root_namespaces::operations::UPDATE, ObjectNamespace("OPERATIONS", "UPDATE"));
    EXPECT_EQ(root_namespaces::operations::DELETE_NS, ObjectNamespace("OPERATIONS", "DELETE"));
    EXPECT_EQ(root_namespaces::operations::MANAGE_ACCESS, ObjectNamespace("OPERATIONS", "MANAGE_ACCESS"));
}

TEST(ObjectNamespaceProperties, OrderIsThatOfTheComponentSequences) {
    std::mt19937 random = numbersFrom(1);
    for (int i = 0; i < 20000; ++i) {
        const Path a = randomPath(random);
        const Path b = randomPath(random);
        ASSERT_EQ(fromPath(a) < fromPath(b), a < b) << fromPath(a).str() << " " << fromPath(b).str();
        ASSERT_EQ(fromPath(a) == fromPath(b), a == b) << fromPath(a).str() << " " << fromPath(b).str();
    }
}

TEST(ObjectNamespaceProperties, OrderIsAStrictWeakOrdering) {
    std::mt19937 random = numbersFrom(2);
    for (int i = 0; i < 20000; ++i) {
        const ObjectNamespace a = fromPath(randomPath(random));
        const ObjectNamespace b = fromPath(randomPath(random));
        const ObjectNamespace c = fromPath(randomPath(random));
        ASSERT_FALSE(a < a);
        ASSERT_FALSE(a < b && b < a);
        ASSERT_TRUE(!(a < b && b < c) || a < c);
        ASSERT_TRUE(!(equivalent(a, b) && equivalent(b, c)) || equivalent(a, c));
        ASSERT_EQ(equivalent(a, b), a == b);
    }
}

TEST(ObjectNamespaceProperties, AncestorsAreThePrefixes) {
    std::mt19937 random = numbersFrom(3);
    int ancestors = 0;
    for (int i = 0; i < 20000; ++i) {
        const Path a = randomPath(random);
        const Path b = randomPath(random);
        ancestors += isPrefix(a, b) ? 1 : 0;
        ASSERT_EQ(fromPath(a).is_ancestor_of(fromPath(b)), isPrefix(a, b))
            << fromPath(a).str() << " " << fromPath(b).str();
    }
    EXPECT_GT(ancestors, 1000);
}

TEST(ObjectNamespaceProperties, ParentUndoesAJoin) {
    std::mt19937 random = numbersFrom(4);
    for (int i = 0; i < 2000; ++i) {
        const ObjectNamespace ns = fromPath(randomPath(random));
        const ObjectNamespace child = ns | "child";
        ASSERT_EQ(*child.parentNamespace(), ns);
        ASSERT_TRUE(ns.is_ancestor_of(child));
        ASSERT_TRUE(ns < child);
    }
}

TEST(ObjectNamespaceProperties, JoinIsConcatenation) {
    std::mt19937 random = numbersFrom(5);
    for (int i = 0; i < 2000; ++i) {
        const Path head = randomPath(random);
        const Path tail = randomPath(random);
        Path both = head;
        both.insert(both.end(), tail.begin(), tail.end());
        ASSERT_EQ(fromPath(head) | fromPath(tail), fromPath(both));
    }
}
