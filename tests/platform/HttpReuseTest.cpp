#include "HttpFixture.h"
#include "platform/CoarseClock.h"
#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <platform/HttpClient.h>
#include <platform/Status.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using testing_support::CertificateAuthority;
using testing_support::ChildProcess;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::Signal;

using Server = HttpFixture::Server;
using Connection = HttpFixture::Connection;

/// Makes it later on the coarse clock.
class Later {
public:
    static void bySeconds(int seconds) { passed += seconds; }

    static inline std::atomic<int> passed{0};
};

/// Waits until a file's new state is told from the one before.
void waitForTick() {
    const std::int64_t begin = platform_detail::coarseNow();
    while (platform_detail::coarseNow() == begin) {
        std::this_thread::yield();
    }
}

class HttpReuse : public testing::Test {
protected:
    Server::Options options() const { return fixture.options(); }

    static int get(const Server& server, AWCurlSessionType session = SESSION_SERVICE) {
        AWClientCURL client("localhost", server.port(), session, CERT_HOST);
        return client.Get("a");
    }

    HttpFixture fixture;
};

void answerAll(Connection& c) {
    c.answerAll(200, "the answer");
}

void answerOne(Connection& c) {
    c.read();
    c.answer(200, "the answer");
}

TEST_F(HttpReuse, ClientsOfOneServerContinueEachOthersConnection) {
    const Server server(options(), answerAll);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(0, get(server));
    }
    EXPECT_EQ(1, server.connections());
    EXPECT_THAT(server.requests(), SizeIs(10));
}

TEST_F(HttpReuse, AClientOfNoSessionLeavesNothingBehind) {
    const Server server(options(), answerAll);
    EXPECT_EQ(0, get(server, SESSION_NONE));
    EXPECT_EQ(0, get(server, SESSION_NONE));
    EXPECT_EQ(0, get(server, SESSION_SERVICE));
    EXPECT_EQ(0, get(server, SESSION_NONE));
    EXPECT_EQ(4, server.connections());
    EXPECT_EQ(0, server.resumptions());
    EXPECT_TRUE(server.waitForOpen(1));
}

TEST_F(HttpReuse, ClientsWithDifferentCertificatesShareNoConnection) {
    const Server server(options(), answerAll);
    AWClientCURL host("localhost", server.port(), SESSION_SERVICE, CERT_HOST);
    AWClientCURL anonymous("localhost", server.port(), SESSION_SERVICE, CERT_NONE);
    EXPECT_EQ(0, host.Get("a"));
    EXPECT_EQ(0, anonymous.Get("a"));
    EXPECT_EQ(2, server.connections());
    EXPECT_EQ(0, server.resumptions());
}

TEST_F(HttpReuse, ClientsOfDifferentNamesOfAServerShareNoConnection) {
    const Server server(options(), answerAll);
    AWClientCURL byName("localhost", server.port(), SESSION_SERVICE, CERT_HOST);
    AWClientCURL byAddress("127.0.0.1", server.port(), SESSION_SERVICE, CERT_HOST);
    EXPECT_EQ(0, byName.Get("a"));
    EXPECT_EQ(0, byAddress.Get("a"));
    EXPECT_EQ(2, server.connections());
    EXPECT_EQ(0, server.resumptions());
}

TEST_F(HttpReuse, AServerThatClosesAfterEachAnswerIsAskedOnNewConnections) {
    const Server server(options(), answerOne);
    const LogCapture log;
    for (int i = 1; i <= 5; ++i) {
        EXPECT_EQ(0, get(server));
        ASSERT_TRUE(server.waitForOpen(0));
    }
    EXPECT_EQ(5, server.connections());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(HttpReuse, AServerThatSaysThatItClosesIsAskedOnNewConnections) {
    const Server server(options(), [](Connection& c) {
        c.read();
        c.answer(200, "", "Connection: close\r\n");
        c.stall();
    });
    EXPECT_EQ(0, get(server));
    EXPECT_EQ(0, get(server));
    EXPECT_EQ(2, server.connections());
}

TEST_F(HttpReuse, AnAnswerThatMayHaveNoBodyButHasOneEndsItsConnection) {
    for (const char* const headers : {"Content-Length: 25\r\n", "Transfer-Encoding: chunked\r\n"}) {
        for (const int status : {204, 304}) {
            testing_support::Signal asked;
            const Server server(options(), [&](Connection& c) {
                c.read();
                c.write("HTTP/1.1 " + std::to_string(status) + " Answer\r\n" + headers + "\r\n");
                // What it goes on with looks like another answer.
                if (c.number() == 1) {
                    asked.wait();
                    c.answer(200, "smuggled");
                }
                c.stall();
            });
            AWClientCURL client("localhost", server.port(), SESSION_SERVICE, CERT_HOST);
            EXPECT_EQ(0, client.Get("first"));
            EXPECT_EQ(status, client.httpStatus);
            asked.notify();
            EXPECT_EQ(0, client.Get("second"));
            EXPECT_EQ(status, client.httpStatus);
            EXPECT_EQ("", client.responseBody);
            EXPECT_EQ(2, server.connections());
        }
    }
}

class RequestOnClosedConnection : public HttpReuse, public testing::WithParamInterface<bool> {};

TEST_P(RequestOnClosedConnection, IsSentOnANewOneWhateverTheMethod) {
    const bool cut = GetParam();
    const Server server(options(), [cut](Connection& c) {
        answerOne(c);
        if (cut) {
            c.cut();
        }
    });
    AWClientCURL client = HttpFixture::client(server);
    EXPECT_EQ(0, client.Get("a"));
    ASSERT_TRUE(server.waitForOpen(0));
    EXPECT_EQ(0, client.Post("a", "{}"));
    ASSERT_TRUE(server.waitForOpen(0));
    EXPECT_EQ(0, client.Patch("a", "{}"));
    ASSERT_TRUE(server.waitForOpen(0));
    EXPECT_EQ(0, client.Put("a", "{}"));
    ASSERT_TRUE(server.waitForOpen(0));
    EXPECT_EQ(0, client.Delete("a"));
    EXPECT_THAT(server.requests(), SizeIs(5));
}

INSTANTIATE_TEST_SUITE_P(HttpReuse, RequestOnClosedConnection, testing::Bool());

/// A server that reads the second request of its first connection and ends that connection without an answer.
class RequestOnBreakingConnection : public HttpReuse {
protected:
    RequestOnBreakingConnection() { EXPECT_EQ(0, client.Get("first")); }

    std::vector<std::string> lines() const {
        std::vector<std::string> all;
        for (const auto& request : server.requests()) {
            all.push_back(request.line);
        }
        return all;
    }

    Server server{fixture.options(), [](Connection& c) {
                      answerOne(c);
                      if (c.number() == 1) {
                          c.read();
                      } else {
                          answerAll(c);
                      }
                  }};
    AWClientCURL client{"localhost", server.port(), SESSION_SERVICE, CERT_HOST};
};

TEST_F(RequestOnBreakingConnection, IsSentAgainIfItIsAGet) {
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("the answer", client.responseBody);
    EXPECT_THAT(lines(), testing::ElementsAre("GET /first HTTP/1.1", "GET /a HTTP/1.1", "GET /a HTTP/1.1"));
}

TEST_F(RequestOnBreakingConnection, IsSentAgainIfItIsAPut) {
    EXPECT_EQ(0, client.Put("a", "{}"));
    EXPECT_THAT(lines(), testing::ElementsAre("GET /first HTTP/1.1", "PUT /a HTTP/1.1", "PUT /a HTTP/1.1"));
    EXPECT_EQ("{}", server.requests().back().body);
}

TEST_F(RequestOnBreakingConnection, IsSentAgainIfItIsADelete) {
    EXPECT_EQ(0, client.Delete("a"));
    EXPECT_THAT(lines(), testing::ElementsAre("GET /first HTTP/1.1", "DELETE /a HTTP/1.1", "DELETE /a HTTP/1.1"));
}

TEST_F(RequestOnBreakingConnection, IsSentOnceIfItIsAPost) {
    const LogCapture log;
    EXPECT_EQ(platform_status::HTTP_CONNECTION_CLOSED, client.Post("a", "{}"));
    EXPECT_THAT(lines(), testing::ElementsAre("GET /first HTTP/1.1", "POST /a HTTP/1.1"));
    EXPECT_THAT(log.lines(),
                testing::ElementsAre(LogLine{16, "AWClientCURL::Post",
                                             "POST to localhost:" + std::to_string(server.port()) +
                                                 " failed: the server closed the connection without an answer: a kept "
                                                 "connection broke, and the request must not be sent twice"}));
}

TEST_F(RequestOnBreakingConnection, IsSentOnceIfItIsAPostWithoutABody) {
    EXPECT_EQ(platform_status::HTTP_CONNECTION_CLOSED, client.Post("a", ""));
    EXPECT_THAT(lines(), testing::ElementsAre("GET /first HTTP/1.1", "POST /a HTTP/1.1"));
}

TEST_F(RequestOnBreakingConnection, IsSentOnceIfItIsAFile) {
    const std::string path = fixture.directory() / "body";
    testing_support::writeFile(path, "contents");
    EXPECT_EQ(platform_status::HTTP_CONNECTION_CLOSED, client.PostFile("a", path));
    EXPECT_THAT(lines(), testing::ElementsAre("GET /first HTTP/1.1", "POST /a HTTP/1.1"));
}

TEST_F(RequestOnBreakingConnection, IsSentOnceIfItIsAPatch) {
    EXPECT_EQ(platform_status::HTTP_CONNECTION_CLOSED, client.Patch("a", "{}"));
    EXPECT_THAT(lines(), testing::ElementsAre("GET /first HTTP/1.1", "PATCH /a HTTP/1.1"));
}

TEST_F(RequestOnBreakingConnection, DoesNotDisturbTheNextOne) {
    EXPECT_EQ(platform_status::HTTP_CONNECTION_CLOSED, client.Post("a", "{}"));
    EXPECT_EQ(0, client.Post("b", "{}"));
    EXPECT_THAT(lines(), testing::ElementsAre("GET /first HTTP/1.1", "POST /a HTTP/1.1", "POST /b HTTP/1.1"));
}

TEST_F(HttpReuse, ARequestWhoseKeptConnectionBreaksInTheMidstIsSentAgainIfItMayBe) {
    const std::string body(8'000'000, 'x');
    const Server server(fixture.options(), [](Connection& c) {
        answerOne(c);
        if (c.number() % 2 == 1) {
            c.readBytes(10);
            c.reset();
        } else {
            answerAll(c);
        }
    });
    AWClientCURL client("localhost", server.port(), SESSION_SERVICE, CERT_HOST);
    ASSERT_EQ(0, client.Get("first"));
    EXPECT_EQ(0, client.Put("a", body));
    EXPECT_TRUE(server.requests().back().body == body);
    EXPECT_EQ(2, server.connections());
}

TEST_F(HttpReuse, ARequestWhoseKeptConnectionBreaksInTheMidstIsSentOnceIfItMustNotBeTwice) {
    const std::string body(8'000'000, 'x');
    const Server server(fixture.options(), [](Connection& c) {
        answerOne(c);
        c.readBytes(10);
        c.reset();
    });
    AWClientCURL client("localhost", server.port(), SESSION_SERVICE, CERT_HOST);
    ASSERT_EQ(0, client.Get("first"));
    EXPECT_EQ(platform_status::HTTP_CONNECTION_CLOSED, client.Post("a", body));
    EXPECT_EQ(1U, server.requests().size());
}

TEST_F(HttpReuse, ANewConnectionThatTakesTooLongIsReportedAsSuch) {
    fixture.useSettings(R"({"connectTimeoutMs": 500})");
    Server::Options silentLater = options();
    std::atomic<int> connections{0};
    silentLater.before = [&connections](int socket) {
        if (++connections == 1) {
            return true;
        }
        char byte = 0;
        while (recv(socket, &byte, 1, 0) > 0) {
        }
        return false;
    };
    const Server server(silentLater, [](Connection& c) {
        answerOne(c);
        c.read();
    });
    ASSERT_EQ(0, get(server));
    EXPECT_EQ(platform_status::HTTP_CONNECT_TIMED_OUT, get(server));
    EXPECT_EQ(2, server.connections());
}

TEST_F(HttpReuse, AConnectionThatFailedIsClosed) {
    const Server server(options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n");
        c.stall();
    });
    EXPECT_EQ(platform_status::HTTP_RESPONSE_MALFORMED, get(server));
    EXPECT_TRUE(server.waitForOpen(0));
}

class SessionOfVersion : public HttpReuse, public testing::WithParamInterface<int> {
protected:
    Server::Options strict() const {
        Server::Options options = fixture.options();
        options.clientAuthority = fixture.authority.certificate();
        options.lowestVersion = GetParam();
        options.highestVersion = GetParam();
        return options;
    }
};

TEST_P(SessionOfVersion, IsContinuedAfterTheServerClosedTheConnection) {
    const Server server(strict(), answerOne);
    EXPECT_EQ(0, get(server));
    ASSERT_TRUE(server.waitForOpen(0));
    EXPECT_EQ(0, get(server));
    EXPECT_EQ(2, server.handshakes());
    EXPECT_EQ(1, server.resumptions());
}

TEST_P(SessionOfVersion, IsContinuedByAnotherConnectionOfAnotherThread) {
    Signal asked;
    Signal answered;
    const Server server(strict(), [&](Connection& c) {
        answerOne(c);
        if (c.number() == 1) {
            c.read();
            asked.notify();
            answered.wait();
            c.answer(200, "late");
        }
    });
    EXPECT_EQ(0, get(server));
    std::thread busy([&server] { EXPECT_EQ(0, get(server)); });
    asked.wait();
    EXPECT_EQ(0, get(server));
    answered.notify();
    busy.join();
    EXPECT_EQ(2, server.handshakes());
    EXPECT_EQ(1, server.resumptions());
}

INSTANTIATE_TEST_SUITE_P(HttpReuse, SessionOfVersion, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

TEST_F(HttpReuse, AnExchangedHostCertificateIsShownAtOnce) {
    const CertificateAuthority successor("the successor");
    Server::Options strict = options();
    strict.clientAuthority = successor.certificate();
    const Server server(strict, answerAll);
    EXPECT_EQ(platform_status::HTTP_CLIENT_CERTIFICATE_REFUSED, get(server));
    fixture.useHostCertificate(successor.issue());
    waitForTick();
    EXPECT_EQ(0, get(server));
}

TEST_F(HttpReuse, AnExchangedHostCertificateEndsTheUseOfOldConnectionsAndSessions) {
    const Server server(options(), answerAll);
    EXPECT_EQ(0, get(server));
    fixture.useHostCertificate(fixture.authority.issue());
    waitForTick();
    EXPECT_EQ(0, get(server));
    EXPECT_EQ(2, server.connections());
    EXPECT_EQ(0, server.resumptions());
}

TEST_F(HttpReuse, AnIssuerThatIsTrustedNoMoreEndsTheUseOfOldConnectionsAndSessions) {
    const Server server(options(), answerAll);
    EXPECT_EQ(0, get(server));
    testing_support::writeFile(fixture.caFile(), CertificateAuthority("the successor").certificate());
    waitForTick();
    EXPECT_EQ(platform_status::HTTP_SERVER_ISSUER_UNKNOWN, get(server));
    EXPECT_THAT(server.requests(), SizeIs(1));
}

TEST_F(HttpReuse, SettingsThatChangeHoldForAKeptConnection) {
    const Server server(options(), answerAll);
    EXPECT_EQ(0, get(server));
    fixture.useSettings(R"({"maxResponseBytes": 9})");
    EXPECT_EQ(platform_status::HTTP_RESPONSE_TOO_LARGE, get(server));
    EXPECT_EQ(1, server.connections());
}

/// So many clients that ask a server at once, each on a connection of its own.
class Crowd {
public:
    explicit Crowd(int size) : size_(size) {}

    /// Answers when all have asked.
    void answer(Connection& c) {
        c.read();
        if (++arrived_ == size_) {
            all_.notify();
        }
        all_.wait();
        c.answer(200, "");
        answerAll(c);
    }

    void ask(const Server& server) const {
        std::vector<std::thread> threads;
        for (int i = 0; i < size_; ++i) {
            threads.emplace_back([&server] {
                AWClientCURL client = HttpFixture::client(server);
                EXPECT_EQ(0, client.Get("a"));
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(size_, server.connections());
    }

private:
    int size_;
    std::atomic<int> arrived_{0};
    Signal all_;
};

TEST_F(HttpReuse, NoMoreThanEightConnectionsToAServerAreKept) {
    Crowd crowd(12);
    const Server server(options(), [&](Connection& c) { crowd.answer(c); });
    crowd.ask(server);
    EXPECT_TRUE(server.waitForOpen(8));
}

TEST_F(HttpReuse, NoMoreThanThirtyTwoConnectionsAreKeptInAll) {
    std::vector<std::unique_ptr<Crowd>> crowds;
    std::vector<std::unique_ptr<Server>> servers;
    for (int i = 0; i < 5; ++i) {
        Crowd& crowd = *crowds.emplace_back(std::make_unique<Crowd>(8));
        servers.push_back(std::make_unique<Server>(options(), [&crowd](Connection& c) { crowd.answer(c); }));
        crowd.ask(*servers.back());
        waitForTick();
    }
    EXPECT_TRUE(servers[0]->waitForOpen(0));
    for (std::size_t i = 1; i < servers.size(); ++i) {
        EXPECT_EQ(8, servers[i]->open());
    }
}

TEST_F(HttpReuse, NoMoreThanThirtyTwoServersAreKnown) {
    std::vector<std::unique_ptr<Server>> servers;
    for (int i = 0; i < 33; ++i) {
        servers.push_back(std::make_unique<Server>(options(), answerOne));
        EXPECT_EQ(0, get(*servers.back()));
    }
    EXPECT_EQ(0, get(*servers[0]));
    EXPECT_EQ(0, get(*servers[2]));
    EXPECT_EQ(0, servers[0]->resumptions());
    EXPECT_EQ(1, servers[2]->resumptions());
}

TEST_F(HttpReuse, AConnectionThatNobodyUsesForAMinuteIsClosed) {
    const Server idle(options(), answerAll);
    const Server busy(options(), answerAll);
    EXPECT_EQ(0, get(idle));
    Later::bySeconds(59);
    EXPECT_EQ(0, get(busy));
    EXPECT_EQ(1, idle.open());
    Later::bySeconds(2);
    EXPECT_EQ(0, get(busy));
    EXPECT_TRUE(idle.waitForOpen(0));
    EXPECT_EQ(1, busy.connections());
}

TEST_F(HttpReuse, NoConnectionIsPassedToAProgramThatIsExecuted) {
    const Server server(options(), answerAll);
    EXPECT_EQ(0, get(server));
    int connections = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int number = std::stoi(entry.path().filename().string());
        sockaddr_storage peer{};
        socklen_t size = sizeof peer;
        if (getpeername(number, reinterpret_cast<sockaddr*>(&peer), &size) == 0 && peer.ss_family != AF_UNIX) {
            ++connections;
            EXPECT_EQ(FD_CLOEXEC, fcntl(number, F_GETFD));
        }
    }
    EXPECT_GE(connections, 2);  // both ends of one
}

TEST_F(HttpReuse, AForkChildUsesAConnectionOfItsOwn) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's allocator stays locked in a child of several threads";
#endif
    const Server server(options(), answerAll);
    AWClientCURL client = HttpFixture::client(server);
    EXPECT_EQ(0, client.Get("a"));
    ChildProcess child([&client] { return client.Get("a") == 0 && client.responseBody == "the answer" ? 0 : 1; });
    EXPECT_EQ(0, child.wait());
    EXPECT_EQ(2, server.connections());
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ(2, server.connections());
}

TEST_F(HttpReuse, AForkChildThatExitsLeavesTheParentsConnectionOpen) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's allocator stays locked in a child of several threads";
#endif
    const Server server(options(), answerAll);
    EXPECT_EQ(0, get(server));
    ChildProcess child([]() -> int { std::exit(0); });
    child.wait();  // not 0 under the leak sanitizer: what the server's threads had is nobody's in the child
    EXPECT_EQ(0, get(server));
    EXPECT_EQ(1, server.connections());
}

TEST_F(HttpReuse, AForkChildDoesNotHoldTheParentsConnectionOpen) {
    const Server server(options(), [](Connection& c) {
        answerOne(c);
        c.read();
        c.write("no HTTP\r\n");
        c.stall();
    });
    EXPECT_EQ(0, get(server));
    Signal inChild;
    Signal end;
    ChildProcess child([&] {
        inChild.notify();
        end.wait();
        return 0;
    });
    inChild.wait();
    EXPECT_EQ(platform_status::HTTP_RESPONSE_MALFORMED, get(server));
    EXPECT_TRUE(server.waitForOpen(0));
    end.notify();
    EXPECT_EQ(0, child.wait());
}

TEST_F(HttpReuse, ForksAmongRequestsOfOtherThreadsFindAUsableClient) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's allocator stays locked in a child of several threads";
#endif
    const Server server(options(), answerAll);
    std::atomic<bool> over{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!over) {
                EXPECT_EQ(0, get(server));
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        ChildProcess child([&server] { return get(server); });
        EXPECT_EQ(0, child.wait());
    }
    over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace

// In front of the C library's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = real(clock, time);
    time->tv_sec += clock == CLOCK_MONOTONIC_COARSE ? Later::passed.load() : 0;
    return result;
}
