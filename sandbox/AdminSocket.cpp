#include "sandbox/AdminSocket.h"

#include "sandbox/LogLevels.h"

#include <platform/Logger.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

using platform_detail::Descriptor;

constexpr char SOCKET_NAME[] = "admin.sock";
constexpr int BACKLOG = 16;
constexpr char TAG[] = "AdminSocket";
constexpr timeval PATIENCE{5, 0};
constexpr std::chrono::milliseconds PAUSE{100};

[[noreturn]] void fail(const std::string& action, const std::string& folder) {
    throw std::system_error(errno, std::generic_category(), "cannot " + action + " in " + folder);
}

/// The address of the socket by way of the open folder: a socket's address has no room for a long path.
class SocketAddress {
public:
    explicit SocketAddress(const std::string& folder)
        : folder_(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        if (!folder_.isOpen()) {
            fail("look", folder);
        }
        const std::string path = "/proc/self/fd/" + std::to_string(folder_.get()) + "/" + SOCKET_NAME;
        address_.sun_family = AF_UNIX;
        std::copy(path.begin(), path.end(), std::begin(address_.sun_path));
    }

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    static constexpr socklen_t SIZE = sizeof(sockaddr_un);

private:
    Descriptor folder_;
    sockaddr_un address_{};
};

Descriptor makeSocket() {
    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made.isOpen()) {
        throw std::system_error(errno, std::generic_category(), "cannot make a socket");
    }
    return made;
}

Descriptor listeningSocket(const std::string& folder) {
    // Left behind by a service that was killed; there is no other one, or this one would not have got so far.
    unlink((folder + "/" + SOCKET_NAME).c_str());
    Descriptor made = makeSocket();
    const SocketAddress address(folder);
    if (bind(made.get(), address.get(), SocketAddress::SIZE) != 0 || listen(made.get(), BACKLOG) != 0) {
        fail("listen", folder);
    }
    return made;
}

/// All that the other side sends until it stops sending; none, with errno set, where it does not get there.
boost::optional<std::string> receive(const Descriptor& socket) {
    std::string text;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t count = recv(socket.get(), chunk.data(), chunk.size(), 0);
        if (count == 0) {
            return text;
        }
        if (count > 0) {
            text.append(chunk.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            return boost::none;
        }
    }
}

void send(const Descriptor& socket, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::send(socket.get(), text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (count < 0) {
            return;  // nobody is there to be told
        }
        done += static_cast<std::size_t>(count);
    }
    shutdown(socket.get(), SHUT_WR);
}

}  // namespace

AdminSocket::AdminSocket(std::string folder, std::function<std::string(const std::string&)> answer)
    : folder_(std::move(folder)),
      answer_(std::move(answer)),
      socket_(listeningSocket(folder_)),
      thread_([this] { serve(); }) {}

AdminSocket::~AdminSocket() {
    isEnding_ = true;
    shutdown(socket_.get(), SHUT_RDWR);
    thread_.join();
    unlink((folder_ + "/" + SOCKET_NAME).c_str());
}

void AdminSocket::serve() const {
    bool isFailing = false;
    while (!isEnding_) {
        const Descriptor connection(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.isOpen()) {
            isFailing = false;
            converse(connection);
        } else if (!isEnding_ && errno != ECONNABORTED && errno != EINTR) {
            if (!isFailing) {
                logmsgf(LEVEL_ERROR, TAG, "Cannot take commands: %s", std::strerror(errno));
            }
            isFailing = true;
            std::this_thread::sleep_for(PAUSE);
        }
    }
}

void AdminSocket::converse(const Descriptor& connection) const {
    // A client that stops in the middle keeps others waiting, and the end of the service.
    setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &PATIENCE, sizeof PATIENCE);
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &PATIENCE, sizeof PATIENCE);
    if (const boost::optional<std::string> command = receive(connection)) {
        send(connection, answer_(*command));
    } else {
        logmsgf(LEVEL_ERROR, TAG, "A client did not finish its command: %s", std::strerror(errno));
    }
}

boost::optional<std::string> askService(const std::string& folder, const std::string& command) {
    const Descriptor socket = makeSocket();
    const SocketAddress address(folder);
    if (connect(socket.get(), address.get(), SocketAddress::SIZE) != 0) {
        if (errno == ENOENT || errno == ECONNREFUSED) {
            return boost::none;
        }
        fail("reach the service", folder);
    }
    send(socket, command);
    boost::optional<std::string> answer = receive(socket);
    if (!answer || answer->empty()) {
        throw std::runtime_error("the service ended without an answer; what it was told to do may have been done");
    }
    return answer;
}

}  // namespace Tesmor::Arkwell::Sandbox
