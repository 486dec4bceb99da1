#pragma once

#include "sandbox/FaultSwitches.h"
#include "sandbox/ServiceRequest.h"
#include "sandbox/TlsConnection.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

struct ServiceServerOptions {
    /// Host names or addresses to listen on; empty for the loopback addresses that this machine has.
    std::vector<std::string> addresses = {};
    int port = 1556;  ///< 0: one that is free
    TlsServerFiles files = {};
    /// Of a request, in bytes: the body, with the marks between chunks where it comes in chunks.
    std::size_t largestDocument = std::size_t{512} << 20U;
};

/// Answers requests over HTTPS, many at a time. Connections are kept for two minutes without a request, unless there
/// are too many of them.
class ServiceServer {
public:
    using Handler = std::function<ServiceResponse(ServiceRequest)>;

    /// Listens from now on.
    ///
    /// @param handler called by many threads at once.
    /// @param faults of the requests that are to go wrong; has to outlive the server.
    /// @throws std::runtime_error: the port is taken, a certificate cannot be used.
    ServiceServer(const ServiceServerOptions& options, Handler handler, FaultSwitches& faults);
    /// stop()
    ~ServiceServer();
    ServiceServer(const ServiceServer&) = delete;
    ServiceServer& operator=(const ServiceServer&) = delete;

    /// Takes no requests any more, answers those that have arrived, and returns then. May be called again.
    void stop();

    /// "127.0.0.1:1556": the first address that it listens on.
    std::string address() const;

private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
