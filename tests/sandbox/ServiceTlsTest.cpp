#include "ServiceProcess.h"
#include "platform/Handles.h"
#include "sandbox/CertificateAuthority.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

// Who may talk to the service, and how connections and sessions are kept.

using namespace testing_support;
using platform_detail::Descriptor;
using Tesmor::Arkwell::Sandbox::CertificateAuthority;
using Tesmor::Arkwell::Sandbox::CertifiedKey;
using testing::HasSubstr;

namespace {

constexpr char REQUEST[] = "GET /arkwell/access-control/access-caches/%7C HTTP/1.1\r\nHost: localhost\r\n\r\n";

struct Release {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using Context = std::unique_ptr<SSL_CTX, Release>;
using Session = std::unique_ptr<SSL_SESSION, Release>;

Context contextFor(const ClientFiles& files) {
    Context context(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_load_verify_locations(context.get(), files.authority.c_str(), nullptr);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_use_certificate_chain_file(context.get(), files.certificate.c_str());
    SSL_CTX_use_PrivateKey_file(context.get(), files.key.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_CLIENT);
    return context;
}

/// The socket address of a loopback address and a port.
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

/// A connection without an HTTP library in between.
class RawConnection {
public:
    RawConnection(SSL_CTX* context, int port, SSL_SESSION* session = nullptr, const char* address = "127.0.0.1",
                  const char* name = "localhost")
        : address_(loopback(address, port)),
          socket_(::socket(address_.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0)),
          ssl_(SSL_new(context)),
          isConnected_(open(session, name)) {}

    /// The beginning of the answer to the request; empty where there is none.
    std::string ask(const std::string& request) {
        std::size_t written = 0;
        if (!isConnected_ || SSL_write_ex(ssl_.get(), request.data(), request.size(), &written) != 1) {
            return {};
        }
        std::vector<char> answer(4096);
        std::size_t size = 0;
        return SSL_read_ex(ssl_.get(), answer.data(), answer.size(), &size) == 1 ? std::string(answer.data(), size)
                                                                                 : std::string();
    }

    Session session() const { return Session(SSL_get1_session(ssl_.get())); }
    bool wasResumed() const { return SSL_session_reused(ssl_.get()) == 1; }
    const char* version() const { return SSL_get_version(ssl_.get()); }
    bool isConnected() const { return isConnected_; }
    void close() { SSL_shutdown(ssl_.get()); }

private:
    /// @param name host name or address that the service's certificate has to be for.
    bool open(SSL_SESSION* session, const char* name) const {
        const timeval limit{60, 0};
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), name) != 1) {
            SSL_set1_host(ssl_.get(), name);
        }
        return connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_) == 0 &&
               SSL_set_fd(ssl_.get(), socket_.get()) == 1 &&
               (session == nullptr || SSL_set_session(ssl_.get(), session) == 1) && SSL_connect(ssl_.get()) == 1;
    }

    sockaddr_storage address_;
    Descriptor socket_;
    std::unique_ptr<SSL, Release> ssl_;
    bool isConnected_;
};

class ServiceTlsTest : public testing::Test {
protected:
    std::string ask(const ClientFiles& files) const {
        return RawConnection(contextFor(files).get(), service_.port()).ask(REQUEST);
    }

    /// Writes a certificate with its key and names the files.
    ClientFiles write(const CertifiedKey& made) const {
        writeFile(folder_.file("client.pem"), made.certificate);
        writeFile(folder_.file("client.key"), made.key);
        return {folder_.hostFiles().authority, folder_.file("client.pem"), folder_.file("client.key")};
    }

    ServiceFolder folder_;
    ServiceProcess service_{folder_};
};

}  // namespace

TEST_F(ServiceTlsTest, AnswersAClientOfItsAuthority) {
    EXPECT_THAT(ask(folder_.hostFiles()), HasSubstr(R"("id":"all")"));
}

TEST_F(ServiceTlsTest, RefusesAClientWithoutCertificate) {
    EXPECT_EQ(ask({folder_.hostFiles().authority}), "");
}

TEST_F(ServiceTlsTest, RefusesAClientOfAnotherAuthority) {
    const CertificateAuthority other = CertificateAuthority::generate("rbac-sandbox CA");
    EXPECT_EQ(ask(write(other.issue({"host.example", {"host.example"}, true, true}))), "");
}

TEST_F(ServiceTlsTest, RefusesACertificateThatIsForServersOnly) {
    EXPECT_EQ(ask({folder_.hostFiles().authority, folder_.path() + "/tls/service.pem",
                   folder_.path() + "/tls/serviceKey.pem"}),
              "");
}

TEST_F(ServiceTlsTest, TakesACertificateThatItsAuthorityIssuesLater) {
    ASSERT_EQ(folder_.run("certificates issue backup1 --out " + folder_.file("")).output,
              "made " + folder_.file("") + "/backup1.pem and " + folder_.file("") + "/backup1Key.pem\n");
    EXPECT_THAT(ask({folder_.hostFiles().authority, folder_.file("backup1.pem"), folder_.file("backup1Key.pem")}),
                HasSubstr("HTTP/1.1 200 OK"));
}

TEST_F(ServiceTlsTest, SpeaksVersions12And13AndNoOlderOne) {
    const Context context = contextFor(folder_.hostFiles());
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SSL_CTX_set_max_proto_version(context.get(), version);
        RawConnection connection(context.get(), service_.port());
        EXPECT_EQ(std::string(connection.version()), version == TLS1_2_VERSION ? "TLSv1.2" : "TLSv1.3");
        EXPECT_THAT(connection.ask(REQUEST), HasSubstr("HTTP/1.1 200 OK"));
    }
    SSL_CTX_set_security_level(context.get(), 0);
    SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context.get(), TLS1_1_VERSION);
    EXPECT_FALSE(RawConnection(context.get(), service_.port()).isConnected());
}

TEST_F(ServiceTlsTest, IsWhoItsCertificateSaysUnderEveryLoopbackName) {
    const Context context = contextFor(folder_.hostFiles());
    for (const char* name : {"localhost", "127.0.0.1", "::1"}) {
        RawConnection connection(context.get(), service_.port(), nullptr, "127.0.0.1", name);
        EXPECT_THAT(connection.ask(REQUEST), HasSubstr("HTTP/1.1 200 OK")) << name;
    }
    RawConnection other(context.get(), service_.port(), nullptr, "127.0.0.1", "other.example");
    EXPECT_FALSE(other.isConnected());
}

TEST_F(ServiceTlsTest, ServesTheLoopbackAddressesThatThereAre) {
    const Context context = contextFor(folder_.hostFiles());
    for (const char* address : {"127.0.0.1", "::1"}) {
        const sockaddr_storage local = loopback(address, 0);
        const Descriptor probe(socket(local.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (bind(probe.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0) {
            RawConnection connection(context.get(), service_.port(), nullptr, address);
            EXPECT_THAT(connection.ask(REQUEST), HasSubstr("HTTP/1.1 200 OK")) << address;
        }
    }
}

TEST_F(ServiceTlsTest, ResumesSessions) {
    const Context context = contextFor(folder_.hostFiles());
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SSL_CTX_set_max_proto_version(context.get(), version);
        RawConnection first(context.get(), service_.port());
        ASSERT_THAT(first.ask(REQUEST), HasSubstr("HTTP/1.1 200 OK"));
        EXPECT_FALSE(first.wasResumed());
        const Session session = first.session();
        first.close();
        RawConnection second(context.get(), service_.port(), session.get());
        EXPECT_TRUE(second.wasResumed()) << version;
        EXPECT_THAT(second.ask(REQUEST), HasSubstr("HTTP/1.1 200 OK"));
    }
}

TEST_F(ServiceTlsTest, KnowsTheClientOfAResumedSession) {
    const Context context = contextFor(folder_.hostFiles());
    RawConnection first(context.get(), service_.port());
    ASSERT_THAT(first.ask(REQUEST), HasSubstr("HTTP/1.1 200 OK"));
    const Session session = first.session();
    first.close();
    RawConnection second(context.get(), service_.port(), session.get());
    const std::string body = registrationDocument("|ASSETS|db|");
    ASSERT_THAT(second.ask("POST /arkwell/access-control/object-registration-requests HTTP/1.1\r\n"
                           "Content-Type: application/json\r\nContent-Length: " +
                           std::to_string(body.size()) + "\r\n\r\n" + body),
                HasSubstr("HTTP/1.1 201 Created"));
    EXPECT_THAT(folder_.run("pending").output, HasSubstr(" by CN="));
}

TEST_F(ServiceTlsTest, KeepsAConnectionForManyRequests) {
    const Context context = contextFor(folder_.hostFiles());
    RawConnection connection(context.get(), service_.port());
    for (int i = 0; i < 1000; ++i) {
        ASSERT_THAT(connection.ask(REQUEST), HasSubstr("HTTP/1.1 200 OK")) << i;
    }
}

TEST_F(ServiceTlsTest, ServesNewClientsBesideFiftyKeptConnections) {
    const Context context = contextFor(folder_.hostFiles());
    std::vector<std::unique_ptr<RawConnection>> kept;
    for (int i = 0; i < 50; ++i) {
        kept.push_back(std::make_unique<RawConnection>(context.get(), service_.port()));
        ASSERT_THAT(kept.back()->ask(REQUEST), HasSubstr("HTTP/1.1 200 OK")) << i;
    }
    EXPECT_THAT(ask(folder_.hostFiles()), HasSubstr("HTTP/1.1 200 OK"));
}

TEST_F(ServiceTlsTest, LetsIdleConnectionsGoWhenThereAreTooMany) {
    const Context context = contextFor(folder_.hostFiles());
    std::vector<std::unique_ptr<RawConnection>> kept;
    for (int i = 0; i < 70; ++i) {
        kept.push_back(std::make_unique<RawConnection>(context.get(), service_.port()));
        ASSERT_THAT(kept.back()->ask(REQUEST), HasSubstr("HTTP/1.1 200 OK")) << i;
    }
}
