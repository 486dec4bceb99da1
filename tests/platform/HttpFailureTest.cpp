#include "HttpFixture.h"
#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/LoopbackPort.h"
#include "testing/NetworkFaults.h"
#include "testing/TemporaryDirectory.h"

#include <platform/HttpClient.h>
#include <platform/Status.h>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace platform_status;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;
using testing_support::CertificateAuthority;
using testing_support::CertificateRequest;
using testing_support::LogCapture;
using testing_support::LogLine;

using Server = HttpFixture::Server;
using Connection = HttpFixture::Connection;
using Clock = std::chrono::steady_clock;

/// While it lives, OpenSSL's settings on this system allow old versions of TLS, and its own issuers are those of a
/// file.
class LenientSystem {
public:
    explicit LenientSystem(const std::string& issuers = "") {
        lenient = true;
        systemIssuers = issuers;
    }
    ~LenientSystem() { lenient = false; }
    LenientSystem(const LenientSystem&) = delete;
    LenientSystem& operator=(const LenientSystem&) = delete;

    static inline std::atomic<bool> lenient{false};
    static inline std::string systemIssuers;
};

/// Runs a function when the process ends, after what the libraries do then.
struct AtEnd {
    ~AtEnd() {
        if (run) {
            run();
        }
    }
    std::function<void()> run;
} atEnd;

/// Every test here ends within these limits: 1 s for a connection and 2 s in all, or else at once.
class HttpFailure : public testing::Test {
protected:
    HttpFailure() { fixture.useSettings(R"({"connectTimeoutMs": 1000, "timeoutMs": 2000, "maxResponseBytes": 1000})"); }

    void TearDown() override { EXPECT_LT(Clock::now() - begin_, std::chrono::seconds(10)); }

    /// That a GET fails in this way and is logged so.
    void expectFailure(const std::string& host, int port, int status) {
        AWClientCURL client(host, port, SESSION_SERVICE, CERT_HOST);
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
        EXPECT_THAT(logged.message, StartsWith("GET to " + host.substr(0, host.find('\0')) + ":" +
                                               std::to_string(port) + " failed: " + getECmsg(status) + ": "));
    }
    void expectFailure(const Server& server, int status) { expectFailure("localhost", server.port(), status); }
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
    expectFailure("no-such-host.invalid", 1556, HTTP_NAME_NOT_RESOLVED);
    EXPECT_EQ(
        "GET to no-such-host.invalid:1556 failed: the server's name cannot be resolved: Could not resolve host: "
        "no-such-host.invalid",
        logged.message);
}

TEST_F(HttpFailure, ANameServerThatDoesNotAnswerInTime) {
    const testing_support::StalledResolver stalled("slow.invalid");
    const Clock::time_point begin = Clock::now();
    expectFailure("slow.invalid", 1556, HTTP_CONNECT_TIMED_OUT);
    EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(1900));
}

TEST_F(HttpFailure, APortOnWhichNobodyListens) {
    expectFailure("127.0.0.1", testing_support::unusedPort(), HTTP_CONNECTION_REFUSED);
    EXPECT_THAT(logged.message, HasSubstr("failed: the server refused the connection: "));
}

class UnreachableHost : public HttpFailure, public testing::WithParamInterface<int> {};

TEST_P(UnreachableHost, IsReportedAsSuch) {
    const testing_support::FailingConnect failing(GetParam());
    expectFailure("127.0.0.1", 1556, HTTP_HOST_UNREACHABLE);
    EXPECT_THAT(logged.message, StartsWith("GET to 127.0.0.1:1556 failed: the server cannot be reached: "));
}

INSTANTIATE_TEST_SUITE_P(HttpFailure, UnreachableHost, testing::Values(EHOSTUNREACH, ENETUNREACH));

TEST_F(HttpFailure, AConnectionThatTheSystemGivesUp) {
    const testing_support::FailingConnect failing(ETIMEDOUT);
    expectFailure("127.0.0.1", 1556, HTTP_CONNECT_TIMED_OUT);
    EXPECT_THAT(logged.message,
                StartsWith("GET to 127.0.0.1:1556 failed: the connection to the server was not made in time: "));
}

TEST_F(HttpFailure, AHostThatDoesNotAnswerTheConnection) {
    const testing_support::FullListener listener;
    expectFailure("127.0.0.1", listener.port(), HTTP_CONNECT_TIMED_OUT);
}

TEST_F(HttpFailure, AHostThatDoesNotAnswerTheConnectionInTheTimeOfTheWholeRequest) {
    fixture.useSettings(R"({"connectTimeoutMs": 5000, "timeoutMs": 500})");
    const testing_support::FullListener listener;
    expectFailure("127.0.0.1", listener.port(), HTTP_TIMED_OUT);
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

TEST_F(HttpFailure, ARequestThatIsSentAgainHasTheTimeThatIsLeft) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        if (c.number() == 1) {
            c.answer(200, "the answer");
            c.read();
        }
        c.stall();
    });
    AWClientCURL client = HttpFixture::client(server);
    ASSERT_EQ(0, client.Get("first"));
    const LogCapture capture;
    const testing_support::FailingSend failing(20, std::chrono::milliseconds(1500), ECONNRESET);
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(HTTP_TIMED_OUT, client.Put("a", std::string(8'000'000, 'x')));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(3));
    EXPECT_EQ(2, server.connections());
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
    const LenientSystem lenient(file);
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
    expectFailure("127.0.0.1", server.port(), HTTP_SERVER_NAME_WRONG);
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

TEST_F(HttpFailure, AServerWhoseIssuerHasExpired) {
    const CertificateAuthority expired("an expired authority", -1);
    testing_support::writeFile(fixture.caFile(), expired.certificate());
    Server::Options options;
    options.certificate = expired.issue();
    const Server server(options, unreached());
    expectFailure(server, HTTP_SERVER_CERTIFICATE_EXPIRED);
}

TEST_F(HttpFailure, AServerWithACertificateForClients) {
    CertificateRequest forClients;
    forClients.usage = "clientAuth";
    Server::Options options;
    options.certificate = fixture.authority.issue(forClients);
    const Server server(options, unreached());
    expectFailure(server, HTTP_SERVER_CERTIFICATE_UNUSABLE);
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
    const LenientSystem lenient;
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
        EXPECT_THAT(logged.message, HasSubstr(fixture.caFile() + ": there is no usable certificate in it"));
        EXPECT_THAT(server.requests(), SizeIs(0));
    }
}

TEST_F(HttpFailure, AnEncryptedIssuerIsNotAskedAPasswordFor) {
    const std::string begin = "-----BEGIN CERTIFICATE-----\n";
    std::string encrypted = testing_support::readFile(fixture.caFile());
    ASSERT_EQ(0, encrypted.find(begin));
    encrypted.insert(begin.size(),
                     "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,000102030405060708090A0B0C0D0E0F\n\n");
    testing_support::writeFile(fixture.caFile(), testing_support::readFile(fixture.caFile()) + encrypted);
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CA_FILE_UNUSABLE);
    EXPECT_THAT(logged.message, EndsWith(": " + fixture.caFile() + ": a certificate in it is encrypted"));
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

TEST_F(HttpFailure, ACertificateFileWithAnIssuerThatIsDamaged) {
    const std::string damaged = "-----BEGIN CERTIFICATE-----\nMII!\n-----END CERTIFICATE-----\n";
    testing_support::writeFile(fixture.certFile(), testing_support::readFile(fixture.certFile()) + damaged);
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CLIENT_CERTIFICATE_UNUSABLE);
    EXPECT_THAT(logged.message, HasSubstr(fixture.certFile() + ": "));
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

TEST_F(HttpFailure, ANamedPipeInTheIssuersPlaceHoldsNobodyUp) {
    unlink(fixture.caFile().c_str());
    ASSERT_EQ(0, mkfifo(fixture.caFile().c_str(), 0600));
    const Server server(fixture.options(), unreached());
    expectFailure(server, HTTP_CA_FILE_UNUSABLE);
    EXPECT_THAT(logged.message, EndsWith(": " + fixture.caFile() + ": it is not a regular file"));
}

TEST_F(HttpFailure, ANamedPipeInTheCertificatesOrTheKeysPlaceHoldsNobodyUp) {
    for (const std::string& path : {fixture.certFile(), fixture.keyFile()}) {
        fixture.useHostCertificate(fixture.authority.issue());
        unlink(path.c_str());
        ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
        const Server server(fixture.options(), unreached());
        expectFailure(server, HTTP_CLIENT_CERTIFICATE_UNUSABLE);
        EXPECT_THAT(logged.message, EndsWith(": " + path + ": it is not a regular file"));
        unlink(path.c_str());
    }
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

TEST_F(HttpFailure, AnAnswerThatIsOnlyAnnounced) {
    expectFailureOf("HTTP/1.1 100 Continue\r\n\r\n", HTTP_RESPONSE_MALFORMED);
    expectFailureOf("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-", HTTP_RESPONSE_MALFORMED);
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
    EXPECT_THAT(logged.message, EndsWith(": more than 1000 bytes"));
}

TEST_F(HttpFailure, HeadersWithoutEnd) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\n");
        while (c.write("X-Filler: " + std::string(1000, 'x') + "\r\n")) {
        }
    });
    expectFailure(server, HTTP_RESPONSE_TOO_LARGE);
    EXPECT_THAT(logged.message, EndsWith(": headers of more than 262144 bytes"));
}

TEST_F(HttpFailure, AHeaderLineWithoutEnd) {
    const Server server(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nX-Filler: ");
        while (c.write(std::string(1000, 'x'))) {
        }
    });
    expectFailure(server, HTTP_RESPONSE_TOO_LARGE);
    EXPECT_THAT(logged.message, EndsWith(": a header line is too long"));
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

struct Address {
    std::string host;
    int port;
    const char* reason;
};

class UnusableAddress : public HttpFailure, public testing::WithParamInterface<Address> {};

TEST_P(UnusableAddress, IsRefusedBeforeAnythingIsSent) {
    expectFailure(GetParam().host, GetParam().port, HTTP_REQUEST_UNUSABLE);
    EXPECT_THAT(logged.message, EndsWith(std::string(": ") + GetParam().reason));
}

constexpr char NO_HOST[] = "the host's name is not valid";
constexpr char NO_PORT[] = "the port is not valid";

INSTANTIATE_TEST_SUITE_P(HttpFailure, UnusableAddress,
                         testing::Values(Address{"", 1556, NO_HOST}, Address{"a@127.0.0.1", 1556, NO_HOST},
                                         Address{"a/b", 1556, NO_HOST}, Address{"a?b", 1556, NO_HOST},
                                         Address{"a#b", 1556, NO_HOST}, Address{"a b", 1556, NO_HOST},
                                         Address{"a\r\nb", 1556, NO_HOST},
                                         Address{std::string("a\0b", 3), 1556, NO_HOST},
                                         Address{"127.0.0.1:1", 1556, "URL using bad/illegal format or missing URL"},
                                         Address{"[localhost]", 1556, NO_HOST}, Address{"localhost", 0, NO_PORT},
                                         Address{"localhost", -1, NO_PORT}, Address{"localhost", 65536, NO_PORT}));

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

TEST_F(HttpFailure, ARequestAfterTheEndOfTheClient) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's allocator stays locked in a child of several threads";
#endif
    const Server server(fixture.options(), [](Connection& c) { c.answerAll(200, ""); });
    testing_support::ChildProcess child([&]() -> int {
        AWClientCURL client = HttpFixture::client(server);
        const int before = client.Get("a");
        atEnd.run = [&] {
            const LogCapture capture;
            const int status = client.Get("a");
            _exit(before == 0 && status == HTTP_FAILED &&
                          capture.lines() == std::vector<LogLine>{{16, "AWClientCURL::Get",
                                                                   "GET to localhost:" + std::to_string(server.port()) +
                                                                       " failed: the HTTP request failed: the process "
                                                                       "is ending"}}
                      ? 0
                      : 1);
        };
        std::exit(2);
    });
    EXPECT_EQ(0, child.wait());
    EXPECT_EQ(1, server.connections());
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

// In front of OpenSSL's own, for libcurl.
extern "C" __attribute__((visibility("default"))) SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
    static const auto real = reinterpret_cast<decltype(&SSL_CTX_new)>(dlsym(RTLD_NEXT, "SSL_CTX_new"));
    SSL_CTX* context = real(method);
    if (LenientSystem::lenient && context != nullptr) {
        SSL_CTX_set_security_level(context, 0);
        SSL_CTX_set_min_proto_version(context, 0);
    }
    return context;
}

extern "C" __attribute__((visibility("default"))) int X509_STORE_load_path(X509_STORE* store, const char* path) {
    static const auto real =
        reinterpret_cast<decltype(&X509_STORE_load_path)>(dlsym(RTLD_NEXT, "X509_STORE_load_path"));
    return LenientSystem::lenient ? X509_STORE_load_file(store, LenientSystem::systemIssuers.c_str())
                                  : real(store, path);
}
