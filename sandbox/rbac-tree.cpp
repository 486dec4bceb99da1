// Makes a directory tree of this machine the managed objects of an access cache.

#include "sandbox/CacheWriter.h"
#include "sandbox/TreeImport.h"
#include "sandbox/UnixRoles.h"

#include <CLI/CLI.hpp>
#include <boost/lexical_cast.hpp>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell;
using Sandbox::Revocation;

struct Options {
    std::string tree = "/usr/share";
    std::string cache;
    std::string operationCache;
    std::vector<std::string> revoked;
    std::string user;
};

/// "ROLE:OPERATION:PATH"
Revocation parseRevocation(const std::string& text) {
    const std::size_t first = text.find(':');
    const std::size_t second = first == std::string::npos ? first : text.find(':', first + 1);
    if (second == std::string::npos) {
        throw std::invalid_argument("not of the form ROLE:OPERATION:PATH: " + text);
    }
    const std::string role = text.substr(0, first);
    const int roleId = role == "everybody" ? Sandbox::unix_roles::EVERYBODY : boost::lexical_cast<int>(role);
    return {roleId, Rbac::ObjectNamespace("OPERATIONS", text.substr(first + 1, second - first - 1)),
            text.substr(second + 1)};
}

/// Progress on a terminal, nothing in a pipe.
void showProgress(std::size_t objects) {
    if (isatty(STDERR_FILENO) != 0) {
        std::fprintf(stderr, "\r%zu objects ...", objects);
    }
}
void endProgress() {
    if (isatty(STDERR_FILENO) != 0) {
        std::fprintf(stderr, "\r\033[K");
    }
}

void publish(const Options& options) {
    std::vector<Revocation> revocations;
    for (const std::string& text : options.revoked) {
        revocations.push_back(parseRevocation(text));
    }
    Sandbox::ImportCounts counts;
    const Sandbox::AccessModel model = Sandbox::importTree(options.tree, revocations, showProgress, counts);
    endProgress();
    Sandbox::writeOperationCache(options.operationCache, Sandbox::fileOperations());
    const Sandbox::PublicationReport report = Sandbox::CacheWriter(options.cache).publish(model);
    std::cout << "published " << counts.objects << " objects of " << options.tree << " (" << counts.protectedOnTheirOwn
              << " with an owner or mode of their own";
    if (counts.unreadable != 0) {
        std::cout << ", " << counts.unreadable << " folders could not be listed";
    }
    std::cout << "): " << report.bytes << " bytes, " << report.bytesWritten << " of them written\n";
}

void printRoles(const Options& options) {
    const char* separator = "";
    for (const int role : Sandbox::unix_roles::all(options.user)) {
        std::cout << separator << role;
        separator = ",";
    }
    std::cout << "\n";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Makes a directory tree of this machine the managed objects of an access cache. For development and "
        "demonstrations."};
    app.footer(
        "Example:\n  rbac-tree publish --tree /usr/share --cache /tmp/cache --operation-cache /tmp/operations.json "
        "--revoke everybody:VIEW:/usr/share/doc");
    app.require_subcommand(1);
    Options options;

    CLI::App* const publishing = app.add_subcommand("publish", "write the access cache and the operation cache");
    publishing->add_option("--tree", options.tree, "the directory")->capture_default_str();
    publishing->add_option("--cache", options.cache, "directory of the access cache")->required();
    publishing->add_option("--operation-cache", options.operationCache, "the operation cache file")->required();
    publishing->add_option("--revoke", options.revoked,
                           "ROLE:OPERATION:PATH, a grant to leave out; ROLE is a number or \"everybody\"");
    publishing->callback([&options] { publish(options); });

    CLI::App* const roles = app.add_subcommand("roles", "print the role ids of a user, separated by commas");
    roles->add_option("user", options.user, "the user's name")->required();
    roles->callback([&options] { printRoles(options); });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    } catch (const std::exception& failure) {
        endProgress();
        std::cerr << "rbac-tree: " << failure.what() << "\n";
        return 1;
    }
    return 0;
}
