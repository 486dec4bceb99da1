#include "InstallationPaths.h"
#include "platform/HttpFixture.h"
#include "rbac/enforcement/DiskAccessControlClient.h"
#include "rbac/enforcement/StubAccessControlClient.h"
#include "testing/LogCapture.h"
#include "testing/RawCache.h"
#include "testing/SecretScan.h"

#include <rbac/AccessControlClient.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <utility>

// The way from a service that answers over TLS to a client over the cache that it names.

using namespace Tesmor::Arkwell::Rbac;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::RawCache;
using testing_support::TlsServer;
using testing_support::writeFile;
namespace operations = Tesmor::Arkwell::Rbac::root_namespaces::operations;

namespace {

const std::string TEMPORARY = TARVO_ROOT "/wmc/webserver/temp";
const std::string CACHES = TEMPORARY + "/access-caches";
constexpr char CREATE[] = "AccessControlClient::create";
constexpr char RESPONSE[] = "process_access_cace_response";
constexpr int ROLE = 7;
constexpr int VIEW_BIT = 37;

class AccessControlClientCreateTest : public testing::Test {
protected:
    AccessControlClientCreateTest() {
        std::filesystem::remove_all(CACHES);
        std::filesystem::create_directories(CACHES);
        writeFile(TEMPORARY + "/operation-cache.json", R"({"|OPERATIONS|VIEW|": 37})");
        configure();
    }
    ~AccessControlClientCreateTest() override {
        std::filesystem::remove_all(CACHES);
        std::filesystem::remove(TEMPORARY + "/operation-cache.json");
        std::filesystem::remove(TEMPORARY + "/manifest.json");
    }

    /// @param others further members of the settings, each after a comma.
    void configure(const std::string& generation = "gen2", const std::string& others = "") {
        https_.useSettings("{}", R"("primaryServer":"localhost","accessEnforcement":")" + generation + "\"" + others);
    }

    /// What the log file of these settings holds after a call.
    std::string logFileOf(const std::string& generation, int debugLevel) {
        const std::string file = https_.directory() / "log";
        std::filesystem::remove(file);
        configure(generation, R"(,"log":{"file":")" + file + R"(","debugLevel":)" + std::to_string(debugLevel) + "}");
        EXPECT_EQ(create(), 0);
        std::string text = std::filesystem::exists(file) ? testing_support::readFile(file) : "";
        testing_support::refuseSecrets(file, text);
        return text;
    }

    /// Serves this one answer to everybody.
    void serve(int status, const std::string& body) {
        TlsServer::Options options = https_.options();
        options.port = 1556;
        options.clientAuthority = https_.authority.certificate();
        server_ = std::make_unique<TlsServer>(
            options, [=](testing_support::TlsConnection& connection) { connection.answerAll(status, body); });
    }

    /// Serves the id of a cache.
    void serveId(const std::string& id) { serve(200, R"({"data":{"type":"accessCache","id":")" + id + "\"}}"); }

    static void makeCache(const std::string& id, const std::string& namespaceText = "|") {
        RawCache files(CACHES + "/" + id, namespaceText);
        files.put("|A|OBJECT|", 0, {{ROLE, {VIEW_BIT}}});
        files.write();
    }

    int create(const ObjectNamespace& scope = ObjectNamespace()) { return AccessControlClient::create(scope, client_); }

    /// The status of a call that must leave the client alone.
    int failingCreate(const ObjectNamespace& scope = ObjectNamespace()) {
        const auto before = boost::make_shared<StubAccessControlClient>();
        client_ = before;
        const int status = create(scope);
        EXPECT_EQ(client_, before);
        return status;
    }

    bool mayView(const ObjectNamespace& object) const {
        boost::shared_ptr<const AccessChecker> checker;
        EXPECT_EQ(client_->createAccessChecker(std::set<int>{ROLE}, operations::VIEW, 0, checker), 0);
        return checker && checker->checkAccess(object);
    }

    /// Serves an answer that is refused.
    int statusOfBody(const std::string& body) {
        serve(200, body);
        const int status = failingCreate();
        server_.reset();
        return status;
    }

    HttpFixture https_;
    std::unique_ptr<TlsServer> server_;
    boost::shared_ptr<AccessControlClient> client_;
};

/// What the factory itself logs of its progress.
std::vector<LogLine> progress(const LogCapture& log) {
    std::vector<LogLine> own;
    for (const LogLine& line : log.linesAt(4)) {
        if (line.tag == CREATE) {
            own.push_back(line);
        }
    }
    return own;
}

std::vector<LogLine> errors(const LogCapture& log) {
    return log.linesAt(16);
}

}  // namespace

TEST_F(AccessControlClientCreateTest, OpensTheCacheThatTheServiceNames) {
    makeCache("abc");
    serve(200, R"({"data": {"type": "accessCache", "id": "abc", "extra": 1}, "more": 2})");
    const LogCapture log;
    ASSERT_EQ(create(), 0);
    EXPECT_TRUE(mayView(ObjectNamespace("A", "OBJECT")));
    EXPECT_FALSE(mayView(ObjectNamespace("A", "OTHER")));
    const std::string path = "/arkwell/access-control/access-caches/%7C";
    EXPECT_THAT(progress(log), ElementsAre(LogLine{4, CREATE, "Requesting cache for |"},
                                           LogLine{4, CREATE, "Request for " + path + "; http status 200"},
                                           LogLine{4, CREATE, "cache dir is " + CACHES + "/abc"},
                                           LogLine{4, CREATE, "instantiating access cache"},
                                           LogLine{4, CREATE, "instantiating disk access cache for |"}));
    EXPECT_THAT(log.lines(), Contains(LogLine{2, CREATE, "Gen2 enforcement."}));
    EXPECT_THAT(errors(log), IsEmpty());
    EXPECT_EQ(server_->requests().front().line, "GET " + path + " HTTP/1.1");
}

TEST_F(AccessControlClientCreateTest, AsksForTheScope) {
    makeCache("abc");
    serveId("abc");
    ASSERT_EQ(create(ObjectNamespace("A B", "C/D")), 0);
    EXPECT_EQ(server_->requests().front().line,
              "GET /arkwell/access-control/access-caches/%7CA%2BB%7CC%252FD%7C HTTP/1.1");
}

TEST_F(AccessControlClientCreateTest, TakesTheManifestsNamespaceWhateverTheScope) {
    makeCache("abc", "|MANIFEST|");
    serveId("abc");
    const LogCapture log;
    ASSERT_EQ(create(ObjectNamespace("SCOPE")), 0);
    EXPECT_THAT(log.lines(), Contains(LogLine{4, CREATE, "instantiating disk access cache for |MANIFEST|"}));
}

TEST_F(AccessControlClientCreateTest, AsksAgainEachTime) {
    makeCache("abc");
    serveId("abc");
    ASSERT_EQ(create(), 0);
    const boost::shared_ptr<AccessControlClient> first = client_;
    ASSERT_EQ(create(), 0);
    EXPECT_NE(client_, first);
    EXPECT_EQ(server_->requests().size(), 2U);
    EXPECT_EQ(server_->connections(), 1);
}

TEST_F(AccessControlClientCreateTest, AsksNobodyInTheFirstGeneration) {
    configure("gen1");
    serveId("abc");
    const LogCapture log;
    ASSERT_EQ(create(), 0);
    EXPECT_TRUE(mayView(ObjectNamespace("ANYTHING")));
    EXPECT_NE(dynamic_cast<StubAccessControlClient*>(client_.get()), nullptr);
    EXPECT_EQ(log.lines().front(), (LogLine{2, CREATE, "Gen1 enforcement."}));
    EXPECT_THAT(server_->requests(), IsEmpty());
}

TEST_F(AccessControlClientCreateTest, SharesTheOperationsAmongItsClients) {
    makeCache("abc");
    serveId("abc");
    ASSERT_EQ(create(), 0);
    EXPECT_TRUE(mayView(ObjectNamespace("A", "OBJECT")));
    std::filesystem::remove(TEMPORARY + "/operation-cache.json");
    ASSERT_EQ(create(), 0);
    EXPECT_TRUE(mayView(ObjectNamespace("A", "OBJECT")));
}

TEST_F(AccessControlClientCreateTest, AnnouncesTheGenerationFromDebugLevelFiveOn) {
    makeCache("abc");
    serveId("abc");
    for (const std::string generation : {"1", "2"}) {
        const std::string line = " 2 [0-9.]+ \\[AccessControlClient::create\\] Gen" + generation + " enforcement\\.\n";
        EXPECT_THAT(logFileOf("gen" + generation, 5), testing::ContainsRegex(line));
        EXPECT_THAT(logFileOf("gen" + generation, 4), testing::Not(testing::HasSubstr("enforcement.")));
    }
}

TEST_F(AccessControlClientCreateTest, ReportsThatThereIsNoPrimaryServer) {
    https_.settings().replace("{}");
    const LogCapture log;
    EXPECT_EQ(failingCreate(), 9513);
    EXPECT_THAT(errors(log), ElementsAre(LogLine{16, "db_getservernameEx",
                                                 "Error reading settings file " + https_.settings().path() +
                                                     ": \"primaryServer\" is missing"}));
    EXPECT_THAT(progress(log), ElementsAre(LogLine{4, CREATE, "Requesting cache for |"}));
}

TEST_F(AccessControlClientCreateTest, ReportsThatTheServiceCannotBeReached) {
    const LogCapture log;
    EXPECT_EQ(failingCreate(), 9554);
    EXPECT_EQ(errors(log).back(), (LogLine{16, CREATE, "Curl error requesting access cache: 9554"}));
    EXPECT_THAT(progress(log), ElementsAre(LogLine{4, CREATE, "Requesting cache for |"}));
}

TEST_F(AccessControlClientCreateTest, ReportsAnotherHttpStatus) {
    for (const int status : {201, 404, 500}) {
        serve(status, R"({"errorCode":8000,"errorMessage":"x"})");
        const LogCapture log;
        EXPECT_EQ(failingCreate(), 114) << status;
        EXPECT_THAT(errors(log),
                    ElementsAre(LogLine{16, CREATE, "Get access-cache return HTTP status " + std::to_string(status)}));
        EXPECT_EQ(progress(log).back(), (LogLine{4, CREATE,
                                                 "Request for /arkwell/access-control/access-caches/%7C; http status " +
                                                     std::to_string(status)}));
        server_.reset();
    }
}

TEST_F(AccessControlClientCreateTest, ReportsABodyThatIsNotJson) {
    const LogCapture log;
    EXPECT_EQ(statusOfBody("{]"), 7610);
    EXPECT_THAT(errors(log), ElementsAre(LogLine{16, RESPONSE,
                                                 "Error parsing response at position 2: string or '}' expected near "
                                                 "']'"}));
}

TEST_F(AccessControlClientCreateTest, ReportsABodyWithoutWhatIsNeeded) {
    const std::pair<const char*, const char*> cases[] = {
        {"[]", "Expected object, got array"},
        {R"({"data":[]})", "Expected object, got array"},
        {"{}", "Object item not found: data"},
        {R"({"data":{}})", "Object item not found: type"},
        {R"({"data":{"id":"abc"}})", "Object item not found: type"},
        {R"({"data":{"type":"accessCache"}})", "Object item not found: id"},
        {R"({"data":{"type":"accessCache","id":5}})", "Expected string, got integer"},
        {R"({"data":{"type":5,"id":"abc"}})", "Expected string, got integer"}};
    for (const auto& [body, message] : cases) {
        SCOPED_TRACE(body);
        const LogCapture log;
        EXPECT_EQ(statusOfBody(body), 7610);
        EXPECT_THAT(errors(log), ElementsAre(LogLine{16, RESPONSE, std::string("Error parsing response: ") + message}));
    }
}

TEST_F(AccessControlClientCreateTest, ReportsAnotherType) {
    const LogCapture log;
    EXPECT_EQ(statusOfBody(R"({"data":{"type":"accessCaches","id":"abc"}})"), 7610);
    EXPECT_THAT(errors(log),
                ElementsAre(LogLine{16, RESPONSE, "Unexpected response type. Got accessCaches; expected accessCache"}));
}

TEST_F(AccessControlClientCreateTest, RefusesAnIdWithASlash) {
    for (const std::string id : {"../x", "/abc", "abc/", "a/b", "a\\b", "\\"}) {
        std::string escaped = id;
        if (const std::size_t at = escaped.find('\\'); at != std::string::npos) {
            escaped.insert(at, "\\");
        }
        const LogCapture log;
        EXPECT_EQ(statusOfBody(R"({"data":{"type":"accessCache","id":")" + escaped + "\"}}"), 7610) << id;
        EXPECT_THAT(errors(log), ElementsAre(LogLine{16, RESPONSE, "Unexpected access-cache ID format: " + id}));
    }
}

TEST_F(AccessControlClientCreateTest, TrustsNoDirectoryOutsideOfTheCaches) {
    makeCache("abc");
    for (const char* name : {"manifest.json", "metadata", "objects", "nodes", "segments"}) {
        std::filesystem::copy_file(CACHES + "/abc/" + name, TEMPORARY + "/" + name,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    serveId("..");
    const LogCapture log;
    EXPECT_EQ(failingCreate(), 12);
    EXPECT_EQ(errors(log).back(), (LogLine{16, "Manifest constructor",
                                           "Error loading " + CACHES + "/..: it is not an access cache's directory"}));
    for (const char* name : {"manifest.json", "metadata", "objects", "nodes", "segments"}) {
        std::filesystem::remove(TEMPORARY + "/" + name);
    }
}

TEST_F(AccessControlClientCreateTest, FindsNoManifestUnderAnEmptyId) {
    serveId("");
    const LogCapture log;
    EXPECT_EQ(failingCreate(), 12);
    EXPECT_EQ(progress(log).back(), (LogLine{4, CREATE, "cache dir is " + CACHES + "/"}));
}

TEST_F(AccessControlClientCreateTest, ReportsACacheThatIsNotThere) {
    serveId("missing");
    EXPECT_EQ(failingCreate(), 12);
}

TEST_F(AccessControlClientCreateTest, ReportsADamagedManifest) {
    makeCache("abc");
    writeFile(CACHES + "/abc/manifest.json", R"({"namespace": "no namespace"})");
    serveId("abc");
    EXPECT_EQ(failingCreate(), 114);
    writeFile(CACHES + "/abc/manifest.json", "{");
    EXPECT_EQ(failingCreate(), 12);
}

TEST_F(AccessControlClientCreateTest, ReportsACacheWithoutItsFiles) {
    makeCache("abc");
    std::filesystem::remove(CACHES + "/abc/objects");
    serveId("abc");
    EXPECT_EQ(failingCreate(), 114);
}

TEST_F(AccessControlClientCreateTest, LeavesEarlierClientsValid) {
    makeCache("abc");
    serveId("abc");
    ASSERT_EQ(create(), 0);
    server_.reset();
    const boost::shared_ptr<AccessControlClient> first = client_;
    EXPECT_NE(AccessControlClient::create(ObjectNamespace(), client_), 0);
    EXPECT_EQ(client_, first);
    EXPECT_TRUE(mayView(ObjectNamespace("A", "OBJECT")));
}
