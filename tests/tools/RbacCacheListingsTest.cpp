#include "CommandRun.h"
#include "sandbox/CacheWriter.h"
#include "testing/RawCache.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

// rbac-cache ls and tree.

using testing::ElementsAre;
using testing_support::CacheCommandTest;
using testing_support::CommandRun;
using testing_support::linesOf;
using testing_support::RawCache;

using RbacCacheListingsTest = CacheCommandTest;

TEST_F(RbacCacheListingsTest, ListsObjectsWithTheirInheritFlagsAndGrants) {
    EXPECT_EQ(succeed({"ls"}),
              "|  inherits; 2: VIEW (object and children)\n"
              "|ASSETS|  inherits; 5: ADD,VIEW (object and children); 9: UPDATE (children)\n"
              "|ASSETS|db+1|  does not inherit; 5: UPDATE (object); 7: VIEW (object and children)\n"
              "|ASSETS|db+1|t|  inherits\n"
              "|ASSETS|web|eu|a%2F|  inherits; 5: ADD (object); 5: UPDATE (children)\n"
              "|STORAGE|  inherits; -3: #31 (children)\n");
}

TEST_F(RbacCacheListingsTest, ListsWhatIsBelowAnObject) {
    EXPECT_EQ(succeed({"ls", "|ASSETS|db+1|"}),
              "|ASSETS|db+1|  does not inherit; 5: UPDATE (object); 7: VIEW (object and children)\n"
              "|ASSETS|db+1|t|  inherits\n");
}

TEST_F(RbacCacheListingsTest, ListsWhatIsBelowANamespaceThatTheCacheDoesNotHold) {
    EXPECT_EQ(succeed({"ls", "|ASSETS|web|"}),
              "|ASSETS|web|eu|a%2F|  inherits; 5: ADD (object); 5: UPDATE (children)\n");
}

TEST_F(RbacCacheListingsTest, ListsNothingBelowAnUnknownNamespace) {
    EXPECT_EQ(succeed({"ls", "|ASSETS|w|"}), "");
    EXPECT_EQ(succeed({"tree", "|ASSETS|w|"}), "");
}

TEST_F(RbacCacheListingsTest, ListsSoManyLevels) {
    EXPECT_THAT(linesOf(succeed({"ls", "--depth", "0"})), ElementsAre("|  inherits; 2: VIEW (object and children)"));
    EXPECT_EQ(succeed({"ls", "|ASSETS|", "--depth", "1"}),
              "|ASSETS|  inherits; 5: ADD,VIEW (object and children); 9: UPDATE (children)\n"
              "|ASSETS|db+1|  does not inherit; 5: UPDATE (object); 7: VIEW (object and children)\n");
}

TEST_F(RbacCacheListingsTest, ListsObjectsAsTheServiceDescribesThem) {
    EXPECT_EQ(
        succeed({"ls", "--json"}),
        R"({"namespace":"|","inherit":true,"accessDefinitions":[{"roleId":2,"propagation":"OBJECT_AND_CHILDREN","operations":["|OPERATIONS|VIEW|"]}]}
{"namespace":"|ASSETS|","inherit":true,"accessDefinitions":[{"roleId":5,"propagation":"OBJECT_AND_CHILDREN","operations":["|OPERATIONS|ADD|","|OPERATIONS|VIEW|"]},{"roleId":9,"propagation":"CHILDREN","operations":["|OPERATIONS|UPDATE|"]}]}
{"namespace":"|ASSETS|db+1|","inherit":false,"accessDefinitions":[{"roleId":5,"propagation":"OBJECT","operations":["|OPERATIONS|UPDATE|"]},{"roleId":7,"propagation":"OBJECT_AND_CHILDREN","operations":["|OPERATIONS|VIEW|"]}]}
{"namespace":"|ASSETS|db+1|t|","inherit":true,"accessDefinitions":[]}
{"namespace":"|ASSETS|web|eu|a%2F|","inherit":true,"accessDefinitions":[{"roleId":5,"propagation":"OBJECT","operations":["|OPERATIONS|ADD|"]},{"roleId":5,"propagation":"CHILDREN","operations":["|OPERATIONS|UPDATE|"]}]}
{"namespace":"|STORAGE|","inherit":true,"accessDefinitions":[{"roleId":-3,"propagation":"CHILDREN","operations":[31]}]}
)");
}

TEST_F(RbacCacheListingsTest, DrawsATree) {
    EXPECT_EQ(run({"tree"}, {{"LC_ALL", "C.UTF-8"}}),
              (CommandRun{0,
                          "|  inherits; 2: VIEW (object and children)\n"
                          "├── ASSETS  inherits; 5: ADD,VIEW (object and children); 9: UPDATE (children)\n"
                          "│   ├── db+1  does not inherit; 5: UPDATE (object); 7: VIEW (object and children)\n"
                          "│   │   └── t  inherits\n"
                          "│   └── web  not in the cache\n"
                          "│       └── eu  not in the cache\n"
                          "│           └── a%2F  inherits; 5: ADD (object); 5: UPDATE (children)\n"
                          "└── STORAGE  inherits; -3: #31 (children)\n",
                          ""}));
}

TEST_F(RbacCacheListingsTest, DrawsATreeInAsciiWhereNothingElseIsUnderstood) {
    EXPECT_EQ(run({"tree", "|ASSETS|"}, {{"LC_ALL", "C"}}).out,
              "|ASSETS|  inherits; 5: ADD,VIEW (object and children); 9: UPDATE (children)\n"
              "|-- db+1  does not inherit; 5: UPDATE (object); 7: VIEW (object and children)\n"
              "|   `-- t  inherits\n"
              "`-- web  not in the cache\n"
              "    `-- eu  not in the cache\n"
              "        `-- a%2F  inherits; 5: ADD (object); 5: UPDATE (children)\n");
}

TEST_F(RbacCacheListingsTest, DrawsSoManyLevels) {
    EXPECT_EQ(run({"tree", "|ASSETS|", "--depth", "1"}, {{"LC_ALL", "C"}}).out,
              "|ASSETS|  inherits; 5: ADD,VIEW (object and children); 9: UPDATE (children)\n"
              "|-- db+1  does not inherit; 5: UPDATE (object); 7: VIEW (object and children)\n"
              "`-- web  not in the cache\n");
}

TEST_F(RbacCacheListingsTest, DrawsTheTopWhereTheCacheDoesNotHoldIt) {
    EXPECT_EQ(run({"tree", "|ASSETS|web|"}, {{"LC_ALL", "C"}}).out,
              "|ASSETS|web|  not in the cache\n"
              "`-- eu  not in the cache\n"
              "    `-- a%2F  inherits; 5: ADD (object); 5: UPDATE (children)\n");
}

TEST_F(RbacCacheListingsTest, PrintsTheSameDocumentsForATree) {
    EXPECT_EQ(succeed({"tree", "--json", "--depth", "1"}), succeed({"ls", "--json", "--depth", "1"}));
}

namespace {

class RbacCacheRawListingsTest : public RbacCacheListingsTest {
protected:
    /// rbac-cache on the raw cache as it is now.
    CommandRun runRaw(std::vector<std::string> words) const {
        raw.write();
        words.insert(words.begin(), RBAC_CACHE);
        words.insert(words.end(), {"--cache", raw.directory(), "--trust"});
        return testing_support::runProgram(words, {{"LC_ALL", "C"}});
    }

    /// Objects below the root in ascending order, each node right of the one before.
    void putListOfSiblings(std::size_t count) {
        const RawCache::NodeOffset record = raw.putRecord(1, 0, 0);
        RawCache::NodeOffset last = raw.putSegments("|000|");
        raw.segmentAt(last).object = record;
        for (std::size_t i = 1; i < count; ++i) {
            const auto digit = [i](std::size_t shift) { return static_cast<char>('0' + (i >> shift) % 64); };
            RawCache::SegmentNode node = raw.segmentAt(last);
            node.key = testing_support::segmentValues({digit(12), digit(6), digit(0), '|'}).front();
            raw.segments.push_back(node);
            const auto made = static_cast<RawCache::NodeOffset>((raw.segments.size() - 1) * sizeof node);
            raw.segmentAt(last).right = made;
            last = made;
        }
    }

    RawCache raw{makeFolder(published("raw"))};

private:
    static std::string makeFolder(const std::string& path) {
        std::filesystem::create_directories(path);
        return path;
    }
};

}  // namespace

TEST_F(RbacCacheRawListingsTest, EndsATreesBranchAtTheLastObjectAndNotAtSegmentsWithoutOne) {
    raw.put("|A|", 1);
    raw.put("|A|B|", 1);
    raw.putSegments("|A|C|D|");
    raw.putSegments("|Z|");
    EXPECT_EQ(runRaw({"tree"}), (CommandRun{0,
                                            "|  not in the cache\n"
                                            "`-- A  inherits\n"
                                            "    `-- B  inherits\n",
                                            ""}));
}

TEST_F(RbacCacheRawListingsTest, TellsSiblingsWithACommonBeginningApart) {
    raw.put("|long|", 1);
    raw.put("|longer|", 1);
    raw.put("|longer|x|", 1);
    EXPECT_EQ(runRaw({"tree"}).out,
              "|  not in the cache\n"
              "|-- longer  inherits\n"
              "|   `-- x  inherits\n"
              "`-- long  inherits\n");
}

TEST_F(RbacCacheRawListingsTest, DrawsManySiblingsWhoseTreeIsAList) {
    constexpr std::size_t SIBLINGS = 200000;
    putListOfSiblings(SIBLINGS);
    EXPECT_EQ(runRaw({"tree", "--depth", "0"}), (CommandRun{0, "|  not in the cache\n", ""}));
    const CommandRun drawn = runRaw({"tree"});
    EXPECT_EQ(drawn.status, 0);
    const std::vector<std::string> lines = linesOf(drawn.out);
    ASSERT_EQ(lines.size(), SIBLINGS + 1);
    EXPECT_EQ(lines[1], "|-- 000  inherits");
    EXPECT_EQ(lines[SIBLINGS - 1], "|-- `dn  inherits");
    EXPECT_EQ(lines[SIBLINGS], "`-- `do  inherits");
}

TEST_F(RbacCacheRawListingsTest, DrawsAVeryLongName) {
    const std::string name(400000, 'A');
    raw.put("|" + name + "|", 1);
    EXPECT_EQ(runRaw({"tree", "--depth", "0"}), (CommandRun{0, "|  not in the cache\n", ""}));
    EXPECT_EQ(runRaw({"tree"}), (CommandRun{0, "|  not in the cache\n`-- " + name + "  inherits\n", ""}));
}

TEST_F(RbacCacheRawListingsTest, ShowsNoControlCharactersOfADamagedCache) {
    raw.put("|A\x1B[2J\xC2\x9B|", 0);
    EXPECT_EQ(runRaw({"ls"}).out, "|A\\x1B[2J\\xC2\\x9B|  does not inherit\n");
    EXPECT_EQ(runRaw({"ls", "--json"}).out,
              R"({"namespace":"|A\\x1B[2J\\xC2\\x9B|","inherit":false,"accessDefinitions":[]})"
              "\n");
    EXPECT_EQ(runRaw({"tree"}).out, "|  not in the cache\n`-- A\\x1B[2J\\xC2\\x9B  does not inherit\n");
}
