#include "InstallationPaths.h"
#include "jwt/AuthDatabaseFixture.h"
#include "rbac/enforcement/ConstantAccessChecker.h"
#include "rbac/enforcement/DiskAccessControlClient.h"
#include "testing/RawCache.h"

#include <platform/Dal.h>
#include <rbac/OperationCache.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

// Checkers made of session tokens.

using testing_support::AuthDatabaseFixture;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::RawCache;
using testing_support::sessionClaims;
using testing_support::signedToken;
using testing_support::strangersKey;
using testing_support::unsignedToken;
using namespace Tesmor::Arkwell::Rbac;
namespace operations = Tesmor::Arkwell::Rbac::root_namespaces::operations;

namespace {

const std::string OPERATIONS_PATH = TARVO_ROOT "/wmc/webserver/temp/operation-cache.json";
const ObjectNamespace OBJECT("A", "OBJECT");
constexpr int VIEW_BIT = 37;
constexpr int ROLE = 7;

class SessionTokenTest : public AuthDatabaseFixture {
protected:
    SessionTokenTest() {
        testing_support::writeFile(OPERATIONS_PATH, R"({"|OPERATIONS|VIEW|": 37})");
        files_.put("|A|OBJECT|", 0, {{ROLE, {VIEW_BIT}}});
        files_.write();
        cache_ = boost::make_shared<AccessCache>(Manifest("some cache", files_.directory()));
    }
    ~SessionTokenTest() override { std::filesystem::remove(OPERATIONS_PATH); }

    std::string loginWithRoles(const std::string& id, const std::string& roles) {
        return login(id, unsignedToken(R"({"roles":[)" + roles + "]}"));
    }

    testing_support::TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
    OperationCache operations_;
    boost::shared_ptr<AccessCache> cache_;
    Tesmor::Dal::DbConnectionManager manager_{0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false};
};

/// Remembers the roles that it was asked for a checker with.
class RecordingClient : public DiskAccessControlClient {
public:
    using DiskAccessControlClient::createAccessChecker;
    using DiskAccessControlClient::DiskAccessControlClient;

    int createAccessChecker(const std::set<int>& roleIds, const ObjectNamespace& /*operation*/, int option,
                            boost::shared_ptr<const AccessChecker>& /*checker*/) override {
        roles = roleIds;
        return option;
    }

    std::set<int> roles;
};

}  // namespace

INSTANTIATE_ON_BOTH_SERVERS(SessionTokenTest);

TEST_P(SessionTokenTest, MakesACheckerOfTheSessionsRoles) {
    DiskAccessControlClient client(ObjectNamespace(), cache_, operations_);
    boost::shared_ptr<const AccessChecker> checker;
    ASSERT_EQ(client.createAccessChecker(&manager_, loginWithRoles("a", "1,7"), operations::VIEW, 0, checker), 0);
    EXPECT_TRUE(checker->checkAccess(OBJECT));
    ASSERT_EQ(client.createAccessChecker(&manager_, loginWithRoles("b", "1,8"), operations::VIEW, 0, checker), 0);
    EXPECT_FALSE(checker->checkAccess(OBJECT));
}

TEST_P(SessionTokenTest, LetsRoleZeroDoEverythingAndNoRoleNothing) {
    DiskAccessControlClient client(ObjectNamespace(), cache_, operations_);
    boost::shared_ptr<const AccessChecker> checker;
    ASSERT_EQ(client.createAccessChecker(&manager_, loginWithRoles("a", "0"), operations::VIEW, 0, checker), 0);
    EXPECT_TRUE(checker->checkAccess(ObjectNamespace("NOT", "THERE")));
    ASSERT_EQ(client.createAccessChecker(&manager_, loginWithRoles("b", ""), operations::VIEW, 0, checker), 0);
    EXPECT_FALSE(checker->checkAccess(OBJECT));
}

TEST_P(SessionTokenTest, ConnectsByItselfWithoutAManager) {
    DiskAccessControlClient client(ObjectNamespace(), cache_, operations_);
    boost::shared_ptr<const AccessChecker> checker;
    ASSERT_EQ(client.createAccessChecker(nullptr, loginWithRoles("a", "7"), operations::VIEW, 0, checker), 0);
    EXPECT_TRUE(checker->checkAccess(OBJECT));
}

TEST_P(SessionTokenTest, RefusesASessionBeforeItLooksAtTheOperation) {
    std::filesystem::remove(OPERATIONS_PATH);
    DiskAccessControlClient client(ObjectNamespace(), cache_, operations_);
    boost::shared_ptr<const AccessChecker> checker;
    EXPECT_EQ(client.createAccessChecker(&manager_, "", operations::VIEW, 0, checker), 8002);
    EXPECT_EQ(client.createAccessChecker(&manager_, loginWithRoles("a", "7"), operations::VIEW, 0, checker), 13);
}

TEST_P(SessionTokenTest, ReportsThatTheDatabaseFails) {
    execute("DROP TABLE AUTH_MAIN.AUTH_Access_Token_Details");
    DiskAccessControlClient client(ObjectNamespace(), cache_, operations_);
    boost::shared_ptr<const AccessChecker> checker;
    EXPECT_EQ(client.createAccessChecker(&manager_, signedToken(sessionClaims("a")), operations::VIEW, 0, checker),
              220);
}

TEST_P(SessionTokenTest, AsksTheOverloadForRolesThatASubclassReplaces) {
    RecordingClient client(ObjectNamespace(), cache_, operations_);
    boost::shared_ptr<const AccessChecker> checker;
    EXPECT_EQ(client.createAccessChecker(&manager_, loginWithRoles("a", "1,7"), operations::VIEW, 42, checker), 42);
    EXPECT_THAT(client.roles, testing::ElementsAre(1, 7));
}

TEST_P(SessionTokenTest, MakesNoCheckerOfASessionThatIsRefused) {
    const std::pair<std::string, int> cases[] = {
        {signedToken(sessionClaims("unknown")), 117},
        {signedToken(R"({"jti":"a","exp":1})"), 8001},
        {strangersKey().signToken("{}", sessionClaims("a")), 8002},
        {"", 8002},
        {loginWithRoles("b", "7,\"7\""), 8002},
        {login("c", unsignedToken("[]")), 7610},
    };
    DiskAccessControlClient client(ObjectNamespace(), cache_, operations_);
    for (const auto& [session, status] : cases) {
        const LogCapture log;
        const boost::shared_ptr<const AccessChecker> before = boost::make_shared<ConstantAccessChecker<false>>();
        boost::shared_ptr<const AccessChecker> checker = before;
        EXPECT_EQ(client.createAccessChecker(&manager_, session, operations::VIEW, 0, checker), status);
        EXPECT_EQ(checker, before);
        EXPECT_EQ(log.lines().back(),
                  (LogLine{16, "DiskAccessControlClient::createAccessChecker",
                           "Failed to extract role IDs from ID token, error=" + std::to_string(status)}));
    }
}

TEST_P(SessionTokenTest, MakesCheckersOnEightThreadsOverOneManager) {
    constexpr int THREADS = 8;
    constexpr int CALLS = 25;
    DiskAccessControlClient client(ObjectNamespace(), cache_, operations_);
    const std::string allowed = loginWithRoles("a", "7");
    const std::string denied = loginWithRoles("b", "8");
    const LogCapture log;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, mayView = i % 2 == 0] {
            for (int call = 0; call < CALLS; ++call) {
                boost::shared_ptr<const AccessChecker> checker;
                const int status =
                    client.createAccessChecker(&manager_, mayView ? allowed : denied, operations::VIEW, 0, checker);
                wrong += status != 0 || checker->checkAccess(OBJECT) != mayView ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(log.linesAt(16), std::vector<LogLine>());
}
