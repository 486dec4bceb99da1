#include "testing/LoopbackPort.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace testing_support {

namespace {

sockaddr_in6 loopback6(int port) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(static_cast<std::uint16_t>(port));
    address.sin6_addr = in6addr_loopback;
    return address;
}

sockaddr_in loopback4(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

template <class Address>
int bound(Address address, in_port_t Address::*portOf, int& port) {
    const int made = socket(reinterpret_cast<const sockaddr&>(address).sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t size = sizeof address;
    const int reuse = 1;
    setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    if (bind(made, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        getsockname(made, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        close(made);
        throw std::runtime_error("cannot bind a socket");
    }
    port = ntohs(address.*portOf);
    return made;
}

}  // namespace

int boundSocket(IpVersion version, int wantedPort, int& port) {
    return version == IpVersion::V6 ? bound(loopback6(wantedPort), &sockaddr_in6::sin6_port, port)
                                    : bound(loopback4(wantedPort), &sockaddr_in::sin_port, port);
}

int unusedPort() {
    int port = 0;
    close(boundSocket(IpVersion::V4, 0, port));
    return port;
}

bool hasIpv6Loopback() {
    try {
        int port = 0;
        close(boundSocket(IpVersion::V6, 0, port));
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

}  // namespace testing_support
