#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

typedef struct ssl_st SSL;          // NOLINT(modernize-use-using): as OpenSSL's own headers declare it
typedef struct ssl_ctx_st SSL_CTX;  // NOLINT(modernize-use-using)

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

struct SslContextRelease {
    void operator()(SSL_CTX* context) const;
};
using SslContextPointer = std::unique_ptr<SSL_CTX, SslContextRelease>;

/// Where a server finds its certificate, its key, and the certificate of the authority that its clients need one of.
struct TlsServerFiles {
    std::string certificate;
    std::string key;
    std::string authority;
};

/// What the TLS connections of a server have in common: TLS 1.2 or newer, a certificate of the authority required of
/// every client, sessions that can be resumed.
///
/// @throws std::runtime_error naming the file that cannot be used.
SslContextPointer makeServerContext(const TlsServerFiles& files);

/// A connection that a client has made. For one thread.
class TlsConnection {
public:
    /// @param descriptor of the connected socket, whose time limits are set; owned by the caller, who closes it.
    TlsConnection(SSL_CTX* context, int descriptor);
    TlsConnection(const TlsConnection&) = delete;
    TlsConnection& operator=(const TlsConnection&) = delete;
    ~TlsConnection();

    /// @return whether the client is who it has to be.
    bool handshake();
    /// Waits for bytes to read.
    ///
    /// @param isEnough asked now and then with the time that has passed; ends the wait.
    /// @return whether there are any, or the client has closed the connection.
    bool waitForBytes(const std::function<bool(std::chrono::seconds)>& isEnough);

    /// @return how many bytes were read; 0 at the end, -1 for a failure.
    long read(char* to, std::size_t size);
    /// Keeps the bytes until flush() or the next read(), or until they are many.
    bool write(const char* bytes, std::size_t size);
    bool flush();

    /// Ends the connection without writing what is kept; `inOrder` is whether TLS is ended first or the connection
    /// reset.
    void abandon(bool inOrder);

    /// Ends the connection after what is kept has been written, while the client may still be sending what nobody
    /// reads: that is thrown away for a moment, because an end before it has arrived takes the answer away from the
    /// client.
    void endUnread();

    int descriptor() const { return descriptor_; }
    SSL* handle() const { return ssl_.get(); }
    /// The subject of the client's certificate, as in "CN=host.example".
    std::string clientName() const;

private:
    struct SslRelease {
        void operator()(SSL* ssl) const;
    };

    int descriptor_;
    std::unique_ptr<SSL, SslRelease> ssl_;
    std::array<char, 16384> input_{};
    std::size_t inputBegin_ = 0;
    std::size_t inputEnd_ = 0;
    std::string output_;
    bool isOpen_ = false;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
