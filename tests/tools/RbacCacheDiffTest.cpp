#include "CommandRun.h"
#include "sandbox/CacheWriter.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <filesystem>
#include <map>

// rbac-cache diff

using namespace Tesmor::Arkwell::Sandbox;
using testing::HasSubstr;
using testing::StartsWith;
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
            R"({"change":"lost","roleId":7,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|","onObject":true,"changedBelow":1,"objectsBelow":1,"toCome":false}
{"change":"gained","roleId":8,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|","onObject":true,"changedBelow":1,"objectsBelow":1,"toCome":false}
{"summary":{"objects":6,"onlyInA":0,"onlyInB":0,"inheritChanged":0,"objectsAffected":2,"gained":2,"lost":2,"gainedToCome":0,"lostToCome":0}}
)",
            ""}));
    EXPECT_EQ(
        diff({cache(), file, "--json", "--all"}),
        (CommandRun{
            1,
            R"({"change":"lost","roleId":7,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|","toCome":false}
{"change":"gained","roleId":8,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|","toCome":false}
{"change":"lost","roleId":7,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|t|","toCome":false}
{"change":"gained","roleId":8,"operation":"|OPERATIONS|VIEW|","namespace":"|ASSETS|db+1|t|","toCome":false}
{"summary":{"objects":6,"onlyInA":0,"onlyInB":0,"inheritChanged":0,"objectsAffected":2,"gained":2,"lost":2,"gainedToCome":0,"lostToCome":0}}
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
                          "- role 5 loses UPDATE on what will be below |ASSETS|web|eu|a%2F|\n"
                          "- role 5 loses ADD on |ASSETS| and 1 of 3 objects below it\n"
                          "- role 5 loses VIEW on |ASSETS| and 1 of 3 objects below it\n"
                          "- role 9 loses UPDATE on 1 of 3 objects below |ASSETS|\n"
                          "- role -3 loses #31 on what will be below |STORAGE|\n"
                          "+ role 5 gains #99 on |STORAGE|\n"
                          "- role 2 loses VIEW on | and 3 of 5 objects below it\n"
                          "6 objects, 5 only in A, 0 only in B, 0 with another inherit flag\n"
                          "access to 6 objects differs: 1 gained, 12 lost\n"
                          "access to what will be below differs: 0 gained, 2 lost\n",
                          ""}));
    EXPECT_THAT(diff({cache(), publish(model), "--json"}).out,
                HasSubstr(R"({"change":"gained","roleId":5,"operation":99,"namespace":"|STORAGE|",)"));
}

TEST_F(RbacCacheDiffTest, ShowsWhatChangesForWhatWillBeBelow) {
    const std::string file = planned(R"("roleId":-3,)", R"("roleId":-2,)");
    EXPECT_EQ(diff({cache(), file}),
              (CommandRun{1,
                          "- role -3 loses #31 on what will be below |STORAGE|\n"
                          "+ role -2 gains #31 on what will be below |STORAGE|\n" +
                              SAME_OBJECTS + "access to what will be below differs: 1 gained, 1 lost\n",
                          ""}));
    EXPECT_EQ(
        diff({cache(), file, "--json"}),
        (CommandRun{
            1,
            R"({"change":"lost","roleId":-3,"operation":31,"namespace":"|STORAGE|","onObject":false,"changedBelow":0,"objectsBelow":0,"toCome":true}
{"change":"gained","roleId":-2,"operation":31,"namespace":"|STORAGE|","onObject":false,"changedBelow":0,"objectsBelow":0,"toCome":true}
{"summary":{"objects":6,"onlyInA":0,"onlyInB":0,"inheritChanged":0,"objectsAffected":0,"gained":0,"lost":0,"gainedToCome":1,"lostToCome":1}}
)",
            ""}));
}

TEST_F(RbacCacheDiffTest, ShowsAChangeToAnObjectAndToWhatWillBeBelowItOnce) {
    const std::string file = planned(R"("|STORAGE|","inherit":true,"accessDefinitions":[)",
                                     R"("|STORAGE|","inherit":true,"accessDefinitions":[)"
                                     R"({"roleId":5,"propagation":"OBJECT_AND_CHILDREN","operations":[31]},)");
    EXPECT_EQ(diff({cache(), file}),
              (CommandRun{1,
                          "+ role 5 gains #31 on |STORAGE| and what will be below it\n" + SAME_OBJECTS +
                              "access to 1 object differs: 1 gained, 0 lost\n"
                              "access to what will be below differs: 1 gained, 0 lost\n",
                          ""}));
    EXPECT_EQ(diff({cache(), file, "--all"}),
              (CommandRun{1,
                          "+ role 5 gains #31 on |STORAGE|\n"
                          "+ role 5 gains #31 on what will be below |STORAGE|\n" +
                              SAME_OBJECTS +
                              "access to 1 object differs: 1 gained, 0 lost\n"
                              "access to what will be below differs: 1 gained, 0 lost\n",
                          ""}));
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

namespace {

class RbacCacheDiffOperationsTest : public RbacCacheDiffTest {
protected:
    /// A cache with one grant, of operation 37, and operations of its own.
    std::string publishElsewhere(const std::string& name,
                                 const std::map<ObjectNamespace, std::int32_t>& operations) const {
        std::string folder = directory_ / (name + "/access-caches/all");
        std::filesystem::create_directories(folder);
        AccessModel model;
        model.add({ObjectNamespace("STORAGE"), true, ObjectState::READY, {{5, 37, GrantScope::OBJECT}}});
        CacheWriter(folder).publish(model);
        if (!operations.empty()) {
            writeOperationCache(operationsOf(name), operations);
        }
        return folder;
    }
    std::string operationsOf(const std::string& name) const { return directory_ / (name + "/operation-cache.json"); }

    const ObjectNamespace view_{"OPERATIONS", "VIEW"};
    const ObjectNamespace fly_{"OPERATIONS", "FLY"};
    const std::string nothing_ = directory_ / "nothing.jsonl";
};

const std::string STORAGE_LOST =
    " on |STORAGE|\n"
    "1 object, 1 only in A, 0 only in B, 0 with another inherit flag\n"
    "access to 1 object differs: 0 gained, 1 lost\n";
const std::string STORAGE_KEPT =
    "1 object, 0 only in A, 0 only in B, 0 with another inherit flag\nno difference in access\n";

}  // namespace

TEST_F(RbacCacheDiffOperationsTest, TakesAnEmptyFileAsACacheWithoutObjects) {
    writeFile(nothing_, "");
    EXPECT_EQ(diff({publishElsewhere("a", {{view_, 37}}), nothing_}),
              (CommandRun{1, "- role 5 loses VIEW" + STORAGE_LOST, ""}));
}

TEST_F(RbacCacheDiffOperationsTest, TakesTheNamesOfOperationsFromB) {
    const std::string a = publishElsewhere("a", {{view_, 36}});
    const std::string b = publishElsewhere("b", {{view_, 36}, {fly_, 37}});
    AccessModel empty;
    CacheWriter(b).publish(empty);
    EXPECT_EQ(diff({a, b}), (CommandRun{1, "- role 5 loses FLY" + STORAGE_LOST, ""}));
}

TEST_F(RbacCacheDiffOperationsTest, TakesTheNamesOfOperationsFromAWhereBHasNone) {
    const std::string a = publishElsewhere("a", {{fly_, 37}});
    const std::string b = publishElsewhere("b", {});
    EXPECT_EQ(diff({a, b}), (CommandRun{0, STORAGE_KEPT, ""}));
}

TEST_F(RbacCacheDiffOperationsTest, WarnsOfAnOperationWithTwoNumbers) {
    const std::string a = publishElsewhere("a", {{view_, 36}, {fly_, 37}});
    const std::string b = publishElsewhere("b", {{view_, 38}, {fly_, 37}});
    EXPECT_EQ(diff({a, b}),
              (CommandRun{0, STORAGE_KEPT,
                          "rbac-cache: warning: |OPERATIONS|VIEW| is operation 36 in " + operationsOf("a") +
                              ", but 38 in " + operationsOf("b") + ", which is used\n"}));
}

TEST_F(RbacCacheDiffOperationsTest, WarnsThatTheNumbersInACannotBeCompared) {
    const std::string a = publishElsewhere("a", {{view_, 36}});
    const std::string b = publishElsewhere("b", {{view_, 36}});
    writeFile(operationsOf("a"), "{");
    const CommandRun result = diff({a, b});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, STORAGE_KEPT);
    EXPECT_THAT(result.err, StartsWith("rbac-cache: warning: " + operationsOf("a") + ": "));
}

TEST_F(RbacCacheDiffOperationsTest, DoesNotLookForOtherNumbersWhereTheFileIsNamed) {
    const std::string a = publishElsewhere("a", {{view_, 36}});
    const std::string b = publishElsewhere("b", {{view_, 38}});
    EXPECT_EQ(diff({a, b, "--operations", operationsOf("a")}), (CommandRun{0, STORAGE_KEPT, ""}));
}
