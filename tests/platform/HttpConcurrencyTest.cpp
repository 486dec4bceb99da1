#include "HttpFixture.h"
#include "testing/LogCapture.h"

#include <platform/HttpClient.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Server = HttpFixture::Server;
using Connection = HttpFixture::Connection;

constexpr int THREADS = 8;
constexpr int REQUESTS = 50;

/// Runs `work` with the numbers 0 to THREADS - 1, each in a thread of its own.
template <class Work>
void inThreads(Work work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back(work, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void echo(Connection& c) {
    while (const auto request = c.read()) {
        if (!c.answer(200, request->body)) {
            return;
        }
    }
}

TEST(HttpConcurrency, EveryClientGetsItsOwnAnswer) {
    const HttpFixture fixture;
    const Server server(fixture.options(), echo);
    AWClientCURLFactory factory(CERT_HOST);
    inThreads([&](int number) {
        for (int i = 0; i < REQUESTS; ++i) {
            const std::unique_ptr<AWClientCURL_Base> client(
                factory.create("localhost", server.port(), SESSION_SERVICE));
            const std::string body = std::to_string(number) + " " + std::to_string(i);
            ASSERT_EQ(0, client->Put("a", body));
            ASSERT_EQ(body, client->responseBody);
        }
    });
    EXPECT_LE(server.connections(), THREADS);
}

TEST(HttpConcurrency, SessionsAreSharedWhileTheServerKeepsClosing) {
    const HttpFixture fixture;
    const Server server(fixture.options(), [](Connection& c) {
        const auto request = c.read();
        if (request) {
            c.answer(200, request->body);
        }
    });
    inThreads([&server](int number) {
        for (int i = 0; i < REQUESTS; ++i) {
            AWClientCURL client = HttpFixture::client(server);
            const std::string body = std::to_string(number) + " " + std::to_string(i);
            ASSERT_EQ(0, client.Put("a", body));
            ASSERT_EQ(body, client.responseBody);
        }
    });
    EXPECT_GE(server.resumptions(), server.handshakes() / 2);
}

TEST(HttpConcurrency, CertificatesAreExchangedAmongRequests) {
    const HttpFixture fixture;
    const Server server(fixture.options(), echo);
    std::atomic<int> finished{0};
    inThreads([&](int number) {
        if (number == 0) {
            while (finished < THREADS - 1) {
                const std::string text = fixture.authority.certificate();
                testing_support::writeFile(fixture.caFile() + ".new", text);
                std::rename((fixture.caFile() + ".new").c_str(), fixture.caFile().c_str());
            }
            return;
        }
        for (int i = 0; i < REQUESTS; ++i) {
            AWClientCURL client = HttpFixture::client(server);
            EXPECT_EQ(0, client.Put("a", "body"));
        }
        ++finished;
    });
}

}  // namespace
