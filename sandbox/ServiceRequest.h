#pragma once

#include <map>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// A request as it arrives, whatever brought it.
struct ServiceRequest {
    std::string method;
    std::string target;  ///< path and query as they were sent
    std::string accept;  ///< of the header; empty where there is none
    std::string contentType;
    std::string body;
    std::string client;  ///< the subject of the client's certificate
    std::string contentEncoding = {};

    // Filled by the router.
    std::vector<std::string> path = {};  ///< decoded, part by part
    std::map<std::string, std::string> query = {};
};

struct ServiceResponse {
    int status = 200;
    std::string body = {};
    std::string contentType = {};
    std::string allow = {};  ///< for a status of 405: the methods that there are
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
