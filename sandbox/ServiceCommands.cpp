#include "sandbox/ServiceCommands.h"

#include "sandbox/AccessService.h"
#include "sandbox/AdminCommands.h"
#include "sandbox/AdminSocket.h"
#include "sandbox/Json.h"
#include "sandbox/PrivateFiles.h"
#include "sandbox/SandboxFolder.h"
#include "sandbox/ServiceRouter.h"

#include <CLI/CLI.hpp>
#include <pwd.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <stdexcept>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr long LOOK_AGAIN_MS = 100;
constexpr int ATTEMPTS = 50;

/// The signals by which the service is stopped; held back from the moment this is made, in all threads.
class StopSignals {
public:
    StopSignals() {
        sigemptyset(&signals_);
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            sigaddset(&signals_, number);
        }
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        // A client that has gone is noticed by what writing returns.
        std::signal(SIGPIPE, SIG_IGN);
    }
    void wait() const {
        int number = 0;
        sigwait(&signals_, &number);
    }

private:
    sigset_t signals_{};
};

std::string userName() {
    const passwd* const user = getpwuid(getuid());
    return user != nullptr ? user->pw_name : std::to_string(getuid());
}

/// {"command": name, ...}
JsonPointer commandOf(const char* name, const std::map<const char*, std::string>& texts = {}) {
    JsonPointer command = json::pack("{s:s}", "command", name);
    for (const auto& [key, text] : texts) {
        json::set(command, key, json::string(text));
    }
    return command;
}

JsonPointer listOf(const std::vector<std::string>& texts) {
    JsonPointer list = json::array();
    for (const std::string& text : texts) {
        json::append(list, json::string(text));
    }
    return list;
}

/// Prints the output in an answer, or throws the error in it.
void printAnswer(const std::string& answer) {
    const Document document(answer);
    if (const boost::optional<DocumentValue> error = document.root().optionalMember("error")) {
        throw std::runtime_error(error->text());
    }
    std::cout << document.root().member("output").text();
}

}  // namespace

CLI::App* ServiceCommands::add(CLI::App& parent, const char* name, const char* description, const char* example,
                               void (ServiceCommands::*action)() const) {
    CLI::App* const command = parent.add_subcommand(name, description);
    command->footer(std::string("Example:\n  ") + example);
    command->fallthrough();
    command->callback([this, action] { (this->*action)(); });
    return command;
}

void ServiceCommands::addTo(CLI::App& app) {
    addServe(app);
    addState(app);
    addFaults(app);
    addCertificates(app);
}

void ServiceCommands::addServe(CLI::App& app) {
    CLI::App* const command = add(app, "serve",
                                  "run the access-control service, for development and tests, until it is "
                                  "interrupted",
                                  "rbac-sandbox serve --port 1556", &ServiceCommands::serve);
    command->add_option("--port", server_.port, "0 for one that is free")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    command->add_option("--bind", server_.addresses,
                        "address to listen on; may be given several times; without it, 127.0.0.1 and ::1");
    command->add_option("--fault", faults_,
                        "[METHOD ]PATH=KIND[:ARGUMENT][@N], requests to answer wrongly; may be given several times");
    command->add_flag("--verify", writer_.verify, "verify each access cache before it is published");
}

void ServiceCommands::addState(CLI::App& app) {
    CLI::App* const importing =
        add(app, "import-tree", "make a directory tree of this machine managed objects of the service",
            "rbac-sandbox import-tree /usr/share --revoke everybody:VIEW:/usr/share/doc", &ServiceCommands::importTree);
    importing->add_option("path", path_, "the directory")->required();
    importing->add_option("--revoke", revoked_,
                          "ROLE:OPERATION:PATH, a grant to leave out; ROLE is a number or \"everybody\"");
    add(app, "import-roles", "add the users and groups of this machine as roles", "rbac-sandbox import-roles",
        &ServiceCommands::importRoles);
    add(app, "pending", "list the objects that are PENDING, since when and by whom", "rbac-sandbox pending",
        &ServiceCommands::listPending);
    CLI::App* const settling = add(app, "settle", "commit or delete an object that was left PENDING",
                                   "rbac-sandbox settle '|ASSETS|db|' DELETED", &ServiceCommands::settle);
    settling->add_option("namespace", name_, "the object")->required();
    settling->add_option("state", state_, "READY or DELETED")->required();

    CLI::App* const operations = app.add_subcommand("operations", "the operations that can be granted");
    operations->require_subcommand(1);
    operations->fallthrough();
    CLI::App* const adding = add(*operations, "add", "add an operation",
                                 "rbac-sandbox operations add '|OPERATIONS|RESTORE|' --applies-to '|ASSETS|'",
                                 &ServiceCommands::addOperation);
    adding->add_option("namespace", name_, "of the operation")->required();
    adding->add_option("--applies-to", appliesTo_, "the object at and below which it can be granted")
        ->capture_default_str();
    add(*operations, "list", "list the operations with their numbers", "rbac-sandbox operations list",
        &ServiceCommands::listOperations);
}

void ServiceCommands::addFaults(CLI::App& app) {
    CLI::App* const faults = app.add_subcommand("faults", "requests that the running service answers wrongly");
    faults->require_subcommand(1);
    faults->fallthrough();
    add(*faults, "set", "add faults", "rbac-sandbox faults set 'POST /arkwell/access-control/roles=close@2'",
        &ServiceCommands::setFaults)
        ->add_option("faults", faults_, "[METHOD ]PATH=KIND[:ARGUMENT][@N]")
        ->required();
    add(*faults, "clear", "drop all faults", "rbac-sandbox faults clear", &ServiceCommands::clearFaults);
    add(*faults, "list", "list the faults", "rbac-sandbox faults list", &ServiceCommands::listFaults);
}

void ServiceCommands::addCertificates(CLI::App& app) {
    CLI::App* const certificates = app.add_subcommand("certificates", "certificates of the sandbox's own authority");
    certificates->require_subcommand(1);
    certificates->fallthrough();
    CLI::App* const issuing =
        add(*certificates, "issue", "make a client's certificate and key, the key a secret",
            "rbac-sandbox certificates issue backup1 --out .", &ServiceCommands::issueCertificate);
    issuing->add_option("name", name_, "of the host")->required();
    issuing->add_option("--out", out_, "the folder to put NAME.pem and NAMEKey.pem in")->capture_default_str();
    issuing->add_flag("--server", forServers_, "good for a server of that name as well");
}

void ServiceCommands::serve() const {
    const SandboxFolder folder(folder_);
    folder.requirePrivate();
    FaultSwitches faults;
    faults.set(faults_);
    const StopSignals signals;
    const std::unique_ptr<FileLockGuard> lock = folder.tryToLock(0);
    if (!lock) {
        throw std::runtime_error("a service runs on " + folder_ + " already");
    }
    AccessService service(folder.stateFile(), folder.publicationFolder(), writer_);
    ServiceServerOptions options = server_;
    options.files = folder.serviceFiles();
    ServiceServer server(
        options, [&service](ServiceRequest request) { return answer(service, std::move(request)); }, faults);
    const AdminSocket commands(folder_,
                               [&](const std::string& command) { return carryOutCommand(service, faults, command); });
    std::cout << "serving on " << server.address() << std::endl;
    signals.wait();
    server.stop();
}

void ServiceCommands::tellService(const JsonPointer& command) const {
    SandboxFolder(folder_).requirePrivate();
    const boost::optional<std::string> reply = askService(folder_, json::dump(command));
    if (!reply) {
        throw std::runtime_error("no service runs on " + folder_);
    }
    printAnswer(*reply);
}

void ServiceCommands::carryOut(const JsonPointer& document) const {
    const std::string command = json::dump(document);
    const SandboxFolder folder(folder_);
    folder.requirePrivate();
    // A service that is about to start or to end has the lock and answers nobody.
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (const boost::optional<std::string> reply = askService(folder_, command)) {
            printAnswer(*reply);
            return;
        }
        if (const std::unique_ptr<FileLockGuard> lock = folder.tryToLock(LOOK_AGAIN_MS)) {
            AccessService service(folder.stateFile(), folder.publicationFolder());
            FaultSwitches none;
            printAnswer(carryOutCommand(service, none, command));
            return;
        }
    }
    throw std::runtime_error("the service on " + folder_ + " takes no commands");
}

void ServiceCommands::importTree() const {
    const JsonPointer command = commandOf("import-tree", {{"path", std::filesystem::canonical(path_)}});
    json::set(command, "revoke", listOf(revoked_));
    carryOut(command);
}

void ServiceCommands::importRoles() const {
    carryOut(json::pack("{s:s}", "command", "import-roles"));
}

void ServiceCommands::listPending() const {
    const SandboxFolder folder(folder_);
    folder.requirePrivate();
    SqliteDatabase state(folder.stateFile());
    for (const ObjectRecord& object : ObjectTable(state).pending()) {
        std::cout << object.name << " since " << object.changedAt << " by " << object.changedBy << "\n";
    }
}

void ServiceCommands::settle() const {
    carryOut(commandOf("settle", {{"name", name_}, {"state", state_}, {"user", userName()}}));
}

void ServiceCommands::addOperation() const {
    carryOut(commandOf("add-operation", {{"name", name_}, {"appliesTo", appliesTo_}}));
}

void ServiceCommands::listOperations() const {
    const SandboxFolder folder(folder_);
    folder.requirePrivate();
    SqliteDatabase state(folder.stateFile());
    for (const OperationRecord& operation : OperationTable(state).all()) {
        std::cout << operation.name << " " << operation.bit << ", applies to " << operation.appliesTo << "\n";
    }
}

void ServiceCommands::setFaults() const {
    const JsonPointer command = commandOf("set-faults");
    json::set(command, "faults", listOf(faults_));
    tellService(command);
}

void ServiceCommands::clearFaults() const {
    tellService(commandOf("clear-faults"));
}

void ServiceCommands::listFaults() const {
    tellService(commandOf("list-faults"));
}

void ServiceCommands::issueCertificate() const {
    const SandboxFolder folder(folder_);
    folder.requirePrivate();
    const CertifiedKey identity = folder.certificateAuthority().issue({name_, {name_}, forServers_, true});
    const std::string file = out_ + "/" + name_;
    replaceFile(file + "Key.pem", identity.key, Readers::OWNER);
    replaceFile(file + ".pem", identity.certificate, Readers::EVERYBODY);
    std::cout << "made " << file << ".pem and " << file << "Key.pem\n";
}

}  // namespace Tesmor::Arkwell::Sandbox
