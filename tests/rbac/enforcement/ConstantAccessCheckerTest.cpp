#include "rbac/enforcement/ConstantAccessChecker.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

using Tesmor::Arkwell::Rbac::AccessChecker;
using Tesmor::Arkwell::Rbac::AccessControlClient;
using Tesmor::Arkwell::Rbac::ConstantAccessChecker;
using Tesmor::Arkwell::Rbac::ObjectNamespace;

TEST(ConstantAccessChecker, TrueAllowsEverything) {
    const ConstantAccessChecker<true> checker;
    EXPECT_TRUE(checker.checkAccess(ObjectNamespace("ARKWELL")));
    EXPECT_TRUE(checker.checkAccess(ObjectNamespace("", "no such object", "\xFF")));
}

TEST(ConstantAccessChecker, TrueAllowsTheRoot) {
    EXPECT_TRUE(ConstantAccessChecker<true>().checkAccess(ObjectNamespace()));
}

TEST(ConstantAccessChecker, FalseAllowsNothing) {
    const ConstantAccessChecker<false> checker;
    EXPECT_FALSE(checker.checkAccess(ObjectNamespace("ARKWELL")));
    EXPECT_FALSE(checker.checkAccess(ObjectNamespace("", "no such object", "\xFF")));
}

TEST(ConstantAccessChecker, FalseDoesNotAllowTheRoot) {
    EXPECT_FALSE(ConstantAccessChecker<false>().checkAccess(ObjectNamespace()));
}

TEST(ConstantAccessChecker, AnswersThroughItsInterface) {
    const boost::shared_ptr<const AccessChecker> yes = boost::make_shared<ConstantAccessChecker<true>>();
    const boost::shared_ptr<const AccessChecker> no = boost::make_shared<ConstantAccessChecker<false>>();
    EXPECT_TRUE(yes->checkAccess(ObjectNamespace("ARKWELL")));
    EXPECT_FALSE(no->checkAccess(ObjectNamespace("ARKWELL")));
}

TEST(ConstantAccessChecker, ItsTypeIsKnownToPrograms) {
    const std::unique_ptr<const AccessChecker> checker = std::make_unique<ConstantAccessChecker<false>>();
    EXPECT_NE(dynamic_cast<const ConstantAccessChecker<false>*>(checker.get()), nullptr);
    EXPECT_EQ(dynamic_cast<const ConstantAccessChecker<true>*>(checker.get()), nullptr);
}

TEST(AccessInterfaces, AreAbstractAndDestroyedThroughTheBase) {
    EXPECT_TRUE(std::is_abstract<AccessChecker>::value);
    EXPECT_TRUE(std::has_virtual_destructor<AccessChecker>::value);
    EXPECT_TRUE(std::is_abstract<AccessControlClient>::value);
    EXPECT_TRUE(std::has_virtual_destructor<AccessControlClient>::value);
}
