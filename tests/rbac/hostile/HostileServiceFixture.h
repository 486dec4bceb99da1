#pragma once

#include "InstallationPaths.h"
#include "ServiceCalls.h"
#include "platform/HttpFixture.h"
#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace testing_support {

/// What a server makes of a request.
using Answering = std::function<void(TlsConnection&, const HttpMessage&)>;

constexpr long MEGABYTE = 1024L * 1024;

/// A server that reads a request and then does as it likes, once for each connection.
inline TlsServer::Script once(const Answering& answer) {
    return [answer](TlsConnection& connection) {
        if (const auto request = connection.read()) {
            answer(connection, *request);
        }
    };
}

/// A server that answers each request with these bytes and goes away.
inline TlsServer::Script answering(const std::string& bytes) {
    return once([bytes](TlsConnection& connection, const HttpMessage&) { connection.write(bytes); });
}

/// A server that writes a beginning, and then the same again and again for as long as anybody listens.
inline TlsServer::Script endlessly(const std::string& beginning, const std::string& again,
                                   std::chrono::milliseconds between = std::chrono::milliseconds(0)) {
    return once([=](TlsConnection& connection, const HttpMessage&) {
        connection.write(beginning);
        while (connection.write(again)) {
            std::this_thread::sleep_for(between);
        }
    });
}

/// A server that writes these bytes and then keeps silent.
inline TlsServer::Script stallingAfter(const std::string& bytes) {
    return once([bytes](TlsConnection& connection, const HttpMessage&) {
        connection.write(bytes);
        connection.stall();
    });
}

inline TlsServer::Script honest() {
    return [](TlsConnection& connection) {
        while (const auto request = connection.read()) {
            if (!connection.write(honestBytes(*request))) {
                return;
            }
        }
    };
}

/// A host whose access-control service is whatever a test puts there.
class HostileServiceFixture : public testing::Test {
protected:
    using Clock = std::chrono::steady_clock;
    using milliseconds = std::chrono::milliseconds;
    using seconds = std::chrono::seconds;

    static constexpr milliseconds CONNECT_LIMIT{800};
    static constexpr milliseconds LIMIT{1000};
    /// What a busy machine may add to a limit.
    static constexpr milliseconds BUSY{14'000};
    static constexpr long LARGEST_BODY = 100'000;

    HostileServiceFixture() {
        std::filesystem::remove_all(caches());
        RawCache files(caches() + "/" + CACHE_ID, "|");
        files.write();
        beGenerous();
    }
    ~HostileServiceFixture() override { std::filesystem::remove_all(caches()); }

    static std::string caches() { return TARVO_ROOT "/wmc/webserver/temp/access-caches"; }

    void useLimits(milliseconds connect, milliseconds request, long largestBody = LARGEST_BODY) {
        fixture.useSettings(R"({"connectTimeoutMs": )" + std::to_string(connect.count()) + R"(, "timeoutMs": )" +
                                std::to_string(request.count()) + R"(, "maxResponseBytes": )" +
                                std::to_string(largestBody) + "}",
                            R"("primaryServer": "localhost")");
    }

    /// Limits that nothing comes near to.
    void beGenerous() { useLimits(seconds(20), seconds(30)); }

    TlsServer::Options options() const {
        TlsServer::Options options = fixture.options();
        options.port = 1556;
        options.clientAuthority = fixture.authority.certificate();
        return options;
    }

    void serve(const TlsServer::Options& options, const TlsServer::Script& script) {
        server.reset();
        server = std::make_unique<TlsServer>(options, script);
    }
    void serve(const TlsServer::Script& script) { serve(options(), script); }

    static const ServiceCall& callNamed(const std::string& name) {
        for (const ServiceCall& call : serviceCalls()) {
            if (call.name == name) {
                return call;
            }
        }
        throw std::out_of_range(name);
    }

    /// All calls at once, and that each ends as it should.
    static void expectOutcomes(const std::function<std::string(const ServiceCall&)>& expected) {
        const LogCapture log;
        std::vector<std::thread> threads;
        for (const ServiceCall& call : serviceCalls()) {
            threads.emplace_back([&expected, &call] { EXPECT_EQ(outcomeOf(call), expected(call)) << call.name; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    static void expectStatus(int status) {
        expectOutcomes([status](const ServiceCall& call) { return outcomeWith(call, status); });
    }

    /// How long the calls take, and what memory they add at most.
    struct Costs {
        Clock::duration time;
        long bytes;
    };
    template <class Calls>
    static Costs costsOf(Calls calls) {
        forgetPeakMemory();
        const long before = peakMemory();
        const Clock::time_point begin = Clock::now();
        calls();
        return {Clock::now() - begin, peakMemory() - before};
    }

    HttpFixture fixture;
    std::unique_ptr<TlsServer> server;
};

}  // namespace testing_support
