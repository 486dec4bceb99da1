// Who may do what, asked of an access cache again and again while another process rewrites it.
//
// watch_access CACHE_DIRECTORY WATCHED_PATH --user NAME=ROLE,ROLE... --path PATH...
//
// Prints a table of users, paths and operations, then checks until an answer about WATCHED_PATH turns, then prints the
// table again and how fast it was.

#include "rbac/enforcement/DiskAccessControlClient.h"
#include "sandbox/TreeImport.h"

#include <rbac/AccessCache.h>
#include <rbac/OperationCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>

#include <chrono>
#include <exception>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using Clock = std::chrono::steady_clock;
namespace operations = root_namespaces::operations;

constexpr std::chrono::seconds LONGEST_WAIT{60};

struct User {
    std::string name;
    std::set<int> roles;
};

struct Arguments {
    std::string cacheDirectory;
    std::string watched;
    std::vector<User> users;
    std::vector<std::string> paths;
};

User parseUser(const std::string& text) {
    const std::size_t equals = text.find('=');
    User user{text.substr(0, equals), {}};
    std::istringstream roles(equals == std::string::npos ? "" : text.substr(equals + 1));
    for (std::string role; std::getline(roles, role, ',');) {
        user.roles.insert(boost::lexical_cast<int>(role));
    }
    return user;
}

Arguments parseArguments(const std::vector<std::string>& words) {
    if (words.size() < 2) {
        throw std::invalid_argument(
            "usage: watch_access CACHE_DIRECTORY WATCHED_PATH [--user NAME=ROLES] [--path PATH]");
    }
    Arguments arguments{words[0], words[1], {}, {}};
    for (std::size_t i = 2; i + 1 < words.size(); i += 2) {
        if (words[i] == "--user") {
            arguments.users.push_back(parseUser(words[i + 1]));
        } else if (words[i] == "--path") {
            arguments.paths.push_back(words[i + 1]);
        } else {
            throw std::invalid_argument("unknown option " + words[i]);
        }
    }
    return arguments;
}

boost::shared_ptr<const AccessChecker> makeChecker(AccessControlClient& client, const User& user,
                                                   const ObjectNamespace& operation) {
    boost::shared_ptr<const AccessChecker> checker;
    const int status = client.createAccessChecker(user.roles, operation, 0, checker);
    if (status != 0) {
        throw EC_exception(status);
    }
    if (!checker) {
        throw std::bad_alloc();
    }
    return checker;
}

void printTable(AccessControlClient& client, const Arguments& arguments) {
    const std::vector<std::pair<const char*, const ObjectNamespace*>> asked{
        {"VIEW", &operations::VIEW}, {"UPDATE", &operations::UPDATE}, {"DELETE", &operations::DELETE_NS}};
    for (const std::string& path : arguments.paths) {
        std::cout << path << "\n";
        for (const User& user : arguments.users) {
            std::cout << "    " << std::left << std::setw(12) << user.name;
            for (const auto& [name, operation] : asked) {
                const bool allowed =
                    makeChecker(client, user, *operation)->checkAccess(Tesmor::Arkwell::Sandbox::namespaceOfPath(path));
                std::cout << " " << (allowed ? name : std::string(std::string(name).size(), '-'));
            }
            std::cout << "\n";
        }
    }
}

/// Checks until the answer turns. Prints how many checks that took.
void watch(AccessControlClient& client, const Arguments& arguments) {
    const User& user = arguments.users.front();
    const auto checker = makeChecker(client, user, operations::VIEW);
    const ObjectNamespace object = Tesmor::Arkwell::Sandbox::namespaceOfPath(arguments.watched);
    const bool before = checker->checkAccess(object);
    std::cout << "\nMay " << user.name << " VIEW " << arguments.watched << "? " << (before ? "yes" : "no")
              << ". Checking on ..." << std::endl;

    const Clock::time_point begin = Clock::now();
    std::size_t checks = 1;
    while (checker->checkAccess(object) == before) {
        ++checks;
        if (checks % 1024 == 0 && Clock::now() - begin > LONGEST_WAIT) {
            throw std::runtime_error("the answer has not turned");
        }
    }
    const auto took = std::chrono::duration<double>(Clock::now() - begin).count();
    std::cout << "After " << checks << " checks in " << std::fixed << std::setprecision(2) << took
              << " s the same checker says: " << (before ? "no" : "yes") << "\n";
}

double checksPerSecond(AccessControlClient& client, const Arguments& arguments) {
    const auto checker = makeChecker(client, arguments.users.front(), operations::VIEW);
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

void run(const Arguments& arguments) {
    const Clock::time_point begin = Clock::now();
    const Manifest manifest("demo", arguments.cacheDirectory);
    const auto cache = boost::make_shared<const AccessCache>(manifest);
    const auto opening = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();

    OperationCache operationCache;
    DiskAccessControlClient client(manifest.objectNamespace(), cache, operationCache);
    printTable(client, arguments);
    watch(client, arguments);
    std::cout << "\n";
    printTable(client, arguments);

    const auto size = [&arguments](const std::string& file) {
        return std::filesystem::file_size(arguments.cacheDirectory + "/" + file);
    };
    const auto nodes = size(AccessCache::SEGMENT_FILE_NAME) / sizeof(SegmentNode) +
                       size(AccessCache::NODE_FILE_NAME) / sizeof(TreeNode<int, NodeBits>);
    const auto bytes = size(AccessCache::METADATA_FILE_NAME) + size(AccessCache::OBJECT_FILE_NAME) +
                       size(AccessCache::NODE_FILE_NAME) + size(AccessCache::SEGMENT_FILE_NAME);
    std::cout << "\n"
              << cache->managedObjectCount() - 1 << " objects, " << nodes << " nodes, " << bytes << " bytes; opened in "
              << std::setprecision(0) << opening << " us; " << checksPerSecond(client, arguments)
              << " checks per second on one thread\n";
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
