#include "HostileServiceFixture.h"

#include <platform/Status.h>

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

// What the library asks the service, answered by somebody who means ill: each way into the library ends with the status
// that its caller is promised, in time, and without taking memory that the settings do not grant.

namespace {

using namespace platform_status;
using namespace testing_support;
using std::chrono::milliseconds;

/// A way to answer no request, and the status that everybody gets for it.
struct Hostility {
    const char* name;
    int status;
    TlsServer::Script script;
    std::function<void(TlsServer::Options&)> prepare = [](TlsServer::Options&) {};

    bool lastsUntilTheLimit() const { return status == HTTP_TIMED_OUT || status == HTTP_CONNECT_TIMED_OUT; }
};

class HostileServiceTest : public HostileServiceFixture {};

class HostileTransport : public HostileServiceFixture, public testing::WithParamInterface<Hostility> {};

TEST_P(HostileTransport, IsReportedInTimeAndInLittleMemory) {
    const Hostility& hostility = GetParam();
    TlsServer::Options prepared = options();
    hostility.prepare(prepared);
    serve(prepared, hostility.script);
    if (hostility.lastsUntilTheLimit()) {
        useLimits(CONNECT_LIMIT, LIMIT);
    }
    const Costs costs = costsOf([&] { expectStatus(hostility.status); });
    EXPECT_LT(costs.time, LIMIT + BUSY);
#ifndef __SANITIZE_ADDRESS__
    // What the server takes, in the same process, included.
    EXPECT_LT(costs.bytes, static_cast<long>(serviceCalls().size()) * 5 * MEGABYTE);
#endif
    beGenerous();
    serve(honest());
    const LogCapture log;
    EXPECT_EQ(outcomeOf(callNamed("create")), "returned 0");
    EXPECT_EQ(outcomeOf(callNamed("registerObject")), "returned 0");
}

/// A gzip stream that unpacks to zeros without end: after the first literal the same 13 bits, "258 bytes more of the
/// last one", again and again. Eight of these make 13 bytes.
class Bomb {
public:
    static std::string beginning() { return {"\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03", 10}; }

    /// @param count of repetitions; each is 258 bytes, unpacked.
    static std::string packed(int count) {
        Bomb bomb;
        bomb.append("110");       // the last block, of the fixed code
        bomb.append("00110000");  // a zero
        for (int i = 0; i < count; ++i) {
            bomb.append("1100010100000");
        }
        return beginning() + bomb.bytes_;
    }

private:
    void append(const char* bits) {
        for (; *bits != '\0'; ++bits, ++count_) {
            if (count_ % 8 == 0) {
                bytes_ += '\0';
            }
            const int bit = *bits == '1' ? 1 << (count_ % 8) : 0;
            bytes_.back() = static_cast<char>(bytes_.back() | bit);
        }
    }

    std::string bytes_;
    int count_ = 0;
};

std::string chunk(const std::string& data) {
    char size[20];
    std::snprintf(size, sizeof size, "%zx", data.size());
    return size + ("\r\n" + data + "\r\n");
}

const std::string OK = "HTTP/1.1 200 OK\r\n";
const std::string CHUNKED = OK + "Transfer-Encoding: chunked\r\n\r\n";

const Hostility RESPONSES[] = {
    {"AnotherProtocol", HTTP_RESPONSE_MALFORMED, answering("SSH-2.0-OpenSSH_9.2\r\n")},
    {"AFutureVersion", HTTP_RESPONSE_MALFORMED, answering("HTTP/9.9 200 OK\r\nContent-Length: 0\r\n\r\n")},
    {"AWebPage", HTTP_RESPONSE_MALFORMED, answering("<!DOCTYPE html><html></html>")},
    {"EmptyLines", HTTP_RESPONSE_MALFORMED, answering("\r\n\r\n\r\n\r\n")},
    {"ANul", HTTP_RESPONSE_MALFORMED, answering(std::string(1, '\0'))},
    {"AStatusOfLetters", HTTP_RESPONSE_MALFORMED, answering("HTTP/1.1 two OK\r\nContent-Length: 0\r\n\r\n")},
    {"AStatusOfFourDigits", HTTP_RESPONSE_MALFORMED, answering("HTTP/1.1 2000 OK\r\nContent-Length: 0\r\n\r\n")},
    {"ANulInAHeader", HTTP_RESPONSE_MALFORMED,
     answering(OK + std::string("X-Nul: a\0b\r\n", 12) + "Content-Length: 0\r\n\r\n")},
    {"NothingAtAll", HTTP_CONNECTION_CLOSED, answering("")},
    {"ACutConnection", HTTP_CONNECTION_CLOSED, once([](TlsConnection& c, const HttpMessage&) { c.cut(); })},
    {"AResetConnection", HTTP_CONNECTION_CLOSED, once([](TlsConnection& c, const HttpMessage&) { c.reset(); })},
    {"AResetInTheBody", HTTP_RESPONSE_MALFORMED, once([](TlsConnection& c, const HttpMessage&) {
         c.write(OK + "Content-Length: 100\r\n\r\n{");
         usleep(100'000);
         c.reset();
     })},
    {"HeadersWithoutEnd", HTTP_RESPONSE_TOO_LARGE, endlessly(OK, "X-Filler: " + std::string(1000, 'x') + "\r\n")},
    {"TinyHeadersWithoutEnd", HTTP_RESPONSE_TOO_LARGE, endlessly(OK, "X:\r\nY:\r\nZ:\r\nX:\r\nY:\r\nZ:\r\n")},
    {"AHeaderWithoutEnd", HTTP_RESPONSE_TOO_LARGE, endlessly(OK + "X-Filler: ", std::string(1000, 'x'))},
    {"AStatusLineWithoutEnd", HTTP_RESPONSE_TOO_LARGE, endlessly("HTTP/1.1 200 ", std::string(1000, 'x'))},
    {"ABodyWithoutEnd", HTTP_RESPONSE_TOO_LARGE, endlessly(OK + "\r\n", std::string(1000, '['))},
    {"AHugeLength", HTTP_RESPONSE_TOO_LARGE, stallingAfter(OK + "Content-Length: 9223372036854775807\r\n\r\n")},
    {"ALengthBeyondAllNumbers", HTTP_RESPONSE_TOO_LARGE,
     stallingAfter(OK + "Content-Length: 99999999999999999999999\r\n\r\n")},
    {"ANegativeLength", HTTP_RESPONSE_MALFORMED, stallingAfter(OK + "Content-Length: -1\r\n\r\n")},
    {"AChunkOfLetters", HTTP_RESPONSE_MALFORMED, answering(CHUNKED + "xyz\r\n{}\r\n0\r\n\r\n")},
    {"AChunkBeyondAllNumbers", HTTP_RESPONSE_MALFORMED, answering(CHUNKED + "FFFFFFFFFFFFFFFFFFFF\r\n{}")},
    {"AChunkThatIsTooLong", HTTP_RESPONSE_MALFORMED, answering(CHUNKED + "2\r\n{}{}{}{}\r\n0\r\n\r\n")},
    {"ChunksWithoutEnd", HTTP_RESPONSE_TOO_LARGE, endlessly(CHUNKED, chunk(std::string(500, '[')))},
    {"TrailersWithoutEnd", HTTP_RESPONSE_TOO_LARGE,
     endlessly(CHUNKED + "0\r\n", "X-Filler: " + std::string(1000, 'x') + "\r\n")},
    {"AnInterimAnswerWithoutAnother", HTTP_RESPONSE_MALFORMED, answering("HTTP/1.1 100 Continue\r\n\r\n")},
    {"InterimAnswersWithoutEnd", HTTP_RESPONSE_TOO_LARGE, endlessly("", "HTTP/1.1 100 Continue\r\n\r\n")},
    {"EarlyHintsWithoutEnd", HTTP_RESPONSE_TOO_LARGE,
     endlessly("", "HTTP/1.1 103 Early Hints\r\nLink: <" + std::string(500, 'x') + ">\r\n\r\n")},
    {"ABombAsATransferEncoding", HTTP_RESPONSE_TOO_LARGE,
     stallingAfter(OK + "Transfer-Encoding: gzip, chunked\r\n\r\n" + chunk(Bomb::packed(8000)))},
    {"ATransferEncodingThatIsNone", HTTP_RESPONSE_MALFORMED,
     answering(OK + "Transfer-Encoding: gzip, chunked\r\n\r\n" + chunk("not packed") + chunk(""))},
    {"DropsOfABody", HTTP_TIMED_OUT, endlessly(OK + "Content-Length: 1000\r\n\r\n", "[", milliseconds(50))},
    {"DropsOfAHeader", HTTP_TIMED_OUT, endlessly(OK + "X-Filler: ", "x", milliseconds(50))},
    {"AnUpgradeToSilence", HTTP_TIMED_OUT,
     stallingAfter("HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: h2c\r\n\r\n")},
    {"AnUpgradeToNoise", HTTP_RESPONSE_TOO_LARGE,
     endlessly("HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\n",
               std::string(1000, '\x81'))},
};

std::string nameOf(const testing::TestParamInfo<Hostility>& hostility) {
    return hostility.param.name;
}

INSTANTIATE_TEST_SUITE_P(Response, HostileTransport, testing::ValuesIn(RESPONSES), nameOf);

void sendRaw(int socket, const std::string& bytes) {
    send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void awaitEnd(int socket) {
    char bytes[1000];
    while (recv(socket, bytes, sizeof bytes, 0) > 0) {
    }
}

/// What comes in place of the server's part of the handshake.
std::function<void(TlsServer::Options&)> insteadOfTls(const std::function<void(int)>& say) {
    return [say](TlsServer::Options& options) {
        options.before = [say](int socket) {
            say(socket);
            awaitEnd(socket);
            return false;
        };
    };
}

std::function<void(TlsServer::Options&)> withCertificate(const CertificateRequest& request) {
    return [request](TlsServer::Options& options) {
        const CertificateAuthority stranger("another authority");
        options.certificate = stranger.issue(request);
    };
}

void onlyTls12(TlsServer::Options& options) {
    options.highestVersion = TLS1_2_VERSION;
}

const std::string FATAL_ALERT("\x15\x03\x03\x00\x02\x02\x28", 7);
/// A record of a handshake whose first message is to be 16 MB long.
const std::string HUGE_HELLO = std::string("\x16\x03\x03\x40\x00\x02\xff\xff\xff", 9) + std::string(0x4000 - 4, 'x');

bool isGone(SSL* tls) {
    pollfd connection{SSL_get_fd(tls), POLLRDHUP, 0};
    return poll(&connection, 1, 0) != 0;
}

/// Does the same to TLS until the client is gone.
TlsServer::Script harass(const std::function<int(SSL*)>& prepare) {
    return once([prepare](TlsConnection& connection, const HttpMessage&) {
        SSL* const tls = connection.tls();
        while (!isGone(tls) && prepare(tls) == 1 && SSL_do_handshake(tls) == 1) {
            usleep(1000);
        }
    });
}

const Hostility SECURE_CHANNELS[] = {
    {"NoiseForAHandshake", HTTP_TLS_FAILED, honest(),
     insteadOfTls([](int socket) { sendRaw(socket, std::string(1000, '\xff')); })},
    {"AnAlertForAHandshake", HTTP_TLS_FAILED, honest(), insteadOfTls([](int socket) { sendRaw(socket, FATAL_ALERT); })},
    {"AHugeMessageForAHandshake", HTTP_TLS_FAILED, honest(),
     insteadOfTls([](int socket) { sendRaw(socket, HUGE_HELLO); })},
    {"DropsForAHandshake", HTTP_CONNECT_TIMED_OUT, honest(), insteadOfTls([](int socket) {
         sendRaw(socket, std::string("\x16\x03\x03\x40\x00\x02\x00\x3f\xfc", 9));
         while (send(socket, "x", 1, MSG_NOSIGNAL) == 1) {
             usleep(50'000);
         }
     })},
    {"NoiseAfterTheHandshake", HTTP_CONNECTION_CLOSED,
     once([](TlsConnection& c, const HttpMessage&) { c.writeRaw(std::string(1000, '\xff')); })},
    {"AForgedRecordInTheBody", HTTP_RESPONSE_MALFORMED, once([](TlsConnection& c, const HttpMessage&) {
         c.write(OK + "Content-Length: 100\r\n\r\n{");
         c.writeRaw(std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'x'));
         c.stall();
     })},
    {"HandshakesWithoutEnd", HTTP_TIMED_OUT, harass(SSL_renegotiate), onlyTls12},
    {"NewKeysWithoutEnd", HTTP_TIMED_OUT,
     harass([](SSL* tls) { return SSL_key_update(tls, SSL_KEY_UPDATE_NOT_REQUESTED); })},
    {"TicketsWithoutEnd", HTTP_TIMED_OUT, harass(SSL_new_session_ticket)},
    {"ACertificateOfAStranger", HTTP_SERVER_ISSUER_UNKNOWN, honest(), withCertificate({})},
};

INSTANTIATE_TEST_SUITE_P(SecureChannel, HostileTransport, testing::ValuesIn(SECURE_CHANNELS), nameOf);

TEST_F(HostileServiceTest, IsNotTakenForAnotherHost) {
    CertificateRequest other;
    other.names = {"DNS:other.example"};
    TlsServer::Options options = this->options();
    options.certificate = fixture.authority.issue(other);
    serve(options, honest());
    expectStatus(HTTP_SERVER_NAME_WRONG);
    EXPECT_TRUE(server->requests().empty());
}

TEST_F(HostileServiceTest, IsNotBelievedAfterItsCertificateHasExpired) {
    CertificateRequest expired;
    expired.fromDay = -3;
    expired.toDay = -2;
    TlsServer::Options options = this->options();
    options.certificate = fixture.authority.issue(expired);
    serve(options, honest());
    expectStatus(HTTP_SERVER_CERTIFICATE_EXPIRED);
    EXPECT_TRUE(server->requests().empty());
}

TEST_F(HostileServiceTest, MayCutItsAnswerShortAnywhere) {
    constexpr std::size_t FIRST_LINE = sizeof "HTTP/1.1 200 Answer\r\n" - 1;
    std::atomic<std::size_t> length{0};
    std::atomic<std::size_t> whole{0};
    serve(once([&](TlsConnection& connection, const HttpMessage& request) {
        const std::string bytes = honestBytes(request);
        whole = bytes.size();
        connection.write(bytes.substr(0, length));
        if (length % 2 == 0) {
            connection.cut();
        }
    }));
    const LogCapture log;
    for (const ServiceCall& call : serviceCalls()) {
        const std::size_t step = call.name == std::string("create") ? 1 : 13;
        for (length = 0, whole = 1; length < whole; length += step) {
            // Before the end of the first line nothing is known to be an answer.
            const int status = length < FIRST_LINE ? HTTP_CONNECTION_CLOSED : HTTP_RESPONSE_MALFORMED;
            EXPECT_EQ(outcomeOf(call), outcomeWith(call, status)) << call.name << " after " << length << " bytes";
        }
    }
    server.reset();
}

}  // namespace
