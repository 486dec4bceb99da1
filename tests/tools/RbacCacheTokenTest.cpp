#include "CommandRun.h"
#include "sandbox/ServiceProcess.h"

#include <gmock/gmock.h>

// rbac-cache with session tokens of a real sandbox.

using testing_support::CacheCommandTest;
using testing_support::CommandResult;
using testing_support::CommandRun;
using testing_support::runProgram;
using testing_support::ScopedEnvironment;
using testing_support::writeFile;

namespace {

class RbacCacheTokenTest : public CacheCommandTest {
protected:
    RbacCacheTokenTest() {
        sandbox("init");
        sandbox("users add alice --roles 5,9");
    }

    std::string sandbox(const std::string& arguments) const {
        const CommandResult result = testing_support::runSandbox(directory_ / "sandbox", arguments);
        EXPECT_EQ(result.status, 0) << result.output;
        return result.output;
    }

    /// A file with a new session token.
    std::string token(const std::string& arguments = {}) const {
        writeFile(directory_ / "token", sandbox("tokens issue alice " + arguments));
        return directory_ / "token";
    }

private:
    std::string settings_ = directory_ / "platform.json";
    ScopedEnvironment named_{"TARVO_PLATFORM_CONFIG", settings_.c_str()};
};

}  // namespace

TEST_F(RbacCacheTokenTest, TakesTheRolesOfASession) {
    EXPECT_EQ(run({"check", "VIEW", "|ASSETS|", "--token", token(), "--json"}),
              (CommandRun{0,
                          R"({"allowed":true,"operation":"|OPERATIONS|VIEW|","object":"|ASSETS|","roles":[5,9]})"
                          "\n",
                          ""}));
}

TEST_F(RbacCacheTokenTest, ReadsATokenFromTheStandardInput) {
    const std::string text = testing_support::readFile(token());
    EXPECT_EQ(runProgram({RBAC_CACHE, "what-can", "|ASSETS|", "--token", "-", "--cache", cache()}, {}, text),
              (CommandRun{0, "ADD\nVIEW\n", ""}));
}

TEST_F(RbacCacheTokenTest, SaysWhyATokenGivesNoRoles) {
    const auto expectRefused = [this](const std::string& file, const std::string& why) {
        EXPECT_EQ(
            run({"check", "VIEW", "|ASSETS|", "--token", file}),
            (CommandRun{3, "", "rbac-cache: the session token gives no roles: " + why + "; --verbose shows more\n"}));
    };
    expectRefused(token("--lifetime -60"), "the token has expired (status 8001)");
    expectRefused(token("--forged"), "the token is not valid (status 8002)");
    expectRefused(token("--unrecorded"), "the session token is unknown to the authorization database (status 117)");
    writeFile(directory_ / "nonsense", "x");
    expectRefused(directory_ / "nonsense", "the token is not valid (status 8002)");
}

TEST_F(RbacCacheTokenTest, SaysThatThereIsNoTokenToRead) {
    EXPECT_EQ(
        run({"check", "VIEW", "|ASSETS|", "--token", directory_ / "none"}),
        (CommandRun{3, "", "rbac-cache: cannot read " + (directory_ / "none") + ": No such file or directory\n"}));
}
