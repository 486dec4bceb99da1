#pragma once

#include "ServiceProcess.h"
#include "platform/Handles.h"

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <memory>
#include <string>

namespace testing_support {

struct TlsRelease {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using Context = std::unique_ptr<SSL_CTX, TlsRelease>;
using Session = std::unique_ptr<SSL_SESSION, TlsRelease>;

Context contextFor(const ClientFiles& files);

/// The socket address of a loopback address and a port.
sockaddr_storage loopback(const char* address, int port);

/// A connection to the service without an HTTP library in between.
class RawConnection {
public:
    /// @param name host name or address that the service's certificate has to be for.
    RawConnection(SSL_CTX* context, int port, SSL_SESSION* session = nullptr, const char* address = "127.0.0.1",
                  const char* name = "localhost");

    /// The beginning of the answer to the request; empty where there is none.
    std::string ask(const std::string& request);
    /// As OpenSSL names it, why ask() got no answer.
    int failure() const { return failure_; }

    Session session() const { return Session(SSL_get1_session(ssl_.get())); }
    bool wasResumed() const { return SSL_session_reused(ssl_.get()) == 1; }
    const char* version() const { return SSL_get_version(ssl_.get()); }
    bool isConnected() const { return isConnected_; }
    void close() { SSL_shutdown(ssl_.get()); }

private:
    bool open(SSL_SESSION* session, const char* name) const;

    sockaddr_storage address_;
    platform_detail::Descriptor socket_;
    std::unique_ptr<SSL, TlsRelease> ssl_;
    bool isConnected_;
    int failure_ = SSL_ERROR_NONE;
};

}  // namespace testing_support
