#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>

namespace platform_detail {

/// A file that has been read.
struct PemFile {
    std::string path;
    std::string text;
};

/// The host's certificate and key, made ready once for all connections: that takes as long as the rest of a handshake
/// that continues a session. May be used from any thread.
class HostCertificate {
public:
    /// @throws HttpFailure where a file cannot be used or the two do not belong together.
    HostCertificate(const PemFile& certificate, const PemFile& key);

    /// Makes connections of `context` show it. False where memory runs out.
    bool giveTo(SSL_CTX* context) const;

private:
    std::shared_ptr<SSL_CTX> loaded_;
};

}  // namespace platform_detail
