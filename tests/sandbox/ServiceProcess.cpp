#include "ServiceProcess.h"

#include "platform/Handles.h"
#include "rbac/enforcement/DiskAccessChecker.h"
#include "sandbox/SandboxFolder.h"
#include "testing/SecretScan.h"

#include <platform/Text.h>
#include <rbac/AccessCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <fcntl.h>
#include <httplib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace testing_support {

namespace {

using platform_detail::Descriptor;
using platform_detail::JsonPointer;

constexpr char ROOT_PATH[] = "/arkwell/access-control/";
constexpr int CLIENT_LIMIT_S = 60;

int statusOf(int waited) {
    return WIFSIGNALED(waited) ? -WTERMSIG(waited) : WEXITSTATUS(waited);
}

std::string quotedList(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts) {
        list += (list.empty() ? "" : ", ") + ("\"" + text + "\"");
    }
    return "[" + list + "]";
}

/// The first line, or all there is.
std::string readLine(const Descriptor& from) {
    std::string line;
    for (char c = 0; read(from.get(), &c, 1) == 1 && c != '\n';) {
        line += c;
    }
    return line;
}

}  // namespace

int Answer::errorCode() const {
    const JsonPointer document(json_loads(body.c_str(), 0, nullptr));
    const json_t* const code = json_object_get(document.get(), "errorCode");
    return json_is_integer(code) ? static_cast<int>(json_integer_value(code)) : -1;
}

std::string Answer::errorDetail() const {
    const JsonPointer document(json_loads(body.c_str(), 0, nullptr));
    const json_t* const details = json_object_get(document.get(), "errorDetails");
    if (json_array_size(details) != 1) {
        return "not one detail: " + body;
    }
    return json_string_value(json_array_get(details, 0));
}

ServiceClient::ServiceClient(const std::string& host, int port, const ClientFiles& files)
    : client_(std::make_unique<httplib::SSLClient>(host, port, files.certificate, files.key)) {
    client_->set_ca_cert_path(files.authority);
    client_->enable_server_certificate_verification(true);
    client_->set_keep_alive(true);
    client_->set_read_timeout(CLIENT_LIMIT_S);
}

ServiceClient::~ServiceClient() = default;

Answer ServiceClient::send(const std::string& method, const std::string& path, const std::string& body,
                           const Headers& headers) {
    httplib::Request request;
    request.method = method;
    request.path = path.front() == '/' ? path : ROOT_PATH + path;
    request.body = body;
    for (const auto& [name, value] : headers) {
        request.set_header(name, value);
    }
    if (!body.empty() && headers.count("Content-Type") == 0) {
        request.set_header("Content-Type", "application/json");
    }
    const httplib::Result result = client_->send(request);
    if (!result) {
        return {};
    }
    Answer answer{result->status, result->body};
    for (const auto& [name, value] : result->headers) {
        answer.headers[name] = value;
    }
    return answer;
}

ServiceFolder::ServiceFolder() {
    // A connection that the service has reset must not end the test.
    std::signal(SIGPIPE, SIG_IGN);
    Tesmor::Arkwell::Sandbox::SandboxOptions options;
    options.publicationFolder = publications();
    Tesmor::Arkwell::Sandbox::SandboxFolder(path()).createFiles(options);
}

ClientFiles ServiceFolder::hostFiles() const {
    return {path() + "/tls/ca.pem", path() + "/tls/host.pem", path() + "/tls/hostKey.pem"};
}

bool ServiceFolder::allows(int role, int operation, const std::string& object) const {
    using namespace Tesmor::Arkwell::Rbac;
    const auto cache = boost::make_shared<const AccessCache>(Manifest("all", accessCache()));
    return DiskAccessChecker(cache, {role}, Operation(operation), 0)
        .checkAccess(boost::lexical_cast<ObjectNamespace>(object));
}

CommandResult runSandbox(const std::string& folder, const std::string& arguments) {
    const std::string command = std::string(RBAC_SANDBOX) + " --folder " + folder + " " + arguments + " 2>&1";
    FILE* const pipe = popen(command.c_str(), "r");  // NOLINT(cert-env33-c): the shell is wanted
    std::string output;
    std::array<char, 4096> chunk{};
    for (std::size_t count = 0; (count = fread(chunk.data(), 1, chunk.size(), pipe)) > 0;) {
        output.append(chunk.data(), count);
    }
    // The token that somebody asks for is no log line.
    if (arguments.rfind("tokens issue ", 0) != 0) {
        refuseSecrets("rbac-sandbox " + arguments, output);
    }
    return {statusOf(pclose(pipe)), output};
}

ServiceProcess::ServiceProcess(const ServiceFolder& folder, std::vector<std::string> arguments) {
    if (std::find(arguments.begin(), arguments.end(), "--port") == arguments.end()) {
        arguments.insert(arguments.end(), {"--port", "0"});
    }
    arguments.insert(arguments.begin(), {RBAC_SANDBOX, "--folder", folder.path(), "serve"});
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot make a pipe");
    }
    const Descriptor output(ends[0]);
    {
        const Descriptor input(ends[1]);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // also where a test dies
            dup2(input.get(), STDOUT_FILENO);
            execv(pointers.front(), pointers.data());
            _exit(127);
        }
    }
    greeting_ = readLine(output);
    const std::size_t colon = greeting_.rfind(':');
    if (greeting_.compare(0, 11, "serving on ") != 0 || colon == std::string::npos) {
        throw std::runtime_error("the service ended with " + std::to_string(wait()) + " and printed: " + greeting_);
    }
    port_ = std::stoi(greeting_.substr(colon + 1));
}

ServiceProcess::~ServiceProcess() {
    if (pid_ > 0) {
        signal(SIGKILL);
        wait();
    }
}

void ServiceProcess::signal(int number) const {
    kill(pid_, number);
}

int ServiceProcess::wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0) {
    }
    pid_ = -1;
    return statusOf(status);
}

std::string encoded(const std::string& text) {
    std::string result;
    percentEncodeUriPart(text, result);
    return result;
}

std::string roleDocument(const std::string& name, const std::string& description) {
    const JsonPointer document(
        description.empty()
            ? json_pack("{s:{s:s, s:{s:s}}}", "data", "type", "accessControlRole", "attributes", "name", name.c_str())
            : json_pack("{s:{s:s, s:{s:s, s:s}}}", "data", "type", "accessControlRole", "attributes", "name",
                        name.c_str(), "description", description.c_str()));
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(document.get(), JSON_COMPACT), free);
    return text.get();
}

std::string definitionDocument(const std::string& role, const std::string& propagation,
                               const std::vector<std::string>& operations) {
    std::string list;
    for (const std::string& operation : operations) {
        list += (list.empty() ? "" : ", ") +
                (R"({"id": "|OPERATIONS|)" + operation + R"(|", "type": "accessControlOperation"})");
    }
    return R"({"data": {"type": "accessDefinition", "attributes": {"propagation": ")" + propagation +
           R"("}, "relationships": {"role": {"data": {"id": ")" + role +
           R"(", "type": "accessControlRole"}}, "operations": {"data": [)" + list + "]}}}}";
}

std::string inheritDocument(bool inherit) {
    return std::string(R"({"data": {"type": "managedObject", "attributes": {"inherit": )") +
           (inherit ? "true" : "false") + "}}}";
}

std::string registrationDocument(const std::string& name, const std::string& access,
                                 const std::vector<std::string>& children, bool ignoreRegistered) {
    return R"({"data": {"id": ")" + name +
           R"(", "type": "objectRegistrationData", "attributes": {"objectType": "asset", "ignoreAlreadyRegistered": )" +
           (ignoreRegistered ? "true" : "false") + R"(, "accessControlAttributes": )" + access +
           R"(, "relativeChildNamespaces": )" + quotedList(children) + "}}}";
}

std::string updateDocument(const std::vector<std::pair<std::string, std::string>>& states) {
    std::string list;
    for (const auto& [name, state] : states) {
        list.append(list.empty() ? "" : ", ").append(R"({"objectId": ")").append(name);
        list.append(R"(", "state": ")").append(state).append("\"}");
    }
    return R"({"data": {"type": "managedObjectUpdate", "attributes": {"managedObjectsWithAttributes": [)" + list +
           "]}}}";
}

}  // namespace testing_support
