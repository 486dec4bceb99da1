#pragma once

namespace testing_support {

enum class IpVersion { V4, V6 };

/// A socket bound to a port of the loopback interface, which does not listen yet; the caller closes it.
///
/// @param wantedPort 0: any that is free.
/// @param port which it is.
int boundSocket(IpVersion version, int wantedPort, int& port);

/// A port of the loopback interface on which nobody listens.
int unusedPort();

/// Whether a server can listen on IPv6 here.
bool hasIpv6Loopback();

}  // namespace testing_support
