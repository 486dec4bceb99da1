#pragma once

#include "sandbox/CacheWriter.h"
#include "sandbox/JsonText.h"
#include "sandbox/ServiceServer.h"

#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// The commands of rbac-sandbox around the access-control service: serve, import-tree and those that look at the state
/// or change it.
class ServiceCommands {
public:
    /// @param folder of the sandbox; has to outlive this, and is read when a command runs.
    explicit ServiceCommands(const std::string& folder) : folder_(folder) {}
    ServiceCommands(const ServiceCommands&) = delete;
    ServiceCommands& operator=(const ServiceCommands&) = delete;

    /// Adds the commands, each of which runs when the command line has been parsed. May be called once.
    void addTo(CLI::App& app);

private:
    CLI::App* add(CLI::App& parent, const char* name, const char* description, const char* example,
                  void (ServiceCommands::*action)() const);
    void addServe(CLI::App& app);
    void addState(CLI::App& app);
    void addFaults(CLI::App& app);
    void addCertificates(CLI::App& app);

    void serve() const;
    void importTree() const;
    void importRoles() const;
    void listPending() const;
    void settle() const;
    void addOperation() const;
    void listOperations() const;
    void setFaults() const;
    void clearFaults() const;
    void listFaults() const;
    void issueCertificate() const;

    /// Has the running service carry out a command, and prints what there is to say.
    void tellService(const JsonPointer& command) const;
    /// Has a command carried out, by the service if it runs, and prints what there is to say.
    void carryOut(const JsonPointer& document) const;

    const std::string& folder_;
    ServiceServerOptions server_;
    CacheWriterOptions writer_;
    std::vector<std::string> faults_;
    std::string path_;
    std::vector<std::string> revoked_;
    std::string name_;
    std::string appliesTo_ = "|";
    std::string state_;
    std::string out_ = ".";
    bool forServers_ = false;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
