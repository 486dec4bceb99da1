#include "testing/FailingAllocations.h"

#include <rbac/ObjectNamespace.h>

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

using Tesmor::Arkwell::Rbac::namespaceToString;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using testing_support::failEachAllocation;
using testing_support::liveAllocations;

namespace {

// Long enough to need memory of its own.
const std::string FIRST = "the first of several long components";
const std::string SECOND = "the second of several long components";
const std::string THIRD = "the third of several long components";

/// Lets `operation` fail at each of its allocations, expects it to leak nothing, and gives the number of failures.
template <class Operation>
int leakFreeFailures(const Operation& operation) {
    operation();  // so that what is allocated once and kept is there already
    const long before = liveAllocations();
    return failEachAllocation(operation, [before] { EXPECT_EQ(liveAllocations(), before); });
}

}  // namespace

TEST(ObjectNamespaceOutOfMemory, ConstructionThrowsAndLeaksNothing) {
    EXPECT_GT(leakFreeFailures([] { ObjectNamespace(FIRST, SECOND, THIRD, FIRST, SECOND, THIRD); }), 6);
}

TEST(ObjectNamespaceOutOfMemory, CopyThrowsAndLeaksNothing) {
    const ObjectNamespace ns(FIRST, SECOND);
    ns.str();
    EXPECT_EQ(leakFreeFailures([&ns] { ObjectNamespace(ns).is_root(); }), 5);
}

TEST(ObjectNamespaceOutOfMemory, FailedAssignmentChangesNothing) {
    const ObjectNamespace source(THIRD, FIRST, SECOND);
    source.str();
    ObjectNamespace target(FIRST, SECOND);
    const std::string text = target.str();
    const ObjectNamespace before = target;
    const int failures = failEachAllocation([&] { target = source; },
                                            [&] {
                                                EXPECT_EQ(target, before);
                                                EXPECT_EQ(target.str(), text);
                                            });
    EXPECT_GT(failures, 3);
    EXPECT_EQ(target, source);
    EXPECT_EQ(target.str(), source.str());
}

TEST(ObjectNamespaceOutOfMemory, JoinsThrowAndLeakNothing) {
    const ObjectNamespace ns(FIRST, SECOND);
    const ObjectNamespace tail(THIRD);
    EXPECT_GT(leakFreeFailures([&] { ns | THIRD; }), 3);
    EXPECT_GT(leakFreeFailures([&] { ns | tail; }), 3);
}

TEST(ObjectNamespaceOutOfMemory, ParentThrowsAndLeaksNothing) {
    const ObjectNamespace ns(FIRST, SECOND, THIRD);
    EXPECT_GT(leakFreeFailures([&ns] { ns.parentNamespace(); }), 3);
}

TEST(ObjectNamespaceOutOfMemory, TextIsComputedLater) {
    const ObjectNamespace ns(FIRST, SECOND);
    const std::string expected = ObjectNamespace(FIRST, SECOND).str();
    EXPECT_GT(failEachAllocation([&ns] { ns.str(); }, [] {}), 1);
    EXPECT_EQ(ns.str(), expected);
}

TEST(ObjectNamespaceOutOfMemory, LogTextDoesNotLatch) {
    const ObjectNamespace ns(FIRST, SECOND);
    const std::string expected = ObjectNamespace(FIRST, SECOND).str();
    EXPECT_GT(failEachAllocation([&ns] { ns.toLogStr(); }, [] {}), 1);
    EXPECT_EQ(ns.toLogStr(), expected);
}

TEST(ObjectNamespaceOutOfMemory, ParsingNeverGivesAnIncompleteNamespace) {
    const ObjectNamespace expected(FIRST, SECOND, THIRD);
    const std::string text = expected.str();
    EXPECT_GT(leakFreeFailures([&] {
                  const auto ns = boost::lexical_cast<ObjectNamespace>(text.c_str());
                  ASSERT_EQ(ns, expected);
              }),
              3);
}

TEST(ObjectNamespaceOutOfMemory, ConversionPassesTheFailureOn) {
    const ObjectNamespace ns(FIRST, SECOND);
    ns.str();
    std::string out = "before";
    const int failures =
        failEachAllocation([&] { EXPECT_EQ(namespaceToString(ns, out), 0); }, [&out] { EXPECT_EQ(out, "before"); });
    EXPECT_GT(failures, 0);
    EXPECT_EQ(out, ns.str());
}
