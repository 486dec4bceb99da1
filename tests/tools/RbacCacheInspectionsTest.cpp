#include "CommandRun.h"
#include "testing/RawCache.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <regex>

// rbac-cache stat and verify, and how the other subcommands treat a damaged cache.

using testing::EndsWith;
using testing::HasSubstr;
using testing_support::CacheCommandTest;
using testing_support::CommandRun;
using testing_support::readFile;
using testing_support::runProgram;

namespace {

class RbacCacheInspectionsTest : public CacheCommandTest {
protected:
    /// Puts a byte into one of the cache's files.
    void damage(const std::string& file, std::size_t offset, char value) const {
        std::string bytes = readFile(cache() + "/" + file);
        bytes.at(offset) = value;
        testing_support::overwriteFile(cache() + "/" + file, bytes);
    }

    /// Lets the first role tree's root refer to what is not there.
    void damageNodes() const { damage("nodes", 24 + 15, 1); }
};

}  // namespace

TEST_F(RbacCacheInspectionsTest, ShowsHowLargeTheCacheIs) {
    const std::string shown = std::regex_replace(succeed({"stat"}), std::regex("2[0-9-]*T[0-9:.]*Z"), "NOW");
    EXPECT_EQ(shown, "cache         " + cache() + "\n" +
                         "scope         |\n"
                         "published     NOW, publication 1, 9 grants\n"
                         "writing flag  not set\n"
                         "objects       6 (inheriting: 5, not inheriting: 1)\n"
                         "roles         5\n"
                         "operations    4\n"
                         "role trees    8, up to 2 nodes deep\n"
                         "word trees    10, up to 2 nodes deep\n"
                         "segment trees up to 2 nodes deep\n"
                         "texts         up to 20 bytes and 4 components\n"
                         "metadata      64 bytes\n"
                         "objects file  112 bytes, 6 records, 6 in use, 0 free (100 % in use)\n"
                         "nodes file    552 bytes, 22 records, 22 in use, 0 free (100 % in use)\n"
                         "segments file 416 bytes, 12 records, 12 in use, 0 free (100 % in use)\n");
}

TEST_F(RbacCacheInspectionsTest, ShowsHowLargeTheCacheIsInJson) {
    const std::string shown = std::regex_replace(succeed({"stat", "--json"}), std::regex("2[0-9-]*T[0-9:.]*Z"), "NOW");
    EXPECT_EQ(
        shown,
        R"({"cache":")" + cache() +
            R"(","namespace":"|","publishedAt":"NOW","publication":1,"grants":9,"writing":false,"faults":0,"objects":6,"notInheriting":1,"roles":5,"operations":4,"roleTrees":8,"roleTreeDepth":2,"wordTrees":10,"wordTreeDepth":2,"segmentTreeDepth":2,"longestText":20,"deepestNesting":4,"files":{"metadata":{"bytes":64},"objects":{"bytes":112,"records":6,"inUse":6,"free":0,"fill":1.0},"nodes":{"bytes":552,"records":22,"inUse":22,"free":0,"fill":1.0},"segments":{"bytes":416,"records":12,"inUse":12,"free":0,"fill":1.0}}})"
            "\n");
}

TEST_F(RbacCacheInspectionsTest, FindsASoundCacheSound) {
    EXPECT_EQ(run({"verify"}), (CommandRun{0, "sound: 6 objects\n", ""}));
    EXPECT_EQ(run({"verify", "--json"}), (CommandRun{0, "", ""}));
}

TEST_F(RbacCacheInspectionsTest, ListsFaults) {
    damageNodes();
    EXPECT_EQ(run({"verify"}), (CommandRun{1,
                                           "nodes, byte 36, at |: the right offset 16777216 leads beyond the 23 "
                                           "records of nodes\n"
                                           "not sound: 1 fault\n",
                                           ""}));
    EXPECT_EQ(
        run({"verify", "--json"}),
        (CommandRun{
            1,
            R"({"file":"nodes","offset":36,"object":"|","what":"the right offset 16777216 leads beyond the 23 records of nodes"})"
            "\n",
            ""}));
}

TEST_F(RbacCacheInspectionsTest, ShowsWhatADamagedCacheHolds) {
    damageNodes();
    EXPECT_THAT(succeed({"stat"}), EndsWith("\nnot sound     1 fault; rbac-cache verify lists them\n"));
}

TEST_F(RbacCacheInspectionsTest, ShowsTheWritingFlag) {
    damage("metadata", 20, 1);
    EXPECT_THAT(succeed({"stat"}), HasSubstr("\nwriting flag  set\n"));
    EXPECT_EQ(run({"verify"}), (CommandRun{1,
                                           "metadata, byte 20: the writing flag is 1: a publication was interrupted\n"
                                           "not sound: 1 fault\n",
                                           ""}));
}

TEST_F(RbacCacheInspectionsTest, LooksAtACacheWithoutOneOfItsFiles) {
    std::filesystem::remove(cache() + "/segments");
    EXPECT_EQ(run({"verify"}), (CommandRun{1,
                                           "segments, byte 0: cannot be opened: No such file or directory\n"
                                           "not sound: 1 fault\n",
                                           ""}));
}

TEST_F(RbacCacheInspectionsTest, SaysThatACacheCannotBeLocked) {
    std::filesystem::remove(cache() + "/manifest.json");
    std::filesystem::create_directory(cache() + "/manifest.json");
    const CommandRun result = run({"verify"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "rbac-cache: the cache cannot be locked; this holds if nobody has written to it meanwhile\n");
}

TEST_F(RbacCacheInspectionsTest, RefusesToLookAtWhatIsNoCache) {
    for (const char* subcommand : {"stat", "verify"}) {
        EXPECT_EQ(
            runProgram({RBAC_CACHE, subcommand, "--cache", directory_.path()}),
            (CommandRun{
                3, "", "rbac-cache: " + directory_.path() + " is no access cache: there is no manifest.json in it\n"}));
    }
}

TEST_F(RbacCacheInspectionsTest, KeepsTheOtherSubcommandsFromADamagedCache) {
    damageNodes();
    const CommandRun refusal{
        3, "",
        "rbac-cache: " + cache() +
            " is damaged: nodes, byte 36: the right offset 16777216 leads beyond the 23 records of "
            "nodes. All faults: rbac-cache verify --cache " +
            cache() + "\n"};
    const std::vector<std::vector<std::string>> commands{{"check", "VIEW", "|", "--roles", "5"},
                                                         {"explain", "VIEW", "|", "--roles", "5"},
                                                         {"who-can", "VIEW", "|"},
                                                         {"what-can", "|", "--roles", "5"},
                                                         {"list", "VIEW", "--roles", "5"},
                                                         {"ls"},
                                                         {"tree"},
                                                         {"report"}};
    for (const std::vector<std::string>& words : commands) {
        EXPECT_EQ(run(words), refusal) << words.front();
    }
    EXPECT_EQ(runProgram({RBAC_CACHE, "diff", cache(), cache()}), refusal);
}

TEST_F(RbacCacheInspectionsTest, TrustsACacheWhenItIsToldTo) {
    damageNodes();
    EXPECT_EQ(run({"list", "VIEW", "--roles", "0", "--trust", "|STORAGE|"}), (CommandRun{0, "|STORAGE|\n", ""}));
}
