#include "ServiceProcess.h"
#include "sandbox/TreeImport.h"
#include "sandbox/UnixRoles.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

// Directory trees as managed objects of the service, with and without one that runs.

using namespace testing_support;
using testing::HasSubstr;
namespace unix_roles = Tesmor::Arkwell::Sandbox::unix_roles;

namespace {

constexpr int VIEW = 0;

class ServiceImportTest : public testing::TestWithParam<bool> {
protected:
    ServiceImportTest() {
        writeFile(tree_ + "/docs/file", "text");
        writeFile(tree_ + "/other/file", "text");
        EXPECT_EQ(chmod(tree_.c_str(), 0755), 0);
        EXPECT_EQ(chmod((tree_ + "/docs").c_str(), 0755), 0);
        EXPECT_EQ(chmod((tree_ + "/docs/file").c_str(), 0644), 0);
        EXPECT_EQ(chmod((tree_ + "/other").c_str(), 0755), 0);
        EXPECT_EQ(chmod((tree_ + "/other/file").c_str(), 0600), 0);
        if (GetParam()) {
            service_ = std::make_unique<ServiceProcess>(folder_);
        }
    }

    bool mayView(int role, const std::string& path) const {
        return folder_.allows(role, VIEW, Tesmor::Arkwell::Sandbox::namespaceOfPath(path).str());
    }

    ServiceFolder folder_;
    std::string tree_ = folder_.file("tree");
    std::unique_ptr<ServiceProcess> service_;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(, ServiceImportTest, testing::Bool(), [](const testing::TestParamInfo<bool>& parameter) {
    return parameter.param ? "WhileTheServiceRuns" : "WithoutAService";
});

TEST_P(ServiceImportTest, PublishesTheTreeBeforeItReturns) {
    const CommandResult result = folder_.run("import-tree " + tree_);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "imported 5 objects of " + tree_ + " (2 with an owner or mode of their own)\n");
    EXPECT_TRUE(mayView(unix_roles::EVERYBODY, tree_ + "/docs/file"));
    EXPECT_FALSE(mayView(unix_roles::EVERYBODY, tree_ + "/other/file"));
    EXPECT_TRUE(mayView(unix_roles::ofUser(getuid()), tree_ + "/other/file"));
}

TEST_P(ServiceImportTest, LeavesRevokedGrantsOut) {
    ASSERT_EQ(folder_.run("import-tree " + tree_ + " --revoke everybody:VIEW:" + tree_ + "/docs").status, 0);
    EXPECT_FALSE(mayView(unix_roles::EVERYBODY, tree_ + "/docs"));
    EXPECT_TRUE(mayView(unix_roles::EVERYBODY, tree_ + "/other"));
}

TEST_P(ServiceImportTest, ReplacesWhatItImportedBefore) {
    ASSERT_EQ(folder_.run("import-tree " + tree_).status, 0);
    ASSERT_EQ(unlink((tree_ + "/docs/file").c_str()), 0);
    ASSERT_EQ(chmod((tree_ + "/other/file").c_str(), 0644), 0);
    ASSERT_EQ(folder_.run("import-tree " + tree_).status, 0);
    EXPECT_TRUE(mayView(unix_roles::EVERYBODY, tree_ + "/other/file"));
    const CommandResult again = folder_.run("import-tree " + tree_);
    EXPECT_THAT(again.output, HasSubstr("imported 4 objects"));
}

TEST_P(ServiceImportTest, ChangesNothingWhereItFails) {
    ASSERT_EQ(folder_.run("import-tree " + tree_).status, 0);
    const CommandResult result = folder_.run("import-tree " + tree_ + " --revoke everybody:VIEW:/nowhere");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: nothing to revoke, this path is not in the tree: /nowhere\n");
    EXPECT_EQ(folder_.run("import-tree " + tree_ + " --revoke x:VIEW:/").output,
              "rbac-sandbox: neither a role's number nor \"everybody\": x\n");
    EXPECT_TRUE(mayView(unix_roles::EVERYBODY, tree_ + "/docs/file"));
}

TEST_P(ServiceImportTest, IsServedAsRolesObjectsAndDefinitions) {
    ASSERT_EQ(folder_.run("import-tree " + tree_).status, 0);
    if (!service_) {
        service_ = std::make_unique<ServiceProcess>(folder_);
    }
    ServiceClient client("localhost", service_->port(), folder_.hostFiles());
    const std::string object =
        "managed-objects/" + encoded(Tesmor::Arkwell::Sandbox::namespaceOfPath(tree_ + "/other/file").str());
    EXPECT_THAT(client.get(object).body, HasSubstr(R"("inherit":false,"state":"READY","objectType":"file")"));
    const std::string role = std::to_string(unix_roles::ofUser(getuid()));
    EXPECT_THAT(client.get("roles/" + role).body, HasSubstr(R"("description":"of this machine")"));
    EXPECT_THAT(client.get(object + "/access-definitions").body,
                HasSubstr(R"({"type":"accessControlRole","id":")" + role + "\"}"));
}
