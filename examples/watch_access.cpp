// A server program: it gets its client from the access-control service, checkers from session tokens, and answers.
//
//     watch_access TOKENS_FILE TURNS OBJECT...
//
// The tokens file has a line "NAME TOKEN" for each user, and an OBJECT is a namespace such as "|ASSETS|db|". Prints a
// table of objects, users and operations, checks whether the first user may view the first object until the answer has
// turned TURNS times, prints the table again, and says how fast all that is.

#include "Users.h"

#include <platform/Dal.h>
#include <rbac/AccessControlClient.h>
#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <chrono>
#include <exception>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using Clock = std::chrono::steady_clock;
namespace operations = root_namespaces::operations;

constexpr std::chrono::seconds LONGEST_WAIT{60};

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// The client with the connections that sessions are looked up over: both are made once in a program.
class Enforcement {
public:
    Enforcement() {
        if (const int status = AccessControlClient::create(ObjectNamespace(), client_); status != 0) {
            throw EC_exception(status);
        }
    }

    /// @throws EC_exception: why the user gets no checker.
    boost::shared_ptr<const AccessChecker> checkerFor(const User& user, const ObjectNamespace& operation) {
        boost::shared_ptr<const AccessChecker> checker;
        const int status = client_->createAccessChecker(&database_, user.sessionToken, operation, 0, checker);
        if (status != 0 || !checker) {
            throw EC_exception(status != 0 ? status : OUT_OF_MEMORY);
        }
        return checker;
    }

private:
    static constexpr int OUT_OF_MEMORY = 36;

    boost::shared_ptr<AccessControlClient> client_;
    Tesmor::Dal::DbConnectionManager database_{1, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false};
};

/// What the user may do to the object, in words, or why the user is not let in.
std::string describe(Enforcement& enforcement, const User& user, const ObjectNamespace& object) {
    const std::vector<std::pair<std::string, const ObjectNamespace*>> asked{
        {"VIEW", &operations::VIEW}, {"UPDATE", &operations::UPDATE}, {"DELETE", &operations::DELETE_NS}};
    std::string text;
    try {
        for (const auto& [name, operation] : asked) {
            const bool allowed = enforcement.checkerFor(user, *operation)->checkAccess(object);
            text += (text.empty() ? "" : " ") + (allowed ? name : std::string(name.size(), '-'));
        }
    } catch (const EC_exception& failure) {
        return "refused with status " + std::to_string(failure.status) + ": " + failure.what();
    }
    return text;
}

void printTable(Enforcement& enforcement, const std::vector<User>& users, const std::vector<ObjectNamespace>& objects) {
    for (const ObjectNamespace& object : objects) {
        std::cout << object << "\n";
        for (const User& user : users) {
            std::cout << "    " << std::left << std::setw(12) << user.name << " " << describe(enforcement, user, object)
                      << "\n";
        }
    }
}

/// Checks until the answer turns. Prints how fast that went.
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
    std::cout << "After " << checks << " checks in " << std::fixed << std::setprecision(2) << secondsSince(begin)
              << " s the same checker says: ";
}

void watch(Enforcement& enforcement, const User& user, const ObjectNamespace& object, int turns) {
    const auto checker = enforcement.checkerFor(user, operations::VIEW);
    std::cout << "\nMay " << user.name << " VIEW " << object << "? ";
    for (int turn = 0; turn < turns; ++turn) {
        awaitTurn(*checker, object);
    }
    std::cout << (checker->checkAccess(object) ? "yes" : "no") << "\n\n";
}

double checksPerSecond(const AccessChecker& checker, const ObjectNamespace& object) {
    constexpr int CHECKS = 200'000;
    const Clock::time_point begin = Clock::now();
    for (int i = 0; i < CHECKS; ++i) {
        static_cast<void>(checker.checkAccess(object));
    }
    return CHECKS / secondsSince(begin);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc < 4) {
            throw std::invalid_argument("usage: watch_access TOKENS_FILE TURNS OBJECT...");
        }
        const std::vector<User> users = readUsers(argv[1]);
        std::vector<ObjectNamespace> objects(static_cast<std::size_t>(argc - 3));
        std::transform(argv + 3, argv + argc, objects.begin(), boost::lexical_cast<ObjectNamespace, const char*>);
        const Clock::time_point begin = Clock::now();
        Enforcement enforcement;
        const double opened = secondsSince(begin) * 1000;
        printTable(enforcement, users, objects);
        watch(enforcement, users.front(), objects.front(), std::stoi(argv[2]));
        printTable(enforcement, users, objects);
        std::cout << "\nThe client was made in " << opened << " ms; " << std::setprecision(0)
                  << checksPerSecond(*enforcement.checkerFor(users.front(), operations::VIEW), objects.front())
                  << " checks per second on one thread\n";
    } catch (const std::exception& failure) {
        std::cerr << "watch_access: " << failure.what() << "\n";
        return 1;
    }
}
