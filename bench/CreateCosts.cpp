// What it costs to make a client over an access cache of a million objects, beside the one request that it takes.

#include "InstallationPaths.h"
#include "bench/BenchCache.h"
#include "testing/Certificates.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TlsServer.h"

#include <platform/HttpClient.h>
#include <rbac/AccessControlClient.h>
#include <rbac/EC_exception.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr int SERVICE_PORT = 1556;
constexpr char CACHE_PATH[] = "/arkwell/access-control/access-caches/%7C";
constexpr char ANSWER[] = R"({"data":{"type":"accessCache","id":"bench"}})";
constexpr int ROUNDS = 2000;

void require(int status) {
    if (status != 0) {
        throw EC_exception(status);
    }
}

/// A settings file for this process, and certificates that both sides trust.
class Host {
public:
    Host() {
        const testing_support::Certificate own = authority_.issue();
        testing_support::writeFile(directory_ / "ca.pem", authority_.certificate());
        testing_support::writeFile(directory_ / "host.pem", own.certificate);
        testing_support::writeFile(directory_ / "host.key", own.key);
        testing_support::writeFile(directory_ / "platform.json",
                                   R"({"primaryServer":"localhost","log":{"level":16},"tls":{"caFile":")" +
                                       (directory_ / "ca.pem") + R"(","certFile":")" + (directory_ / "host.pem") +
                                       R"(","keyFile":")" + (directory_ / "host.key") + "\"}}");
        setenv("TARVO_PLATFORM_CONFIG", (directory_ / "platform.json").c_str(), 1);
    }

    testing_support::TlsServer::Options serverOptions() const {
        testing_support::TlsServer::Options options;
        options.certificate = authority_.issue();
        options.clientAuthority = authority_.certificate();
        options.port = SERVICE_PORT;
        return options;
    }

private:
    testing_support::CertificateAuthority authority_;
    testing_support::TemporaryDirectory directory_;
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

template <class Work>
double microsecondsOf(const Work& work) {
    const Clock::time_point begin = Clock::now();
    work();
    return Microseconds(Clock::now() - begin).count();
}

void get() {
    AWClientCURL client("localhost", SERVICE_PORT, SESSION_SERVICE, CERT_HOST);
    require(client.Get(CACHE_PATH));
}

void create() {
    boost::shared_ptr<AccessControlClient> client;
    require(AccessControlClient::create(ObjectNamespace(), client));
}

}  // namespace

int main() {
    const Host host;
    const bench::BenchCache cache = bench::BenchCache::ofCorpus(1'000'000);
    const std::filesystem::path caches = TARVO_ROOT "/wmc/webserver/temp/access-caches";
    std::filesystem::create_directories(caches);
    std::filesystem::remove_all(caches / "bench");
    std::filesystem::create_directory_symlink(std::filesystem::absolute(cache.directory()), caches / "bench");
    const testing_support::TlsServer server(
        host.serverOptions(), [](testing_support::TlsConnection& connection) { connection.answerAll(200, ANSWER); });

    std::vector<double> gets;
    std::vector<double> creates;
    for (int i = 0; i < ROUNDS; ++i) {
        gets.push_back(microsecondsOf(get));
        creates.push_back(microsecondsOf(create));
    }
    std::filesystem::remove(caches / "bench");

    const double ratio = median(creates) / median(gets);
    std::cout << std::fixed << std::setprecision(1) << "a GET " << median(gets)
              << " us, a client over a million objects " << median(creates) << " us: " << std::setprecision(2) << ratio
              << " times (at most 1.5)\n";
    return ratio <= 1.5 ? 0 : 1;
}
