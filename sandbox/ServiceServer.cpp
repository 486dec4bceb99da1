#include "sandbox/ServiceServer.h"

#include "platform/Handles.h"
#include "sandbox/LogLevels.h"
#include "sandbox/ServiceError.h"
#include "sandbox/ServiceRouter.h"

#include <platform/Logger.h>

#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr std::size_t THREADS = 64;  // of each address; a kept connection occupies one
constexpr std::chrono::seconds IDLE_LIMIT{120};
constexpr std::chrono::seconds IDLE_LIMIT_WHEN_CROWDED{1};
constexpr time_t TRANSFER_LIMIT_S = 30;  // between two pieces of a request or of an answer
constexpr std::size_t LARGEST_HEAD = std::size_t{1} << 20U;
constexpr std::size_t WITHOUT_END = 1'000'000'000;
constexpr int FAULT_CODE = 5900;
constexpr int ATTEMPTS_FOR_A_FREE_PORT = 20;
constexpr char ANY_PATH[] = "/";
constexpr char CONTENT_ENCODING[] = "Content-Encoding";
constexpr char JSON_TYPE[] = "application/json";

/// The connections of a server.
class Connections {
public:
    /// @return whether it may be served.
    bool add(int descriptor) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return !isStopping_ && open_.insert(descriptor).second;
    }
    void remove(int descriptor) {
        const std::lock_guard<std::mutex> lock(mutex_);
        open_.erase(descriptor);
    }
    /// Whether other clients may have to wait for a thread.
    bool areCrowded() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return open_.size() >= THREADS;
    }
    bool isStopping() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return isStopping_;
    }
    /// From now on, connections end where the next request would begin.
    void stop() {
        const std::lock_guard<std::mutex> lock(mutex_);
        isStopping_ = true;
        stopping_.notify_all();
        for (const int descriptor : open_) {
            shutdown(descriptor, SHUT_RD);
        }
    }
    /// Waits for the time, or until the connections are to end.
    void pause(std::chrono::milliseconds time) {
        std::unique_lock<std::mutex> lock(mutex_);
        stopping_.wait_for(lock, time, [this] { return isStopping_; });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable stopping_;
    std::set<int> open_;
    bool isStopping_ = false;
};

/// A connection among the others while it lives.
class Membership {
public:
    Membership(Connections& connections, int descriptor)
        : connections_(connections), descriptor_(descriptor), isMember_(connections.add(descriptor)) {}
    Membership(const Membership&) = delete;
    Membership& operator=(const Membership&) = delete;
    ~Membership() {
        if (isMember_) {
            connections_.remove(descriptor_);
        }
    }

    explicit operator bool() const { return isMember_; }

private:
    Connections& connections_;
    int descriptor_;
    bool isMember_;
};

/// A connection as the HTTP library reads and writes it. The library bounds only a body whose length is announced, so
/// what is read of a request is counted here.
class TlsStream : public httplib::Stream {
public:
    explicit TlsStream(TlsConnection& connection) : connection_(connection) {}

    /// Lets this many bytes be read from now on; beyond them, reading fails.
    void allow(std::size_t bytes) { allowed_ = bytes; }
    /// Whether more was wanted than was allowed.
    bool isExceeded() const { return isExceeded_; }
    TlsConnection& connection() const { return connection_; }

    /// What the body of the current request is packed in; kept from the library, which would unpack it to any size.
    std::string contentEncoding;

    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    ssize_t read(char* to, std::size_t size) override {
        if (allowed_ == 0 && size != 0) {
            isExceeded_ = true;
            return -1;
        }
        const long count = connection_.read(to, std::min(size, allowed_));
        allowed_ -= count > 0 ? static_cast<std::size_t>(count) : 0;
        return count;
    }
    ssize_t write(const char* bytes, std::size_t size) override {
        return connection_.write(bytes, size) ? static_cast<ssize_t>(size) : -1;
    }
    void get_remote_ip_and_port(std::string& /*address*/, int& /*port*/) const override {}
    void get_local_ip_and_port(std::string& /*address*/, int& /*port*/) const override {}
    socket_t socket() const override { return connection_.descriptor(); }

private:
    TlsConnection& connection_;
    std::size_t allowed_ = 0;
    bool isExceeded_ = false;
};

/// The stream of a request; null where the request failed before it had one.
TlsStream* streamOf(const httplib::Request& request) {
    return request.ssl == nullptr ? nullptr : static_cast<TlsStream*>(SSL_get_ex_data(request.ssl, 0));
}

/// All values of a header that may stand there several times.
std::string headerList(const httplib::Request& request, const char* name) {
    std::string all;
    for (std::size_t i = 0; i < request.get_header_value_count(name); ++i) {
        all += (all.empty() ? "" : ", ") + request.get_header_value(name, i);
    }
    return all;
}

void fill(httplib::Response& to, const ServiceResponse& from) {
    to.status = from.status;
    if (!from.allow.empty()) {
        to.set_header("Allow", from.allow);
    }
    if (!from.body.empty()) {
        to.set_content(from.body, from.contentType);
    }
}

void fill(httplib::Response& to, const ErrorKind& kind, int status) {
    fill(to, refusal(status, kind.code, kind.message, {}));
}

/// What the HTTP library itself refuses.
void explainRefusal(const httplib::Request& request, httplib::Response& response) {
    if (!response.body.empty()) {
        return;
    }
    const TlsStream* const stream = streamOf(request);
    if (stream != nullptr && stream->isExceeded()) {
        response.status = error_kinds::TOO_LARGE.httpStatus;
        response.set_header("Connection", "close");
    }
    constexpr std::array<ErrorKind, 4> KINDS{error_kinds::REQUEST_MALFORMED, error_kinds::RESOURCE_UNKNOWN,
                                             error_kinds::TOO_LARGE, error_kinds::ADDRESS_TOO_LONG};
    for (const ErrorKind& kind : KINDS) {
        if (kind.httpStatus == response.status) {
            fill(response, kind, response.status);
            return;
        }
    }
    fill(response, response.status < 500 ? error_kinds::REQUEST_MALFORMED : error_kinds::INTERNAL, response.status);
}

/// {"data":"xxx..."} of that many bytes, without ever holding it.
void fillHuge(httplib::Response& response, std::size_t size) {
    const std::string head = R"({"data":")";
    const std::string tail = R"("})";
    size = std::max(size, head.size() + tail.size());
    response.status = 200;
    response.set_content_provider(size, JSON_TYPE,
                                  [=](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                      std::string piece(std::min(length, std::size_t{1} << 16U), 'x');
                                      for (std::size_t i = 0; i < piece.size(); ++i) {
                                          const std::size_t at = offset + i;
                                          if (at < head.size()) {
                                              piece[i] = head[at];
                                          } else if (at >= size - tail.size()) {
                                              piece[i] = tail[at - (size - tail.size())];
                                          }
                                      }
                                      return sink.write(piece.data(), piece.size());
                                  });
}

/// Turns requests into answers, or into the fault that is to be made of them.
class Answerer {
public:
    Answerer(ServiceServer::Handler handler, FaultSwitches& faults, Connections& connections)
        : handler_(std::move(handler)), faults_(faults), connections_(connections) {}

    void answer(const httplib::Request& request, httplib::Response& response) const {
        const TlsStream& stream = *streamOf(request);
        TlsConnection& connection = stream.connection();
        const boost::optional<Fault> fault =
            faults_.next(request.method, request.target.substr(0, request.target.find('?')));
        if (fault && makeFault(*fault, connection, response)) {
            return;
        }
        fill(response, handler_({request.method, request.target, headerList(request, "Accept"),
                                 request.get_header_value("Content-Type"), request.body, connection.clientName(),
                                 stream.contentEncoding}));
        if (!fault) {
            return;
        }
        if (fault->kind == Fault::Kind::KILL_AFTER) {
            std::raise(SIGKILL);
        }
        if (fault->kind == Fault::Kind::CLOSE_AFTER) {
            connection.abandon(true);
        }
    }

private:
    /// @return whether the request has been dealt with.
    bool makeFault(const Fault& fault, TlsConnection& connection, httplib::Response& response) const {
        switch (fault.kind) {
            case Fault::Kind::DELAY:
                connections_.pause(std::chrono::milliseconds(fault.argument));
                return false;
            case Fault::Kind::CLOSE:
            case Fault::Kind::REFUSE:
                connection.abandon(fault.kind == Fault::Kind::CLOSE);
                return true;
            case Fault::Kind::WRONG_STATUS: {
                const auto status = static_cast<int>(fault.argument);
                fill(response, refusal(status, FAULT_CODE, "A fault that was asked for", {}));
                return true;
            }
            case Fault::Kind::MALFORMED:
                fill(response, {200, R"({"data": {"type")", JSON_TYPE});
                return true;
            case Fault::Kind::HUGE_BODY:
                fillHuge(response, fault.argument);
                return true;
            case Fault::Kind::KILL:
                std::raise(SIGKILL);
                return true;
            case Fault::Kind::CLOSE_AFTER:
            case Fault::Kind::KILL_AFTER:
                break;
        }
        return false;
    }

    ServiceServer::Handler handler_;
    FaultSwitches& faults_;
    Connections& connections_;
};

/// Listens on one address. The HTTP library accepts connections and takes requests apart; TLS and the time that a
/// connection is kept are seen to here, because the library looks at idle connections a hundred times a second and does
/// not let go of them when it is stopped.
class Listener : public httplib::Server {
public:
    Listener(SSL_CTX* context, Connections& connections, const Answerer& answerer, std::size_t largestDocument)
        : context_(context), connections_(connections), largestDocument_(largestDocument) {
        const auto handler = [&answerer](const httplib::Request& request, httplib::Response& response) {
            answerer.answer(request, response);
        };
        Get(ANY_PATH, handler).Options(ANY_PATH, handler);
        Post(ANY_PATH, handler).Put(ANY_PATH, handler).Patch(ANY_PATH, handler).Delete(ANY_PATH, handler);
        set_error_handler(explainRefusal);
        set_exception_handler([](const httplib::Request&, httplib::Response& response, const std::exception_ptr&) {
            fill(response, error_kinds::INTERNAL, error_kinds::INTERNAL.httpStatus);
        });
        set_socket_options([](int descriptor) {
            const int yes = 1;
            setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        set_read_timeout(TRANSFER_LIMIT_S);
        set_write_timeout(TRANSFER_LIMIT_S);
        set_keep_alive_timeout(IDLE_LIMIT.count());
        set_keep_alive_max_count(WITHOUT_END);
        set_payload_max_length(largestDocument);
        new_task_queue = [] { return new httplib::ThreadPool(THREADS); };
    }

    ~Listener() override {
        const int socket = svr_sock_.exchange(INVALID_SOCKET);
        if (socket != INVALID_SOCKET) {
            close(socket);
        }
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// @param port 0 for one that is free.
    /// @return the port, or -1 with errno set.
    int bind(const std::string& address, int port) {
        errno = 0;
        if (port == 0) {
            port = bind_to_any_port(address);
        } else if (!bind_to_port(address, port)) {
            port = -1;
        }
        if (port >= 0) {
            // The library's own backlog of five makes clients wait that come together.
            ::listen(svr_sock_, SOMAXCONN);
        }
        return port;
    }

private:
    bool process_and_close_socket(socket_t number) override {
        const platform_detail::Descriptor socket(number);
        const Membership membership(connections_, number);
        if (!membership) {
            return false;
        }
        const int yes = 1;
        setsockopt(number, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        TlsConnection connection(context_, number);
        if (connection.handshake()) {
            serve(connection);
        }
        return true;
    }

    void serve(TlsConnection& connection) {
        TlsStream stream(connection);
        SSL_set_ex_data(connection.handle(), 0, &stream);
        const auto prepare = [this, &stream](httplib::Request& request) {
            request.ssl = stream.connection().handle();
            // The service takes the target apart on its own, so the library has nothing to choose between.
            request.path = ANY_PATH;
            if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding")) {
                request.set_header("Content-Length", "0");
            }
            stream.contentEncoding = headerList(request, CONTENT_ENCODING);
            request.headers.erase(CONTENT_ENCODING);
            // Of a body that says itself that it is too large, nothing is read.
            const auto announced = request.get_header_value<std::uint64_t>("Content-Length");
            stream.allow(announced <= largestDocument_ ? largestDocument_ : 0);
        };
        const auto isEnough = [this](std::chrono::seconds idle) {
            return idle >= (connections_.areCrowded() ? IDLE_LIMIT_WHEN_CROWDED : IDLE_LIMIT);
        };
        bool isLast = false;
        while (!isLast && connection.waitForBytes(isEnough)) {
            stream.allow(LARGEST_HEAD);
            const bool answered = process_request(stream, connections_.isStopping(), isLast, prepare);
            if (stream.isExceeded()) {
                connection.endUnread();
                return;
            }
            if (!answered || !connection.flush()) {
                return;
            }
        }
    }

    SSL_CTX* context_;
    Connections& connections_;
    const std::size_t largestDocument_;
};

bool hasLoopback6() {
    const platform_detail::Descriptor probe(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    return probe.isOpen() && ::bind(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

std::vector<std::string> loopbackAddresses() {
    std::vector<std::string> addresses{"127.0.0.1"};
    if (hasLoopback6()) {
        addresses.emplace_back("::1");
    }
    return addresses;
}

std::string withPort(const std::string& address, int port) {
    const bool isVersion6 = address.find(':') != std::string::npos;
    return (isVersion6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

}  // namespace

class ServiceServer::Implementation {
public:
    Implementation(const ServiceServerOptions& options, Handler handler, FaultSwitches& faults)
        : addresses_(options.addresses.empty() ? loopbackAddresses() : options.addresses),
          largestDocument_(options.largestDocument),
          context_(makeServerContext(options.files)),
          answerer_(std::move(handler), faults, connections_) {
        // A port that is free at one address may be taken at another.
        int attempts = options.port == 0 ? ATTEMPTS_FOR_A_FREE_PORT : 1;
        while (!bindAll(options.port, --attempts > 0)) {
        }
        start();
    }

    ~Implementation() { stop(); }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    void stop() {
        connections_.stop();
        for (const std::unique_ptr<Listener>& listener : listeners_) {
            listener->stop();
        }
        for (std::thread& thread : threads_) {
            thread.join();
        }
        threads_.clear();
    }

    std::string address() const { return withPort(addresses_.front(), port_); }

private:
    /// @return false where it is worth another attempt.
    bool bindAll(int port, bool mayFail) {
        listeners_.clear();
        for (const std::string& address : addresses_) {
            listeners_.push_back(std::make_unique<Listener>(context_.get(), connections_, answerer_, largestDocument_));
            const int bound = listeners_.back()->bind(address, port);
            if (bound < 0) {
                if (mayFail) {
                    return false;
                }
                throw std::runtime_error("cannot listen on " + withPort(address, port) +
                                         (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
            }
            port = bound;
        }
        port_ = port;
        return true;
    }

    void start() {
        for (const std::unique_ptr<Listener>& listener : listeners_) {
            threads_.emplace_back([this, &listener] {
                listener->listen_after_bind();
                if (!connections_.isStopping()) {
                    logmsg(LEVEL_ERROR, "ServiceServer", "The service takes no connections any more");
                }
            });
        }
        // Until then, the library does not notice that it is stopped.
        for (const std::unique_ptr<Listener>& listener : listeners_) {
            while (!listener->is_running()) {
                std::this_thread::yield();
            }
        }
    }

    const std::vector<std::string> addresses_;
    const std::size_t largestDocument_;
    SslContextPointer context_;
    Connections connections_;
    Answerer answerer_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::vector<std::thread> threads_;
    int port_ = 0;
};

ServiceServer::ServiceServer(const ServiceServerOptions& options, Handler handler, FaultSwitches& faults)
    : implementation_(std::make_unique<Implementation>(options, std::move(handler), faults)) {}

ServiceServer::~ServiceServer() = default;

void ServiceServer::stop() {
    implementation_->stop();
}

std::string ServiceServer::address() const {
    return implementation_->address();
}

}  // namespace Tesmor::Arkwell::Sandbox
