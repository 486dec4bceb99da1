#pragma once

#include "testing/TemporaryDirectory.h"

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace httplib {
class SSLClient;
}  // namespace httplib

namespace testing_support {

/// An answer of the service.
struct Answer {
    int status = 0;  ///< 0: there was none
    std::string body = {};
    std::map<std::string, std::string> headers = {};

    /// The errorCode of an error body; -1 where there is none.
    int errorCode() const;
    /// The only element of errorDetails.
    std::string errorDetail() const;
};

/// How a program shows itself to the service, and whom it trusts: paths of PEM files.
struct ClientFiles {
    std::string authority;
    std::string certificate = {};
    std::string key = {};
};

/// A client with one connection, kept as long as the service keeps it.
class ServiceClient {
public:
    ServiceClient(const std::string& host, int port, const ClientFiles& files);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    using Headers = std::map<std::string, std::string>;
    /// @param path below "/arkwell/access-control/", or from the root where it begins with "/".
    Answer send(const std::string& method, const std::string& path, const std::string& body = {},
                const Headers& headers = {});
    Answer get(const std::string& path) { return send("GET", path); }
    Answer post(const std::string& path, const std::string& body) { return send("POST", path, body); }

private:
    std::unique_ptr<httplib::SSLClient> client_;
};

/// What a program printed and how it ended: the exit status, or the negative number of the signal.
struct CommandResult {
    int status;
    std::string output;  // of both streams
};

/// Runs rbac-sandbox on a sandbox folder, by way of a shell, which takes the words apart as it does for people.
CommandResult runSandbox(const std::string& folder, const std::string& arguments);

/// A sandbox folder with everything in it, which publishes into a folder of its own.
class ServiceFolder {
public:
    ServiceFolder();

    std::string path() const { return directory_ / "sandbox"; }
    std::string publications() const { return directory_ / "published"; }
    std::string accessCache() const { return publications() + "/access-caches/all"; }
    std::string file(const std::string& name) const { return directory_ / name; }
    ClientFiles hostFiles() const;

    /// Whether the published access cache lets a role do one of the operations VIEW (0), ADD (1) and UPDATE (2).
    bool allows(int role, int operation, const std::string& object) const;

    /// Runs rbac-sandbox on the folder.
    CommandResult run(const std::string& arguments) const { return runSandbox(path(), arguments); }

private:
    TemporaryDirectory directory_;
    std::string settings_ = directory_ / "platform.json";
    ScopedEnvironment named_{"TARVO_PLATFORM_CONFIG", settings_.c_str()};
};

/// A running service; killed at the end.
class ServiceProcess {
public:
    /// Waits until it serves, on any free port unless the arguments name one.
    ///
    /// @throws std::runtime_error with what it printed where it ends instead.
    explicit ServiceProcess(const ServiceFolder& folder, std::vector<std::string> arguments = {});
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    /// The line that it printed when it was ready.
    const std::string& greeting() const { return greeting_; }
    int port() const { return port_; }
    void signal(int number) const;
    /// Waits for its end. The exit status, or the negative number of the signal that ended it.
    int wait();

private:
    pid_t pid_ = -1;
    std::string greeting_;
    int port_ = 0;
};

/// A namespace as it stands in a path.
std::string encoded(const std::string& text);

// The documents of the service.
std::string roleDocument(const std::string& name, const std::string& description = {});
std::string definitionDocument(const std::string& role, const std::string& propagation,
                               const std::vector<std::string>& operations);
std::string inheritDocument(bool inherit);
/// @param access the accessControlAttributes.
std::string registrationDocument(const std::string& name, const std::string& access = "{}",
                                 const std::vector<std::string>& children = {}, bool ignoreRegistered = false);
/// Pairs of a namespace and a state.
std::string updateDocument(const std::vector<std::pair<std::string, std::string>>& states);

}  // namespace testing_support
