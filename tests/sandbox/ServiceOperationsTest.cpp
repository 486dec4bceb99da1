#include "ServiceProcess.h"

#include <gmock/gmock.h>

using namespace testing_support;
using testing::HasSubstr;
using testing::Not;

namespace {

class ServiceOperationsTest : public testing::Test {
protected:
    std::string filtered(const std::string& filter) { return client_.get("operations?filter=" + encoded(filter)).body; }

    ServiceFolder folder_;
    ServiceProcess service_{folder_};
    ServiceClient client_{"localhost", service_.port(), folder_.hostFiles()};
};

}  // namespace

TEST_F(ServiceOperationsTest, ListsWhatEveryInstallationKnows) {
    const Answer answer = client_.get("operations");
    EXPECT_EQ(answer.status, 200);
    for (const char* name : {"VIEW", "ADD", "UPDATE", "DELETE", "MANAGE_ACCESS"}) {
        EXPECT_THAT(answer.body, HasSubstr(R"({"type":"accessControlOperation","id":"|OPERATIONS|)" +
                                           std::string(name) + R"(|","attributes":{"appliesTo":"|"}})"));
    }
}

TEST_F(ServiceOperationsTest, FiltersByNameAndByObject) {
    ASSERT_EQ(folder_.run("operations add '|OPERATIONS|RESTORE|' --applies-to '|ASSETS|'").output,
              "added |OPERATIONS|RESTORE|\n");
    EXPECT_EQ(
        filtered("name eq '|OPERATIONS|VIEW|'"),
        R"({"data":[{"type":"accessControlOperation","id":"|OPERATIONS|VIEW|","attributes":{"appliesTo":"|"}}]})");
    EXPECT_EQ(filtered("startswith(name,'|OPERATIONS|R')"),
              R"({"data":[{"type":"accessControlOperation","id":"|OPERATIONS|RESTORE|",)"
              R"("attributes":{"appliesTo":"|ASSETS|"}}]})");
    EXPECT_THAT(filtered("object eq '|ASSETS|db|'"), HasSubstr("RESTORE"));
    EXPECT_THAT(filtered("object eq '|ASSETS|'"), HasSubstr("RESTORE"));
    EXPECT_THAT(filtered("object eq '|ASSETS2|'"), Not(HasSubstr("RESTORE")));
    EXPECT_THAT(filtered("object eq '|'"), Not(HasSubstr("RESTORE")));
    EXPECT_THAT(filtered("object eq '|'"), HasSubstr("VIEW"));
}

TEST_F(ServiceOperationsTest, RefusesOtherFilters) {
    const Answer answer = client_.get("operations?filter=" + encoded("startswith(object,'|')"));
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.errorDetail(), "at character 12: name is expected: startswith(object,'|')");
    const Answer noNamespace = client_.get("operations?filter=" + encoded("object eq 'ASSETS'"));
    EXPECT_EQ(noNamespace.status, 400);
    EXPECT_EQ(noNamespace.errorCode(), 5002);
}

TEST_F(ServiceOperationsTest, PublishesAnOperationThatIsAdded) {
    folder_.run("operations add '|OPERATIONS|RESTORE|'");
    EXPECT_THAT(readFile(folder_.publications() + "/operation-cache.json"), HasSubstr(R"("|OPERATIONS|RESTORE|": 3)"));
    folder_.run("operations add '|OPERATIONS|RECOVER|'");
    EXPECT_EQ(folder_.run("operations list").output,
              "|OPERATIONS|VIEW| 0, applies to |\n"
              "|OPERATIONS|ADD| 1, applies to |\n"
              "|OPERATIONS|UPDATE| 2, applies to |\n"
              "|OPERATIONS|RESTORE| 3, applies to |\n"
              "|OPERATIONS|RECOVER| 4, applies to |\n"
              "|OPERATIONS|DELETE| 37, applies to |\n"
              "|OPERATIONS|MANAGE_ACCESS| 64, applies to |\n");
}

TEST_F(ServiceOperationsTest, AddsNoOperationTwice) {
    const CommandResult result = folder_.run("operations add '|OPERATIONS|VIEW|'");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: The name is taken: |OPERATIONS|VIEW|\n");
}

TEST_F(ServiceOperationsTest, GrantsAnOperationOnlyWhereItApplies) {
    folder_.run("operations add '|OPERATIONS|RESTORE|' --applies-to '|ASSETS|'");
    const Answer refused = client_.post("managed-objects/" + encoded("|STORAGE|") + "/access-definitions",
                                        definitionDocument("1", "OBJECT", {"RESTORE"}));
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.errorCode(), 5005);
    EXPECT_EQ(refused.errorDetail(), "|OPERATIONS|RESTORE| applies at and below |ASSETS|, not to |STORAGE|");
    EXPECT_EQ(client_
                  .post("managed-objects/" + encoded("|ASSETS|") + "/access-definitions",
                        definitionDocument("1", "OBJECT", {"RESTORE"}))
                  .status,
              201);
}
