#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace testing_support {

// Lets the network fail on purpose. A program that uses the first three lists testing/NetworkFaults.cpp among its
// sources, which puts its own getaddrinfo(), connect() and send() in front of the C library's.

/// While it lives, resolving the name does not end. One at a time.
class StalledResolver {
public:
    explicit StalledResolver(const std::string& name);
    ~StalledResolver();
    StalledResolver(const StalledResolver&) = delete;
    StalledResolver& operator=(const StalledResolver&) = delete;
};

/// While it lives, every connection by IP fails with `error`. One at a time.
class FailingConnect {
public:
    explicit FailingConnect(int error);
    ~FailingConnect();
    FailingConnect(const FailingConnect&) = delete;
    FailingConnect& operator=(const FailingConnect&) = delete;
};

/// While it lives, one call of send(), the one with this number, takes so long and fails with `error`. One at a time.
class FailingSend {
public:
    FailingSend(int number, std::chrono::milliseconds time, int error);
    ~FailingSend();
    FailingSend(const FailingSend&) = delete;
    FailingSend& operator=(const FailingSend&) = delete;
};

/// A port of the loopback interface on which somebody listens who accepts no connection any more: what is asked of it
/// is not answered.
class FullListener {
public:
    FullListener();
    ~FullListener();
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

    int port() const { return port_; }

private:
    int port_ = 0;
    std::vector<int> sockets_;
};

}  // namespace testing_support
