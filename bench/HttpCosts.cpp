// What a request costs beside one round trip over a TLS connection that is kept: through the client on a kept
// connection, with a full handshake, and as the first one after the server closed the connection.
//
// Server and client are processes of their own, each on its own processor. Every figure is the median of batches that
// take turns, in real time.

#include "testing/Certificates.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TlsServer.h"

#include <platform/HttpClient.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

const std::string PATH = "arkwell/access-control/roles/1";
const std::string BODY(400, 'x');
// Answered, and then the server closes the connection.
const std::string LAST_PATH = "last";

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void runOn(unsigned processor) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor, &processors);
    sched_setaffinity(0, sizeof processors, &processors);
}

void answerUntilLast(TlsConnection& connection) {
    while (const auto request = connection.read()) {
        connection.answer(200, BODY);
        if (request->line.find(LAST_PATH) != std::string::npos) {
            return;
        }
    }
}

/// The files and the settings of client and server, and the server itself in a process of its own.
class Installation {
public:
    Installation() {
        const CertificateAuthority authority;
        const Certificate host = authority.issue();
        writeFile(directory_ / "ca.pem", authority.certificate());
        writeFile(directory_ / "host.pem", host.certificate);
        writeFile(directory_ / "host.key", host.key);
        writeFile(directory_ / "platform.json", R"({"tls": {"caFile": ")" + caFile() + R"(", "certFile": ")" +
                                                    certFile() + R"(", "keyFile": ")" + keyFile() + R"("}})");
        setenv("TARVO_PLATFORM_CONFIG", (directory_ / "platform.json").c_str(), 1);
        startServer(authority);
    }
    ~Installation() {
        kill(server_, SIGKILL);
        waitpid(server_, nullptr, 0);
    }
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    int port() const { return port_; }
    std::string caFile() const { return directory_ / "ca.pem"; }
    std::string certFile() const { return directory_ / "host.pem"; }
    std::string keyFile() const { return directory_ / "host.key"; }

private:
    void startServer(const CertificateAuthority& authority) {
        int channel[2];
        require(pipe(channel) == 0, "no pipe");
        server_ = fork();
        if (server_ == 0) {
            runOn(1);
            TlsServer::Options options;
            options.certificate = authority.issue();
            options.clientAuthority = authority.certificate();
            const TlsServer server(options, answerUntilLast);
            const int port = server.port();
            require(write(channel[1], &port, sizeof port) == sizeof port, "no pipe");
            for (;;) {
                pause();
            }
        }
        require(read(channel[0], &port_, sizeof port_) == sizeof port_, "no server");
        close(channel[0]);
        close(channel[1]);
    }

    TemporaryDirectory directory_;
    pid_t server_ = -1;
    int port_ = 0;
};

/// A connection by hand, over which the bytes of the client's request are sent.
class RawConnection {
public:
    explicit RawConnection(const Installation& installation)
        : context_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free),
          tls_(nullptr, SSL_free),
          socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        SSL_CTX_load_verify_locations(context_.get(), installation.caFile().c_str(), nullptr);
        SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
        SSL_CTX_use_certificate_chain_file(context_.get(), installation.certFile().c_str());
        SSL_CTX_use_PrivateKey_file(context_.get(), installation.keyFile().c_str(), SSL_FILETYPE_PEM);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(installation.port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        require(connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "no connection");
        const int noDelay = 1;
        setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
        tls_.reset(SSL_new(context_.get()));
        SSL_set_fd(tls_.get(), socket_);
        require(SSL_connect(tls_.get()) == 1, "no TLS");
        request_ = "GET /" + PATH + " HTTP/1.1\r\nHost: localhost:" + std::to_string(installation.port()) +
                   "\r\nAccept: application/json\r\n\r\n";
    }
    ~RawConnection() { close(socket_); }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    void roundTrip() {
        require(SSL_write(tls_.get(), request_.data(), static_cast<int>(request_.size())) > 0, "cannot write");
        char answer[4096];
        std::size_t size = 0;
        do {
            const int count = SSL_read(tls_.get(), answer + size, static_cast<int>(sizeof answer - size));
            require(count > 0, "cannot read");
            size += static_cast<std::size_t>(count);
        } while (size < BODY.size() || answer[size - 1] != BODY.back());
    }

private:
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
    std::unique_ptr<SSL, decltype(&SSL_free)> tls_;
    int socket_;
    std::string request_;
};

class Figure {
public:
    Figure(
        int perBatch, std::function<void()> timed, std::function<void()> before = [] {})
        : perBatch_(perBatch), timed_(std::move(timed)), before_(std::move(before)) {}

    void runBatch() {
        double total = 0;
        for (int i = 0; i < perBatch_; ++i) {
            before_();
            const Clock::time_point begin = Clock::now();
            timed_();
            total += Microseconds(Clock::now() - begin).count();
        }
        batches_.push_back(total / perBatch_);
    }

    double median() {
        std::sort(batches_.begin(), batches_.end());
        return batches_[batches_.size() / 2];
    }

private:
    int perBatch_;
    std::function<void()> timed_;
    std::function<void()> before_;
    std::vector<double> batches_;
};

void get(const Installation& installation, const std::string& path, AWCurlSessionType session) {
    AWClientCURL client("localhost", installation.port(), session, CERT_HOST);
    require(client.Get(path) == 0 && client.httpStatus == 200 && client.responseBody == BODY, "no answer");
}

bool report(const std::string& what, double ratio, const std::string& limit, bool reached) {
    std::cout << std::left << std::setw(58) << what << std::right << std::fixed << std::setprecision(2) << std::setw(8)
              << ratio << "  " << limit << (reached ? "" : "  MISSED") << "\n";
    return reached;
}

}  // namespace

int main(int argc, char** argv) {
    const int batches = argc > 1 ? std::stoi(argv[1]) : 50;
    const Installation installation;
    runOn(0);
    RawConnection raw(installation);
    Figure roundTrip(200, [&raw] { raw.roundTrip(); });
    Figure kept(200, [&] { get(installation, PATH, SESSION_SERVICE); });
    Figure handshake(5, [&] { get(installation, PATH, SESSION_NONE); });
    Figure resumed(
        5, [&] { get(installation, PATH, SESSION_SERVICE); },
        [&] {
            get(installation, LAST_PATH, SESSION_SERVICE);
            usleep(1000);  // until the server has closed it
        });
    for (int i = 0; i < batches; ++i) {
        for (Figure* figure : {&roundTrip, &kept, &handshake, &resumed}) {
            figure->runBatch();
        }
    }
    const double r = roundTrip.median();
    std::cout << std::fixed << std::setprecision(1) << "R, one round trip on a kept connection: " << r
              << " us; a GET on a kept connection: " << kept.median()
              << " us; with a full handshake: " << handshake.median()
              << " us; with a session continued: " << resumed.median() << " us\n";
    bool reached = report("GET on a kept connection / R", kept.median() / r, "at most 1.30", kept.median() <= 1.3 * r);
    reached &= report("GET with a full handshake / GET on a kept connection", handshake.median() / kept.median(),
                      "at least 30", handshake.median() >= 30 * kept.median());
    reached &=
        report("first GET after the server closed / GET with a full handshake", resumed.median() / handshake.median(),
               "at most 0.60", resumed.median() <= 0.6 * handshake.median());
    return reached ? 0 : 1;
}
