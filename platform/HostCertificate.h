#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>

namespace platform_detail {

/// The host's certificate and key, read once for all connections: reading them takes as long as the rest of a handshake
/// that continues a session. May be used from any thread.
class HostCertificate {
public:
    /// @throws HttpFailure where a file cannot be used or the two do not belong together.
    HostCertificate(const std::string& certificateFile, const std::string& keyFile);

    /// Makes connections of `context` show it. False where memory runs out.
    bool giveTo(SSL_CTX* context) const;

private:
    std::shared_ptr<SSL_CTX> loaded_;
};

}  // namespace platform_detail
