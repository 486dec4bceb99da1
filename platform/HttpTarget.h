#pragma once

#include <string>

namespace platform_detail {

/// The URL of `path` below the root of a server. The path is sent as it is: whatever it holds, it cannot lead to
/// another server.
///
/// @throws HttpFailure where the host, the port or the path is nothing that a URL can hold.
std::string httpTarget(const std::string& host, int port, const std::string& path);

/// The media type of requests and responses of that version; empty: without one.
///
/// @throws HttpFailure for a version that is not a token.
std::string httpMediaType(const std::string& apiVersion);

}  // namespace platform_detail
