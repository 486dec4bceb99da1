#include "CommandRun.h"
#include "sandbox/CacheWriter.h"

#include <gmock/gmock.h>

#include <filesystem>

// rbac-cache diff

using namespace Tesmor::Arkwell::Sandbox;
using testing::HasSubstr;
using testing_support::CacheCommandTest;
using testing_support::CommandRun;
using testing_support::runProgram;
using testing_support::writeFile;

namespace {

const std::string SAME_OBJECTS = "6 objects, 0 only in A, 0 only in B, 0 with another inherit flag\n";

class RbacCacheDiffTest : public CacheCommandTest {
protected:
    /// What the objects that the cache holds are printed as, with a change.
    std::string planned(const std::string& text, const std::string& replacement) const {
        std::string objects = succeed({"ls", "--json"});
        const std::size_t at = objects.find(text);
        EXPECT_NE(at, std::string::npos);
        objects.replace(at, text.size(), replacement);
        writeFile(directory_ / "planned.jsonl", objects);
        return directory_ / "planned.jsonl";
    }

    static CommandRun diff(const std::vector<std::string>& words) {
        std::vector<std::string> command{RBAC_CACHE, "diff"};
        command.insert(command.end(), words.begin(), words.end());
        return runProgram(command);
    }

    /// Another cache beside the published one.
    std::string publish(const AccessModel& model) const {
        std::filesystem::create_directories(published("access-caches/other"));
        CacheWriter(published("access-caches/other")).publish(model);
        return published("access-caches/other");
    }
};

}  // namespace

TEST_F(RbacCacheDiffTest, FindsNoDifferenceBetweenACacheAndItself) {
    EXPECT_EQ(diff({cache(), cache()}), (CommandRun{0, SAME_OBJECTS + "no difference in access\n", ""}));
}

TEST_F(RbacCacheDiffTest, FindsNoDifferenceBetweenACacheAndWhatItPrints) {
    EXPECT_EQ(diff({cache(), planned("", "")}), (CommandRun{0, SAME_OBJECTS + "no difference in access\n", ""}));
}

TEST_F(RbacCacheDiffTest, ShowsWhoGainsAndLosesWhat) {
    const std::string file = planned(R"("roleId":2,)", R"("roleId":3,)");
    EXPECT_EQ(diff({cache(), file}), (CommandRun{1,
                                                 "- role 2 loses VIEW on | and 3 of 5 objects below it\n"
                                                 "+ role 3 gains VIEW on | and 3 of 5 objects below it\n" +
                                                     SAME_OBJECTS + "access to 4 objects differs: 4 gained, 4 lost\n",
                                                 ""}));
    EXPECT_EQ(diff({file, cache()}), (CommandRun{1,
                                                 "+ role 2 gains VIEW on | and 3 of 5 objects below it\n"
                                                 "- role 3 loses VIEW on | and 3 of 5 objects below it\n" +
                                                     SAME_OBJECTS + "access to 4 objects differs: 4 gained, 4 lost\n",
                                                 ""}));
}

TEST_F(RbacCacheDiffTest, ShowsEachObjectByItself) {
    const std::string file = planned(R"("roleId":7,)", R"("roleId":8,)");
    EXPECT_EQ(diff({cache(), file, "--all"}),
              (CommandRun{1,
                          "- role 7 loses VIEW on |ASSETS|db+1|\n"
                          "+ role 8 gains VIEW on |ASSETS|db+1|\n"
                          "- role 7 loses VIEW on |ASSETS|db+1|t|\n"
                          "+ role 8 gains VIEW on |ASSETS|db+1|t|\n" +
                              SAME_OBJECTS + "access to 2 objects differs: 2 gained, 2 lost\n",
                          ""}));
}

TEST_F(RbacCacheDiffTest, ShowsDifferencesInJson) {
    const std::string file = planned(R"("roleId":7,)", R"("roleId":8,)");
    EXPECT_EQ(
        diff({cache(), file, "--json"}),
        (CommandRun{
            1,
            R"({"change":"lost","roleId":7,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|","onObject":true,"changedBelow":1,"objectsBelow":1}
{"change":"gained","roleId":8,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|","onObject":true,"changedBelow":1,"objectsBelow":1}
{"summary":{"objects":6,"onlyInA":0,"onlyInB":0,"inheritChanged":0,"objectsAffected":2,"gained":2,"lost":2}}
)",
            ""}));
    EXPECT_EQ(diff({cache(), file, "--json", "--all"}),
              (CommandRun{1, R"({"change":"lost","roleId":7,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|"}
{"change":"gained","roleId":8,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|"}
{"change":"lost","roleId":7,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|t|"}
{"change":"gained","roleId":8,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|t|"}
{"summary":{"objects":6,"onlyInA":0,"onlyInB":0,"inheritChanged":0,"objectsAffected":2,"gained":2,"lost":2}}
)",
                          ""}));
}

TEST_F(RbacCacheDiffTest, ComparesTwoCaches) {
    AccessModel model;
    model.add({ObjectNamespace("STORAGE"), true, ObjectState::READY, {{5, 99, GrantScope::OBJECT}}});
    EXPECT_EQ(diff({cache(), publish(model)}),
              (CommandRun{1,
                          "- role 5 loses UPDATE on |ASSETS|db+1|\n"
                          "- role 7 loses VIEW on |ASSETS|db+1| and the object below it\n"
                          "- role 5 loses ADD on |ASSETS| and 1 of 3 objects below it\n"
                          "- role 5 loses VIEW on |ASSETS| and 1 of 3 objects below it\n"
                          "- role 9 loses UPDATE on 1 of 3 objects below |ASSETS|\n"
                          "+ role 5 gains #99 on |STORAGE|\n"
                          "- role 2 loses VIEW on | and 3 of 5 objects below it\n"
                          "6 objects, 5 only in A, 0 only in B, 0 with another inherit flag\n"
                          "access to 6 objects differs: 1 gained, 12 lost\n",
                          ""}));
    EXPECT_THAT(diff({cache(), publish(model), "--json"}).out,
                HasSubstr(R"({"change":"gained","roleId":5,"operation":99,"namespace":"|STORAGE|",)"));
}

TEST_F(RbacCacheDiffTest, ColoursGainsAndLosses) {
    const std::string file = planned(R"("roleId":7,)", R"("roleId":8,)");
    EXPECT_THAT(diff({cache(), file, "--color", "always"}).out, HasSubstr("\x1B[31m- role 7 loses VIEW\x1B[0m on "));
}

TEST_F(RbacCacheDiffTest, SaysWhatIsWrongWithAFile) {
    const std::string file = planned("|OPERATIONS|VIEW|", "|OPERATIONS|VEIW|");
    EXPECT_EQ(diff({cache(), file}),
              (CommandRun{3, "",
                          "rbac-cache: " + file +
                              ", line 1, object |: accessDefinitions[0].operations[0] must be an operation that is "
                              "known, which |OPERATIONS|VEIW| is not\n"}));
    EXPECT_EQ(diff({cache(), directory_ / "none"}),
              (CommandRun{3, "", "rbac-cache: " + (directory_ / "none") + ": No such file or directory\n"}));
}

TEST_F(RbacCacheDiffTest, NeedsTheNumbersOfTheOperations) {
    std::filesystem::rename(published("operation-cache.json"), directory_ / "elsewhere");
    EXPECT_EQ(diff({cache(), cache()}).status, 3);
    EXPECT_EQ(diff({cache(), cache(), "--operations", directory_ / "elsewhere"}).status, 0);
}
