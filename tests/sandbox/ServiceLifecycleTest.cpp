#include "ServiceProcess.h"
#include "platform/Handles.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <thread>

// How the service starts, stops, and what it has kept when it is started again.

using namespace testing_support;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char DB[] = "|ASSETS|db|";

/// Waits until a fault has had to do with a request.
bool waitForFault(const ServiceFolder& folder) {
    const auto limit = steady_clock::now() + seconds(60);
    while (steady_clock::now() < limit) {
        if (folder.run("faults list").output.find("(1 requests)") != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

TEST(ServiceLifecycleTest, SaysWhereItServes) {
    const ServiceFolder folder;
    const ServiceProcess service(folder);
    EXPECT_EQ(service.greeting(), "serving on 127.0.0.1:" + std::to_string(service.port()));
}

TEST(ServiceLifecycleTest, PublishesWhatItHasVerified) {
    const ServiceFolder folder;
    const ServiceProcess service(folder, {"--verify"});
    ServiceClient client("localhost", service.port(), folder.hostFiles());
    ASSERT_EQ(client.post("object-registration-requests", registrationDocument(DB)).status, 201);
    ASSERT_EQ(client.post("bulk-object-update-requests", updateDocument({{DB, "READY"}})).status, 201);
    ASSERT_EQ(
        client
            .post("managed-objects/" + encoded(DB) + "/access-definitions", definitionDocument("1", "OBJECT", {"VIEW"}))
            .status,
        201);
    EXPECT_TRUE(folder.allows(1, 0, DB));
}

TEST(ServiceLifecycleTest, StopsCleanlyWhenItIsTold) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        const ServiceFolder folder;
        ServiceProcess service(folder);
        service.signal(number);
        EXPECT_EQ(service.wait(), 0) << number;
    }
}

TEST(ServiceLifecycleTest, StopsAtOnceBesideConnectionsThatAreKept) {
    const ServiceFolder folder;
    ServiceProcess service(folder);
    ServiceClient client("localhost", service.port(), folder.hostFiles());
    ASSERT_EQ(client.get("roles").status, 200);
    const auto begin = steady_clock::now();
    service.signal(SIGTERM);
    EXPECT_EQ(service.wait(), 0);
    EXPECT_LT(steady_clock::now() - begin, seconds(10));
}

TEST(ServiceLifecycleTest, AnswersWhatIsInProgressWhenItIsStopped) {
    const ServiceFolder folder;
    ServiceProcess service(folder, {"--fault", "/arkwell/access-control/roles=delay:600000"});
    Answer answer;
    std::thread asking([&] {
        ServiceClient client("localhost", service.port(), folder.hostFiles());
        answer = client.post("roles", roleDocument("operators"));
    });
    EXPECT_TRUE(waitForFault(folder));
    service.signal(SIGTERM);
    asking.join();
    EXPECT_EQ(answer.status, 201);
    EXPECT_EQ(service.wait(), 0);
}

TEST(ServiceLifecycleTest, LosesNothingThatItAnsweredWhenItIsKilled) {
    const ServiceFolder folder;
    {
        ServiceProcess service(folder);
        ServiceClient client("localhost", service.port(), folder.hostFiles());
        ASSERT_EQ(client.post("roles", roleDocument("operators")).status, 201);
        ASSERT_EQ(client.post("object-registration-requests", registrationDocument(DB)).status, 201);
        ASSERT_EQ(client.post("bulk-object-update-requests", updateDocument({{DB, "READY"}})).status, 201);
        ASSERT_EQ(client
                      .post("managed-objects/" + encoded(DB) + "/access-definitions",
                            definitionDocument("2", "OBJECT", {"VIEW"}))
                      .status,
                  201);
        service.signal(SIGKILL);
        ASSERT_EQ(service.wait(), -SIGKILL);
    }
    EXPECT_TRUE(folder.allows(2, 0, DB));
    const ServiceProcess service(folder);
    ServiceClient client("localhost", service.port(), folder.hostFiles());
    EXPECT_THAT(client.get("roles/2").body, HasSubstr(R"("name":"operators")"));
    EXPECT_THAT(client.get("managed-objects/" + encoded(DB) + "/access-definitions").body,
                HasSubstr(R"("id":"|OPERATIONS|VIEW|")"));
}

TEST(ServiceLifecycleTest, KeepsAChangeThatWasAnsweredByItsDeath) {
    const ServiceFolder folder;
    {
        ServiceProcess service(folder, {"--fault", "POST /arkwell/access-control/roles=kill-after"});
        ServiceClient client("localhost", service.port(), folder.hostFiles());
        EXPECT_EQ(client.post("roles", roleDocument("operators")).status, 0);
        ASSERT_EQ(service.wait(), -SIGKILL);
    }
    const ServiceProcess service(folder);
    ServiceClient client("localhost", service.port(), folder.hostFiles());
    EXPECT_EQ(client.get("roles/2").status, 200);
}

TEST(ServiceLifecycleTest, MakesNothingOfARequestThatItDiedBefore) {
    const ServiceFolder folder;
    {
        ServiceProcess service(folder, {"--fault", "POST /arkwell/access-control/roles=kill"});
        ServiceClient client("localhost", service.port(), folder.hostFiles());
        EXPECT_EQ(client.post("roles", roleDocument("operators")).status, 0);
        ASSERT_EQ(service.wait(), -SIGKILL);
    }
    const ServiceProcess service(folder);
    ServiceClient client("localhost", service.port(), folder.hostFiles());
    EXPECT_EQ(client.get("roles/2").status, 404);
}

TEST(ServiceLifecycleTest, RepairsWhatIsPublishedWhenItStarts) {
    const ServiceFolder folder;
    {
        ServiceProcess service(folder);
        ServiceClient client("localhost", service.port(), folder.hostFiles());
        ASSERT_EQ(client
                      .post("managed-objects/" + encoded("|ASSETS|") + "/access-definitions",
                            definitionDocument("1", "OBJECT", {"VIEW"}))
                      .status,
                  201);
    }
    std::filesystem::remove_all(folder.publications());
    const ServiceProcess service(folder);
    EXPECT_TRUE(folder.allows(1, 0, "|ASSETS|"));
    EXPECT_THAT(readFile(folder.publications() + "/operation-cache.json"), HasSubstr(R"("|OPERATIONS|VIEW|": 0)"));
}

TEST(ServiceLifecycleTest, IsTheOnlyOneOnItsFolder) {
    const ServiceFolder folder;
    const ServiceProcess service(folder);
    const CommandResult second = folder.run("serve --port 0");
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.output, "rbac-sandbox: a service runs on " + folder.path() + " already\n");
}

TEST(ServiceLifecycleTest, KeepsItsFolderFromBeingReplaced) {
    const ServiceFolder folder;
    const ServiceProcess service(folder);
    const CommandResult result = folder.run("init --replace");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: a service runs on " + folder.path() + "; stop it first\n");
    ServiceClient client("localhost", service.port(), folder.hostFiles());
    EXPECT_EQ(client.get("roles").status, 200);
}

TEST(ServiceLifecycleTest, SaysThatItsPortIsTaken) {
    const ServiceFolder folder;
    const ServiceProcess service(folder);
    const ServiceFolder other;
    const std::string port = std::to_string(service.port());
    const CommandResult result = other.run("serve --port " + port);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: cannot listen on 127.0.0.1:" + port + ": Address already in use\n");
}

TEST(ServiceLifecycleTest, ListensWhereItIsTold) {
    const ServiceFolder folder;
    const ServiceProcess service(folder, {"--bind", "127.0.0.2"});
    EXPECT_THAT(service.greeting(), StartsWith("serving on 127.0.0.2:"));
}

TEST(ServiceLifecycleTest, RefusesAFolderThatOthersMayEnter) {
    const ServiceFolder folder;
    ASSERT_EQ(chmod(folder.path().c_str(), 0750), 0);
    const CommandResult result = folder.run("serve --port 0");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: " + folder.path() +
                                 " is open to others than its owner; take their permissions away first\n");
}

TEST(ServiceLifecycleTest, RefusesKeysDatabasesAndFoldersThatOthersMayUse) {
    const ServiceFolder folder;
    for (const std::string name : {"/keys", "/keys/jwtPrivateKey", "/tls", "/tls/caKey.pem", "/tls/hostKey.pem",
                                   "/tls/serviceKey.pem", "/state.db", "/auth.db"}) {
        const std::string path = folder.path() + name;
        const auto before = std::filesystem::status(path).permissions();
        for (const auto others : {std::filesystem::perms::group_read, std::filesystem::perms::others_exec}) {
            std::filesystem::permissions(path, before | others);
            const CommandResult result = folder.run("serve --port 0");
            EXPECT_EQ(result.status, 1) << name;
            EXPECT_EQ(result.output, "rbac-sandbox: " + path +
                                         " is open to others than its owner; take their permissions away first\n");
        }
        std::filesystem::permissions(path, before);
    }
    const ServiceProcess service(folder);  // nothing else was amiss
}

TEST(ServiceLifecycleTest, KeepsItsSecretsFromOthersWhateverTheUmask) {
    const mode_t before = umask(0);
    const ServiceFolder folder;
    const ServiceProcess service(folder);
    umask(before);
    ServiceClient client("localhost", service.port(), folder.hostFiles());
    ASSERT_EQ(client.post("roles", roleDocument("operators")).status, 201);
    ASSERT_EQ(folder.run("users add alice --roles 2").status, 0);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path())) {
        const std::string name = entry.path().filename();
        // What guards the folder holds nothing, and who may not enter it does not get at the socket.
        if (entry.is_socket() || (name == "service.lck" && entry.file_size() == 0)) {
            continue;
        }
        EXPECT_EQ(static_cast<unsigned>(entry.status().permissions()), entry.is_directory() ? 0700U : 0600U)
            << entry.path();
    }
    EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(folder.path()).permissions()), 0700U);
    EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(folder.file("platform.json")).permissions()), 0600U);
}

TEST(ServiceLifecycleTest, RefusesAFolderThatIsNoSandbox) {
    const ServiceFolder folder;
    std::filesystem::remove_all(folder.path());
    const CommandResult result = folder.run("serve --port 0");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "rbac-sandbox: " + folder.path() +
                                 " is no sandbox; make one with: rbac-sandbox init --folder " + folder.path() + "\n");
}

TEST(ServiceLifecycleTest, KeepsItsStateWhileOtherCommandsLookAtIt) {
    const ServiceFolder folder;
    { const ServiceProcess first(folder); }
    // The second time, the state has been written by another process already.
    const ServiceProcess service(folder);
    ServiceClient client("localhost", service.port(), folder.hostFiles());
    ASSERT_EQ(client.post("roles", roleDocument("operators")).status, 201);
    ASSERT_EQ(folder.run("users add alice --roles 2").status, 0);
    ASSERT_EQ(folder.run("pending").status, 0);
    // Whoever finds nobody else at the file removes the log of changes when it is done.
    EXPECT_TRUE(std::filesystem::exists(folder.path() + "/state.db-wal"));
    ASSERT_EQ(client.get("roles/2").status, 200);
    ASSERT_EQ(client.post("roles", roleDocument("auditors")).status, 201);
    EXPECT_EQ(client.get("roles/3").status, 200);
}

TEST(ServiceLifecycleTest, ExplainsEveryCommandWithAnExample) {
    const ServiceFolder folder;
    for (const char* command : {"serve", "import-tree", "pending", "settle", "operations add", "operations list",
                                "faults set", "faults clear", "faults list", "certificates issue"}) {
        EXPECT_THAT(folder.run(std::string(command) + " --help").output, HasSubstr("Example:\n  rbac-sandbox "))
            << command;
    }
    EXPECT_THAT(folder.run("serve --help").output, HasSubstr("for development and tests"));
}
