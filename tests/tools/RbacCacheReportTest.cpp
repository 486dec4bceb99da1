#include "CommandRun.h"

#include <gmock/gmock.h>

// rbac-cache report: that it writes the page of the cache. What the page does is tested in a browser.

using testing::HasSubstr;
using testing::StartsWith;
using testing_support::CacheCommandTest;
using testing_support::CommandRun;
using testing_support::readFile;

using RbacCacheReportTest = CacheCommandTest;

TEST_F(RbacCacheReportTest, WritesThePageOfTheCache) {
    const std::string page = succeed({"report"});
    EXPECT_THAT(page, StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, HasSubstr(R"(,"publication":1,"grants":9,
"operations":[[0,"|OPERATIONS|ADD|"],[32,"|OPERATIONS|UPDATE|"],[37,"|OPERATIONS|VIEW|"]],
"roles":[],
"trees":[[],[[2,[37]]],[[5,[0,37]],[9,[32]]],[[5,[0,37]]],[[7,[37]]],[[5,[32]],[7,[37]]],[[5,[32]]],[[5,[0]]],[[-3,[31]]]],
"names":["","ASSETS","db+1","t","web","eu","a%2F","STORAGE"],
"states":"22120022",
"parents":[0,0,1,2,1,4,5,0],
"own":[1,3,5,0,0,0,7,0],
"child":[1,2,4,0,0,0,6,8]})"));
}

TEST_F(RbacCacheReportTest, WritesItToAFile) {
    const std::string file = directory_ / "access.html";
    EXPECT_EQ(run({"report", "--output", file}), (CommandRun{0, "wrote " + file + ": 6 objects\n", ""}));
    EXPECT_EQ(readFile(file), succeed({"report"}));
    EXPECT_EQ(succeed({"report", "--output", file, "--json"}), R"({"file":")" + file + R"(","objects":6})" + "\n");
}

TEST_F(RbacCacheReportTest, SaysThatTheFileCannotBeWritten) {
    const std::string file = directory_ / "none/access.html";
    EXPECT_EQ(run({"report", "--output", file}),
              (CommandRun{3, "", "rbac-cache: cannot write " + file + ": No such file or directory\n"}));
    EXPECT_EQ(run({"report", "--output", "/dev/full"}),
              (CommandRun{3, "", "rbac-cache: cannot write /dev/full: No space left on device\n"}));
}

TEST_F(RbacCacheReportTest, DoesNotMixThePageWithJson) {
    EXPECT_EQ(run({"report", "--json"}),
              (CommandRun{2, "", "rbac-cache: --json says what was written, so it needs --output\n"}));
}
