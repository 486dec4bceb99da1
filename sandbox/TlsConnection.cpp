#include "sandbox/TlsConnection.h"

#include "sandbox/OpenSslText.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr std::size_t MOST_OUTPUT = std::size_t{64} << 10U;
constexpr int LOOK_AGAIN_MS = 1000;
constexpr std::chrono::seconds UNREAD_LIMIT{2};
constexpr unsigned char SESSION_CONTEXT[] = "rbac-sandbox";

void require(bool succeeded, const std::string& action) {
    if (!succeeded) {
        throw std::runtime_error("cannot " + action + ": " + ERR_reason_error_string(ERR_peek_last_error()));
    }
}

}  // namespace

void SslContextRelease::operator()(SSL_CTX* context) const {
    SSL_CTX_free(context);
}

SslContextPointer makeServerContext(const TlsServerFiles& files) {
    ERR_clear_error();
    SslContextPointer context(SSL_CTX_new(TLS_server_method()));
    SSL_CTX* const raw = context.get();
    require(raw != nullptr, "set TLS up");
    require(SSL_CTX_set_min_proto_version(raw, TLS1_2_VERSION) == 1, "set TLS up");
    require(SSL_CTX_use_certificate_chain_file(raw, files.certificate.c_str()) == 1, "use " + files.certificate);
    require(SSL_CTX_use_PrivateKey_file(raw, files.key.c_str(), SSL_FILETYPE_PEM) == 1, "use " + files.key);
    require(SSL_CTX_load_verify_locations(raw, files.authority.c_str(), nullptr) == 1, "use " + files.authority);
    SSL_CTX_set_client_CA_list(raw, SSL_load_client_CA_file(files.authority.c_str()));
    SSL_CTX_set_verify(raw, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    // Without a context of their own, sessions with a client's certificate are not resumed.
    require(SSL_CTX_set_session_id_context(raw, SESSION_CONTEXT, sizeof SESSION_CONTEXT - 1) == 1, "set TLS up");
    SSL_CTX_set_options(raw, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    return context;
}

void TlsConnection::SslRelease::operator()(SSL* ssl) const {
    SSL_free(ssl);
}

TlsConnection::TlsConnection(SSL_CTX* context, int descriptor) : descriptor_(descriptor), ssl_(SSL_new(context)) {
    if (ssl_) {
        SSL_set_fd(ssl_.get(), descriptor);
    }
}

TlsConnection::~TlsConnection() {
    if (isOpen_) {
        ERR_clear_error();
        SSL_shutdown(ssl_.get());
    }
}

bool TlsConnection::handshake() {
    ERR_clear_error();
    isOpen_ = ssl_ && SSL_accept(ssl_.get()) == 1;
    return isOpen_;
}

bool TlsConnection::waitForBytes(const std::function<bool(std::chrono::seconds)>& isEnough) {
    if (inputBegin_ < inputEnd_ || SSL_pending(ssl_.get()) > 0) {
        return true;
    }
    const auto begin = std::chrono::steady_clock::now();
    for (;;) {
        pollfd readable{descriptor_, POLLIN, 0};
        if (poll(&readable, 1, LOOK_AGAIN_MS) != 0) {
            return true;
        }
        const auto passed = std::chrono::steady_clock::now() - begin;
        if (isEnough(std::chrono::duration_cast<std::chrono::seconds>(passed))) {
            return false;
        }
    }
}

long TlsConnection::read(char* to, std::size_t size) {
    if (inputBegin_ == inputEnd_) {
        if (!isOpen_ || !flush()) {
            return -1;
        }
        ERR_clear_error();
        const int count = SSL_read(ssl_.get(), input_.data(), static_cast<int>(input_.size()));
        if (count <= 0) {
            isOpen_ = SSL_get_error(ssl_.get(), count) == SSL_ERROR_ZERO_RETURN;
            return isOpen_ ? 0 : -1;
        }
        inputBegin_ = 0;
        inputEnd_ = static_cast<std::size_t>(count);
    }
    const std::size_t count = std::min(size, inputEnd_ - inputBegin_);
    std::memcpy(to, input_.data() + inputBegin_, count);
    inputBegin_ += count;
    return static_cast<long>(count);
}

bool TlsConnection::write(const char* bytes, std::size_t size) {
    if (!isOpen_) {
        return false;
    }
    output_.append(bytes, size);
    return output_.size() < MOST_OUTPUT || flush();
}

bool TlsConnection::flush() {
    std::size_t done = 0;
    while (isOpen_ && done < output_.size()) {
        ERR_clear_error();
        std::size_t count = 0;
        isOpen_ = SSL_write_ex(ssl_.get(), output_.data() + done, output_.size() - done, &count) == 1;
        done += count;
    }
    output_.clear();
    return isOpen_;
}

void TlsConnection::abandon(bool inOrder) {
    output_.clear();
    if (inOrder) {
        SSL_shutdown(ssl_.get());
    } else {
        const linger atOnce{1, 0};
        setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
    isOpen_ = false;
}

void TlsConnection::endUnread() {
    flush();
    if (!isOpen_) {
        return;
    }
    abandon(true);
    shutdown(descriptor_, SHUT_WR);
    const auto limit = std::chrono::steady_clock::now() + UNREAD_LIMIT;
    pollfd readable{descriptor_, POLLIN, 0};
    while (std::chrono::steady_clock::now() < limit && poll(&readable, 1, LOOK_AGAIN_MS) >= 0) {
        const ssize_t count = recv(descriptor_, input_.data(), input_.size(), MSG_DONTWAIT);
        if (count == 0 || (count < 0 && errno != EAGAIN)) {
            return;
        }
    }
}

std::string TlsConnection::clientName() const {
    const X509* const certificate = SSL_get0_peer_certificate(ssl_.get());
    if (certificate == nullptr) {
        return {};
    }
    return textOf("write a name", [certificate](BIO* memory) {
        return X509_NAME_print_ex(memory, X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253) < 0 ? 0 : 1;
    });
}

}  // namespace Tesmor::Arkwell::Sandbox
