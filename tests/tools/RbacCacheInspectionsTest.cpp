#include "CommandRun.h"
#include "testing/RawCache.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

// rbac-cache stat and verify, and how the other subcommands treat a damaged cache.

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testing_support::CacheCommandTest;
using testing_support::CommandRun;
using testing_support::linesOf;
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

    /// Appends node records that nothing leads to and that are not free.
    void loseNodes(std::size_t count) const {
        const std::string nodes = cache() + "/nodes";
        testing_support::resizeFile(nodes, std::filesystem::file_size(nodes) + 24 * count);
    }

    /// What all subcommands say that need a sound cache.
    CommandRun refusalOf(const std::string& fault) const {
        return {3, "",
                "rbac-cache: " + cache() + " is damaged: " + fault + ". All faults: rbac-cache verify --cache " +
                    cache() + "\n"};
    }
    void expectRefusedByAll(const CommandRun& refusal) const {
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

TEST_F(RbacCacheInspectionsTest, LooksAtACacheWithoutItsManifest) {
    std::filesystem::remove(cache() + "/manifest.json");
    const std::string unlocked =
        "rbac-cache: the cache cannot be locked; this holds if nobody has written to it meanwhile\n";
    EXPECT_EQ(run({"verify"}), (CommandRun{1,
                                           "manifest.json, byte 0: cannot be opened: No such file or directory\n"
                                           "not sound: 1 fault\n",
                                           unlocked}));
    const CommandRun shown = run({"stat"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.out, HasSubstr("\nobjects       6 (inheriting: 5, not inheriting: 1)\n"));
    EXPECT_THAT(shown.out, EndsWith("\nnot sound     1 fault; rbac-cache verify lists them\n"));
    EXPECT_EQ(shown.err, unlocked);
    EXPECT_FALSE(std::filesystem::exists(cache() + "/manifest.json"));
}

TEST_F(RbacCacheInspectionsTest, ListsNoMoreThanAThousandFaults) {
    loseNodes(1000);
    const std::string all = run({"verify"}).out;
    EXPECT_EQ(linesOf(all).size(), 1001U);
    EXPECT_THAT(all, EndsWith("\nnot sound: 1000 faults\n"));
    EXPECT_EQ(linesOf(run({"verify", "--json"}).out).size(), 1000U);

    loseNodes(1);
    const CommandRun one = run({"verify"});
    EXPECT_EQ(one.status, 1);
    EXPECT_EQ(linesOf(one.out).size(), 1002U);
    EXPECT_THAT(one.out, EndsWith("\n... and 1 more fault\nnot sound: 1001 faults\n"));

    loseNodes(1);
    EXPECT_THAT(run({"verify"}).out, EndsWith("\n... and 2 more faults\nnot sound: 1002 faults\n"));
    const std::vector<std::string> documents = linesOf(run({"verify", "--json"}).out);
    ASSERT_EQ(documents.size(), 1001U);
    EXPECT_EQ(documents.back(), R"({"moreFaults":2})");
}

TEST_F(RbacCacheInspectionsTest, ShowsWhenTheMetadataOfAnotherWriterChanged) {
    testing_support::RawCache other(directory_ / "other");
    other.put("|", 1);
    other.write();
    const std::array<timespec, 2> changed{timespec{1609556645, 0}, timespec{1609556645, 678'000'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, other.metadataFile().c_str(), changed.data(), 0), 0);
    const auto statOther = [&](std::vector<std::string> words) {
        words.insert(words.begin(), {RBAC_CACHE, "stat", "--cache", other.directory()});
        return runProgram(words).out;
    };
    EXPECT_THAT(statOther({}), HasSubstr("\nscope         |\n"
                                         "published     unknown; metadata changed 2021-01-02T03:04:05.678Z\n"
                                         "writing flag  not set\n"));
    EXPECT_THAT(statOther({"--json"}),
                HasSubstr(R"("namespace":"|","metadataChangedAt":"2021-01-02T03:04:05.678Z","writing":false)"));
    const std::array<timespec, 2> farFuture{timespec{1609556645, 0}, timespec{10'000'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, other.metadataFile().c_str(), farFuture.data(), 0), 0);
    EXPECT_THAT(statOther({}), HasSubstr("; metadata changed 2262-04-11T23:47:15.000Z\n"));
    std::filesystem::remove(other.metadataFile());
    EXPECT_THAT(statOther({}), Not(HasSubstr("published")));
    EXPECT_THAT(statOther({"--json"}), Not(HasSubstr("metadataChangedAt")));
}

TEST_F(RbacCacheInspectionsTest, RefusesToLookAtWhatIsNoCache) {
    for (const char* subcommand : {"stat", "verify"}) {
        EXPECT_EQ(runProgram({RBAC_CACHE, subcommand, "--cache", directory_.path()}),
                  (CommandRun{3, "",
                              "rbac-cache: " + directory_.path() +
                                  " is no access cache: none of the files of one is in it\n"}));
    }
}

TEST_F(RbacCacheInspectionsTest, KeepsTheOtherSubcommandsFromADamagedCache) {
    damageNodes();
    expectRefusedByAll(refusalOf("nodes, byte 36: the right offset 16777216 leads beyond the 23 records of nodes"));
}

TEST_F(RbacCacheInspectionsTest, KeepsTheOtherSubcommandsFromACacheWithAFileThatWasCutOff) {
    struct Cut {
        std::string file;
        std::size_t size;
        std::string place;
        std::string what;
    };
    const std::vector<Cut> cuts{
        {"objects", 100, "objects, byte 96", "ends 4 bytes into a record, which has 16"},
        {"objects", 32, "segments, byte 404", "the object offset 96 leads beyond the 2 records of objects"},
        {"segments", 400, "segments, byte 384", "ends 16 bytes into a record, which has 32"},
        {"segments", 64, "segments, byte 56", "the child offset 64 leads beyond the 2 records of segments"}};
    for (const Cut& cut : cuts) {
        SCOPED_TRACE(cut.file + " of " + std::to_string(cut.size));
        const std::string path = cache() + "/" + cut.file;
        const std::string whole = readFile(path);
        testing_support::resizeFile(path, cut.size);
        expectRefusedByAll(refusalOf(cut.place + ": " + cut.what));
        const CommandRun verified = run({"verify"});
        EXPECT_EQ(verified.status, 1);
        EXPECT_THAT(linesOf(verified.out).front(), AllOf(StartsWith(cut.place), EndsWith(": " + cut.what)));
        EXPECT_THAT(succeed({"stat"}), HasSubstr("\nnot sound     "));
        testing_support::overwriteFile(path, whole);
    }
}

TEST_F(RbacCacheInspectionsTest, TrustsACacheWhenItIsToldTo) {
    damageNodes();
    EXPECT_EQ(run({"list", "VIEW", "--roles", "0", "--trust", "|STORAGE|"}), (CommandRun{0, "|STORAGE|\n", ""}));
}
