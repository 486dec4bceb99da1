// A program's tests of its own code, without a service, a database and an access cache: checkers, clients, the HTTP
// factory and the log sink are stand-ins. Any test framework would do; this has none.
//
//     own_tests
//
// Prints a line for each test and exits with 1 where one failed.

#include <platform/Logger.h>
#include <platform/Status.h>
#include <platform/testing/LogCapture.h>
#include <platform/testing/ScriptedHttpFactory.h>
#include <rbac/BulkAccess.h>
#include <rbac/RoleAPI.h>
#include <rbac/testing/FakeAccessControlClient.h>
#include <rbac/testing/TableAccessChecker.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <list>
#include <string>
#include <vector>

using namespace Tesmor::Arkwell::Rbac;
using platform_testing::LogCapture;
using platform_testing::ScriptedHttpFactory;
namespace operations = root_namespaces::operations;

// The program that is tested.
namespace {

std::size_t countVisible(const AccessChecker& checker, const std::vector<ObjectNamespace>& objects) {
    std::size_t count = 0;
    for (const bool visible : checkAccessToAll(checker, objects)) {
        count += visible ? 1 : 0;
    }
    return count;
}

/// What the button says that deletes an object.
std::string deleteButton(AccessControlClient& client, const std::string& session, const ObjectNamespace& object) {
    try {
        boost::shared_ptr<const AccessChecker> checker;
        if (const int status = client.createAccessChecker(nullptr, session, operations::DELETE_NS, 0, checker)) {
            throw EC_exception(status);
        }
        return checker && checker->checkAccess(object) ? "Delete" : "(you may not delete this)";
    } catch (const EC_exception& failure) {
        logmsgf(16, "deleteButton", "no answer for %s: status %d", object.str().c_str(), failure.status);
        return "(log in again)";
    }
}

/// The id of the role of this name, which is made if there is none.
int roleOf(RoleAPI& api, const std::string& name) {
    const std::list<Role> known = api.get_roles("name eq '" + name + "'");
    return known.empty() ? api.create_role(name, "").id : known.front().id;
}

}  // namespace

// Its tests.
namespace {

int failures = 0;

template <class Value>
void expectEqual(const char* test, const Value& actual, const Value& expected) {
    const bool passed = actual == expected;
    failures += passed ? 0 : 1;
    std::cout << (passed ? "passed: " : "FAILED: ") << test << "\n";
    if (!passed) {
        std::cout << "    " << actual << " instead of " << expected << "\n";
    }
}

const ObjectNamespace DB("ASSETS", "db");
const ObjectNamespace OTHER_DB("ASSETS", "other db");

void testLists() {
    TableAccessChecker checker;
    checker.allow(DB);
    expectEqual("counts what is visible", countVisible(checker, {DB, OTHER_DB}), std::size_t{1});
    expectEqual("asks for every object", checker.asked().size(), std::size_t{2});
}

void testButtons() {
    const LogCapture log;
    FakeAccessControlClient client;
    client.addSession("alice's", {5});
    client.refuseSession("yesterday's", 8001);
    client.grant(5, operations::DELETE_NS, DB);
    expectEqual("offers what is granted", deleteButton(client, "alice's", DB), std::string("Delete"));
    expectEqual("offers nothing else", deleteButton(client, "alice's", OTHER_DB),
                std::string("(you may not delete this)"));
    expectEqual("wants a session that has not expired", deleteButton(client, "yesterday's", DB),
                std::string("(log in again)"));
    expectEqual("logs why there is no answer", log.lines().back(),
                {16, "deleteButton", "no answer for |ASSETS|db|: status 8001"});
    client.failChecks(12);
    deleteButton(client, "alice's", DB);
    expectEqual("logs that the access cache is invalid", log.lines().back(),
                {16, "deleteButton", "no answer for |ASSETS|db|: status 12"});
}

void testRoles() {
    const LogCapture log;
    const auto http = boost::make_shared<ScriptedHttpFactory>();
    const std::string url = "arkwell/access-control/roles";
    http->on("GET", url + "?filter=name%20eq%20%27auditors%27").answer(200, R"({"data":[]})");
    http->on("POST", url).answer(201, R"({"data":{"type":"accessControlRole","id":"7","attributes":{"name":"n"}}})");
    RoleAPI api(http);
    expectEqual("makes a role that is not there", roleOf(api, "auditors"), 7);
    expectEqual("sends the two requests and no other", http->complaint(), std::string());
}

}  // namespace

int main() {
    // The clients of the service ask the settings for its name.
    std::string folder = std::filesystem::temp_directory_path() / "own_tests.XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        std::cerr << "own_tests: cannot make " << folder << "\n";
        return 1;
    }
    const std::string settings = folder + "/settings.json";
    std::ofstream(settings) << R"({"primaryServer":"primary.example"})";
    setenv("TARVO_PLATFORM_CONFIG", settings.c_str(), 1);
    testLists();
    testButtons();
    testRoles();
    std::filesystem::remove_all(folder);
    return failures == 0 ? 0 : 1;
}
