#include "CommandRun.h"

#include <gmock/gmock.h>

// rbac-cache check, explain, who-can, what-can and list.

using testing_support::CacheCommandTest;
using testing_support::CommandRun;

using RbacCacheQuestionsTest = CacheCommandTest;

TEST_F(RbacCacheQuestionsTest, SaysThatAnOperationIsAllowed) {
    EXPECT_EQ(run({"check", "VIEW", "|ASSETS|web|", "--roles", "5"}), (CommandRun{0, "allowed\n", ""}));
}

TEST_F(RbacCacheQuestionsTest, SaysThatAnOperationIsDenied) {
    EXPECT_EQ(run({"check", "VIEW", "|ASSETS|db+1|", "--roles", "5"}), (CommandRun{1, "denied\n", ""}));
}

TEST_F(RbacCacheQuestionsTest, TakesAnOperationsFullText) {
    EXPECT_EQ(run({"check", "|OPERATIONS|VIEW|", "|ASSETS|", "--roles", "5"}), (CommandRun{0, "allowed\n", ""}));
}

TEST_F(RbacCacheQuestionsTest, TakesRolesInSeveralWays) {
    EXPECT_EQ(run({"check", "VIEW", "|ASSETS|", "--roles", "11,5"}).status, 0);
    EXPECT_EQ(run({"check", "VIEW", "|ASSETS|", "--roles", "11", "--roles", "5"}).status, 0);
    EXPECT_EQ(run({"check", "VIEW", "|ASSETS|", "--roles", "11,12"}).status, 1);
    EXPECT_EQ(run({"check", "VIEW", "|STORAGE|x|", "--roles", "-3"}).status, 1);
}

TEST_F(RbacCacheQuestionsTest, LetsRole0DoEverything) {
    EXPECT_EQ(run({"check", "VIEW", "|ASSETS|db+1|", "--roles", "0"}), (CommandRun{0, "allowed\n", ""}));
}

TEST_F(RbacCacheQuestionsTest, SaysThatThereIsNoSuchOperation) {
    const CommandRun result = run({"check", "VEIW", "|ASSETS|", "--roles", "0"});
    EXPECT_EQ(result, (CommandRun{1, "denied\n",
                                  "rbac-cache: there is no operation |OPERATIONS|VEIW|, so it is denied to everybody "
                                  "everywhere\n"}));
}

TEST_F(RbacCacheQuestionsTest, AnswersACheckInJson) {
    EXPECT_EQ(run({"check", "VIEW", "|ASSETS|db+1|", "--roles", "9,5", "--json"}),
              (CommandRun{1,
                          R"({"allowed":false,"operation":"|OPERATIONS|VIEW|","object":"|ASSETS|db+1|","roles":[5,9]})"
                          "\n",
                          ""}));
}

TEST_F(RbacCacheQuestionsTest, ExplainsAnAnswerAndWhatWouldChangeIt) {
    EXPECT_EQ(run({"explain", "UPDATE", "|ASSETS|db+1|t|", "--roles", "5,9"}),
              (CommandRun{1,
                          "denied: |OPERATIONS|UPDATE| on |ASSETS|db+1|t| for roles 5, 9\n"
                          "  |ASSETS|db+1|t|: grants it to none of them; inherits\n"
                          "  |ASSETS|db+1|: grants it to none of them for what is below; does not inherit, so the "
                          "search ends here\n"
                          "it would be allowed if\n"
                          "  |ASSETS|db+1| inherited: beyond that it is granted to role 9\n",
                          ""}));
}

TEST_F(RbacCacheQuestionsTest, ExplainsAYes) {
    EXPECT_EQ(run({"explain", "VIEW", "|ASSETS|web|", "--roles", "5"}),
              (CommandRun{0,
                          "allowed: |OPERATIONS|VIEW| on |ASSETS|web| for role 5\n"
                          "  |ASSETS|web|: not in the cache\n"
                          "  |ASSETS|: grants it to role 5 for what is below\n",
                          ""}));
}

TEST_F(RbacCacheQuestionsTest, ExplainsInJson) {
    EXPECT_EQ(
        run({"explain", "UPDATE", "|ASSETS|db+1|t|", "--roles", "5,9", "--json"}),
        (CommandRun{
            1,
            R"({"allowed":false,"reason":"stopped","operation":"|OPERATIONS|UPDATE|","object":"|ASSETS|db+1|t|","roles":[5,9],"steps":[{"namespace":"|ASSETS|db+1|t|","found":true,"own":true,"inherits":true,"granting":[]},{"namespace":"|ASSETS|db+1|","found":true,"own":false,"inherits":false,"granting":[]}],"changes":[{"change":"inherit","namespaces":["|ASSETS|db+1|"],"roles":[9]}]})"
            "\n",
            ""}));
    EXPECT_EQ(
        succeed({"explain", "VIEW", "|ASSETS|web|", "--roles", "5", "--json"}),
        R"({"allowed":true,"reason":"granted","operation":"|OPERATIONS|VIEW|","object":"|ASSETS|web|","roles":[5],"steps":[{"namespace":"|ASSETS|web|","found":false},{"namespace":"|ASSETS|","found":true,"own":false,"inherits":true,"granting":[5]}],"changes":[]})"
        "\n");
}

TEST_F(RbacCacheQuestionsTest, NamesTheRolesThatWouldDo) {
    EXPECT_THAT(run({"explain", "VIEW", "|ASSETS|db+1|", "--roles", "9", "--json"}).out,
                testing::HasSubstr(R"("changes":[{"change":"holdRole","namespaces":["|ASSETS|db+1|"],"roles":[7]}])"));
}

TEST_F(RbacCacheQuestionsTest, ExplainsAnswersWithoutAWalk) {
    EXPECT_THAT(run({"explain", "VIEW", "|", "--roles", "0", "--json"}).out,
                testing::HasSubstr(R"("reason":"superuser")"));
    EXPECT_THAT(run({"explain", "VEIW", "|", "--roles", "0", "--json"}).out,
                testing::HasSubstr(R"("reason":"unknownOperation")"));
    EXPECT_THAT(run({"explain", "VIEW", "|", "--roles", "9", "--json"}).out,
                testing::HasSubstr(R"("reason":"nobodyGrants")"));
}

TEST_F(RbacCacheQuestionsTest, ListsTheRolesThatMayPerformAnOperation) {
    EXPECT_EQ(succeed({"who-can", "VIEW", "|ASSETS|"}), "0\n2\n5\n");
    EXPECT_EQ(succeed({"who-can", "VIEW", "|ASSETS|", "--json"}),
              R"({"operation":"|OPERATIONS|VIEW|","object":"|ASSETS|","roles":[0,2,5]})"
              "\n");
}

TEST_F(RbacCacheQuestionsTest, ListsTheOperationsThatRolesMayPerform) {
    EXPECT_EQ(succeed({"what-can", "|ASSETS|x|", "--roles", "5,9"}), "ADD\nUPDATE\nVIEW\n");
    EXPECT_EQ(succeed({"what-can", "|ASSETS|", "--roles", "5,9", "--json"}),
              R"({"object":"|ASSETS|","roles":[5,9],"operations":["|OPERATIONS|ADD|","|OPERATIONS|VIEW|"]})"
              "\n");
}

TEST_F(RbacCacheQuestionsTest, ListsTheObjectsOnWhichRolesMayPerformAnOperation) {
    EXPECT_EQ(succeed({"list", "UPDATE", "--roles", "5,9"}), "|ASSETS|db+1|\n|ASSETS|web|eu|a%2F|\n");
    EXPECT_EQ(succeed({"list", "UPDATE", "|ASSETS|web|", "--roles", "5,9"}), "|ASSETS|web|eu|a%2F|\n");
    EXPECT_EQ(succeed({"list", "UPDATE", "--roles", "5,9", "--json"}),
              "{\"namespace\":\"|ASSETS|db+1|\"}\n{\"namespace\":\"|ASSETS|web|eu|a%2F|\"}\n");
}

TEST_F(RbacCacheQuestionsTest, EndsAnEmptyListWell) {
    EXPECT_EQ(succeed({"list", "UPDATE", "--roles", "11"}), "");
    EXPECT_EQ(succeed({"what-can", "|", "--roles", "11"}), "");
}
