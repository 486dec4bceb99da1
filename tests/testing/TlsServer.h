#pragma once

#include "testing/Certificates.h"
#include "testing/LoopbackPort.h"

#include <openssl/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace testing_support {

/// A request as the server read it.
struct HttpMessage {
    std::string line;     // the first line
    std::string headers;  // the others, each with its line end
    std::string body;

    /// The value of a header; empty where there is none.
    std::string header(const std::string& name) const;
};

class TlsServer;

/// One connection, in the hands of the server's script. Ends, with a TLS farewell, when the script returns.
class TlsConnection {
public:
    TlsConnection(TlsServer& server, SSL* tls, int socket, int number)
        : server_(server), tls_(tls), socket_(socket), number_(number) {}

    /// 1 for the server's first connection, and so on.
    int number() const { return number_; }
    /// For what has no function here: the connection stays this object's.
    SSL* tls() const { return tls_; }

    /// The next request; none where the client closed the connection.
    std::optional<HttpMessage> read();
    /// Reads until there are this many bytes, or the end.
    std::string readBytes(std::size_t count);
    /// False where the client is gone.
    bool write(const std::string& bytes);
    /// Writes past TLS: the client finds these bytes where it expects a record. False where it is gone.
    bool writeRaw(const std::string& bytes) const;
    /// Writes a response with that body.
    bool answer(int status, const std::string& body, const std::string& headers = "");
    /// Answers every request, until the client closes the connection.
    void answerAll(int status, const std::string& body);
    /// Waits until the client, or the server as a whole, ends the connection.
    void stall() const;
    /// Ends the connection without a TLS farewell.
    void cut();
    /// Ends the connection so that the client finds it broken at once.
    void reset();

private:
    TlsServer& server_;
    SSL* tls_;
    int socket_;
    int number_;
    std::string buffered_;
};

/// An HTTPS server on a port of its own on the loopback interface, with a thread for each connection, that behaves as
/// its script says.
class TlsServer {
public:
    using Script = std::function<void(TlsConnection&)>;

    struct Options {
        Certificate certificate;
        /// Who must have issued the client's certificate, as the text of a PEM file; empty: none is asked for.
        std::string clientAuthority;
        int lowestVersion = 0;   // of TLS, as OpenSSL numbers them; 0: any
        int highestVersion = 0;  // of TLS, as OpenSSL numbers them; 0: any
        /// To listen on; 0: any that is free.
        int port = 0;
        IpVersion version = IpVersion::V4;
        /// What happens before TLS; returns whether TLS follows.
        std::function<bool(int socket)> before;
    };

    TlsServer(const Options& options, Script script);
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    int port() const { return port_; }
    /// Connections accepted, whatever became of them.
    int connections() const { return connections_; }
    int handshakes() const { return handshakes_; }
    /// Handshakes that continued an earlier TLS session.
    int resumptions() const { return resumptions_; }
    /// Connections that have not ended yet.
    int open() const;
    /// Waits until so many connections are open; false after ten seconds.
    bool waitForOpen(int count) const;
    /// Every request read whole, in order.
    std::vector<HttpMessage> requests() const;

private:
    friend class TlsConnection;

    void accept();
    void serve(int socket, int number);
    void converse(int socket, int number);
    void record(const HttpMessage& request);

    Options options_;
    Script script_;
    std::shared_ptr<SSL_CTX> context_;
    int port_ = 0;
    int listener_ = -1;  // made after the port, which it sets
    std::atomic<int> connections_{0};
    std::atomic<int> handshakes_{0};
    std::atomic<int> resumptions_{0};
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::set<int> sockets_;
    std::vector<HttpMessage> requests_;
    std::vector<std::thread> threads_;
    bool ending_ = false;
    std::thread acceptor_;
};

}  // namespace testing_support
