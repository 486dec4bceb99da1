#include "CommandRun.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <set>
#include <string>

// rbac-cache report: that it writes the page of the cache. What the page does is tested in a browser.

using testing::HasSubstr;
using testing::StartsWith;
using testing_support::CacheCommandTest;
using testing_support::CommandRun;
using testing_support::readFile;
using testing_support::runProgram;
using testing_support::writeFile;

using RbacCacheReportTest = CacheCommandTest;

namespace {

std::set<std::string> namesIn(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

}  // namespace

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

TEST_F(RbacCacheReportTest, ReplacesTheFileByOneThatOnlyItsOwnerMayRead) {
    const std::string folder = directory_ / "reports";
    std::filesystem::create_directories(folder);
    const std::string file = folder + "/access.html";
    const std::string old = folder + "/old.html";
    writeFile(file, "old");
    std::filesystem::permissions(file, std::filesystem::perms{0644});
    std::filesystem::create_hard_link(file, old);
    const std::string page = succeed({"report"});
    EXPECT_EQ(run({"report", "--output", file}).status, 0);
    EXPECT_EQ(readFile(file), page);
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms{0600});
    EXPECT_EQ(readFile(old), "old");
    EXPECT_EQ(namesIn(folder), (std::set<std::string>{"access.html", "old.html"}));
}

TEST_F(RbacCacheReportTest, ReplacesTheFileThatALinkLeadsTo) {
    const std::string file = directory_ / "access.html";
    const std::string link = directory_ / "link.html";
    writeFile(file, "old");
    std::filesystem::create_symlink("access.html", link);
    EXPECT_EQ(run({"report", "--output", link}), (CommandRun{0, "wrote " + link + ": 6 objects\n", ""}));
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_THAT(readFile(file), StartsWith("<!DOCTYPE html>"));
}

TEST_F(RbacCacheReportTest, LeavesNothingBehindWhereTheFileCannotBeReplaced) {
    const std::string folder = directory_ / "reports";
    std::filesystem::create_directories(folder);
    const std::string file = folder + "/access.html";
    writeFile(file, "old");
    const std::string command = std::string("ulimit -f 1; trap '' XFSZ; exec '") + RBAC_CACHE + "' report --output '" +
                                file + "' --cache '" + cache() + "'";
    EXPECT_EQ(runProgram({"sh", "-c", command}),
              (CommandRun{3, "", "rbac-cache: cannot write " + file + ": File too large\n"}));
    EXPECT_EQ(readFile(file), "old");
    EXPECT_EQ(namesIn(folder), std::set<std::string>{"access.html"});
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
