#include "testing/TlsServer.h"

#include "testing/LoopbackPort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace testing_support {

namespace {

using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(std::string("test server: cannot ") + what);
    }
}

Memory memoryOf(const std::string& text) {
    return {BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free};
}

std::shared_ptr<X509> certificateOf(const std::string& pem) {
    const Memory memory = memoryOf(pem);
    std::shared_ptr<X509> certificate(PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr), X509_free);
    require(certificate != nullptr, "read a certificate");
    return certificate;
}

void useCertificate(SSL_CTX* context, const Certificate& certificate) {
    const Memory memory = memoryOf(certificate.key);
    const std::shared_ptr<EVP_PKEY> key(PEM_read_bio_PrivateKey(memory.get(), nullptr, nullptr, nullptr),
                                        EVP_PKEY_free);
    require(SSL_CTX_use_certificate(context, certificateOf(certificate.certificate).get()) == 1, "use a certificate");
    require(SSL_CTX_use_PrivateKey(context, key.get()) == 1, "use a key");
}

void askForCertificate(SSL_CTX* context, const std::string& authority) {
    X509_STORE_add_cert(SSL_CTX_get_cert_store(context), certificateOf(authority).get());
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
}

std::shared_ptr<SSL_CTX> contextOf(const TlsServer::Options& options) {
    std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    useCertificate(context.get(), options.certificate);
    // Where certificates are asked for, a session is continued only under a name.
    static const unsigned char NAME[] = "test";
    SSL_CTX_set_session_id_context(context.get(), NAME, sizeof NAME);
    // Debian's default forbids what a test may want to offer.
    SSL_CTX_set_security_level(context.get(), 0);
    SSL_CTX_set_min_proto_version(context.get(), options.lowestVersion);
    SSL_CTX_set_max_proto_version(context.get(), options.highestVersion);
    if (!options.clientAuthority.empty()) {
        askForCertificate(context.get(), options.clientAuthority);
    }
    return context;
}

/// The client may be gone when something is written, which is no reason for the program to end. Only in the server's
/// threads: a test may want to see that its own are not sent the signal.
void blockPipeSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

std::string HttpMessage::header(const std::string& name) const {
    const std::string lines = "\r\n" + headers;
    const std::size_t at = lines.find("\r\n" + name + ": ");
    if (at == std::string::npos) {
        return {};
    }
    const std::size_t begin = at + name.size() + 4;
    return lines.substr(begin, lines.find("\r\n", begin) - begin);
}

std::string TlsConnection::readBytes(std::size_t count) {
    char chunk[16384];
    while (buffered_.size() < count) {
        const int size = SSL_read(tls_, chunk, sizeof chunk);
        if (size <= 0) {
            break;
        }
        buffered_.append(chunk, static_cast<std::size_t>(size));
    }
    std::string bytes = buffered_.substr(0, count);
    buffered_.erase(0, bytes.size());
    return bytes;
}

std::optional<HttpMessage> TlsConnection::read() {
    std::size_t end = 0;
    while ((end = buffered_.find("\r\n\r\n")) == std::string::npos) {
        const std::size_t had = buffered_.size();
        std::string more = readBytes(had + 1);
        if (more.size() == had) {
            return std::nullopt;
        }
        buffered_.insert(0, more);
    }
    const std::string head = readBytes(end + 4);
    HttpMessage message;
    const std::size_t lineEnd = head.find("\r\n");
    message.line = head.substr(0, lineEnd);
    message.headers = head.substr(lineEnd + 2, head.size() - lineEnd - 4);
    const std::string length = message.header("Content-Length");
    const std::size_t size = length.empty() ? 0 : std::stoul(length);
    message.body = readBytes(size);
    if (message.body.size() < size) {
        return std::nullopt;
    }
    server_.record(message);
    return message;
}

bool TlsConnection::write(const std::string& bytes) {
    return SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size())) > 0;
}

bool TlsConnection::writeRaw(const std::string& bytes) const {
    return send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool TlsConnection::answer(int status, const std::string& body, const std::string& headers) {
    return write("HTTP/1.1 " + std::to_string(status) + " Answer\r\nContent-Length: " + std::to_string(body.size()) +
                 "\r\n" + headers + "\r\n" + body);
}

void TlsConnection::answerAll(int status, const std::string& body) {
    while (read() && answer(status, body)) {
    }
}

void TlsConnection::stall() const {
    char byte = 0;
    while (recv(socket_, &byte, 1, 0) > 0) {
    }
}

void TlsConnection::cut() {
    SSL_set_quiet_shutdown(tls_, 1);
    shutdown(socket_, SHUT_RDWR);
}

void TlsConnection::reset() {
    SSL_set_quiet_shutdown(tls_, 1);
    const linger atOnce{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

TlsServer::TlsServer(const Options& options, Script script)
    : options_(options),
      script_(std::move(script)),
      context_(contextOf(options)),
      listener_(boundSocket(options.version, options.port, port_)) {
    require(listen(listener_, SOMAXCONN) == 0, "listen");
    acceptor_ = std::thread([this] { accept(); });
}

TlsServer::~TlsServer() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
        shutdown(listener_, SHUT_RDWR);
        for (const int socket : sockets_) {
            shutdown(socket, SHUT_RDWR);
        }
    }
    acceptor_.join();
    for (std::thread& thread : threads_) {
        thread.join();
    }
    close(listener_);
}

void TlsServer::accept() {
    blockPipeSignal();
    for (;;) {
        const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        const std::lock_guard<std::mutex> lock(mutex_);
        if (socket < 0 || ending_) {
            close(socket);
            return;
        }
        sockets_.insert(socket);
        const int number = ++connections_;
        threads_.emplace_back([this, socket, number] { serve(socket, number); });
        changed_.notify_all();
    }
}

void TlsServer::serve(int socket, int number) {
    const int noDelay = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    if (!options_.before || options_.before(socket)) {
        converse(socket, number);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    sockets_.erase(socket);
    close(socket);
    changed_.notify_all();
}

void TlsServer::converse(int socket, int number) {
    const std::unique_ptr<SSL, decltype(&SSL_free)> tls(SSL_new(context_.get()), SSL_free);
    SSL_set_fd(tls.get(), socket);
    if (SSL_accept(tls.get()) == 1) {
        ++handshakes_;
        resumptions_ += SSL_session_reused(tls.get());
        TlsConnection connection(*this, tls.get(), socket, number);
        script_(connection);
        SSL_shutdown(tls.get());
    }
    ERR_clear_error();
}

void TlsServer::record(const HttpMessage& request) {
    const std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
}

int TlsServer::open() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(sockets_.size());
}

bool TlsServer::waitForOpen(int count) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10),
                             [this, count] { return static_cast<int>(sockets_.size()) == count; });
}

std::vector<HttpMessage> TlsServer::requests() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

}  // namespace testing_support
