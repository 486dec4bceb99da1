#include "InstallationPaths.h"
#include "jwt/HostKey.h"
#include "platform/Handles.h"
#include "platform/HttpFixture.h"
#include "sandbox/AuthDatabase.h"
#include "testing/ChildProcess.h"
#include "testing/RawCache.h"
#include "testing/Soak.h"
#include "testing/TemporaryDirectory.h"

#include <jwt/JWTSSLApi.h>
#include <platform/FileLock.h>
#include <platform/Logger.h>
#include <rbac/AccessControlClient.h>
#include <rbac/OperationCache.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// What a program inherits that is started while other threads are in the middle of everything that the library does. It
// is started without fork(), whose handlers would close things in the child.

using namespace Tesmor::Arkwell::Rbac;
using platform_detail::Descriptor;
using testing_support::ChildProcess;
using testing_support::TlsConnection;

namespace {

const std::string TEMPORARY = TARVO_ROOT "/wmc/webserver/temp";
constexpr int SERVICE_PORT = 1556;
constexpr int ROLE = 7;
constexpr int VIEW_BIT = 37;
const ObjectNamespace OBJECT("A", "OBJECT");

/// A host with a service, an access cache, a key and an authorization database over SQLite.
class Host {
public:
    Host() {
        std::filesystem::remove_all(TEMPORARY + "/access-caches");
        testing_support::writeFile(TEMPORARY + "/operation-cache.json", R"({"|OPERATIONS|VIEW|": 37})");
        testing_support::RawCache files(TEMPORARY + "/access-caches/all");
        files.put("|A|OBJECT|", 0, {{ROLE, {VIEW_BIT}}});
        std::filesystem::create_directories(files.directory());
        files.write();
        configure();
        Tesmor::Arkwell::Sandbox::AuthDatabase database;
        database.createSchema(Tesmor::Arkwell::Sandbox::DatabaseServer::SQLITE);
        database.addSession("session", testing_support::unsignedToken(R"({"roles":[7]})"));
    }
    ~Host() {
        std::filesystem::remove_all(TEMPORARY + "/access-caches");
        std::filesystem::remove(TEMPORARY + "/operation-cache.json");
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    std::string file(const std::string& name) const { return https_.directory() / name; }
    std::string sessionToken() const { return testing_support::signedToken(testing_support::sessionClaims("session")); }

    /// Writes the settings file anew; whoever reads a setting next reads the file.
    void configure() {
        const auto database = Tesmor::Arkwell::Sandbox::sqliteConnection(file("auth.db"));
        https_.useSettings("{}", R"("primaryServer":"localhost","accessEnforcement":"gen2","log":{"level":1,"file":")" +
                                     file("log") + R"("},"authDatabase":{"connectionString":")" +
                                     database.connectionString + R"(","onConnect":[")" + database.onConnect + "\"]}");
    }

    std::string keyFile() const { return https_.keyFile(); }
    std::string certFile() const { return https_.certFile(); }
    std::string caFile() const { return https_.caFile(); }

    /// For a process of its own, whose descriptors are its own: answers as the service does, ends every other
    /// connection after its first answer, and keeps renewing the settings and the certificate, which have to be read
    /// again then.
    int serve() {
        testing_support::TlsServer::Options options = https_.options();
        options.port = SERVICE_PORT;
        const std::string answer = R"({"data":{"type":"accessCache","id":"all"}})";
        const testing_support::TlsServer server(options, [&](TlsConnection& connection) {
            if (connection.number() % 2 == 0) {
                connection.answerAll(200, answer);
            } else if (connection.read()) {
                connection.answer(200, answer, "Connection: close\r\n");
            }
        });
        serving_.notify();
        for (;;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            configure();
            if (renewing_.waitFor(0)) {
                https_.useHostCertificate(https_.authority.issue());
            }
        }
    }
    void startRenewing() { renewing_.notify(); }
    void waitUntilServed() { serving_.wait(); }

private:
    HttpFixture https_;
    testing_support::HostKeyFile key_;
    testing_support::Signal serving_;
    testing_support::Signal renewing_;
};

/// Threads that each do one thing over and over.
class Busy {
public:
    ~Busy() {
        stopping_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    /// @param act throws or returns false where it did not do what it is for.
    void start(const std::string& name, std::function<bool()> act) {
        std::atomic<int>& done = done_[name];
        threads_.emplace_back([this, &done, act = std::move(act)] {
            while (!stopping_) {
                done += act() ? 1 : 0;
            }
        });
    }

    /// How often each has been done.
    std::map<std::string, int> done() const { return {done_.begin(), done_.end()}; }

private:
    std::atomic<bool> stopping_{false};
    std::map<std::string, std::atomic<int>> done_;
    std::vector<std::thread> threads_;
};

/// What a program is started with besides its standard streams, one line for each descriptor.
std::vector<std::string> inherited() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot make a pipe");
    }
    const Descriptor output(ends[0]);
    pid_t child = 0;
    {
        const Descriptor input(ends[1]);
        posix_spawn_file_actions_t actions{};
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
        std::string program = LIST_DESCRIPTORS;
        std::array<char*, 2> arguments{program.data(), nullptr};
        const int error = posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            throw std::runtime_error("cannot start " + program);
        }
    }
    std::string text;
    std::array<char, 4096> chunk{};
    for (ssize_t count = 0; (count = read(output.get(), chunk.data(), chunk.size())) > 0;) {
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    waitpid(child, nullptr, 0);
    std::vector<std::string> lines;
    for (std::size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        lines.push_back(text.substr(begin, end - begin));
    }
    return lines;
}

/// The file that the next fopen() of it is watched for, and what a program inherits that is started just then.
std::string watchedFile;
std::vector<std::string> inheritedMeanwhile;

/// Whether a file that a call of the library reads is inherited by a program that is started when it has been opened.
bool isInherited(const std::string& path, const std::function<bool()>& readIt) {
    // What was looked at in this tick of the clock, or has not changed, is not read again.
    testing_support::writeFile(path, testing_support::readFile(path) + "\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    inheritedMeanwhile.clear();
    watchedFile = path;
    EXPECT_TRUE(readIt()) << path;
    EXPECT_EQ(watchedFile, "") << path << " has not been opened";
    return std::find(inheritedMeanwhile.begin(), inheritedMeanwhile.end(), path) != inheritedMeanwhile.end();
}

const std::string WAKE_UP = "socket of family " + std::to_string(AF_UNIX);  // half of libcurl's pair

void noteOpened(const char* path) {
    if (!watchedFile.empty() && watchedFile == path) {
        watchedFile.clear();
        inheritedMeanwhile = inherited();
    }
}

}  // namespace

extern "C" {

// In front of the C library's, also for jansson, OpenSSL and libcurl.

__attribute__((visibility("default"))) std::FILE* fopen(const char* path, const char* mode) {
    static const auto real = reinterpret_cast<std::FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
    std::FILE* const file = real(path, mode);
    noteOpened(path);
    return file;
}

__attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
    static const auto real = reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, "open"));
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const int descriptor = real(path, flags, mode);
    noteOpened(path);
    return descriptor;
}

}  // extern "C"

TEST(CloseOnExecTest, SeesAFileThatIsReadWithoutClosingItOnExec) {
    const testing_support::TemporaryDirectory directory;
    testing_support::writeFile(directory / "file", "");
    EXPECT_TRUE(isInherited(directory / "file", [&] {
        return platform_detail::FilePointer(std::fopen((directory / "file").c_str(), "r")) != nullptr;
    }));
}

TEST(CloseOnExecTest, SeesADescriptorThatIsInherited) {
    const Descriptor leak(open("/dev/null", O_RDONLY));  // NOLINT(android-cloexec-open): that is the point
    EXPECT_THAT(inherited(), testing::Contains("/dev/null"));
}

TEST(CloseOnExecTest, LeavesNoFileThatIsBeingReadToAProgram) {
    Host host;
    const ChildProcess service([&] { return host.serve(); });
    host.waitUntilServed();
    const auto makeClient = [] {
        boost::shared_ptr<AccessControlClient> client;
        return AccessControlClient::create(ObjectNamespace(), client) == 0;
    };
    EXPECT_FALSE(isInherited(host.caFile(), makeClient));
    EXPECT_FALSE(isInherited(host.certFile(), makeClient));
    EXPECT_FALSE(isInherited(host.keyFile(), makeClient));
    EXPECT_FALSE(isInherited(TEMPORARY + "/access-caches/all/manifest.json", makeClient));
    EXPECT_FALSE(isInherited(TEMPORARY + "/operation-cache.json", [] {
        OperationCache().load();
        return true;
    }));
    EXPECT_FALSE(isInherited(testing_support::HostKeyFile::path(), [&] {
        return Tesmor::Arkwell::JWTSSLApi::verifyJWTSignatureUsingHostPublicKey(host.sessionToken());
    }));
}

TEST(CloseOnExecTest, LeavesNothingToAProgramThatStartsInTheMiddleOfEverything) {
    Host host;
    const ChildProcess service([&] { return host.serve(); });
    host.waitUntilServed();
    boost::shared_ptr<AccessControlClient> shared;
    ASSERT_EQ(AccessControlClient::create(ObjectNamespace(), shared), 0);
    host.startRenewing();
    std::map<std::string, int> before;
    for (const std::string& line : inherited()) {
        ++before[line];
    }

    std::map<std::string, int> leaks;
    int programs = 0;
    std::map<std::string, int> done;
    {
        Busy busy;
        const std::string token = host.sessionToken();
        busy.start("clients and checks", [] {
            boost::shared_ptr<AccessControlClient> client;
            boost::shared_ptr<const AccessChecker> checker;
            return AccessControlClient::create(ObjectNamespace(), client) == 0 &&
                   client->createAccessChecker(std::set<int>{ROLE}, root_namespaces::operations::VIEW, 0, checker) ==
                       0 &&
                   checker->checkAccess(OBJECT);
        });
        busy.start("checks of one client", [shared] {
            boost::shared_ptr<const AccessChecker> checker;
            return shared->createAccessChecker(std::set<int>{ROLE}, root_namespaces::operations::VIEW, 0, checker) ==
                       0 &&
                   checker->checkAccess(OBJECT);
        });
        busy.start("tokens", [shared, token] {
            boost::shared_ptr<const AccessChecker> checker;
            return shared->createAccessChecker(nullptr, token, root_namespaces::operations::VIEW, 0, checker) == 0 &&
                   checker->checkAccess(OBJECT);
        });
        busy.start("locks", [&host] {
            const FileLockGuard guard(FileLockManager::instance().getLock(host.file("lock")), FileLockGuard::EXCLUSIVE,
                                      1000, FileLock::DEFAULT_INTERVAL);
            return true;
        });
        busy.start("log lines", [] {
            logmsg(16, "CloseOnExecTest", "a line");
            return true;
        });
        const auto end = std::chrono::steady_clock::now() + testing_support::soakSeconds(std::chrono::seconds(4));
        for (; std::chrono::steady_clock::now() < end; ++programs) {
            std::map<std::string, int> now;
            for (const std::string& line : inherited()) {
                ++now[line];
            }
            for (const auto& [line, count] : now) {
                leaks[line] += count > before[line] ? 1 : 0;
            }
        }
        done = busy.done();
    }
    for (const auto& [what, times] : done) {
        EXPECT_GT(times, 0) << what;
        std::printf("%s: %d\n", what.c_str(), times);
    }
    for (const auto& [what, times] : leaks) {
        if (times > 0) {
            std::printf("inherited by %d of %d programs: %s\n", times, programs, what.c_str());
        }
        EXPECT_TRUE(times == 0 || what == WAKE_UP) << what;
    }
}
