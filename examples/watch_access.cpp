// A server program: it gets its client from the access-control service, checkers from session tokens, and answers,
// again and again while somebody else changes the access.
//
//     watch_access WATCHED_PATH TOKENS_FILE [--turns N] [--path PATH]...
//
// The tokens file has a line "NAME TOKEN" for each user. Prints a table of users, paths and operations, then checks
// whether the first user may view WATCHED_PATH until the answer has turned N times, then prints the table again and how
// fast it was.

#include "sandbox/TreeImport.h"

#include <platform/Dal.h>
#include <platform/Status.h>
#include <rbac/AccessControlClient.h>
#include <rbac/EC_exception.h>

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <exception>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using Clock = std::chrono::steady_clock;
namespace operations = root_namespaces::operations;

constexpr std::chrono::seconds LONGEST_WAIT{60};

struct User {
    std::string name;
    std::string sessionToken;
};

struct Arguments {
    std::string watched;
    int turns;
    std::vector<User> users;
    std::vector<std::string> paths;
};

/// The client with the connections that sessions are looked up over: both are made once in a program.
struct Enforcement {
    AccessControlClient& client;
    Tesmor::Dal::DbConnectionManager& database;
};

std::vector<User> readUsers(const std::string& path) {
    std::vector<User> users;
    std::ifstream file(path);
    for (User user; file >> user.name >> user.sessionToken;) {
        users.push_back(user);
    }
    if (users.empty()) {
        throw std::runtime_error("no users in " + path);
    }
    return users;
}

Arguments parseArguments(const std::vector<std::string>& words) {
    if (words.size() < 2) {
        throw std::invalid_argument("usage: watch_access WATCHED_PATH TOKENS_FILE [--turns N] [--path PATH]...");
    }
    Arguments arguments{words[0], 1, readUsers(words[1]), {}};
    for (std::size_t i = 2; i + 1 < words.size(); i += 2) {
        if (words[i] == "--path") {
            arguments.paths.push_back(words[i + 1]);
        } else if (words[i] == "--turns") {
            arguments.turns = std::stoi(words[i + 1]);
        } else {
            throw std::invalid_argument("unknown option " + words[i]);
        }
    }
    return arguments;
}

/// @return 0, or why the user gets no checker.
int makeChecker(const Enforcement& enforcement, const User& user, const ObjectNamespace& operation,
                boost::shared_ptr<const AccessChecker>& checker) {
    const int status =
        enforcement.client.createAccessChecker(&enforcement.database, user.sessionToken, operation, 0, checker);
    if (status == 0 && !checker) {
        throw std::bad_alloc();
    }
    return status;
}

boost::shared_ptr<const AccessChecker> requireChecker(const Enforcement& enforcement, const User& user,
                                                      const ObjectNamespace& operation) {
    boost::shared_ptr<const AccessChecker> checker;
    if (const int status = makeChecker(enforcement, user, operation, checker); status != 0) {
        throw EC_exception(status);
    }
    return checker;
}

/// What the user may do to the object, in words, or why the user is not let in.
std::string describe(const Enforcement& enforcement, const User& user, const ObjectNamespace& object) {
    const std::vector<std::pair<std::string, const ObjectNamespace*>> asked{
        {"VIEW", &operations::VIEW}, {"UPDATE", &operations::UPDATE}, {"DELETE", &operations::DELETE_NS}};
    std::string text;
    for (const auto& [name, operation] : asked) {
        boost::shared_ptr<const AccessChecker> checker;
        if (const int status = makeChecker(enforcement, user, *operation, checker); status != 0) {
            return "refused with status " + std::to_string(status) + ": " + getECmsg(status);
        }
        text += (text.empty() ? "" : " ") + (checker->checkAccess(object) ? name : std::string(name.size(), '-'));
    }
    return text;
}

void printTable(const Enforcement& enforcement, const Arguments& arguments) {
    for (const std::string& path : arguments.paths) {
        std::cout << path << "\n";
        for (const User& user : arguments.users) {
            std::cout << "    " << std::left << std::setw(12) << user.name << " "
                      << describe(enforcement, user, Tesmor::Arkwell::Sandbox::namespaceOfPath(path)) << "\n";
        }
    }
}

/// Checks until the answer turns. Prints how many checks that took.
void awaitTurn(const AccessChecker& checker, const ObjectNamespace& object) {
    const bool before = checker.checkAccess(object);
    std::cout << (before ? "yes" : "no") << ". Checking on ..." << std::endl;
    const Clock::time_point begin = Clock::now();
    std::size_t checks = 1;
    while (checker.checkAccess(object) == before) {
        ++checks;
        if (checks % 1024 == 0 && Clock::now() - begin > LONGEST_WAIT) {
            throw std::runtime_error("the answer has not turned");
        }
    }
    const auto took = std::chrono::duration<double>(Clock::now() - begin).count();
    std::cout << "After " << checks << " checks in " << std::fixed << std::setprecision(2) << took
              << " s the same checker says: ";
}

void watch(const Enforcement& enforcement, const Arguments& arguments) {
    const User& user = arguments.users.front();
    const auto checker = requireChecker(enforcement, user, operations::VIEW);
    const ObjectNamespace object = Tesmor::Arkwell::Sandbox::namespaceOfPath(arguments.watched);
    std::cout << "\nMay " << user.name << " VIEW " << arguments.watched << "? ";
    for (int turn = 0; turn < arguments.turns; ++turn) {
        awaitTurn(*checker, object);
    }
    std::cout << (checker->checkAccess(object) ? "yes" : "no") << "\n";
}

double checksPerSecond(const Enforcement& enforcement, const Arguments& arguments) {
    const auto checker = requireChecker(enforcement, arguments.users.front(), operations::VIEW);
    std::vector<ObjectNamespace> objects;
    for (const std::string& path : arguments.paths) {
        objects.push_back(Tesmor::Arkwell::Sandbox::namespaceOfPath(path));
        objects.back().str();
    }
    constexpr std::size_t CHECKS = 500'000;
    const Clock::time_point begin = Clock::now();
    for (std::size_t i = 0; i < CHECKS; ++i) {
        checker->checkAccess(objects[i % objects.size()]);
    }
    return CHECKS / std::chrono::duration<double>(Clock::now() - begin).count();
}

boost::shared_ptr<AccessControlClient> createClient() {
    boost::shared_ptr<AccessControlClient> client;
    if (const int status = AccessControlClient::create(ObjectNamespace(), client); status != 0) {
        throw EC_exception(status);
    }
    return client;
}

void run(const Arguments& arguments) {
    const Clock::time_point begin = Clock::now();
    const boost::shared_ptr<AccessControlClient> client = createClient();
    const auto creation = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();

    Tesmor::Dal::DbConnectionManager database(1, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false);
    const Enforcement enforcement{*client, database};
    printTable(enforcement, arguments);
    watch(enforcement, arguments);
    std::cout << "\n";
    printTable(enforcement, arguments);
    std::cout << "\nThe client was made in " << std::setprecision(1) << creation << " ms; " << std::setprecision(0)
              << checksPerSecond(enforcement, arguments) << " checks per second on one thread\n";
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(parseArguments({argv + 1, argv + argc}));
    } catch (const std::exception& failure) {
        std::cerr << "watch_access: " << failure.what() << "\n";
        return 1;
    }
    return 0;
}
