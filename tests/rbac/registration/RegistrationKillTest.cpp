#include "platform/UtcTime.h"
#include "rbac/rest/Rbac2Json.h"
#include "sandbox/ServiceProcess.h"
#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/Sanitized.h"

#include <platform/HttpClient.h>
#include <rbac/ObjectRegistrationService.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <boost/optional.hpp>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>

// The workflows of registration, with the program that runs them or the service that they talk to killed at every step.

using namespace Tesmor::Arkwell::Rbac;
using namespace testing_support;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

namespace {

constexpr int ROLE = 1;
constexpr int VIEW = 0;
constexpr int ADD = 1;
constexpr int CALLBACK_FAILED = 7;
constexpr int LIMIT_MS = 20'000;
constexpr char DB[] = "|ASSETS|db|";
constexpr char TABLE[] = "|ASSETS|db|table|";
constexpr char VM[] = "|ASSETS|vm|";
constexpr char GRANT_VIEW[] = R"({"accessDefinitions": [{"roleId": 1, "propagation": "OBJECT_AND_CHILDREN",)"
                              R"( "operations": ["|OPERATIONS|VIEW|"]}]})";
constexpr char UPDATES[] = "/arkwell/access-control/bulk-object-update-requests";

/// The steps of a workflow in their order.
enum class Moment {
    FIRST_UNSENT,
    FIRST_ARRIVED,     // not carried out yet
    FIRST_UNANSWERED,  // but carried out
    FIRST_ANSWERED,
    CALLBACK,
    SECOND_UNSENT,
    SECOND_ARRIVED,
    SECOND_UNANSWERED,
    SECOND_ANSWERED,
};

struct Step {
    Moment moment;
    const char* name;
};
void PrintTo(const Step& step, std::ostream* out) {
    *out << step.name;
}

constexpr Step FIRST_UNSENT{Moment::FIRST_UNSENT, "FirstRequestUnsent"};
constexpr Step FIRST_ARRIVED{Moment::FIRST_ARRIVED, "FirstRequestArrived"};
constexpr Step FIRST_UNANSWERED{Moment::FIRST_UNANSWERED, "FirstRequestUnanswered"};
constexpr Step FIRST_ANSWERED{Moment::FIRST_ANSWERED, "FirstRequestAnswered"};
constexpr Step CALLBACK{Moment::CALLBACK, "InTheCallback"};
constexpr Step SECOND_UNSENT{Moment::SECOND_UNSENT, "SecondRequestUnsent"};
constexpr Step SECOND_ARRIVED{Moment::SECOND_ARRIVED, "SecondRequestArrived"};
constexpr Step SECOND_UNANSWERED{Moment::SECOND_UNANSWERED, "SecondRequestUnanswered"};
constexpr Step SECOND_ANSWERED{Moment::SECOND_ANSWERED, "SecondRequestAnswered"};

/// A program that runs a workflow. What it is told goes to a file, which is there when the program has been killed.
class Program {
public:
    using Reached = std::function<void(Moment)>;

    Program(std::string report, bool callbackSucceeds, Reached reached)
        : report_(std::move(report)), callbackSucceeds_(callbackSucceeds), reached_(std::move(reached)) {}

    void isTold(const std::string& what) const { std::ofstream(report_, std::ios::app) << what << "\n"; }
    void reach(Moment moment) const { reached_(moment); }

    int process() const {
        isTold("process");
        reach(Moment::CALLBACK);
        return callbackSucceeds_ ? 0 : CALLBACK_FAILED;
    }
    void failed(int status) const { isTold("failed " + std::to_string(status)); }

private:
    std::string report_;
    bool callbackSucceeds_;
    Reached reached_;
};

template <class Callback>
class SingleCallback : public Callback {
public:
    explicit SingleCallback(const Program& program) : program_(program) {}
    int process() override { return program_.process(); }
    void failed(int status) override { program_.failed(status); }

private:
    const Program& program_;
};

/// Where it fails, it fails for the second object.
class BulkCallback : public BulkObjectRegistrationCallback {
public:
    explicit BulkCallback(const Program& program) : program_(program) {}
    int process(std::set<ObjectNamespace>& succeeded) override {
        succeeded.insert(boost::lexical_cast<ObjectNamespace>(DB));
        const int status = program_.process();
        if (status == 0) {
            succeeded.insert(boost::lexical_cast<ObjectNamespace>(VM));
        }
        return status;
    }
    void failed(int status) override { program_.failed(status); }

private:
    const Program& program_;
};

/// Tells the program where it has got to.
class ObservedClient : public AWClientCURL {
public:
    ObservedClient(const std::string& host, int port, AWCurlSessionType session, const Program& program, int& requests)
        : AWClientCURL(host, port, session, CERT_HOST), program_(program), requests_(requests) {}

    int Post(const std::string& url, const std::string& body) override {
        const bool isFirst = ++requests_ == 1;
        program_.reach(isFirst ? Moment::FIRST_UNSENT : Moment::SECOND_UNSENT);
        const int status = AWClientCURL::Post(url, body);
        if (status == 0) {
            program_.reach(isFirst ? Moment::FIRST_ANSWERED : Moment::SECOND_ANSWERED);
        }
        return status;
    }

private:
    const Program& program_;
    int& requests_;
};

class ObservedFactory : public AWClientCURL_BaseFactory {
public:
    explicit ObservedFactory(const Program& program) : program_(program) {}
    AWClientCURL_Base* create(const std::string& host, int port, AWCurlSessionType session) override {
        return new ObservedClient(host, port, session, program_, requests_);
    }

private:
    const Program& program_;
    int requests_ = 0;
};

/// The state of each object.
using Holdings = std::map<std::string, std::string>;

/// How a workflow ends whose callback has been called.
struct Ending {
    int status;
    int unheardStatus;  // where the second request has no answer
    Holdings holdings;
};

struct Workflow {
    const char* name;
    std::string firstRequest;
    Holdings before;
    Holdings between;  // the two requests
    Ending success;    // of the callback
    Ending failure;
    int (*run)(ObjectRegistrationService&, const Program&);
};
void PrintTo(const Workflow& workflow, std::ostream* out) {
    *out << workflow.name;
}

boost::shared_ptr<ObjectRegistrationData> registrationOf(const char* object,
                                                         const std::list<ObjectNamespace>& children) {
    return boost::make_shared<ObjectRegistrationData>(boost::lexical_cast<ObjectNamespace>(object), "asset",
                                                      json_loads_shared(GRANT_VIEW), children, false);
}

int runRegistration(ObjectRegistrationService& service, const Program& program) {
    return service.registerObject(registrationOf(DB, {ObjectNamespace("table")}),
                                  boost::make_shared<SingleCallback<ObjectRegistrationCallback>>(program));
}

int runUnregistration(ObjectRegistrationService& service, const Program& program) {
    return service.unregisterObject(boost::lexical_cast<ObjectNamespace>(DB),
                                    boost::make_shared<SingleCallback<ObjectUnregistrationCallback>>(program));
}

int runBulkRegistration(ObjectRegistrationService& service, const Program& program) {
    return service.bulkRegisterObjects({registrationOf(DB, {ObjectNamespace("table")}), registrationOf(VM, {})},
                                       boost::make_shared<BulkCallback>(program));
}

std::vector<Workflow> workflows() {
    return {{"RegisterObject",
             "/arkwell/access-control/object-registration-requests",
             {{DB, "absent"}, {TABLE, "absent"}},
             {{DB, "PENDING"}, {TABLE, "PENDING"}},
             {0, 8024, {{DB, "READY"}, {TABLE, "READY"}}},
             {8022, 8025, {{DB, "absent"}, {TABLE, "absent"}}},
             runRegistration},
            {"UnregisterObject",
             UPDATES,
             {{DB, "READY"}},
             {{DB, "PENDING"}},
             {0, 8024, {{DB, "absent"}}},
             {8023, 8025, {{DB, "READY"}}},
             runUnregistration},
            {"BulkRegisterObjects",
             "/arkwell/access-control/bulk-object-registration-requests",
             {{DB, "absent"}, {TABLE, "absent"}, {VM, "absent"}},
             {{DB, "PENDING"}, {TABLE, "PENDING"}, {VM, "PENDING"}},
             {0, 8030, {{DB, "READY"}, {TABLE, "READY"}, {VM, "READY"}}},
             {8022, 8030, {{DB, "READY"}, {TABLE, "READY"}, {VM, "absent"}}},
             runBulkRegistration}};
}

/// What is granted on objects in these states: VIEW is granted by their registration, ADD is inherited.
std::map<std::string, std::string> grantsWith(const Holdings& holdings) {
    static const std::map<std::string, std::string> GRANTS{
        {"absent", "ADD"}, {"PENDING", "nothing"}, {"READY", "VIEW and ADD"}};
    std::map<std::string, std::string> grants;
    for (const auto& [object, state] : holdings) {
        grants[object] = GRANTS.at(state);
    }
    return grants;
}

std::vector<std::string> pendingOf(const Holdings& holdings) {
    std::vector<std::string> pending;
    for (const auto& [object, state] : holdings) {
        if (state == "PENDING") {
            pending.push_back(object);
        }
    }
    return pending;
}

std::string hostName() {
    std::array<char, 256> name{};
    gethostname(name.data(), name.size() - 1);
    return name.data();
}

std::string nowText() {
    return platform_detail::utcText(system_clock::now());
}

using Case = std::tuple<Workflow, bool, Step>;

class RegistrationKillTest : public testing::TestWithParam<Case> {
public:
    static std::string nameOf(const testing::TestParamInfo<Case>& info) {
        return std::string(std::get<0>(info.param).name) +
               (std::get<1>(info.param) ? "CallbackSucceeds" : "CallbackFails") + std::get<2>(info.param).name;
    }

protected:
    static void TearDownTestSuite() { sandbox_.reset(); }

    void SetUp() override {
        if (!sandbox_) {
            sandbox_ = std::make_unique<Sandbox>();
            ASSERT_EQ(client()
                          .post("managed-objects/" + encoded("|ASSETS|") + "/access-definitions",
                                definitionDocument(std::to_string(ROLE), "OBJECT_AND_CHILDREN", {"ADD"}))
                          .status,
                      201);
        }
        for (const auto& [object, state] : workflow_.before) {
            if (state == "READY") {
                ASSERT_EQ(
                    client().post("object-registration-requests", registrationDocument(object, GRANT_VIEW)).status,
                    201);
                ASSERT_EQ(client().post(UPDATES, updateDocument({{object, state}})).status, 201);
            }
        }
        ASSERT_EQ(holdings(), workflow_.before);
        writeFile(report_, "");
        began_ = nowText();
    }

    void TearDown() override {
        if (HasFailure()) {
            sandbox_.reset();  // so that the next test does not fail because of this one
            return;
        }
        std::vector<std::pair<std::string, std::string>> leftOvers;
        for (const auto& [object, state] : holdings()) {
            if (state != "absent") {
                leftOvers.emplace_back(object, "DELETED");
            }
        }
        EXPECT_EQ(client().post(UPDATES, updateDocument(leftOvers)).status, 201);
    }

    /// Runs the workflow, in a program of its own.
    int runProgram(const Program::Reached& reached) const {
        const LogCapture silence;
        const Program program(report_, callbackSucceeds_, reached);
        DefaultObjectRegistrationService registrations(service()->port(), boost::make_shared<ObservedFactory>(program));
        program.isTold("returned " + std::to_string(workflow_.run(registrations, program)));
        return 0;
    }

    /// How the fault of a request that the workflow sends is called.
    std::string faultAtStep(const std::string& kind) const {
        if (step_ < Moment::CALLBACK) {
            return "POST " + workflow_.firstRequest + "=" + kind + "@1";
        }
        return std::string("POST ") + UPDATES + "=" + kind + (workflow_.firstRequest == UPDATES ? "@2" : "@1");
    }
    static void set(const std::string& fault) { ASSERT_EQ(folder().run("faults set '" + fault + "'").status, 0); }

    const Ending& ending() const { return callbackSucceeds_ ? workflow_.success : workflow_.failure; }
    const Holdings& holdingsAtStep() const {
        if (step_ < Moment::FIRST_UNANSWERED) {
            return workflow_.before;
        }
        return step_ < Moment::SECOND_UNANSWERED ? workflow_.between : ending().holdings;
    }
    std::string told() const { return readFile(report_); }

    Holdings holdings() const {
        Holdings found;
        ServiceClient asking = client();
        for (const auto& [object, state] : workflow_.before) {
            const Answer answer = asking.get("managed-objects/" + encoded(object));
            std::smatch match;
            const bool isThere = std::regex_search(answer.body, match, std::regex(R"re("state":"([A-Z]+)")re"));
            found[object] = answer.status == 404 ? "absent" : isThere ? match[1].str() : answer.body;
        }
        return found;
    }

    std::map<std::string, std::string> grants() const {
        std::map<std::string, std::string> found;
        for (const auto& [object, state] : workflow_.before) {
            const bool view = folder().allows(ROLE, VIEW, object);
            const bool add = folder().allows(ROLE, ADD, object);
            found[object] = view ? (add ? "VIEW and ADD" : "VIEW") : add ? "ADD" : "nothing";
        }
        return found;
    }

    /// That these objects and no others are listed as PENDING, since this test and by this host.
    void expectPending(const std::vector<std::string>& objects) const {
        const std::string ended = nowText();
        std::istringstream list(folder().run("pending").output);
        std::vector<std::string> listed;
        for (std::string line; std::getline(list, line);) {
            std::smatch match;
            ASSERT_TRUE(std::regex_match(line, match, std::regex("([^ ]+) since ([^ ]+) by (.*)"))) << line;
            listed.push_back(match[1]);
            EXPECT_THAT(match[2].str(), testing::AllOf(testing::Ge(began_), testing::Le(ended)));
            EXPECT_EQ(match[3], "CN=" + hostName());
        }
        EXPECT_EQ(listed, objects);
    }

    static void expectSettled(const std::string& object, const std::string& state) {
        const CommandResult result = folder().run("settle '" + object + "' " + state);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, object + " is " + state + "\n");
    }

    /// That whoever settles what is PENDING ends the workflow.
    void expectSettling() const {
        for (const std::string& object : pendingOf(holdingsAtStep())) {
            const std::string state = ending().holdings.at(object) == "READY" ? "READY" : "DELETED";
            expectSettled(object, state);
        }
        expectPending({});
        if (!pendingOf(holdingsAtStep()).empty()) {
            EXPECT_EQ(holdings(), ending().holdings);
            EXPECT_EQ(grants(), grantsWith(ending().holdings));
        }
    }

    void expectWhatTheStepImplies() const {
        EXPECT_EQ(holdings(), holdingsAtStep());
        EXPECT_EQ(grants(), grantsWith(holdingsAtStep()));
        expectPending(pendingOf(holdingsAtStep()));
        expectSettling();
    }

    static const ServiceFolder& folder() { return sandbox_->folder; }
    static boost::optional<ServiceProcess>& service() { return sandbox_->service; }
    static ServiceClient client() { return {"localhost", service()->port(), folder().hostFiles()}; }

    struct Sandbox {
        Sandbox() { service.emplace(folder); }
        ServiceFolder folder;
        boost::optional<ServiceProcess> service;
    };
    inline static std::unique_ptr<Sandbox> sandbox_;

    const Workflow workflow_ = std::get<0>(GetParam());
    const bool callbackSucceeds_ = std::get<1>(GetParam());
    const Moment step_ = std::get<2>(GetParam()).moment;
    const TemporaryDirectory directory_;
    const std::string report_ = directory_ / "report";
    std::string began_;
};

class ProgramKillTest : public RegistrationKillTest {};

class WaitingProgramKillTest : public RegistrationKillTest {
protected:
    /// Waits until something is so.
    static ::testing::AssertionResult comesTrue(const std::function<bool()>& condition) {
        const auto limit = steady_clock::now() + milliseconds(LIMIT_MS);
        while (steady_clock::now() < limit) {
            if (condition()) {
                return ::testing::AssertionSuccess();
            }
            std::this_thread::sleep_for(milliseconds(10));
        }
        return ::testing::AssertionFailure() << "not within " << LIMIT_MS << " ms";
    }
};

class ServiceKillTest : public RegistrationKillTest {
protected:
    /// Runs the workflow and kills the service when the program has got to the step.
    void killServiceByHand() const {
        Signal reached;
        Signal killed;
        ChildProcess program([&] {
            return runProgram([&](Moment moment) {
                if (moment == step_) {
                    reached.notify();
                    killed.wait();
                }
            });
        });
        ASSERT_TRUE(reached.waitFor(LIMIT_MS));
        service()->signal(SIGKILL);
        EXPECT_EQ(service()->wait(), -SIGKILL);
        killed.notify();
        EXPECT_EQ(program.wait(), 0);
    }

    /// Runs the workflow with a service that kills itself when it has got to the step.
    void killServiceByFault(const std::string& kind) const {
        set(faultAtStep(kind));
        ChildProcess program([&] { return runProgram([](Moment) {}); });
        EXPECT_EQ(program.wait(), 0);
        EXPECT_EQ(service()->wait(), -SIGKILL);
    }

    std::string toldAtStep() const {
        switch (step_) {
            case Moment::FIRST_UNSENT:
                return "failed 9554\nreturned 9554\n";
            case Moment::FIRST_ARRIVED:
            case Moment::FIRST_UNANSWERED:
                return "failed 9567\nreturned 9567\n";
            case Moment::FIRST_ANSWERED:
            case Moment::CALLBACK:
            case Moment::SECOND_UNSENT:
            case Moment::SECOND_ARRIVED:
            case Moment::SECOND_UNANSWERED:
                return "process\nreturned " + std::to_string(ending().unheardStatus) + "\n";
            case Moment::SECOND_ANSWERED:
                return "process\nreturned " + std::to_string(ending().status) + "\n";
        }
        return {};
    }
};

// A sanitizer is there for the program; how the service ends it does not see.
const auto CALLBACKS_BESIDE_THE_SERVICE = testing_support::SANITIZED
                                              ? testing::ValuesIn(std::vector<bool>{true})
                                              : testing::ValuesIn(std::vector<bool>{false, true});

INSTANTIATE_TEST_SUITE_P(EveryStep, ProgramKillTest,
                         testing::Combine(testing::ValuesIn(workflows()), testing::Bool(),
                                          testing::Values(FIRST_UNSENT, FIRST_ANSWERED, CALLBACK, SECOND_UNSENT,
                                                          SECOND_ANSWERED)),
                         RegistrationKillTest::nameOf);
INSTANTIATE_TEST_SUITE_P(EveryStep, WaitingProgramKillTest,
                         testing::Combine(testing::ValuesIn(workflows()), testing::Bool(),
                                          testing::Values(FIRST_UNANSWERED, SECOND_UNANSWERED)),
                         RegistrationKillTest::nameOf);
INSTANTIATE_TEST_SUITE_P(EveryStep, ServiceKillTest,
                         testing::Combine(testing::ValuesIn(workflows()), CALLBACKS_BESIDE_THE_SERVICE,
                                          testing::Values(FIRST_UNSENT, FIRST_ARRIVED, FIRST_UNANSWERED, FIRST_ANSWERED,
                                                          CALLBACK, SECOND_UNSENT, SECOND_ARRIVED, SECOND_UNANSWERED,
                                                          SECOND_ANSWERED)),
                         RegistrationKillTest::nameOf);

}  // namespace

TEST_P(ProgramKillTest, LeavesWhatItsRequestsHaveMade) {
    ChildProcess program([&] {
        return runProgram([&](Moment moment) {
            if (moment == step_) {
                std::raise(SIGKILL);
            }
        });
    });
    EXPECT_EQ(program.wait(), -SIGKILL);
    EXPECT_EQ(told(), step_ < Moment::CALLBACK ? "" : "process\n");
    expectWhatTheStepImplies();
}

TEST_P(WaitingProgramKillTest, LeavesWhatItsRequestWillHaveMade) {
    const std::string fault = faultAtStep("delay:200");
    set(fault);
    ChildProcess program([&] {
        return runProgram([&](Moment moment) {
            // Where the answer is quicker than the kill, the program goes no further.
            if (moment == (step_ < Moment::CALLBACK ? Moment::FIRST_ANSWERED : Moment::SECOND_ANSWERED)) {
                pause();
            }
        });
    });
    const std::string arrived = fault + " (" + fault.back() + " requests)\n";
    ASSERT_TRUE(comesTrue([&] { return folder().run("faults list").output == arrived; }));
    program.kill(SIGKILL);
    EXPECT_EQ(program.wait(), -SIGKILL);
    EXPECT_EQ(folder().run("faults clear").status, 0);
    EXPECT_EQ(told(), step_ < Moment::CALLBACK ? "" : "process\n");
    EXPECT_TRUE(comesTrue([&] { return holdings() == holdingsAtStep() && grants() == grantsWith(holdingsAtStep()); }));
    expectWhatTheStepImplies();
}

TEST_P(ServiceKillTest, LeavesWhatTheStatusTells) {
    if (step_ == Moment::FIRST_ARRIVED || step_ == Moment::SECOND_ARRIVED) {
        killServiceByFault("kill");
    } else if (step_ == Moment::FIRST_UNANSWERED || step_ == Moment::SECOND_UNANSWERED) {
        killServiceByFault("kill-after");
    } else {
        killServiceByHand();
    }
    EXPECT_EQ(told(), toldAtStep());
    EXPECT_EQ(grants(), grantsWith(holdingsAtStep()));
    expectPending(pendingOf(holdingsAtStep()));
    service().emplace(folder());
    expectWhatTheStepImplies();
}
