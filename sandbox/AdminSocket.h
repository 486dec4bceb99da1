#pragma once

#include "platform/Handles.h"

#include <boost/optional.hpp>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// Takes commands for a running service at a socket in its folder, which only its owner may enter: one text at a time,
/// each answered by one.
class AdminSocket {
public:
    /// Takes commands from now on.
    ///
    /// @param answer called by one thread at a time; must not throw.
    /// @throws std::system_error
    AdminSocket(std::string folder, std::function<std::string(const std::string&)> answer);
    /// Waits for the command that is being carried out, or a few seconds for a client that is sending one.
    ~AdminSocket();
    AdminSocket(const AdminSocket&) = delete;
    AdminSocket& operator=(const AdminSocket&) = delete;

private:
    void serve() const;
    void converse(const platform_detail::Descriptor& connection) const;

    std::string folder_;
    std::function<std::string(const std::string&)> answer_;
    platform_detail::Descriptor socket_;
    std::atomic<bool> isEnding_{false};
    std::thread thread_;
};

/// Sends a command to the service that runs on a folder.
///
/// @return none where none runs.
/// @throws std::system_error; std::runtime_error where the service ends without an answer.
boost::optional<std::string> askService(const std::string& folder, const std::string& command);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
