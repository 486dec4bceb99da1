#include "platform/SettingsFixture.h"
#include "rbac/rest/Rbac2Json.h"
#include "testing/OutOfMemory.h"
#include "testing/ScriptedHttp.h"
#include "testing/SilentLog.h"

#include <rbac/ManagedObjectAPI.h>
#include <rbac/ObjectRegistrationService.h>
#include <rbac/OperationAPI.h>
#include <rbac/RoleAPI.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <jansson.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <set>
#include <string>
#include <thread>
#include <vector>

// Every allocation of requests and registrations fails in turn, jansson's too. What is sent nevertheless is whole.

using namespace Tesmor::Arkwell::Rbac;
using testing::IsSubsetOf;
using testing_support::BAD_ALLOC;
using testing_support::endingsWithoutMemory;
using testing_support::HttpRequest;
using testing_support::ScriptedHttp;

namespace {

constexpr int WRONG = 99;
constexpr int REQUEST_FAILED = 114;
constexpr int JSON_INVALID = 7610;
constexpr int DOCUMENT_UNEXPECTED = 9103;

[[maybe_unused]] const bool JANSSON_FAILS_TOO = [] {
    json_set_alloc_funcs(testing_support::allocateForJansson, testing_support::releaseForJansson);
    return true;
}();

constexpr char ROLE[] = R"({"type":"accessControlRole","links":{"self":{"href":"/access-control/roles/7"}},"id":"7",)"
                        R"("attributes":{"name":"a name","description":"described","systemDefined":true}})";
constexpr char DEFINITION[] =
    R"({"type":"accessDefinition","links":{"self":{"href":"/somewhere"}},"id":"17","attributes":{"propagation":)"
    R"("CHILDREN"},"relationships":{"role":{"data":{"type":"accessControlRole","id":"7"}},"operations":{"data":)"
    R"([{"type":"accessControlOperation","id":"|OPERATIONS|VIEW|"}]},"managedObject":{"data":)"
    R"({"type":"managedObject","id":"|ASSETS|"}}}})";
constexpr char OBJECT[] = R"({"type":"managedObject","id":"|ASSETS|a+name+of+some+length|",)"
                          R"("attributes":{"inherit":true,"state":"READY"}})";
constexpr char REGISTERED[] =
    R"({"id":"|ASSETS|a+name+of+some+length|","relationships":{"registeredObjects":{"data":)"
    R"([{"id":"|ASSETS|a+name+of+some+length|"},{"id":"|ASSETS|a+name+of+some+length|child|"}]}}})";

std::string data(const std::string& value) {
    return R"({"data":)" + value + "}";
}
std::string list(const std::string& value) {
    return R"({"data":[)" + value + "]}";
}

struct Answer {
    long status;
    std::string body;
};

template <class Interface>
class Callback : public Interface {
public:
    explicit Callback(int result) : result_(result) {}
    int process() override { return result_; }
    void failed(int /*status*/) override {}

private:
    int result_;
};

class AllSucceed : public BulkObjectRegistrationCallback {
public:
    explicit AllSucceed(const ObjectNamespace& object) : all_{object} {}
    int process(std::set<ObjectNamespace>& succeeded) override {
        succeeded.swap(all_);
        return 0;
    }
    void failed(int /*status*/) override {}

private:
    std::set<ObjectNamespace> all_;
};

class RestOutOfMemory : public testing::Test {
protected:
    RestOutOfMemory() {
        // A settings file that has just changed is read again every time, for one tick of the clock.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    using Work = std::function<int(const boost::shared_ptr<AWClientCURL_BaseFactory>&)>;

    /// How the work ends, which gets these answers. Nothing is sent but what is sent with memory enough.
    static std::set<int> endingsOf(const std::vector<Answer>& answers, const Work& work) {
        std::vector<HttpRequest> sent;
        sent.reserve(MOST_REQUESTS);
        const auto isBeginning = [&](const std::vector<HttpRequest>& requests) {
            return isBeginningOf(sent, requests);
        };
        const auto run = [&](std::vector<HttpRequest>* whole) {
            const auto http = boost::make_shared<ScriptedHttp>();
            for (const Answer& answer : answers) {
                http->answer(answer.status, answer.body);
            }
            int status = WRONG;
            try {
                status = work(http);
            } catch (...) {
                return http->lookAtRequests(isBeginning) ? throw : WRONG;
            }
            if (whole != nullptr) {
                *whole = http->requests();
            }
            return http->lookAtRequests(isBeginning) ? status : WRONG;
        };
        EXPECT_EQ(run(&sent), 0);
        return endingsWithoutMemory([&] { return run(nullptr); });
    }

    /// One request.
    static std::set<int> endingsOf(long status, const std::string& answer, const Work& work) {
        return endingsOf({{status, answer}}, work);
    }

    static boost::shared_ptr<ObjectRegistrationData> registration() {
        return boost::make_shared<ObjectRegistrationData>(
            object(), "a type of some length", json_loads_shared(R"({"owner":"somebody"})"),
            std::list<ObjectNamespace>{ObjectNamespace("child"), ObjectNamespace("another child of it")}, false);
    }
    static ObjectNamespace object() { return {"ASSETS", "a name of some length"}; }

private:
    static constexpr std::size_t MOST_REQUESTS = 10;

    static bool isBeginningOf(const std::vector<HttpRequest>& whole, const std::vector<HttpRequest>& sent) {
        return sent.size() <= whole.size() && std::equal(sent.begin(), sent.end(), whole.begin());
    }

    testing_support::SilentLog log_;
    SettingsFixture settings_{R"({"primaryServer":"primary.example"})"};
};

const std::set<int> EXPECTED{BAD_ALLOC, 0, REQUEST_FAILED, JSON_INVALID, DOCUMENT_UNEXPECTED};

}  // namespace

TEST_F(RestOutOfMemory, ClientsOfResourcesFailAndSendNothingIncomplete) {
    const std::string role = data(ROLE);
    int number = 0;
    const auto expect = [&number](const std::set<int>& endings) {
        EXPECT_THAT(endings, IsSubsetOf(EXPECTED)) << "request " << number;
        ++number;
    };
    expect(endingsOf(200, role, [](const auto& http) { return RoleAPI(http).get_role(7).id == 7 ? 0 : WRONG; }));
    expect(endingsOf(200, list(ROLE), [](const auto& http) {
        return RoleAPI(http).get_roles("startswith(name,'a')").size() == 1 ? 0 : WRONG;
    }));
    expect(endingsOf(201, role, [](const auto& http) {
        return RoleAPI(http).create_role("a name", "described").name == "a name" ? 0 : WRONG;
    }));
    expect(endingsOf({{200, role}, {204, ""}}, [](const auto& http) {
        RoleAPI roles(http);
        roles.update_role(roles.get_role(7));
        return 0;
    }));
    expect(endingsOf(204, "", [](const auto& http) {
        RoleAPI(http).delete_role_by_id(7);
        return 0;
    }));
    expect(endingsOf(200, list(R"({"type":"accessControlOperation","id":"|OPERATIONS|VIEW|"})"),
                     [](const auto& http) { return OperationAPI(http).get_operations("").size() == 1 ? 0 : WRONG; }));
    expect(endingsOf(200, data(OBJECT), [](const auto& http) {
        return ManagedObjectAPI(http).get_object(object()).objectNamespace == object() ? 0 : WRONG;
    }));
    expect(endingsOf(204, "", [](const auto& http) {
        ManagedObjectAPI(http).set_inherit(object(), false);
        return 0;
    }));
    expect(endingsOf(200, list(DEFINITION), [](const auto& http) {
        return ManagedObjectAPI(http).get_access_definitions(object()).front().roleId == 7 ? 0 : WRONG;
    }));
    expect(endingsOf({{200, role}, {201, data(DEFINITION)}}, [](const auto& http) {
        const auto operations = json_loads_shared(R"([{"id":"|OPERATIONS|VIEW|","type":"accessControlOperation"}])");
        return ManagedObjectAPI(http)
                           .add_access_definition(object(), RoleAPI(http).get_role(7), Propagation::CHILDREN,
                                                  operations)
                           .id == "17"
                   ? 0
                   : WRONG;
    }));
    expect(endingsOf(204, "", [](const auto& http) {
        ManagedObjectAPI(http).delete_access_definition_by_id(object(), "17");
        return 0;
    }));
}

TEST_F(RestOutOfMemory, RegistrationsFailAndSendNothingIncomplete) {
    constexpr int COMMIT_FAILED = 8024;
    EXPECT_THAT(endingsOf({{201, data(REGISTERED)}, {201, ""}},
                          [](const auto& http) {
                              DefaultObjectRegistrationService service(1556, http);
                              return service.registerObject(
                                  registration(), boost::make_shared<Callback<ObjectRegistrationCallback>>(0));
                          }),
                testing::ElementsAre(BAD_ALLOC, 0, REQUEST_FAILED, JSON_INVALID, COMMIT_FAILED, DOCUMENT_UNEXPECTED));
}

TEST_F(RestOutOfMemory, RegistrationsThatAreTakenBackFailAndSendNothingIncomplete) {
    constexpr int TAKEN_BACK = 8022;
    constexpr int TAKING_BACK_FAILED = 8025;
    EXPECT_THAT(
        endingsOf({{201, data(REGISTERED)}, {201, ""}},
                  [](const auto& http) {
                      DefaultObjectRegistrationService service(1556, http);
                      const int status = service.registerObject(
                          registration(), boost::make_shared<Callback<ObjectRegistrationCallback>>(1));
                      return status == TAKEN_BACK ? 0 : status;
                  }),
        testing::ElementsAre(BAD_ALLOC, 0, REQUEST_FAILED, JSON_INVALID, TAKING_BACK_FAILED, DOCUMENT_UNEXPECTED));
}

TEST_F(RestOutOfMemory, UnregistrationsFailAndSendNothingIncomplete) {
    constexpr int DELETION_FAILED = 8024;
    EXPECT_THAT(endingsOf({{201, ""}, {201, ""}},
                          [](const auto& http) {
                              DefaultObjectRegistrationService service(1556, http);
                              return service.unregisterObject(
                                  object(), boost::make_shared<Callback<ObjectUnregistrationCallback>>(0));
                          }),
                testing::ElementsAre(BAD_ALLOC, 0, REQUEST_FAILED, DELETION_FAILED));
}

TEST_F(RestOutOfMemory, BulkRegistrationsFailAndSendNothingIncomplete) {
    constexpr int UPDATE_FAILED = 8030;
    EXPECT_THAT(endingsOf({{201, list(REGISTERED)}, {201, ""}},
                          [](const auto& http) {
                              DefaultObjectRegistrationService service(1556, http);
                              return service.bulkRegisterObjects({registration()},
                                                                 boost::make_shared<AllSucceed>(object()));
                          }),
                testing::ElementsAre(BAD_ALLOC, 0, REQUEST_FAILED, JSON_INVALID, UPDATE_FAILED, DOCUMENT_UNEXPECTED));
}

TEST_F(RestOutOfMemory, StateUpdatesFailAndSendNothingIncomplete) {
    EXPECT_THAT(
        endingsOf({{201, ""}, {201, ""}},
                  [](const auto& http) {
                      DefaultObjectRegistrationService service(1556, http);
                      service.bulkUpdateObjectState({object()}, {object() | "child"}, {ObjectNamespace("gone")});
                      const auto request = DefaultObjectRegistrationService::buildBulkStateUpdateRequest(
                          {object()}, {object() | "child"}, {});
                      std::string response;
                      service.sendHttpRequest(HTTP_POST, "somewhere", json_dumps_shared(request).get(), response);
                      return 0;
                  }),
        testing::ElementsAre(BAD_ALLOC, 0));
}
