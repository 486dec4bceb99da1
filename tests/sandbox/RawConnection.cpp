#include "RawConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <cstdint>
#include <vector>

namespace testing_support {

Context contextFor(const ClientFiles& files) {
    Context context(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_load_verify_locations(context.get(), files.authority.c_str(), nullptr);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_use_certificate_chain_file(context.get(), files.certificate.c_str());
    SSL_CTX_use_PrivateKey_file(context.get(), files.key.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_CLIENT);
    return context;
}

sockaddr_storage loopback(const char* address, int port) {
    sockaddr_storage storage{};
    const auto number = htons(static_cast<std::uint16_t>(port));
    auto* const version6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET6, address, &version6->sin6_addr) == 1) {
        version6->sin6_family = AF_INET6;
        version6->sin6_port = number;
        return storage;
    }
    auto* const version4 = reinterpret_cast<sockaddr_in*>(&storage);
    version4->sin_family = AF_INET;
    version4->sin_port = number;
    inet_pton(AF_INET, address, &version4->sin_addr);
    return storage;
}

RawConnection::RawConnection(SSL_CTX* context, int port, SSL_SESSION* session, const char* address, const char* name)
    : address_(loopback(address, port)),
      socket_(::socket(address_.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      ssl_(SSL_new(context)),
      isConnected_(open(session, name)) {}

std::string RawConnection::ask(const std::string& request) {
    std::size_t written = 0;
    if (!isConnected_ || SSL_write_ex(ssl_.get(), request.data(), request.size(), &written) != 1) {
        return {};
    }
    std::vector<char> answer(4096);
    std::size_t size = 0;
    const int result = SSL_read_ex(ssl_.get(), answer.data(), answer.size(), &size);
    failure_ = SSL_get_error(ssl_.get(), result);
    return {answer.data(), size};
}

bool RawConnection::open(SSL_SESSION* session, const char* name) const {
    const timeval limit{60, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), name) != 1) {
        SSL_set1_host(ssl_.get(), name);
    }
    return connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_) == 0 &&
           SSL_set_fd(ssl_.get(), socket_.get()) == 1 &&
           (session == nullptr || SSL_set_session(ssl_.get(), session) == 1) && SSL_connect(ssl_.get()) == 1;
}

}  // namespace testing_support
