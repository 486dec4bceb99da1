#include "ServiceProcess.h"
#include "sandbox/UnixRoles.h"
#include "sandbox/UserStore.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <jwt/JWTHandler.h>
#include <platform/Dal.h>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <vector>

// The command rbac-sandbox as people and scripts use it.

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing_support::CommandResult;
using testing_support::runSandbox;
using testing_support::ScopedEnvironment;
using testing_support::TemporaryDirectory;

namespace {

class SandboxCommandTest : public testing::Test {
protected:
    CommandResult run(const std::string& arguments) const { return runSandbox(folder_, arguments); }

    std::string succeed(const std::string& arguments) const {
        const CommandResult result = run(arguments);
        EXPECT_EQ(result.status, 0) << arguments << "\n" << result.output;
        return result.output;
    }

    /// The token that a command prints.
    std::string issue(const std::string& arguments) const {
        std::string token = succeed("tokens issue " + arguments);
        EXPECT_THAT(token, EndsWith("\n"));
        token.pop_back();
        return token;
    }

    static int rolesOf(const std::string& token, std::set<int>& roles) {
        const testing_support::LogCapture log;
        return Tesmor::Arkwell::Rbac::JWTHandler().getRoleIds(nullptr, token, roles);
    }

    static int statusOf(const std::string& token) {
        std::set<int> roles;
        return rolesOf(token, roles);
    }

    /// What the pattern's parentheses match.
    static std::vector<std::string> found(const std::string& text, const std::string& pattern) {
        const std::regex expression(pattern);
        return {std::sregex_token_iterator(text.begin(), text.end(), expression, 1), std::sregex_token_iterator()};
    }

    TemporaryDirectory directory_;
    std::string folder_ = directory_ / "sandbox";
    std::string settings_ = directory_ / "platform.json";
    ScopedEnvironment named_{"TARVO_PLATFORM_CONFIG", settings_.c_str()};
};

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

}  // namespace

TEST_F(SandboxCommandTest, IssuesTokensThatGiveTheUsersRoles) {
    succeed("init");
    EXPECT_EQ(succeed("users add alice --roles 3,7"), "alice: roles 3, 7\n");
    std::set<int> roles;
    EXPECT_EQ(rolesOf(issue("alice"), roles), 0);
    EXPECT_THAT(roles, ElementsAre(3, 7));
}

TEST_F(SandboxCommandTest, IssuesTokensThatAreRefused) {
    succeed("init");
    succeed("users add alice --roles 3");
    EXPECT_EQ(statusOf(issue("alice --lifetime -60")), 8001);
    EXPECT_EQ(statusOf(issue("alice --forged")), 8002);
    EXPECT_EQ(statusOf(issue("alice --unrecorded")), 117);
}

TEST_F(SandboxCommandTest, EndsSessions) {
    succeed("init");
    succeed("users add alice --roles 3");
    const std::string token = issue("alice");
    std::string id = succeed("tokens list");
    id.pop_back();
    EXPECT_EQ(id.size(), 32U);
    succeed("tokens revoke " + id);
    EXPECT_EQ(statusOf(token), 117);
    EXPECT_EQ(succeed("tokens list"), "");
}

TEST_F(SandboxCommandTest, TakesAUserOfThisMachineWithTheRolesThatFilesHaveHere) {
    succeed("init");
    namespace unix_roles = Tesmor::Arkwell::Sandbox::unix_roles;
    std::set<int> roles = unix_roles::all("root");
    roles.insert(unix_roles::EVERYBODY + 1);
    std::string line = "root: roles";
    for (const int role : roles) {
        line += (line.back() == 's' ? " " : ", ") + std::to_string(role);
    }
    EXPECT_EQ(succeed("users add root --of-this-machine --roles 2"), line + "\n");
    const CommandResult result = run("users add no-such-user --of-this-machine");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: there is no user no-such-user\n");
}

TEST_F(SandboxCommandTest, ListsUsers) {
    succeed("init");
    succeed("users add bob");
    succeed("users add alice --roles 0");
    succeed("users add host.example --machine --roles 2");
    EXPECT_EQ(succeed("users list"), "alice: roles 0\nbob: roles none\nhost.example (machine): roles 2\n");
    succeed("users remove bob");
    const CommandResult again = run("users remove bob");
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.output, "rbac-sandbox: there is no user bob\n");
}

TEST_F(SandboxCommandTest, KeepsItsSecretsFromOthers) {
    succeed("init");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_)) {
        EXPECT_EQ(modeOf(entry.path()), entry.is_directory() ? 0700U : 0600U) << entry.path();
    }
    EXPECT_EQ(modeOf(folder_), 0700U);
    EXPECT_EQ(modeOf(settings_), 0600U);
}

TEST_F(SandboxCommandTest, RefusesToUseAKeyThatOthersMayRead) {
    succeed("init");
    succeed("users add alice");
    ASSERT_EQ(chmod((folder_ + "/keys/jwtPrivateKey").c_str(), 0644), 0);
    const CommandResult result = run("tokens issue alice");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: " + folder_ +
                                 "/keys/jwtPrivateKey is open to others than its owner; take their permissions away "
                                 "first\n");
}

TEST_F(SandboxCommandTest, RefusesAFolderThatOthersMayEnter) {
    succeed("init");
    ASSERT_EQ(chmod(folder_.c_str(), 0750), 0);
    for (const char* command : {"users add alice", "users remove alice", "users list", "tokens issue alice",
                                "tokens list", "tokens revoke x"}) {
        const CommandResult result = run(command);
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.output,
                  "rbac-sandbox: " + folder_ + " is open to others than its owner; take their permissions away first\n")
            << command;
    }
}

TEST_F(SandboxCommandTest, DropsNoSandboxUnasked) {
    succeed("init");
    succeed("users add alice");
    EXPECT_EQ(run("init").status, 1);
    EXPECT_THAT(run("init").output, HasSubstr("is there already"));
    EXPECT_EQ(succeed("users list"), "alice: roles none\n");
    succeed("init --replace");
    EXPECT_EQ(succeed("users list"), "");
}

TEST_F(SandboxCommandTest, ReplacesNothingButASandbox) {
    testing_support::writeFile(folder_ + "/precious", "text");
    const CommandResult result = run("init --replace");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "rbac-sandbox: " + folder_ + " is no sandbox, so it is not replaced; remove it yourself\n");
    EXPECT_EQ(testing_support::readFile(folder_ + "/precious"), "text");
    EXPECT_FALSE(std::filesystem::exists(folder_ + "/service.lck"));
}

TEST_F(SandboxCommandTest, LeavesTheStateToWhoHasItOpen) {
    using namespace Tesmor::Arkwell::Sandbox;
    succeed("init");
    SqliteDatabase held(folder_ + "/state.db");
    UserStore users(held);
    users.put({"alice"});
    SqliteDatabase::create(folder_ + "/state.db");
    succeed("users add bob");
    EXPECT_TRUE(std::filesystem::exists(folder_ + "/state.db-wal"));
    users.put({"carol"});
    EXPECT_EQ(succeed("users list"), "alice: roles none\nbob: roles none\ncarol: roles none\n");
}

TEST_F(SandboxCommandTest, SaysHowToMakeASandbox) {
    const CommandResult result = run("users list");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: " + folder_ + " is no sandbox; make one with: rbac-sandbox init --folder " +
                                 folder_ + "\n");
}

TEST_F(SandboxCommandTest, NamesAUserThatThereIsNot) {
    succeed("init");
    const CommandResult result = run("tokens issue nobody");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: there is no user nobody\n");
}

TEST_F(SandboxCommandTest, ExplainsEveryCommandWithAnExample) {
    for (const char* command :
         {"init", "users add", "users remove", "users list", "tokens issue", "tokens list", "tokens revoke"}) {
        EXPECT_THAT(succeed(std::string(command) + " --help"), HasSubstr("Example:\n  rbac-sandbox ")) << command;
    }
    EXPECT_THAT(succeed("--help"), StartsWith("Stands in for the product's services"));
}

TEST_F(SandboxCommandTest, HasEveryCommandAndOptionInItsManual) {
    // In its source, a hyphen that is not to become a dash has a backslash before it.
    const std::string manual =
        std::regex_replace(testing_support::readFile(RBAC_SANDBOX_MANUAL), std::regex(R"(\\-)"), "-");
    const auto heading = [](const std::string& name) {
        return testing::ContainsRegex("\n\\.(B|BI|BR) [^\n]*" + name + "([ \"\n])");
    };
    std::vector<std::string> pages{""};
    for (std::size_t i = 0; i < pages.size(); ++i) {
        const std::string page = pages[i];
        const std::string help = succeed(page + " --help");
        for (const std::string& option : found(help, "\n  (?:-.,)?(--[a-z-]+)")) {
            EXPECT_THAT(manual, heading(option)) << page;
        }
        const std::size_t commands = help.find("Subcommands:");
        if (commands == std::string::npos) {
            EXPECT_THAT(manual, heading(page));
            continue;
        }
        const std::string before = page.empty() ? "" : page + " ";
        for (const std::string& command : found(help.substr(commands), "\n  ([a-z-]+) ")) {
            pages.push_back(before + command);
        }
    }
    EXPECT_THAT(pages, testing::Contains("certificates issue"));
}
