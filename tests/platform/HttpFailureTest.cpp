#include "HttpFixture.h"
#include "testing/LogCapture.h"
#include "testing/NetworkFaults.h"
#include "testing/TemporaryDirectory.h"

#include <platform/HttpClient.h>
#include <platform/Status.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>

namespace {

using namespace platform_status;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;
using testing_support::CertificateAuthority;
using testing_support::CertificateRequest;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::ScopedEnvironment;

using Server = HttpFixture::Server;
using Connection = HttpFixture::Connection;
using Clock = std::chrono::steady_clock;

/// Every test here ends within these limits: 1 s for a connection and 2 s in all, or else at once.
class HttpFailure : public testing::Test {
protected:
    HttpFailure() { fixture.useSettings(R"({"connectTimeoutMs": 1000, "timeoutMs": 2000, "maxResponseBytes": 1000})"); }

    void TearDown() override { EXPECT_LT(Clock::now() - begin_, std::chrono::seconds(10)); }

    /// That a GET by the client fails in this way, and what was logged of it.
    void expectFailure(AWClientCURL& client, int status) {
        const LogCapture capture;
        client.httpStatus = 200;
        client.responseBody = "of the request before";
        EXPECT_EQ(status, client.Get("a"));
        EXPECT_EQ(0, client.httpStatus);
        EXPECT_EQ("", client.responseBody);
        ASSERT_THAT(capture.lines(), SizeIs(1));
        logged = capture.lines().front();
        EXPECT_EQ(16, logged.level);
        EXPECT_EQ("AWClientCURL::Get", logged.tag);
    }
    void expectFailure(const Server& server, int status) {
        AWClientCURL client = HttpFixture::client(server);
        expectFailure(client, status);
        EXPECT_THAT(logged.message, StartsWith("GET to localhost:" + std::to_string(server.port()) +
                                               " failed: " + getECmsg(status) + ": "));
    }
    /// That a GET is answered with these bytes, after which the connection ends, fails in this way.
    void expectFailureOf(const std::string& answer, int status) {
        const Server server(fixture.options(), [&answer](Connection& c) {
            c.read();
            c.write(answer);
        });
        expectFailure(server, status);
    }

    static Server::Script unreached() {
        return [](Connection& c) { c.answerAll(200, "unreached"); };
    }

    HttpFixture fixture;
    LogLine logged{0, "", ""};

private:
    const Clock::time_point begin_ = Clock::now();
};

TEST_F(HttpFailure, ANameWithoutAnAddress) {
    AWClientCURL client("no-such-host.invalid", 1556, SESSION_SERVICE, CERT_HOST);
    expectFailure(client, HTTP_NAME_NOT_RESOLVED);
    EXPECT_EQ(
        "GET to no-such-host.invalid:1556 failed: the server's name cannot be resolved: Could not resolve host: "
        "no-such-host.invalid",
        logged.message);
}

TEST_F(HttpFailure, ANameServerThatDoesNotAnswerInTime) {
    const testing_support::StalledResolver stalled("slow.invalid");
    AWClientCURL client("slow.invalid", 1556, SESSION_SERVICE, CERT_HOST);
    const Clock::time_point begin = Clock::now();
    expectFailure(client, HTTP_CONNECT_TIMED_OUT);
    EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(1900));
}

TEST_F(HttpFailure, APortOnWhichNobodyListens) {
    AWClientCURL client("127.0.0.1", testing_support::unusedPort(), SESSION_SERVICE, CERT_HOST);
    expectFailure(client, HTTP_CONNECTION_REFUSED);
    EXPECT_THAT(logged.message, HasSubstr("failed: the server refused the connection: "));
}

class UnreachableHost : public HttpFailure, public testing::WithParamInterface<int> {};

TEST_P(UnreachableHost, IsReportedAsSuch) {
    const testing_support::FailingConnect failing(GetParam());
    AWClientCURL client("127.0.0.1", 1556, SESSION_SERVICE, CERT_HOST);
    expectFailure(client, HTTP_HOST_UNREACHABLE);
}

INSTANTIATE_TEST_SUITE_P(HttpFailure, UnreachableHost, testing::Values(EHOSTUNREACH, ENETUNREACH));

TEST_F(HttpFailure, AHostThatDoesNotAnswerTheConnection) {
    const testing_support::FullListener listener;
    AWClientCURL client("127.0.0.1", listener.port(), SESSION_SERVICE, CERT_HOST);
    expectFailure(client, HTTP_CONNECT_TIMED_OUT);
}

TEST_F(HttpFailure, AServerThatDoesNotAnswerTheHandshake) {
    Server::Options silent = fixture.options();
    silent.before = [](int socket) {
        char byte = 0;
        while (recv(socket, &byte, 1, 0) > 0) {
        }
        return false;
    };
    const Server server(silent, unreached());
    expectFailure(server, HTTP_CONNECT_TIMED_OUT);
}

TEST_F(HttpFailure, AServerThatDoesNotAnswerTheRequest) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.stall();
    });
    expectFailure(server, HTTP_TIMED_OUT);
}

TEST_F(HttpFailure, AServerThatStopsInTheMiddleOfTheAnswer) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nbeginning");
        c.stall();
    });
    expectFailure(server, HTTP_TIMED_OUT);
}

TEST_F(HttpFailure, AServerThatAnswersByDropsWithoutEnd) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
        while (c.write("x")) {
            usleep(50'000);
        }
    });
    expectFailure(server, HTTP_TIMED_OUT);
}

TEST_F(HttpFailure, AServerOfAnUnknownIssuer) {
    Server::Options options;
    options.certificate = CertificateAuthority("another authority").issue();
    const Server server(options, unreached());
    expectFailure(server, HTTP_SERVER_ISSUER_UNKNOWN);
    EXPECT_THAT(server.requests(), SizeIs(0));
}

TEST_F(HttpFailure, AServerOfAnIssuerThatOnlyBearsTheTrustedName) {
    Server::Options options;
    options.certificate = CertificateAuthority().issue();
    const Server server(options, unreached());
    expectFailure(server, HTTP_SERVER_ISSUER_UNKNOWN);
}

TEST_F(HttpFailure, AnIssuerOfTheSystemIsUnknown) {
    const CertificateAuthority system("an authority of the system");
    const std::string file = fixture.directory() / "system.pem";
    testing_support::writeFile(file, system.certificate());
    const ScopedEnvironment trusted("SSL_CERT_FILE", file.c_str());
    Server::Options options;
    options.certificate = system.issue();
    const Server server(options, unreached());
    expectFailure(server, HTTP_SERVER_ISSUER_UNKNOWN);
}

TEST_F(HttpFailure, AServerWithACertificateForAnotherName) {
    CertificateRequest other;
    other.names = {"DNS:other.example"};
    Server::Options options;
    options.certificate = fixture.authority.issue(other);
    const Server server(options, unreached());
    expectFailure(server, HTTP_SERVER_NAME_WRONG);
    EXPECT_THAT(server.requests(), SizeIs(0));
}

TEST_F(HttpFailure, AServerWithACertificateForAnotherAddress) {
    CertificateRequest other;
    other.names = {"DNS:localhost", "IP:127.0.0.2"};
    Server::Options options;
    options.certificate = fixture.authority.issue(other);
    const Server server(options, unreached());
    AWClientCURL client("127.0.0.1", server.port(), SESSION_SERVICE, CERT_HOST);
    expectFailure(client, HTTP_SERVER_NAME_WRONG);
}

TEST_F(HttpFailure, AServerWithAnExpiredCertificate) {
    CertificateRequest expired;
    expired.fromDay = -3;
    expired.toDay = -2;
    Server::Options options;
    options.certificate = fixture.authority.issue(expired);
    const Server server(options, unreached());
    expectFailure(server, HTTP_SERVER_CERTIFICATE_EXPIRED);
}

TEST_F(HttpFailure, AServerWithACertificateOfTheFuture) {
    CertificateRequest early;
    early.fromDay = 2;
    early.toDay = 3;
    Server::Options options;
    options.certificate = fixture.authority.issue(early);
    const Server server(options, unreached());
    expectFailure(server, HTTP_SERVER_CERTIFICATE_NOT_YET_VALID);
}

/// Of a server that knows another authority than the host's.
class UnknownClient : public HttpFailure, public testing::WithParamInterface<int> {
protected:
    Server::Options strict() const {
        Server::Options options = fixture.options();
        options.clientAuthority = CertificateAuthority("another authority").certificate();
        options.lowestVersion = GetParam();
        options.highestVersion = GetParam();
        return options;
    }
};

TEST_P(UnknownClient, IsRefusedByTheServer) {
    const Server server(strict(), unreached());
    expectFailure(server, HTTP_CLIENT_CERTIFICATE_REFUSED);
}

INSTANTIATE_TEST_SUITE_P(HttpFailure, UnknownClient, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

TEST_F(HttpFailure, AServerThatKnowsOnlyAnOldVersionOfTls) {
    Server::Options old = fixture.options();
    old.highestVersion = TLS1_1_VERSION;
    const Server server(old, unreached());
    expectFailure(server, HTTP_TLS_FAILED);
    EXPECT_EQ(0, server.handshakes());
}

TEST_F(HttpFailure, AServerThatSpeaksNoTls) {
    Server::Options plain = fixture.options();
    plain.before = [](int socket) {
        const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
        EXPECT_EQ(static_cast<ssize_t>(answer.size()), send(socket, answer.data(), answer.size(), MSG_NOSIGNAL));
        char byte = 0;
        while (recv(socket, &byte, 1, 0) > 0) {
        }
        return false;
    };
    const Server server(plain, unreached());
    expectFailure(server, HTTP_TLS_FAILED);
}

TEST_F(HttpFailure, AServerThatClosesBeforeTheHandshake) {
    Server::Options closing = fixture.options();
    closing.before = [](int) { return false; };
    const Server server(closing, unreached());
    expectFailure(server, HTTP_TLS_FAILED);
}

TEST_F(HttpFailure, AnIssuersFileThatIsMissing) {
    unlink(fixture.caFile().c_str());
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CA_FILE_UNUSABLE);
    EXPECT_THAT(logged.message, HasSubstr(fixture.caFile() + ": No such file or directory"));
    EXPECT_EQ(0, server.connections());
}

TEST_F(HttpFailure, AnIssuersFileWithoutACertificate) {
    for (const char* contents : {"", "no certificate"}) {
        testing_support::writeFile(fixture.caFile(), contents);
        const Server server(fixture.options(), unreached());
        expectFailure(server, HTTP_CA_FILE_UNUSABLE);
        EXPECT_THAT(server.requests(), SizeIs(0));
    }
}

TEST_F(HttpFailure, ACertificateFileThatIsMissing) {
    unlink(fixture.certFile().c_str());
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CLIENT_CERTIFICATE_UNUSABLE);
    EXPECT_THAT(logged.message, HasSubstr(fixture.certFile() + ": No such file or directory"));
}

TEST_F(HttpFailure, ACertificateFileWithoutACertificate) {
    testing_support::writeFile(fixture.certFile(), "no certificate");
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CLIENT_CERTIFICATE_UNUSABLE);
    EXPECT_THAT(logged.message, HasSubstr(fixture.certFile() + ": no start line"));
}

TEST_F(HttpFailure, AKeyFileThatIsMissing) {
    unlink(fixture.keyFile().c_str());
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CLIENT_CERTIFICATE_UNUSABLE);
    EXPECT_THAT(logged.message, HasSubstr(fixture.keyFile() + ": No such file or directory"));
}

TEST_F(HttpFailure, AKeyFileWithoutAKey) {
    testing_support::writeFile(fixture.keyFile(), "no key");
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CLIENT_CERTIFICATE_UNUSABLE);
    EXPECT_THAT(logged.message, HasSubstr(fixture.keyFile() + ": "));
}

TEST_F(HttpFailure, AKeyOfAnotherCertificate) {
    testing_support::writeFile(fixture.keyFile(), fixture.authority.issue().key);
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CLIENT_CERTIFICATE_UNUSABLE);
    EXPECT_THAT(logged.message, HasSubstr(fixture.keyFile() + ": key values mismatch"));
}

TEST_F(HttpFailure, AnEncryptedKeyIsNotAskedAPasswordFor) {
    testing_support::writeFile(fixture.keyFile(),
                               testing_support::encryptedKey(testing_support::readFile(fixture.keyFile()), "secret"));
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CLIENT_CERTIFICATE_UNUSABLE);
    EXPECT_THAT(logged.message, HasSubstr(fixture.keyFile() + ": "));
}

TEST_F(HttpFailure, AServerThatClosesWithoutAnAnswer) {
    expectFailureOf("", HTTP_CONNECTION_CLOSED);
}

TEST_F(HttpFailure, AServerThatIsCutOffBeforeItsAnswer) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.cut();
    });
    expectFailure(server, HTTP_CONNECTION_CLOSED);
}

TEST_F(HttpFailure, AServerThatResetsTheConnectionBeforeItsAnswer) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.reset();
    });
    expectFailure(server, HTTP_CONNECTION_CLOSED);
}

TEST_F(HttpFailure, AnAnswerThatIsNotHttp) {
    expectFailureOf("SSH-2.0-OpenSSH_9.2\r\n", HTTP_RESPONSE_MALFORMED);
}

TEST_F(HttpFailure, AnAnswerThatEndsInItsHeaders) {
    expectFailureOf("HTTP/1.1 200 OK\r\nContent-", HTTP_RESPONSE_MALFORMED);
}

TEST_F(HttpFailure, AnAnswerThatEndsBeforeItsLength) {
    expectFailureOf("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort", HTTP_RESPONSE_MALFORMED);
}

TEST_F(HttpFailure, AnAnswerThatIsCutOffBeforeItsLength) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort");
        c.cut();
    });
    expectFailure(server, HTTP_RESPONSE_MALFORMED);
}

TEST_F(HttpFailure, AnAnswerWithoutALengthThatIsCutOff) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\n\r\nwithout end");
        c.cut();
    });
    expectFailure(server, HTTP_RESPONSE_MALFORMED);
}

TEST_F(HttpFailure, AnAnswerWithAMalformedLength) {
    expectFailureOf("HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n", HTTP_RESPONSE_MALFORMED);
}

TEST_F(HttpFailure, AnAnswerWithAMalformedChunk) {
    expectFailureOf("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n", HTTP_RESPONSE_MALFORMED);
}

TEST_F(HttpFailure, AnAnswerThatEndsBeforeItsLastChunk) {
    expectFailureOf("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n", HTTP_RESPONSE_MALFORMED);
}

TEST_F(HttpFailure, AnAnswerThatAnnouncesMoreThanTheLimit) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nContent-Length: 1001\r\n\r\n");
        c.stall();
    });
    const Clock::time_point begin = Clock::now();
    expectFailure(server, HTTP_RESPONSE_TOO_LARGE);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(HttpFailure, AnAnswerWithoutEnd) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\n\r\n");
        while (c.write(std::string(500, 'x'))) {
        }
    });
    expectFailure(server, HTTP_RESPONSE_TOO_LARGE);
}

TEST_F(HttpFailure, HeadersWithoutEnd) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\n");
        while (c.write("X-Filler: " + std::string(1000, 'x') + "\r\n")) {
        }
    });
    expectFailure(server, HTTP_RESPONSE_TOO_LARGE);
}

TEST_F(HttpFailure, AHeaderLineWithoutEnd) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nX-Filler: ");
        while (c.write(std::string(1000, 'x'))) {
        }
    });
    expectFailure(server, HTTP_RESPONSE_TOO_LARGE);
}

TEST_F(HttpFailure, ASettingsFileThatIsMissing) {
    fixture.settings().remove();
    const Server server(fixture.options(), unreached());
    expectFailure(server, SETTINGS_UNREADABLE);
    EXPECT_THAT(logged.message,
                HasSubstr("Error reading settings file " + fixture.settings().path() + ": No such file or directory"));
}

TEST_F(HttpFailure, ASettingsFileThatIsDamaged) {
    fixture.settings().replace("{");
    const Server server(fixture.options(), unreached());
    expectFailure(server, SETTINGS_DAMAGED);
}

TEST_F(HttpFailure, ASettingThatIsMissing) {
    const Server server(fixture.options(), unreached());
    const std::string ca = R"("caFile": ")" + fixture.caFile() + "\"";
    const std::string certificate = R"("certFile": ")" + fixture.certFile() + "\"";
    const std::pair<std::string, std::string> cases[] = {
        {"", "tls.caFile"}, {ca, "tls.certFile"}, {ca + "," + certificate, "tls.keyFile"}};
    for (const auto& [members, missing] : cases) {
        fixture.settings().replace(R"({"tls": {)" + members + "}}");
        expectFailure(server, SETTING_MISSING);
        EXPECT_THAT(logged.message, HasSubstr("\"" + missing + "\" is missing"));
    }
}

class UnusableAddress : public HttpFailure, public testing::WithParamInterface<std::pair<std::string, int>> {};

TEST_P(UnusableAddress, IsRefusedBeforeAnythingIsSent) {
    AWClientCURL client(GetParam().first, GetParam().second, SESSION_SERVICE, CERT_HOST);
    expectFailure(client, HTTP_REQUEST_UNUSABLE);
}

INSTANTIATE_TEST_SUITE_P(HttpFailure, UnusableAddress,
                         testing::Values(std::pair("", 1556), std::pair("a@127.0.0.1", 1556), std::pair("a/b", 1556),
                                         std::pair("a?b", 1556), std::pair("a#b", 1556), std::pair("a b", 1556),
                                         std::pair("a\r\nb", 1556), std::pair(std::string("a\0b", 3), 1556),
                                         std::pair("127.0.0.1:1", 1556), std::pair("[localhost]", 1556),
                                         std::pair("localhost", 0), std::pair("localhost", -1),
                                         std::pair("localhost", 65536)));

class UnreadableFile : public HttpFailure {
protected:
    void expectUnreadable(const std::string& path, const std::string& reason) {
        const Server server(fixture.options(), unreached());
        AWClientCURL client = HttpFixture::client(server);
        const LogCapture capture;
        EXPECT_EQ(HTTP_FILE_UNREADABLE, client.PostFile("a", path));
        EXPECT_THAT(capture.lines(),
                    ElementsAre(LogLine{16, "AWClientCURL::PostFile",
                                        "POST to localhost:" + std::to_string(server.port()) +
                                            " failed: the file to send cannot be read: " + path + ": " + reason}));
        EXPECT_EQ(0, server.connections());
    }
};

TEST_F(UnreadableFile, ThatIsMissing) {
    expectUnreadable(fixture.directory() / "missing", "No such file or directory");
}

TEST_F(UnreadableFile, ThatIsADirectory) {
    expectUnreadable(fixture.directory().path(), "it is not a regular file");
}

TEST_F(UnreadableFile, ThatIsANamedPipe) {
    const std::string path = fixture.directory() / "pipe";
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    expectUnreadable(path, "it is not a regular file");
}

TEST_F(UnreadableFile, WhoseNameHoldsANul) {
    const std::string path = fixture.directory() / std::string("a\0b", 3);
    testing_support::writeFile(fixture.directory() / "a", "contents of another file");
    const Server server(fixture.options(), unreached());
    AWClientCURL client = HttpFixture::client(server);
    EXPECT_EQ(HTTP_FILE_UNREADABLE, client.PostFile("a", path));
    EXPECT_EQ(0, server.connections());
}

TEST_F(UnreadableFile, ThatBecomesShorterWhileItIsSent) {
    const std::string path = fixture.directory() / "body";
    testing_support::writeFile(path, "");
    ASSERT_EQ(0, truncate(path.c_str(), 20'000'000));
    const Server server(fixture.options(), [&path](Connection& c) {
        c.readBytes(100);
        EXPECT_EQ(0, truncate(path.c_str(), 100));
        c.readBytes(30'000'000);
    });
    AWClientCURL client = HttpFixture::client(server);
    EXPECT_EQ(HTTP_FILE_UNREADABLE, client.PostFile("a", path));
}

TEST_F(HttpFailure, NeverRaisesASignal) {
    // With the default disposition a write to a closed connection would end the process.
    std::signal(SIGPIPE, SIG_DFL);
    const Server server(fixture.options(), [](Connection& c) {
        c.readBytes(10);
        c.reset();
    });
    AWClientCURL client = HttpFixture::client(server);
    const LogCapture capture;
    std::string body;
    body.resize(20'000'000, 'x');
    EXPECT_EQ(HTTP_CONNECTION_CLOSED, client.Post("a", body));
}

TEST_F(HttpFailure, LogsNothingOfTheBody) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nanswered secret");
    });
    AWClientCURL client = HttpFixture::client(server);
    const LogCapture capture;
    EXPECT_EQ(HTTP_RESPONSE_MALFORMED, client.Post("path?token=secret", "sent secret"));
    ASSERT_THAT(capture.lines(), SizeIs(1));
    EXPECT_THAT(capture.lines().front().message, testing::Not(HasSubstr("secret")));
}

TEST_F(HttpFailure, IsOverWithTheNextRequest) {
    const Server server(fixture.options(), [](Connection& c) {
        if (c.number() == 1) {
            c.read();
            return;
        }
        c.answerAll(200, "the answer");
    });
    AWClientCURL client = HttpFixture::client(server);
    EXPECT_EQ(HTTP_CONNECTION_CLOSED, client.Get("a"));
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("the answer", client.responseBody);
}

}  // namespace
