#include "testing/PostgresCluster.h"

#include "testing/LoopbackPort.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testing_support {

namespace {

/// The programs of the newest version that is installed.
std::string findPrograms() {
    int newest = 0;
    std::string found;
    std::error_code missing;
    for (const auto& version : std::filesystem::directory_iterator("/usr/lib/postgresql", missing)) {
        const int number = std::atoi(version.path().filename().c_str());  // NOLINT(cert-err34-c): 0 if it is none
        if (number > newest && std::filesystem::exists(version.path() / "bin" / "initdb")) {
            newest = number;
            found = (version.path() / "bin").string() + "/";
        }
    }
    if (found.empty()) {
        throw std::runtime_error("PostgreSQL is not installed");
    }
    return found;
}

const passwd& serverUser() {
    const passwd* user = getpwnam("postgres");
    if (user == nullptr) {
        throw std::runtime_error("there is no user postgres");
    }
    return *user;
}

/// The processes that the process has started.
std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> children;
    std::ifstream list("/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent) + "/children");
    for (pid_t child = 0; list >> child;) {
        children.push_back(child);
    }
    return children;
}

/// Whether it is neither gone nor waiting for its parent to take note of its end.
bool isRunning(pid_t process) {
    std::ifstream commandLine("/proc/" + std::to_string(process) + "/cmdline");
    return commandLine.get() != std::ifstream::traits_type::eof();
}

int exitStatus(pid_t process) {
    int status = 0;
    while (waitpid(process, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

PostgresCluster::PostgresCluster() : programs_(findPrograms()), asRoot_(geteuid() == 0), port_(unusedPort()) {
    if (asRoot_ && chown(directory_.path().c_str(), serverUser().pw_uid, serverUser().pw_gid) != 0) {
        throw std::runtime_error("cannot give away " + directory_.path());
    }
    initialise();
    start();
}

PostgresCluster::~PostgresCluster() {
    stop();
}

void PostgresCluster::initialise() const {
    const std::string passwordFile = directory_ / "password";
    writeFile(passwordFile, password() + "\n");
    run({programs_ + "initdb", "--pgdata=" + directory_ / "data", "--username=" + user(), "--pwfile=" + passwordFile,
         "--auth=scram-sha-256", "--encoding=UTF8", "--locale=C", "--no-sync"});
}

void PostgresCluster::start(unsigned long largestFile) {
    const int log = open((directory_ / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    server_ = spawn({programs_ + "postgres", "-D", directory_ / "data", "-p", std::to_string(port_), "-c",
                     "listen_addresses=127.0.0.1", "-c", "unix_socket_directories=" + directory_.path(), "-c",
                     "fsync=off", "-c", "shared_buffers=8MB", "-c", "max_connections=40"},
                    log, largestFile);
    close(log);
    while (!runs({programs_ + "pg_isready", "-q", "-h", "127.0.0.1", "-p", std::to_string(port_)})) {
        if (hasExited()) {
            throw std::runtime_error("the server does not start: " + readFile(directory_ / "log"));
        }
    }
}

bool PostgresCluster::hasExited() {
    if (waitpid(server_, nullptr, WNOHANG) == 0) {
        return false;
    }
    server_ = -1;
    return true;
}

void PostgresCluster::stop() {
    if (server_ > 0) {
        resume();
        kill(server_, SIGQUIT);
        exitStatus(server_);
        server_ = -1;
    }
}

void PostgresCluster::crash() {
    // Once it is dead, nobody knows its children.
    const std::vector<pid_t> children = childrenOf(server_);
    kill(server_, SIGKILL);
    for (const pid_t child : children) {
        kill(child, SIGKILL);
    }
    exitStatus(server_);
    server_ = -1;
    for (const pid_t child : children) {
        while (isRunning(child)) {
            usleep(1000);
        }
    }
}

void PostgresCluster::pause() {
    signalAll(SIGSTOP);
}

void PostgresCluster::resume() {
    signalAll(SIGCONT);
}

void PostgresCluster::signalAll(int signal) const {
    kill(server_, signal);
    for (const pid_t child : childrenOf(server_)) {
        kill(child, signal);
    }
}

void PostgresCluster::terminateConnections() const {
    execute(
        "SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity "
        "WHERE pid <> pg_backend_pid() AND backend_type = 'client backend'");
}

void PostgresCluster::execute(const std::string& sql) const {
    run(psql(sql));
}

std::string PostgresCluster::query(const std::string& sql) const {
    const std::string output = run(psql(sql));
    return output.substr(0, output.find('\n'));
}

std::vector<std::string> PostgresCluster::psql(const std::string& sql) const {
    return {programs_ + "psql",
            "--no-psqlrc",
            "--quiet",
            "--tuples-only",
            "--no-align",
            "--set=ON_ERROR_STOP=1",
            "--dbname=host=127.0.0.1 port=" + std::to_string(port_) + " dbname=postgres user=" + user() +
                " password=" + password(),
            "--command=" + sql};
}

std::string PostgresCluster::connectionString(const std::string& options, const std::string& driver) const {
    return "Driver=" ARKWELL_ODBC_DRIVER_DIR "/" + driver + ";Servername=127.0.0.1;Port=" + std::to_string(port_) +
           ";Database=postgres;UID=" + user() + ";PWD=" + password() + ";" + options;
}

/// @param output where the standard output and the standard error stream go.
pid_t PostgresCluster::spawn(const std::vector<std::string>& arguments, int output, unsigned long largestFile) const {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));  // NOLINT(cppcoreguidelines-pro-type-const-cast)
    }
    pointers.push_back(nullptr);
    const passwd* user = asRoot_ ? &serverUser() : nullptr;
    const rlimit fileSize{largestFile, largestFile};
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    const bool isReady =
        (user == nullptr || (setgroups(0, nullptr) == 0 && setgid(user->pw_gid) == 0 && setuid(user->pw_uid) == 0)) &&
        dup2(output, STDOUT_FILENO) >= 0 && dup2(output, STDERR_FILENO) >= 0 && chdir("/") == 0 &&
        (largestFile == UNLIMITED || setrlimit(RLIMIT_FSIZE, &fileSize) == 0) &&
        prctl(PR_SET_PDEATHSIG, SIGQUIT) == 0 && getppid() == parent;
    if (isReady) {
        execv(pointers.front(), pointers.data());
    }
    _exit(127);
}

std::string PostgresCluster::run(const std::vector<std::string>& arguments) const {
    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot make a pipe");
    }
    const pid_t process = spawn(arguments, pipe[1]);
    close(pipe[1]);
    std::string output;
    std::array<char, 4096> chunk{};
    for (ssize_t count = 0; (count = read(pipe[0], chunk.data(), chunk.size())) > 0;) {
        output.append(chunk.data(), static_cast<std::size_t>(count));
    }
    close(pipe[0]);
    if (exitStatus(process) != 0) {
        throw std::runtime_error(arguments.front() + " failed: " + output);
    }
    return output;
}

bool PostgresCluster::runs(const std::vector<std::string>& arguments) const {
    return exitStatus(spawn(arguments, STDERR_FILENO)) == 0;
}

}  // namespace testing_support
