#include "rbac/enforcement/DiskAccessChecker.h"
#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/EC_exception.h>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <set>
#include <string>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::DiskAccessChecker;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using testing_support::fileLockIsFree;
using testing_support::Grants;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::RawCache;
using testing_support::setWritingFlag;
using testing_support::TemporaryDirectory;

namespace {

constexpr std::int32_t OPERATION = 37;
constexpr std::int32_t OTHER_OPERATION = 5;
constexpr std::uint8_t INHERITS = 1;
constexpr std::uint8_t STANDS_ALONE = 0;
constexpr int ROLE = 7;
constexpr int OTHER_ROLE = 8;

const Grants NOTHING;
const Grants GRANTED{{ROLE, {OPERATION}}};

const ObjectNamespace ROOT;
const ObjectNamespace PARENT("PARENT");
const ObjectNamespace OBJECT("PARENT", "OBJECT");

class DiskAccessCheckerTest : public testing::Test {
protected:
    DiskAccessChecker checker(const std::set<int>& roles, std::int32_t operation = OPERATION, int option = 0) {
        return {cache(), roles, Operation(operation), option};
    }

    bool allowed(const ObjectNamespace& object, const std::set<int>& roles = {ROLE}) {
        return checker(roles).checkAccess(object);
    }

    const boost::shared_ptr<const AccessCache>& cache() {
        if (!cache_) {
            files_.write();
            cache_ = boost::make_shared<AccessCache>(Manifest("some cache", files_.directory()));
        }
        return cache_;
    }

    bool lockIsFree() const { return fileLockIsFree(files_.manifest()); }

    LogCapture log_;
    TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
    boost::shared_ptr<const AccessCache> cache_;
};

}  // namespace

// The object itself.

TEST_F(DiskAccessCheckerTest, OwnBitGrants) {
    files_.put("|PARENT|OBJECT|", STANDS_ALONE, GRANTED);
    EXPECT_TRUE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, OwnBitOfAnotherOperationDoesNot) {
    files_.put("|PARENT|OBJECT|", INHERITS, {{ROLE, {OTHER_OPERATION, OPERATION - 1, OPERATION + 1}}});
    EXPECT_FALSE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, OwnBitOfAnotherRoleDoesNot) {
    files_.put("|PARENT|OBJECT|", INHERITS, {{OTHER_ROLE, {OPERATION}}});
    EXPECT_FALSE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, ChildBitOfTheObjectDoesNot) {
    files_.put("|PARENT|OBJECT|", INHERITS, NOTHING, GRANTED);
    EXPECT_FALSE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, AnyRoleSuffices) {
    files_.put("|A|", STANDS_ALONE, {{1, {OTHER_OPERATION}}, {9, {OPERATION}}});
    EXPECT_TRUE(allowed(ObjectNamespace("A"), {-3, 1, 5, 9}));
    EXPECT_TRUE(allowed(ObjectNamespace("A"), {9, 1000}));
    EXPECT_FALSE(allowed(ObjectNamespace("A"), {-3, 1, 5, 8, 10}));
}

TEST_F(DiskAccessCheckerTest, RolesReachBothEndsOf32Bits) {
    constexpr int LEAST = std::numeric_limits<int>::min();
    constexpr int GREATEST = std::numeric_limits<int>::max();
    files_.put("|A|", STANDS_ALONE, {{LEAST, {OPERATION}}, {-1, {OPERATION}}, {GREATEST, {OPERATION}}});
    for (const int role : {LEAST, -1, GREATEST}) {
        EXPECT_TRUE(allowed(ObjectNamespace("A"), {role})) << role;
    }
    for (const int role : {LEAST + 1, 0, 1, GREATEST - 1}) {
        EXPECT_FALSE(allowed(ObjectNamespace("A"), {role})) << role;
    }
}

TEST_F(DiskAccessCheckerTest, RoleZeroIsARoleLikeOthersHere) {
    files_.put("|A|", STANDS_ALONE, {{0, {OPERATION}}});
    files_.put("|B|", STANDS_ALONE, GRANTED);
    EXPECT_TRUE(allowed(ObjectNamespace("A"), {0}));
    EXPECT_FALSE(allowed(ObjectNamespace("B"), {0}));
}

// From the ancestors.

TEST_F(DiskAccessCheckerTest, ObjectThatStandsAloneTakesNothingFromItsParent) {
    files_.put("|PARENT|OBJECT|", STANDS_ALONE);
    files_.put("|PARENT|", INHERITS, NOTHING, GRANTED);
    EXPECT_FALSE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, ObjectThatInheritsTakesTheChildBitOfItsParent) {
    files_.put("|PARENT|OBJECT|", INHERITS);
    files_.put("|PARENT|", STANDS_ALONE, NOTHING, GRANTED);
    EXPECT_TRUE(allowed(OBJECT));
    EXPECT_TRUE(allowed(OBJECT, {OTHER_ROLE, ROLE}));
    EXPECT_FALSE(allowed(OBJECT, {OTHER_ROLE}));
}

TEST_F(DiskAccessCheckerTest, AnyNonzeroInheritFlagInherits) {
    for (const int flag : {1, 2, 0x80, 0xFF}) {
        const std::string component = std::to_string(flag);
        files_.put("|PARENT|" + component + "|", static_cast<std::uint8_t>(flag));
    }
    files_.put("|PARENT|", STANDS_ALONE, NOTHING, GRANTED);
    for (const int flag : {1, 2, 0x80, 0xFF}) {
        EXPECT_TRUE(allowed(PARENT | std::to_string(flag))) << flag;
    }
}

TEST_F(DiskAccessCheckerTest, OwnBitOfAnAncestorDoesNotGrant) {
    files_.put("|PARENT|OBJECT|", INHERITS);
    files_.put("|PARENT|", INHERITS, GRANTED);
    files_.put("|", INHERITS, GRANTED);
    EXPECT_FALSE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, BitsAreNotMixedAcrossRoles) {
    // One role holds the operation nowhere, the other one only another operation.
    files_.put("|PARENT|OBJECT|", INHERITS, {{ROLE, {OTHER_OPERATION}}}, {{ROLE, {OPERATION}}});
    files_.put("|PARENT|", INHERITS, {{OTHER_ROLE, {OPERATION}}}, {{OTHER_ROLE, {OTHER_OPERATION}}});
    EXPECT_FALSE(allowed(OBJECT, {ROLE, OTHER_ROLE}));
}

TEST_F(DiskAccessCheckerTest, AbsentObjectTakesTheChildBitOfItsParent) {
    files_.put("|PARENT|", STANDS_ALONE, NOTHING, GRANTED);
    EXPECT_TRUE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, AbsentParentIsPassedOver) {
    files_.put("|", STANDS_ALONE, NOTHING, GRANTED);
    EXPECT_TRUE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, GrandparentThatStandsAloneEndsTheWalk) {
    files_.put("|PARENT|", STANDS_ALONE);
    files_.put("|", INHERITS, NOTHING, GRANTED);
    EXPECT_FALSE(allowed(OBJECT | "DEEPER"));
}

TEST_F(DiskAccessCheckerTest, AncestorThatInheritsIsPassedOver) {
    files_.put("|PARENT|OBJECT|", INHERITS);
    files_.put("|PARENT|", INHERITS, NOTHING, {{ROLE, {OTHER_OPERATION}}});
    files_.put("|", STANDS_ALONE, NOTHING, GRANTED);
    EXPECT_TRUE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, AncestorThatStandsAloneMayGrantItself) {
    files_.put("|PARENT|", STANDS_ALONE, NOTHING, GRANTED);
    files_.put("|", INHERITS);
    EXPECT_TRUE(allowed(OBJECT));
    EXPECT_TRUE(allowed(OBJECT | "DEEPER" | "DEEPEST"));
}

TEST_F(DiskAccessCheckerTest, NearestThatStandsAloneDecides) {
    files_.put("|A|B|C|", INHERITS);
    files_.put("|A|B|", STANDS_ALONE);
    files_.put("|A|", STANDS_ALONE, NOTHING, GRANTED);
    EXPECT_FALSE(allowed(ObjectNamespace("A", "B", "C")));
    EXPECT_FALSE(allowed(ObjectNamespace("A", "B", "C", "D")));
    EXPECT_FALSE(allowed(ObjectNamespace("A", "B", "X")));
    EXPECT_TRUE(allowed(ObjectNamespace("A", "X", "C")));
}

TEST_F(DiskAccessCheckerTest, SiblingsAndDescendantsDoNotMatter) {
    files_.put("|PARENT|OBJECT|", INHERITS);
    files_.put("|PARENT|OBJECTS|", INHERITS, GRANTED, GRANTED);
    files_.put("|PARENT|OBJ|", INHERITS, GRANTED, GRANTED);
    files_.put("|PARENT|OBJECT|CHILD|", INHERITS, GRANTED, GRANTED);
    files_.put("|PARENTS|", INHERITS, GRANTED, GRANTED);
    files_.put("|PAR|", INHERITS, GRANTED, GRANTED);
    files_.put("||", INHERITS, GRANTED, GRANTED);
    EXPECT_FALSE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, NothingOnTheWayMeansNo) {
    files_.put("|OTHER|", INHERITS, GRANTED, GRANTED);
    EXPECT_FALSE(allowed(OBJECT));
    EXPECT_FALSE(allowed(ROOT));
}

TEST_F(DiskAccessCheckerTest, WalkThatRunsOutOfAncestorsMeansNo) {
    files_.put("|PARENT|OBJECT|", INHERITS);
    files_.put("|PARENT|", INHERITS);
    files_.put("|", INHERITS, GRANTED);
    EXPECT_FALSE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, EmptyCacheMeansNo) {
    EXPECT_FALSE(allowed(OBJECT));
    EXPECT_FALSE(allowed(ROOT));
    EXPECT_EQ(log_.linesAt(16), std::vector<LogLine>());
}

// The root.

TEST_F(DiskAccessCheckerTest, RootIsAskedForItsOwnBits) {
    files_.put("|", INHERITS, GRANTED);
    EXPECT_TRUE(allowed(ROOT));
    EXPECT_FALSE(allowed(OBJECT));
}

TEST_F(DiskAccessCheckerTest, ChildBitsOfTheRootAreForItsDescendants) {
    files_.put("|", INHERITS, NOTHING, GRANTED);
    EXPECT_FALSE(allowed(ROOT));
    EXPECT_TRUE(allowed(OBJECT));
    EXPECT_TRUE(allowed(ObjectNamespace("")));
}

TEST_F(DiskAccessCheckerTest, ComponentThatIsEmptyIsNotTheRoot) {
    files_.put("||", INHERITS, GRANTED, NOTHING);
    files_.put("|", STANDS_ALONE);
    EXPECT_TRUE(allowed(ObjectNamespace("")));
    EXPECT_FALSE(allowed(ROOT));
    EXPECT_FALSE(allowed(ObjectNamespace("", "")));
}

// The checker.

TEST_F(DiskAccessCheckerTest, WithoutRolesNothingIsAllowed) {
    files_.put("|", INHERITS, GRANTED, GRANTED);
    files_.put("|PARENT|", INHERITS, {{0, {OPERATION}}}, {{0, {OPERATION}}});
    for (const ObjectNamespace& object : {ROOT, PARENT, OBJECT}) {
        EXPECT_FALSE(allowed(object, {})) << object;
    }
    EXPECT_EQ(log_.linesAt(16), std::vector<LogLine>());
}

TEST_F(DiskAccessCheckerTest, OptionIsNotConsulted) {
    files_.put("|PARENT|OBJECT|", STANDS_ALONE, GRANTED);
    for (const int option : {0, 1, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        EXPECT_TRUE(checker({ROLE}, OPERATION, option).checkAccess(OBJECT)) << option;
        EXPECT_FALSE(checker({OTHER_ROLE}, OPERATION, option).checkAccess(OBJECT)) << option;
    }
}

TEST_F(DiskAccessCheckerTest, OperationsAreApart) {
    files_.put("|A|", STANDS_ALONE, {{ROLE, {0, 31, 32, 95}}});
    const std::set<std::int32_t> held{0, 31, 32, 95};
    for (std::int32_t operation = 0; operation < 130; ++operation) {
        EXPECT_EQ(checker({ROLE}, operation).checkAccess(ObjectNamespace("A")), held.count(operation) == 1)
            << operation;
    }
}

TEST_F(DiskAccessCheckerTest, RolesAreCopied) {
    files_.put("|PARENT|OBJECT|", STANDS_ALONE, GRANTED);
    std::set<int> roles{ROLE};
    const DiskAccessChecker made = checker(roles);
    roles.clear();
    EXPECT_TRUE(made.checkAccess(OBJECT));
}

TEST_F(DiskAccessCheckerTest, CheckerKeepsTheCacheOpen) {
    files_.put("|PARENT|OBJECT|", STANDS_ALONE, GRANTED);
    boost::weak_ptr<const AccessCache> watched(cache());
    {
        const DiskAccessChecker made = checker({ROLE});
        cache_.reset();
        EXPECT_FALSE(watched.expired());
        EXPECT_TRUE(made.checkAccess(OBJECT));
    }
    EXPECT_TRUE(watched.expired());
}

TEST_F(DiskAccessCheckerTest, SeesWhatHasBeenPublishedSince) {
    const DiskAccessChecker made = checker({ROLE});
    EXPECT_FALSE(made.checkAccess(OBJECT));
    files_.put("|PARENT|OBJECT|", STANDS_ALONE, GRANTED);
    files_.write();
    EXPECT_TRUE(made.checkAccess(OBJECT));
}

TEST_F(DiskAccessCheckerTest, LockIsReleasedWhateverTheAnswer) {
    files_.put("|PARENT|OBJECT|", STANDS_ALONE, GRANTED);
    files_.put("|PARENT|ALONE|", STANDS_ALONE);
    EXPECT_TRUE(allowed(OBJECT));
    EXPECT_TRUE(lockIsFree());
    EXPECT_FALSE(allowed(PARENT | "ALONE"));
    EXPECT_TRUE(lockIsFree());
    EXPECT_FALSE(allowed(ROOT));
    EXPECT_TRUE(lockIsFree());
}

TEST_F(DiskAccessCheckerTest, InvalidCachePassesItsStatusOnAndReleasesTheLock) {
    files_.put("|PARENT|OBJECT|", STANDS_ALONE, GRANTED);
    const DiskAccessChecker made = checker({ROLE});
    setWritingFlag(files_, 1);
    log_.clear();
    try {
        made.checkAccess(OBJECT);
        FAIL() << "an invalid cache was used";
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 12);
    }
    EXPECT_EQ(log_.lines(), (std::vector<LogLine>{{16, "AccessCache::Reader",
                                                   "A previous write on cache | was interrupted. Assuming invalid."}}));
    EXPECT_TRUE(lockIsFree());
    setWritingFlag(files_, 0);
    EXPECT_TRUE(made.checkAccess(OBJECT));
}

TEST_F(DiskAccessCheckerTest, InvalidCacheIsNoAnswerEvenWithoutRoles) {
    const DiskAccessChecker made = checker({});
    setWritingFlag(files_, 1);
    EXPECT_THROW(made.checkAccess(OBJECT), EC_exception);
}

TEST_F(DiskAccessCheckerTest, LockThatCannotBeTakenIsPassedOn) {
    const DiskAccessChecker made = checker({ROLE});
    std::filesystem::rename(files_.directory(), directory_ / "aside");
    EXPECT_THROW(made.checkAccess(OBJECT), EC_exception);
}

TEST_F(DiskAccessCheckerTest, DeepObjectTakesItsAccessFromTheTop) {
    files_.put("|", STANDS_ALONE, NOTHING, GRANTED);
    ObjectNamespace object;
    std::string text = "|";
    for (int depth = 1; depth <= 200; ++depth) {
        object = object | std::to_string(depth);
        text += std::to_string(depth) + "|";
        files_.put(text, INHERITS);
    }
    files_.put(text + "own|", STANDS_ALONE, {{OTHER_ROLE, {OPERATION}}});
    EXPECT_TRUE(allowed(object));
    EXPECT_TRUE(allowed(object | "absent" | "absent"));
    EXPECT_FALSE(allowed(object, {OTHER_ROLE}));
    EXPECT_TRUE(allowed(object | "own", {OTHER_ROLE}));
    EXPECT_FALSE(allowed(object | "own"));
}

TEST_F(DiskAccessCheckerTest, DepthsAroundTheRecordsThatFitOnTheStack) {
    files_.put("|", STANDS_ALONE, NOTHING, GRANTED);
    std::string text = "|";
    ObjectNamespace object;
    for (int depth = 1; depth <= 70; ++depth) {
        text += "c|";
        object = object | "c";
        files_.put(text, INHERITS);
    }
    for (ObjectNamespace at = object; !at.is_root(); at = *at.parentNamespace()) {
        EXPECT_TRUE(allowed(at)) << at;
    }
    EXPECT_FALSE(allowed(ROOT));
}

TEST_F(DiskAccessCheckerTest, LongTexts) {
    const std::string component(100'000, 'x');
    files_.put("|" + component + "|", INHERITS, NOTHING, GRANTED);
    files_.put("|" + component + "|" + component + "|", STANDS_ALONE);
    EXPECT_FALSE(allowed(ObjectNamespace(component)));
    EXPECT_TRUE(allowed(ObjectNamespace(component, component + "x")));
    EXPECT_FALSE(allowed(ObjectNamespace(component, component)));
    EXPECT_FALSE(allowed(ObjectNamespace(component + "x", component)));
}
