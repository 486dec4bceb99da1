#include "InstallationPaths.h"
#include "rbac/enforcement/AlternatingPolicies.h"
#include "rbac/rest/Rbac2Json.h"
#include "sandbox/AuthDatabase.h"
#include "sandbox/SandboxFolder.h"
#include "sandbox/ServiceProcess.h"
#include "sandbox/TokenIssuer.h"
#include "testing/Flatness.h"
#include "testing/ProcessFigures.h"
#include "testing/Sanitized.h"
#include "testing/SilentLog.h"
#include "testing/Soak.h"

#include <platform/Dal.h>
#include <rbac/AccessControlClient.h>
#include <rbac/AccessExplanation.h>
#include <rbac/EC_exception.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/ObjectRegistrationService.h>
#include <rbac/OperationAPI.h>
#include <rbac/RoleAPI.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
constexpr bool KEEPS_FREED_MEMORY = true;  // the sanitizer, for a while
#else
constexpr bool KEEPS_FREED_MEMORY = false;
#endif

// Everything that a server program does with the library, on several threads, for as long as is wanted. Between two
// rounds nobody is at work, and what the process then holds must not grow.

using namespace Tesmor::Arkwell::Rbac;
using std::chrono::steady_clock;
using testing_support::AlternatingPolicies;
using testing_support::ServiceFolder;
using testing_support::ServiceProcess;
using testing_support::SilentLog;
using testing_support::slopeOf;
using testing_support::soakSeconds;
namespace operations = Tesmor::Arkwell::Rbac::root_namespaces::operations;

namespace {

constexpr std::chrono::seconds IN_CHECK{testing_support::lessIfSanitized(12)};
constexpr double SMALLEST_LEAK = 100;  // bytes an operation

// How much of each kind is done in a round. Of none so little that its leak would be lost among the rest.
constexpr int CHECKS = 20'000;
constexpr int TOKENS = 60;
constexpr int ADMINISTRATIONS = 30;
constexpr int REGISTRATIONS = 30;
constexpr int PUBLICATIONS = 30;
constexpr int CLIENTS = 30;
constexpr int FEWEST = 30;

constexpr int NO_ROLE = 2'000'000'000;  // the service counts its roles from 1

/// What is allocated, to the byte.
double heldBytes() {
#if defined(__SANITIZE_ADDRESS__)
    return static_cast<double>(__sanitizer_get_current_allocated_bytes());
#else
    return static_cast<double>(mallinfo2().uordblks);
#endif
}

void require(bool isRight, const char* what) {
    if (!isRight) {
        throw std::runtime_error(what);
    }
}

template <class Call>
int statusOf(const Call& call) {
    try {
        call();
        return 0;
    } catch (const EC_exception& failure) {
        return failure.status;
    }
}

/// Where the library looks for the caches, while this lives the service's own.
class Installation {
public:
    explicit Installation(const ServiceFolder& folder) {
        std::filesystem::create_directories(TEMPORARY);
        remove();
        std::filesystem::create_symlink(folder.publications() + "/access-caches", TEMPORARY + "/access-caches");
        std::filesystem::create_symlink(folder.publications() + "/operation-cache.json",
                                        TEMPORARY + "/operation-cache.json");
    }
    ~Installation() { remove(); }
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

private:
    static void remove() {
        std::filesystem::remove_all(TEMPORARY + "/access-caches");
        std::filesystem::remove(TEMPORARY + "/operation-cache.json");
    }

    inline static const std::string TEMPORARY = TARVO_ROOT "/wmc/webserver/temp";
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

class BulkCallback : public BulkObjectRegistrationCallback {
public:
    explicit BulkCallback(std::set<ObjectNamespace> succeeding) : succeeding_(std::move(succeeding)) {}
    int process(std::set<ObjectNamespace>& succeeded) override {
        succeeded = succeeding_;
        return 0;
    }
    void failed(int /*status*/) override {}

private:
    std::set<ObjectNamespace> succeeding_;
};

/// A server program at work.
class Server {
public:
    Server() {
        policies_.publish(0);
        checked_ = policies_.client();
        Tesmor::Arkwell::Sandbox::AuthDatabase database;
        database.createSchema(Tesmor::Arkwell::Sandbox::DatabaseServer::SQLITE);
        const Tesmor::Arkwell::Sandbox::TokenIssuer issuer(
            Tesmor::Arkwell::Sandbox::SandboxFolder(folder_.path()).tokenKey());
        const auto now = std::chrono::system_clock::now();
        const auto session =
            issuer.issue({"user:domain:type", false, {1, 2, AlternatingPolicies::ROLE}}, now + std::chrono::hours(24));
        database.addSession(session.id, session.azToken);
        session_ = session.sessionToken;
        unknownSession_ = issuer.issue({"user:domain:type", false, {1}}, now + std::chrono::hours(24)).sessionToken;
        expiredSession_ = issuer.issue({"user:domain:type", false, {1}}, now - std::chrono::hours(1)).sessionToken;
    }

    /// A round of work.
    ///
    /// @param afterEach registration.
    /// @throws what went wrong first.
    void round(const std::function<void()>& afterEach) {
        const std::pair<int, void (Server::*)()> kinds[] = {
            {CHECKS, &Server::check},    {TOKENS, &Server::useTokens},        {ADMINISTRATIONS, &Server::administer},
            {CLIENTS, &Server::connect}, {REGISTRATIONS, &Server::registers}, {PUBLICATIONS, &Server::publish}};
        std::vector<std::future<void>> atWork;
        for (const auto& [count, work] : kinds) {
            const bool isRegistration = work == &Server::registers;
            atWork.push_back(std::async(std::launch::async, [=, count = count, work = work, &afterEach] {
                for (int i = 0; i < count; ++i) {
                    (this->*work)();
                    if (isRegistration) {
                        afterEach();
                    }
                }
            }));
        }
        for (std::future<void>& work : atWork) {
            work.get();
        }
    }

private:
    void check() {
        const auto checker = AlternatingPolicies::checkerOf(*checked_);
        require(policies_.answersTheInvariant(*checker), "a check");
        if (++checks_ % 100 != 0) {
            return;
        }
        require(policies_.policyOf(*checker) != AlternatingPolicies::MIXED, "many checks at once");
        require(policies_.policyOfList(*checked_) != AlternatingPolicies::MIXED, "a list");
        AccessExplanation why;
        require(explainAccess(*checked_, {1, 2}, operations::VIEW, ObjectNamespace("ALWAYS", "THERE"), why) == 0 &&
                    !why.allowed,
                "an explanation");
        std::ostringstream text;
        text << why;
        writeChanges(text, why, whatWouldAllow(*checked_, why));
        require(!AlternatingPolicies::checkerOf(*checked_)->checkAccess(ObjectNamespace("NOT", "THERE")), "a denial");
    }

    void useTokens() {
        const std::pair<const std::string&, int> cases[] = {
            {session_, 0}, {unknownSession_, 117}, {expiredSession_, 8001}, {forged_, 8002}};
        for (const auto& [token, status] : cases) {
            boost::shared_ptr<const AccessChecker> checker;
            require(checked_->createAccessChecker(&manager_, token, operations::VIEW, 0, checker) == status, "a token");
            require(!checker || policies_.answersTheInvariant(*checker), "a token's checker");
        }
    }

    void administer() {
        RoleAPI roles;
        Role role = roles.create_role("soak", "made and removed again and again");
        role.description = "changed";
        roles.update_role(role);
        require(roles.get_role(role.id).description == "changed", "a role");
        require(!roles.get_roles("startswith(name,'so')").empty(), "roles");
        require(!OperationAPI().get_operations("").empty(), "operations");
        ManagedObjectAPI objects;
        const ObjectNamespace& assets = root_namespaces::ASSETS;
        const auto view = json_loads_shared(R"([{"id": "|OPERATIONS|VIEW|", "type": "accessControlOperation"}])");
        const AccessDefinition definition =
            objects.add_access_definition(assets, role, Propagation::OBJECT_AND_CHILDREN, view);
        require(!objects.get_access_definitions(assets).empty(), "access definitions");
        objects.delete_access_definition_by_id(assets, definition.id);
        roles.delete_role_by_id(role.id);
        require(statusOf([&] { roles.get_role(role.id); }) != 0, "a role that is gone");
    }

    void connect() {
        boost::shared_ptr<AccessControlClient> client;
        require(AccessControlClient::create(root_namespaces::ASSETS, client) == 0, "a client");
        boost::shared_ptr<const AccessChecker> checker;
        require(client->createAccessChecker(std::set<int>{NO_ROLE}, operations::VIEW, 0, checker) == 0, "a checker");
        require(!checker->checkAccess(root_namespaces::ASSETS), "a check of a role without grants");
    }

    void registers() {
        using One = Callback<ObjectRegistrationCallback>;
        using Gone = Callback<ObjectUnregistrationCallback>;
        DefaultObjectRegistrationService service;
        const ObjectNamespace object = root_namespaces::ASSETS | "soak";
        const ObjectNamespace other = root_namespaces::ASSETS | "other";
        require(service.registerObject(dataOf(object), boost::make_shared<One>(0)) == 0, "a registration");
        require(service.unregisterObject(object, boost::make_shared<Gone>(1)) == 8023, "an unregistration that fails");
        for (const ObjectNamespace& registered : {object, object | "child"}) {
            require(service.unregisterObject(registered, boost::make_shared<Gone>(0)) == 0, "an unregistration");
        }
        require(service.registerObject(dataOf(object), boost::make_shared<One>(1)) == 8022,
                "a registration that fails");
        require(
            service.bulkRegisterObjects({dataOf(object), dataOf(other)},
                                        boost::make_shared<BulkCallback>(std::set<ObjectNamespace>{object})) == 8022,
            "a bulk registration of which half fails");
        service.bulkUpdateObjectState({}, {}, {object | "child"});
        service.deleteObject(object);
    }

    void publish() { policies_.publish(++publications_); }

    static boost::shared_ptr<ObjectRegistrationData> dataOf(const ObjectNamespace& object) {
        return boost::make_shared<ObjectRegistrationData>(object, "asset", json_loads_shared("{}"),
                                                          std::list<ObjectNamespace>{ObjectNamespace("child")}, false);
    }

    ServiceFolder folder_;
    Installation installation_{folder_};
    ServiceProcess service_{folder_, {"--port", "1556"}};
    AlternatingPolicies policies_;
    boost::shared_ptr<AccessControlClient> checked_;
    Tesmor::Dal::DbConnectionManager manager_{0, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false};
    std::string session_;
    std::string unknownSession_;
    std::string expiredSession_;
    const std::string forged_ = "eyJhbGciOiJub25lIn0.eyJqdGkiOiJhIn0.";
    unsigned checks_ = 0;
    unsigned publications_ = 0;
};

/// What the process holds, after each round.
struct Samples {
    std::vector<double> heap;      // bytes that are allocated
    std::vector<double> resident;  // bytes
    std::vector<double> descriptors;
    std::vector<double> threads;

    /// Makes room for more than there will be, so that these do not grow themselves.
    Samples() {
        constexpr std::size_t MOST = 100'000;
        for (std::vector<double>* const samples : {&heap, &resident, &descriptors, &threads}) {
            samples->reserve(MOST);
        }
    }

    void take() {
        heap.push_back(heldBytes());
        resident.push_back(static_cast<double>(testing_support::residentMemory()) * 1024);
        descriptors.push_back(testing_support::openDescriptorCount());
        threads.push_back(testing_support::threadCount());
    }

    /// Bytes that are allocated more after each operation of the rarest kind.
    double heapGrowth() const { return slopeOf(heap) / FEWEST; }
    static double change(const std::vector<double>& samples) {
        const auto third = static_cast<std::ptrdiff_t>(samples.size() / 3);
        return testing_support::medianOf({samples.end() - third, samples.end()}) -
               testing_support::medianOf({samples.begin(), samples.begin() + third});
    }
};

/// @param rounds at least so many.
Samples soak(Server& server, std::chrono::seconds time, std::size_t rounds, const std::function<void()>& afterEach) {
    Samples samples;
    const auto end = steady_clock::now() + time;
    while (steady_clock::now() < end || samples.heap.size() < rounds) {
        server.round(afterEach);
        samples.take();
    }
    return samples;
}

void print(const char* name, const std::vector<double>& samples, double unit) {
    const auto [least, most] = std::minmax_element(samples.begin(), samples.end());
    std::printf("  %-12s first %.1f, last %.1f, least %.1f, most %.1f\n", name, samples.front() / unit,
                samples.back() / unit, *least / unit, *most / unit);
}

class Soak : public testing::Test {
protected:
    static constexpr std::size_t FEWEST_ROUNDS = 6;

    void warmUp() {
        for (std::size_t i = 0; i < FEWEST_ROUNDS; ++i) {
            server_.round([] {});
        }
    }

    const SilentLog log_;
    Server server_;
};

}  // namespace

TEST_F(Soak, WhatTheProcessHoldsDoesNotGrow) {
    constexpr double KIB = 1024;
    warmUp();
    const auto began = steady_clock::now();
    const Samples samples = soak(server_, soakSeconds(IN_CHECK), FEWEST_ROUNDS, [] {});
    const std::chrono::duration<double> took = steady_clock::now() - began;

    const auto rounds = static_cast<double>(samples.heap.size());
    std::printf(
        "%.0f rounds in %.0f s, in each %d checks, %d times 4 tokens, %d administrations of 9 requests, %d new "
        "clients, %d registrations of 8 workflows, %d publications\n",
        rounds, took.count(), CHECKS, TOKENS, ADMINISTRATIONS, CLIENTS, REGISTRATIONS, PUBLICATIONS);
    print("heap, KiB", samples.heap, KIB);
    print("resident, KiB", samples.resident, KIB);
    print("descriptors", samples.descriptors, 1);
    print("threads", samples.threads, 1);
    std::printf("  heap growth: %.2f bytes an operation of the rarest kind\n", samples.heapGrowth());

    EXPECT_LT(samples.heapGrowth(), SMALLEST_LEAK / 2);
    constexpr double CHANCE = 8 * 1024 * KIB;  // how the allocator happens to place things
    EXPECT_TRUE(KEEPS_FREED_MEMORY || Samples::change(samples.resident) < CHANCE);
    constexpr double CONNECTIONS = 8;  // that happen to be kept
    EXPECT_LT(Samples::change(samples.descriptors), CONNECTIONS);
    EXPECT_EQ(Samples::change(samples.threads), 0);
}

TEST_F(Soak, ALeakOfAHundredBytesARegistrationWouldBeFound) {
    warmUp();
    std::vector<std::unique_ptr<char[]>> leaked;
    leaked.reserve(FEWEST_ROUNDS * FEWEST);
    const Samples samples = soak(server_, std::chrono::seconds(0), FEWEST_ROUNDS, [&leaked] {
        leaked.push_back(std::make_unique<char[]>(static_cast<std::size_t>(SMALLEST_LEAK)));
    });
    EXPECT_GT(samples.heapGrowth(), SMALLEST_LEAK / 2);
}
