#include "rbac/enforcement/ConstantAccessChecker.h"
#include "rbac/enforcement/DiskAccessChecker.h"
#include "testing/RawCache.h"
#include "testing/SystemCalls.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/BulkAccess.h>
#include <rbac/EC_exception.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Tesmor::Arkwell::Rbac;
using testing_support::Grants;
using testing_support::RawCache;
using testing_support::TemporaryDirectory;

namespace {

constexpr int ROLE = 7;
constexpr int OPERATION = 37;
const Grants NOTHING;
const Grants GRANTED{{ROLE, {OPERATION}}};

class BulkAccess : public testing::Test {
protected:
    std::vector<bool> ask(const std::vector<ObjectNamespace>& objects) {
        files.write();
        const auto cache = boost::make_shared<AccessCache>(Manifest("some cache", directory_.path()));
        return checkAccessToAll(DiskAccessChecker(cache, {ROLE}, Operation(OPERATION), 0), objects);
    }

    TemporaryDirectory directory_;
    RawCache files{directory_.path()};
};

using Answers = std::vector<bool>;

/// Knows one object.
class OwnChecker : public AccessChecker {
public:
    bool checkAccess(const ObjectNamespace& object) const override { return object == ObjectNamespace("MINE"); }
};

}  // namespace

TEST_F(BulkAccess, AnswersNothingForNothing) {
    files.put("|A|", 0, GRANTED);
    EXPECT_EQ(ask({}), Answers{});
}

TEST_F(BulkAccess, AnswersInTheOrderOfTheObjects) {
    files.put("|A|", 1, NOTHING, GRANTED);
    files.put("|A|1|", 1);
    files.put("|A|2|", 0);
    files.put("|A|3|", 0, GRANTED);
    EXPECT_EQ(ask({{"A", "2"}, {"A", "3"}, {"A", "1"}, {"A"}, {"A", "absent"}, {"B"}}),
              (Answers{false, true, true, false, true, false}));
}

TEST_F(BulkAccess, AsksTheRootAsOneOfThem) {
    files.put("|", 0, NOTHING, GRANTED);
    EXPECT_EQ(ask({ObjectNamespace(), {"A"}, {"A", "B"}}), (Answers{false, true, true}));
    files.put("|", 0, GRANTED, NOTHING);
    EXPECT_EQ(ask({ObjectNamespace(), {"A"}, {"A", "B"}}), (Answers{true, false, false}));
}

TEST_F(BulkAccess, DeniesAllInAnEmptyCache) {
    EXPECT_EQ(ask({ObjectNamespace(), {"A"}, {"A", "B"}}), (Answers{false, false, false}));
}

TEST_F(BulkAccess, AnswersTheSameObjectEachTimeItIsNamed) {
    files.put("|A|", 0, GRANTED);
    EXPECT_EQ(ask({{"A"}, {"B"}, {"A"}, {"A"}}), (Answers{true, false, true, true}));
}

TEST_F(BulkAccess, AnswersMoreObjectsThanOneSliceHolds) {
    files.put("|A|", 0, NOTHING, GRANTED);
    std::vector<ObjectNamespace> objects;
    Answers expected;
    for (std::size_t i = 0; i < 2 * MOST_OBJECTS_AT_ONCE + 3; ++i) {
        objects.emplace_back(i % 3 == 0 ? "A" : "B", std::to_string(i));
        expected.push_back(i % 3 == 0);
    }
    EXPECT_TRUE(ask(objects) == expected);
}

TEST_F(BulkAccess, TakesTheLockAnewForEachSlice) {
    files.write();
    const auto cache = boost::make_shared<AccessCache>(Manifest("some cache", directory_.path()));
    const DiskAccessChecker checker(cache, {ROLE}, Operation(OPERATION), 0);
    // The sizes of the files are compared whenever the lock has been taken.
    const testing_support::CallCount count(testing_support::SystemCall::FSTAT, files.objectFile());
    checkAccessToAll(checker, std::vector<ObjectNamespace>(MOST_OBJECTS_AT_ONCE));
    EXPECT_EQ(count.calls(), 1);
    checkAccessToAll(checker, std::vector<ObjectNamespace>(2 * MOST_OBJECTS_AT_ONCE + 1));
    EXPECT_EQ(count.calls(), 1 + 3);
}

TEST_F(BulkAccess, ThrowsWhereTheCacheIsInvalid) {
    files.header.writing = 1;
    try {
        ask({{"A"}});
        FAIL() << "an answer from files that are being rewritten";
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 12);
    }
}

TEST(BulkAccessToOtherCheckers, AsksAConstantOne) {
    EXPECT_EQ(checkAccessToAll(ConstantAccessChecker<true>(), {{"A"}, {"B"}}), (Answers{true, true}));
    EXPECT_EQ(checkAccessToAll(ConstantAccessChecker<false>(), {{"A"}, {"B"}}), (Answers{false, false}));
}

TEST(BulkAccessToOtherCheckers, AsksOneOfAProgramsOwn) {
    EXPECT_EQ(checkAccessToAll(OwnChecker(), {{"A"}, {"MINE"}, {"B"}}), (Answers{false, true, false}));
}
