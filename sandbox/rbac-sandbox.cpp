// The stand-in for the product's services, for development and tests: users and sessions, and the access-control
// service.

#include "sandbox/AuthDatabase.h"
#include "sandbox/SandboxFolder.h"
#include "sandbox/ServiceCommands.h"
#include "sandbox/SqliteDatabase.h"
#include "sandbox/TokenIssuer.h"
#include "sandbox/UnixRoles.h"
#include "sandbox/UserStore.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Sandbox;

struct Options {
    std::string folder = SandboxFolder::defaultPath();
    SandboxOptions init;
    User user;
    std::vector<int> roleIds;
    bool ofThisMachine = false;
    std::string domain = "sandbox";
    long lifetimeSeconds = 8L * 3600;
    bool unrecorded = false;
    bool forged = false;
    std::string sessionId;
};

/// The sandbox, which commands other than init work on.
SandboxFolder privateFolder(const Options& options) {
    SandboxFolder folder(options.folder);
    folder.requirePrivate();
    return folder;
}

/// The users in its state.
struct State {
    explicit State(const SandboxFolder& folder) : database(folder.stateFile()) {}

    SqliteDatabase database;
    UserStore users{database};
};

void printUser(const User& user) {
    std::cout << user.name << (user.isMachine ? " (machine)" : "") << ": roles";
    const char* separator = " ";
    for (const int role : user.roleIds) {
        std::cout << separator << role;
        separator = ", ";
    }
    std::cout << (user.roleIds.empty() ? " none\n" : "\n");
}

void init(const Options& options) {
    SandboxFolder(options.folder).create(options.init);
    std::cout << "made " << options.folder << "\n";
}

void addUser(const Options& options) {
    User user = options.user;
    if (options.ofThisMachine) {
        user.roleIds = unix_roles::all(user.name);
    }
    user.roleIds.insert(options.roleIds.begin(), options.roleIds.end());
    State(privateFolder(options)).users.put(user);
    printUser(user);
}

void removeUser(const Options& options) {
    if (!State(privateFolder(options)).users.remove(options.user.name)) {
        throw std::invalid_argument("there is no user " + options.user.name);
    }
}

void listUsers(const Options& options) {
    for (const User& user : State(privateFolder(options)).users.all()) {
        printUser(user);
    }
}

void issueToken(const Options& options) {
    const SandboxFolder folder = privateFolder(options);
    const User user = State(folder).users.get(options.user.name);
    const std::string subject = user.isMachine ? user.name : user.name + ":" + options.domain + ":local";
    const TokenIssuer issuer(options.forged ? SigningKey::generate() : folder.tokenKey());
    const auto expiry = std::chrono::system_clock::now() + std::chrono::seconds(options.lifetimeSeconds);
    const SessionTokens tokens = issuer.issue({subject, user.isMachine, user.roleIds}, expiry);
    if (!options.unrecorded) {
        AuthDatabase().addSession(tokens.id, tokens.azToken);
    }
    std::cout << tokens.sessionToken << "\n";
}

void listSessions(const Options& options) {
    privateFolder(options);
    for (const std::string& id : AuthDatabase().sessionIds()) {
        std::cout << id << "\n";
    }
}

void revokeSession(const Options& options) {
    privateFolder(options);
    AuthDatabase().removeSession(options.sessionId);
}

/// The command line. Each command runs when the line has been parsed.
class CommandLine {
public:
    CommandLine() {
        app_.require_subcommand(1);
        app_.add_option("--folder", options_.folder, "where the sandbox keeps its keys and databases")
            ->capture_default_str();
        app_.fallthrough();
        addInit();
        addUsers();
        addTokens();
        service_.addTo(app_);
    }

    CLI::App& app() { return app_; }

private:
    using Action = void (*)(const Options&);

    CLI::App* add(CLI::App& parent, const char* name, const char* description, const char* example, Action action) {
        CLI::App* const command = parent.add_subcommand(name, description);
        command->footer(std::string("Example:\n  ") + example);
        command->fallthrough();
        command->callback([this, action] { action(options_); });
        return command;
    }

    void addInit() {
        CLI::App* const command = add(
            app_, "init", "make the folder, with new keys, certificates and databases, and this host's settings file",
            "rbac-sandbox init --log-level 4", init);
        command->add_option("--primary-server", options_.init.primaryServer, "name of the server that serves")
            ->capture_default_str();
        command->add_option("--connection-string", options_.init.connectionString,
                            "of the authorization database; without it, a SQLite file in the folder is used");
        command->add_option("--publish-to", options_.init.publicationFolder,
                            "where the service publishes its caches; without it, where the library looks for them");
        const std::map<std::string, DatabaseServer> servers{{"sqlite", DatabaseServer::SQLITE},
                                                            {"postgresql", DatabaseServer::POSTGRESQL}};
        command->add_option("--database", options_.init.server, "what serves it: sqlite or postgresql")
            ->transform(CLI::CheckedTransformer(servers));
        command->add_option("--log-file", options_.init.logFile, "without it, the standard error stream");
        command->add_option("--log-level", options_.init.logLevel, "the lowest level written")->capture_default_str();
        command->add_flag("--replace", options_.init.replace, "drop a sandbox that is there already");
    }

    void addUsers() {
        CLI::App* const users = app_.add_subcommand("users", "the users that tokens can be issued for");
        users->require_subcommand(1);
        users->fallthrough();
        CLI::App* const adding = add(*users, "add", "add a user, or replace the one of that name",
                                     "rbac-sandbox users add alice --roles 3,7", addUser);
        adding->add_option("name", options_.user.name, "the user's name")->required();
        adding->add_option("--roles", options_.roleIds, "role ids, separated by commas; 0 may do everything")
            ->delimiter(',');
        adding->add_flag("--of-this-machine", options_.ofThisMachine,
                         "with the roles that import-tree gives the user of this name on this machine");
        adding->add_flag("--machine", options_.user.isMachine, "it is a machine, not a person");
        add(*users, "remove", "remove a user; sessions stay", "rbac-sandbox users remove alice", removeUser)
            ->add_option("name", options_.user.name, "the user's name")
            ->required();
        add(*users, "list", "list the users with their roles", "rbac-sandbox users list", listUsers);
    }

    void addTokens() {
        CLI::App* const tokens = app_.add_subcommand("tokens", "the sessions of users");
        tokens->require_subcommand(1);
        tokens->fallthrough();
        CLI::App* const issuing = add(*tokens, "issue", "start a session and print its token, a secret",
                                      "rbac-sandbox tokens issue alice --lifetime 3600", issueToken);
        issuing->add_option("name", options_.user.name, "whose session it is")->required();
        issuing->add_option("--lifetime", options_.lifetimeSeconds, "in seconds; negative for one that has expired")
            ->capture_default_str();
        issuing->add_option("--domain", options_.domain, "the user's domain")->capture_default_str();
        issuing->add_flag("--unrecorded", options_.unrecorded, "keep it out of the authorization database");
        issuing->add_flag("--forged", options_.forged, "sign it with another key than the sandbox's");
        add(*tokens, "list", "list the ids of all sessions", "rbac-sandbox tokens list", listSessions);
        add(*tokens, "revoke", "end a session", "rbac-sandbox tokens revoke 0123456789abcdef0123456789abcdef",
            revokeSession)
            ->add_option("id", options_.sessionId, "the id of the session")
            ->required();
    }

    Options options_;
    ServiceCommands service_{options_.folder};
    CLI::App app_{
        "Stands in for the product's services on a machine of a developer or a test. Not for production: whoever may "
        "read its folder may be anybody."};
};

}  // namespace

int main(int argc, char** argv) {
    CommandLine commandLine;
    try {
        commandLine.app().parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return commandLine.app().exit(error);
    } catch (const std::exception& failure) {
        std::cerr << "rbac-sandbox: " << failure.what() << "\n";
        return 1;
    }
    return 0;
}
