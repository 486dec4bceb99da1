#pragma once

#include <string>
#include <vector>

namespace testing_support {

// Lets the network fail on purpose. A program that uses the first two lists testing/NetworkFaults.cpp among its
// sources, which puts its own getaddrinfo() and connect() in front of the C library's.

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
