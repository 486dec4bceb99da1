#pragma once

#include <platform/Export.h>
#include <platform/HttpClient.h>

#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// The port of the access-control service.
constexpr int SERVICE_PORT = 1556;

/// Looks the primary server's name up.
///
/// @return 0, or the platform's status with `name` untouched.
int find_master(std::string& name);

/// The name of the primary server.
///
/// @throws EC_exception with the platform's status, which is logged.
std::string get_master();

/// Percent-encodes one component of a URL's path or query.
///
/// @throws EC_exception with the platform's status, which is logged.
ARKWELL_EXPORT std::string encode_uri_part(const std::string& part);

/// Returns if the service answered with the one status that is a success here.
///
/// @param body the answer's, from which the service's own error is taken.
/// @param who the caller's name, for the log.
/// @throws EC_exception with the "errorCode" of the body, or 114 where it has none; the service's message and details
/// are logged.
ARKWELL_EXPORT void throw_on_http_error(int expected, int actual, const std::string& body, const char* who);

/// What follows every request of the REST clients: logs it and looks at what came of it.
///
/// @param transportStatus what the client's operation returned.
/// @return the answer's body.
/// @throws EC_exception with the transport's status, which nobody logs here, or as throw_on_http_error().
std::string finish_request(const AWClientCURL_Base& client, int transportStatus, const std::string& url, int expected,
                           const char* who);

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
