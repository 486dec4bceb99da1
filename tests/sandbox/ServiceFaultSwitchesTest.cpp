#include "sandbox/FaultSwitches.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>
#include <vector>

using namespace Tesmor::Arkwell::Sandbox;

namespace {

Fault parse(const std::string& text) {
    FaultSwitches faults;
    faults.set({text});
    return faults.next("GET", "/a/b").value();
}

std::string refusalOf(const std::string& text) {
    try {
        FaultSwitches().set({text});
    } catch (const std::invalid_argument& refused) {
        return refused.what();
    }
    return "taken";
}

}  // namespace

TEST(ServiceFaultSwitchesTest, KnowsEveryKind) {
    const std::vector<std::pair<std::string, Fault::Kind>> kinds{
        {"delay", Fault::Kind::DELAY},
        {"close", Fault::Kind::CLOSE},
        {"refuse", Fault::Kind::REFUSE},
        {"status", Fault::Kind::WRONG_STATUS},
        {"malformed", Fault::Kind::MALFORMED},
        {"huge", Fault::Kind::HUGE_BODY},
        {"close-after", Fault::Kind::CLOSE_AFTER},
        {"kill", Fault::Kind::KILL},
        {"kill-after", Fault::Kind::KILL_AFTER},
    };
    for (const auto& [name, kind] : kinds) {
        EXPECT_EQ(parse("/=" + name).kind, kind) << name;
    }
}

TEST(ServiceFaultSwitchesTest, TakesAnArgument) {
    EXPECT_EQ(parse("/=delay:50").argument, 50U);
    EXPECT_EQ(parse("/=delay").argument, 1000U);
    EXPECT_EQ(parse("/=status:404").argument, 404U);
    EXPECT_EQ(parse("/=status").argument, 500U);
    EXPECT_EQ(parse("/=huge").argument, 314'572'800U);
}

TEST(ServiceFaultSwitchesTest, ConcernsPathsThatBeginLikeItsOwn) {
    FaultSwitches faults;
    faults.set({"/a/b=close"});
    EXPECT_TRUE(faults.next("GET", "/a/b"));
    EXPECT_TRUE(faults.next("POST", "/a/bc/d"));
    EXPECT_FALSE(faults.next("GET", "/a"));
    EXPECT_FALSE(faults.next("GET", "/x/a/b"));
}

TEST(ServiceFaultSwitchesTest, ConcernsItsMethodOnly) {
    FaultSwitches faults;
    faults.set({"POST /=close"});
    EXPECT_FALSE(faults.next("GET", "/"));
    EXPECT_TRUE(faults.next("POST", "/"));
}

TEST(ServiceFaultSwitchesTest, ConcernsTheNthRequestOnly) {
    FaultSwitches faults;
    faults.set({"/=close@2"});
    EXPECT_FALSE(faults.next("GET", "/"));
    EXPECT_TRUE(faults.next("GET", "/"));
    EXPECT_FALSE(faults.next("GET", "/"));
}

TEST(ServiceFaultSwitchesTest, MakesTheFirstThatConcernsARequest) {
    FaultSwitches faults;
    faults.set({"/a=status:400"});
    faults.set({"/=status:401"});
    EXPECT_EQ(faults.next("GET", "/a")->argument, 400U);
    EXPECT_EQ(faults.next("GET", "/b")->argument, 401U);
}

TEST(ServiceFaultSwitchesTest, TakesAPathWithAnEqualsSign) {
    FaultSwitches faults;
    faults.set({"/a=b=close"});
    EXPECT_TRUE(faults.next("GET", "/a=b"));
}

TEST(ServiceFaultSwitchesTest, SaysWhatIsWrongWithAText) {
    EXPECT_EQ(refusalOf("close"), "no fault, not of the form PATH=KIND: close");
    EXPECT_EQ(refusalOf("a=close"), "no fault, the path must begin with /: a=close");
    EXPECT_EQ(refusalOf("/=explode"), "no fault, \"explode\" is not known: /=explode");
    EXPECT_EQ(refusalOf("/=close:1"), "no fault, close takes no argument: /=close:1");
    EXPECT_EQ(refusalOf("/=delay:x"), "no fault, \"x\" is not a number: /=delay:x");
    EXPECT_EQ(refusalOf("/=close@x"), "no fault, \"x\" is not a number: /=close@x");
    EXPECT_EQ(refusalOf("/=close@"), "no fault, \"\" is not a number: /=close@");
    EXPECT_EQ(refusalOf("/=close@0"), "no fault, requests are counted from 1: /=close@0");
    EXPECT_EQ(refusalOf("/=delay:"), "no fault, \"\" is not a number: /=delay:");
    EXPECT_EQ(refusalOf("/=status:99"), "no fault, the status must be 200 to 599: /=status:99");
}
