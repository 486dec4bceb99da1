#include "RawConnection.h"
#include "platform/Handles.h"
#include "sandbox/CertificateAuthority.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <filesystem>
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
    EXPECT_EQ(std::filesystem::status(folder_.file("backup1Key.pem")).permissions(), std::filesystem::perms(0600));
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
