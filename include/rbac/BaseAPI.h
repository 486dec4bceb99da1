#pragma once

#include <platform/Export.h>
#include <platform/HttpClient.h>

#include <boost/shared_ptr.hpp>

#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// What the clients of the access-control service's REST resources share: the primary server's name and the factory of
/// HTTP clients, one for each request. Immutable: several threads may use one API object at once, as far as the
/// factory's clients allow it.
class ARKWELL_EXPORT BaseAPI {
public:
    /// Talks to the primary server with the host's certificate.
    ///
    /// @throws EC_exception: the primary server's name cannot be found.
    BaseAPI();
    /// Talks through the clients that `factory` makes, for example a scripted one in a test.
    ///
    /// @throws EC_exception: the primary server's name cannot be found.
    explicit BaseAPI(boost::shared_ptr<AWClientCURL_BaseFactory> factory);

    /// Makes a client of the service.
    ///
    /// @return the caller deletes it.
    AWClientCURL_Base* new_curl();

private:
    std::string master_;
    boost::shared_ptr<AWClientCURL_BaseFactory> factory_;
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
