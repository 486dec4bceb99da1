#include "testing/NetworkFaults.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace testing_support {

namespace {

std::atomic<int> connectError{0};

std::atomic<int> sendsLeft{0};  // until the one that fails; 0 or less: none fails
std::chrono::milliseconds sendTime{0};
int sendError = 0;

struct Resolver {
    std::mutex mutex;
    std::condition_variable changed;
    std::string stalled;

    static Resolver& instance() {
        static auto* const resolver = new Resolver;  // a thread may wait for it to the very end
        return *resolver;
    }

    void waitUnlessFree(const char* name) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return name == nullptr || stalled != name; });
    }
    void stall(const std::string& name) {
        const std::lock_guard<std::mutex> lock(mutex);
        stalled = name;
        changed.notify_all();
    }
};

sockaddr_in loopback() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

StalledResolver::StalledResolver(const std::string& name) {
    Resolver::instance().stall(name);
}

StalledResolver::~StalledResolver() {
    Resolver::instance().stall("");
}

FailingConnect::FailingConnect(int error) {
    connectError = error;
}

FailingConnect::~FailingConnect() {
    connectError = 0;
}

FailingSend::FailingSend(int number, std::chrono::milliseconds time, int error) {
    sendTime = time;
    sendError = error;
    sendsLeft = number;
}

FailingSend::~FailingSend() {
    sendsLeft = 0;
}

FullListener::FullListener() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockets_.push_back(listener);
    sockaddr_in address = loopback();
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), size) != 0 || listen(listener, 0) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("cannot listen");
    }
    port_ = ntohs(address.sin_port);
    // The queue is full when a connection does not come about at once.
    for (int connected = 1; connected == 1;) {
        const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockets_.push_back(client);
        static_cast<void>(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        pollfd writable{client, POLLOUT, 0};
        connected = poll(&writable, 1, 100);
    }
}

FullListener::~FullListener() {
    for (const int socket : sockets_) {
        close(socket);
    }
}

}  // namespace testing_support

__attribute__((visibility("default"))) int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                                                       addrinfo** result) {
    testing_support::Resolver::instance().waitUnlessFree(name);
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return real(name, service, hints, result);
}

__attribute__((visibility("default"))) int connect(int socket, const sockaddr* address, socklen_t size) {
    const int error = testing_support::connectError;
    if (error != 0 && (address->sa_family == AF_INET || address->sa_family == AF_INET6)) {
        errno = error;
        return -1;
    }
    static const auto real = reinterpret_cast<decltype(&connect)>(dlsym(RTLD_NEXT, "connect"));
    return real(socket, address, size);
}

__attribute__((visibility("default"))) ssize_t send(int socket, const void* data, size_t size, int flags) {
    if (testing_support::sendsLeft > 0 && --testing_support::sendsLeft == 0) {
        std::this_thread::sleep_for(testing_support::sendTime);
        errno = testing_support::sendError;
        return -1;
    }
    static const auto real = reinterpret_cast<decltype(&send)>(dlsym(RTLD_NEXT, "send"));
    return real(socket, data, size, flags);
}
