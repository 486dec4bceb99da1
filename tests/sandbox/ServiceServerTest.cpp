#include "ServiceProcess.h"
#include "sandbox/CertificateAuthority.h"
#include "sandbox/ServiceServer.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sstream>
#include <stdexcept>

// What becomes of requests before anybody looks at what they ask for.

using namespace testing_support;
using namespace Tesmor::Arkwell::Sandbox;

namespace {

constexpr std::size_t LARGEST = 100'000;

/// The body cut into chunks of that size, as it goes over the wire.
std::string inChunks(const std::string& body, std::size_t size) {
    std::ostringstream text;
    for (std::size_t begin = 0; begin < body.size(); begin += size) {
        const std::string chunk = body.substr(begin, size);
        text << std::hex << chunk.size() << "\r\n" << chunk << "\r\n";
    }
    text << "0\r\n\r\n";
    return text.str();
}

/// The size of the document, unless that says "fail".
ServiceResponse measure(const ServiceRequest& request) {
    if (request.body == "fail") {
        throw std::runtime_error("broken");
    }
    return {200, std::to_string(request.body.size()), "text/plain"};
}

class ServiceServerTest : public testing::Test {
protected:
    ServiceServerTest() {
        // A connection that the server has reset must not end the test.
        std::signal(SIGPIPE, SIG_IGN);
    }

    Answer post(const std::string& body, const ServiceClient::Headers& headers = {}) {
        return client_.send("POST", "/", body, headers);
    }

    Answer postInChunks(const std::string& body) { return post(body, {{"Transfer-Encoding", "chunked"}}); }

    /// What the server says of itself, and whom it takes.
    ServiceServerOptions options() const {
        const CertificateAuthority authority = CertificateAuthority::generate("test CA");
        const CertifiedKey identity = authority.issue({"localhost", {"localhost"}, true, true});
        writeFile(files_.authority, authority.identity().certificate);
        writeFile(files_.certificate, identity.certificate);
        writeFile(files_.key, identity.key);
        ServiceServerOptions made;
        made.addresses = {"127.0.0.1"};
        made.port = 0;
        made.files = {files_.certificate, files_.key, files_.authority};
        made.largestDocument = LARGEST;
        return made;
    }

    int port() const {
        const std::string address = server_.address();
        return std::stoi(address.substr(address.rfind(':') + 1));
    }

    TemporaryDirectory directory_;
    ClientFiles files_{directory_ / "ca.pem", directory_ / "own.pem", directory_ / "ownKey.pem"};
    FaultSwitches faults_;
    ServiceServer server_{options(), measure, faults_};
    ServiceClient client_{"localhost", port(), files_};
};

}  // namespace

TEST_F(ServiceServerTest, TakesTheLargestDocument) {
    EXPECT_EQ(post(std::string(LARGEST, 'x')).body, "100000");
}

TEST_F(ServiceServerTest, RefusesADocumentThatIsLarger) {
    const Answer answer = post(std::string(LARGEST + 1, 'x'));
    EXPECT_EQ(answer.status, 413);
    EXPECT_EQ(answer.body, R"({"errorCode":5303,"errorMessage":"The document is too large","errorDetails":[]})");
}

TEST_F(ServiceServerTest, TakesADocumentInChunks) {
    EXPECT_EQ(postInChunks(inChunks(std::string(LARGEST - 1000, 'x'), 4000)).body, "99000");
}

TEST_F(ServiceServerTest, RefusesADocumentThatIsLargerInChunks) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{4000}, 2 * LARGEST}) {
        const Answer answer = postInChunks(inChunks(std::string(2 * LARGEST, 'x'), size));
        EXPECT_EQ(answer.status, 413) << size;
        EXPECT_EQ(answer.errorCode(), 5303) << size;
    }
}

TEST_F(ServiceServerTest, LimitsEachRequestOnItsOwn) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(post(std::string(LARGEST / 2, 'x')).body, "50000") << i;
    }
    EXPECT_EQ(post(std::string(LARGEST + 1, 'x')).status, 413);
    EXPECT_EQ(post("xyz").body, "3");
}

TEST_F(ServiceServerTest, RefusesHeadersWithoutEnd) {
    ServiceClient::Headers headers;
    for (int i = 0; i < 200; ++i) {
        headers["X-Header-" + std::to_string(i)] = std::string(8000, 'x');
    }
    const Answer answer = post("xyz", headers);
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.errorCode(), 5006);
}

TEST_F(ServiceServerTest, RefusesARequestThatMakesNoSense) {
    const Answer answer = postInChunks("no length\r\n");
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.body, R"({"errorCode":5006,"errorMessage":"The request is malformed","errorDetails":[]})");
}

TEST_F(ServiceServerTest, SaysThatItFailed) {
    const Answer answer = post("fail");
    EXPECT_EQ(answer.status, 500);
    EXPECT_EQ(answer.body, R"({"errorCode":5501,"errorMessage":"The service failed","errorDetails":[]})");
}
