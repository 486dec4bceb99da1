#include "HttpFixture.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <platform/HttpClient.h>
#include <platform/Status.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing_support::HttpMessage;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::ScopedEnvironment;

using Server = HttpFixture::Server;
using Connection = HttpFixture::Connection;

class HttpClient : public testing::Test {
protected:
    HttpMessage received() const {
        const std::vector<HttpMessage> requests = server.requests();
        return requests.empty() ? HttpMessage() : requests.back();
    }

    HttpFixture fixture;
    Server server{fixture.options(), [](Connection& c) { c.answerAll(200, "the answer"); }};
    AWClientCURL client{"localhost", server.port(), SESSION_SERVICE, CERT_HOST};
};

TEST_F(HttpClient, GetLeavesStatusAndBody) {
    const LogCapture log;
    EXPECT_EQ(0, client.Get("a/b"));
    EXPECT_EQ(200, client.httpStatus);
    EXPECT_EQ("the answer", client.responseBody);
    EXPECT_EQ("GET /a/b HTTP/1.1", received().line);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(HttpClient, SendsNoHeadersButThese) {
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("Host: localhost:" + std::to_string(server.port()) + "\r\nAccept: application/json\r\n",
              received().headers);
}

TEST_F(HttpClient, PutSendsTheBody) {
    EXPECT_EQ(0, client.Put("a", "{}"));
    EXPECT_EQ("PUT /a HTTP/1.1", received().line);
    EXPECT_EQ("application/json", received().header("Content-Type"));
    EXPECT_EQ("{}", received().body);
}

TEST_F(HttpClient, PostSendsTheBody) {
    EXPECT_EQ(0, client.Post("a", "{}"));
    EXPECT_EQ("POST /a HTTP/1.1", received().line);
    EXPECT_EQ("application/json", received().header("Content-Type"));
    EXPECT_EQ("{}", received().body);
}

TEST_F(HttpClient, PatchSendsTheBody) {
    EXPECT_EQ(0, client.Patch("a", "{}"));
    EXPECT_EQ("PATCH /a HTTP/1.1", received().line);
    EXPECT_EQ("application/json", received().header("Content-Type"));
    EXPECT_EQ("{}", received().body);
}

TEST_F(HttpClient, DeleteSendsNoBody) {
    EXPECT_EQ(0, client.Delete("a"));
    EXPECT_EQ("DELETE /a HTTP/1.1", received().line);
    EXPECT_EQ("", received().header("Content-Length"));
}

TEST_F(HttpClient, AMethodLeavesNothingBehindForTheNextOnTheConnection) {
    EXPECT_EQ(0, client.Put("a", "text"));
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("GET /a HTTP/1.1", received().line);
    EXPECT_EQ("", received().header("Content-Length"));
    EXPECT_EQ(0, client.Delete("a"));
    EXPECT_EQ(0, client.Post("a", "more"));
    EXPECT_EQ("POST /a HTTP/1.1", received().line);
    EXPECT_EQ("more", received().body);
    EXPECT_EQ(1, server.connections());
}

TEST_F(HttpClient, AnEmptyBodyIsSentWithItsLengthAndWithoutAType) {
    for (int (AWClientCURL::*send)(const std::string&, const std::string&) :
         {&AWClientCURL::Put, &AWClientCURL::Post, &AWClientCURL::Patch}) {
        EXPECT_EQ(0, (client.*send)("a", ""));
        EXPECT_EQ("0", received().header("Content-Length"));
        EXPECT_THAT(received().headers, Not(HasSubstr("Content-Type")));
    }
}

TEST_F(HttpClient, ABodyMayHoldAnyByte) {
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes += static_cast<char>(value);
    }
    EXPECT_EQ(0, client.Post("a", bytes));
    EXPECT_EQ(bytes, received().body);
}

TEST_F(HttpClient, ALargeBodyIsSentWithoutAskingFirst) {
    const std::string body(3'000'000, 'x');
    EXPECT_EQ(0, client.Put("a", body));
    EXPECT_EQ("", received().header("Expect"));
    EXPECT_EQ(body, received().body);
}

TEST_F(HttpClient, TheLastAnswerMayBeTheNextBody) {
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ(0, client.Post("a", client.responseBody));
    EXPECT_EQ("the answer", received().body);
}

TEST_F(HttpClient, APathWithALeadingSlashIsThePathWithoutIt) {
    EXPECT_EQ(0, client.Get("/a/b"));
    EXPECT_EQ("GET /a/b HTTP/1.1", received().line);
}

TEST_F(HttpClient, AnEmptyPathIsTheRoot) {
    EXPECT_EQ(0, client.Get(""));
    EXPECT_EQ("GET / HTTP/1.1", received().line);
}

class OddPath : public HttpClient, public testing::WithParamInterface<const char*> {};

TEST_P(OddPath, ReachesTheServerAsItIs) {
    EXPECT_EQ(0, client.Get(GetParam()));
    EXPECT_EQ(std::string("GET ") + GetParam() + " HTTP/1.1", received().line);
    EXPECT_EQ("localhost:" + std::to_string(server.port()), received().header("Host"));
}

INSTANTIATE_TEST_SUITE_P(HttpClient, OddPath,
                         testing::Values("/@127.0.0.2/", "//127.0.0.2/a", "/a/../b", "/./a", "/https://127.0.0.2/",
                                         "/:1/a", "/a?b=c&d=%20", "/?a", "/%2F%00", "/a\\b"));

TEST_F(HttpClient, BytesBeyondAsciiArePercentEncoded) {
    EXPECT_EQ(0, client.Get("\xc3\xa4"));
    EXPECT_EQ("GET /%c3%a4 HTTP/1.1", received().line);
}

class UnusablePath : public HttpClient, public testing::WithParamInterface<std::string> {};

TEST_P(UnusablePath, IsRefusedBeforeAnythingIsSent) {
    const LogCapture log;
    EXPECT_EQ(platform_status::HTTP_REQUEST_UNUSABLE, client.Get(GetParam()));
    EXPECT_THAT(log.lines(),
                testing::ElementsAre(LogLine{16, "AWClientCURL::Get",
                                             "GET to localhost:" + std::to_string(server.port()) +
                                                 " failed: the HTTP request cannot be expressed: the path holds a "
                                                 "blank, a control character or a \"#\""}));
    EXPECT_EQ(0, server.connections());
}

INSTANTIATE_TEST_SUITE_P(HttpClient, UnusablePath,
                         testing::Values("a b", "a\r\nX: y", "a\nb", "a\tb", std::string("a\0b", 3), "a#b", "a\x7f"));

TEST_F(HttpClient, AnApiVersionIsPartOfTheMediaType) {
    client.setApiVersion("6.0");
    EXPECT_EQ(0, client.Post("a", "{}"));
    EXPECT_EQ("application/vnd.arkwell+json;version=6.0", received().header("Accept"));
    EXPECT_EQ("application/vnd.arkwell+json;version=6.0", received().header("Content-Type"));
}

TEST_F(HttpClient, AnApiVersionAddsNoContentTypeWithoutABody) {
    client.setApiVersion("6.0");
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("application/vnd.arkwell+json;version=6.0", received().header("Accept"));
    EXPECT_THAT(received().headers, Not(HasSubstr("Content-Type")));
}

TEST_F(HttpClient, AnEmptyApiVersionRestoresThePlainMediaType) {
    client.setApiVersion("6.0");
    client.setApiVersion("");
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("application/json", received().header("Accept"));
}

class UnusableVersion : public HttpClient, public testing::WithParamInterface<std::string> {};

TEST_P(UnusableVersion, FailsEveryRequestUntilItIsReplaced) {
    client.setApiVersion(GetParam());
    EXPECT_EQ(platform_status::HTTP_REQUEST_UNUSABLE, client.Get("a"));
    EXPECT_EQ(platform_status::HTTP_REQUEST_UNUSABLE, client.Post("a", "{}"));
    EXPECT_EQ(0, server.connections());
    client.setApiVersion("1.0");
    EXPECT_EQ(0, client.Get("a"));
}

INSTANTIATE_TEST_SUITE_P(HttpClient, UnusableVersion,
                         testing::Values("1\r\nX: y", "1\n", std::string("1\0", 2), "1 0", "1;q=0", "1,2", "\"1\""));

TEST_F(HttpClient, PostFileSendsTheFile) {
    const std::string path = fixture.directory() / "body";
    const std::string contents = std::string("\0{}\r\n", 5) + std::string(1'000'000, 'x');
    testing_support::writeFile(path, contents);
    EXPECT_EQ(0, client.PostFile("a", path));
    EXPECT_EQ("POST /a HTTP/1.1", received().line);
    EXPECT_EQ("application/json", received().header("Content-Type"));
    EXPECT_EQ(std::to_string(contents.size()), received().header("Content-Length"));
    EXPECT_EQ("", received().header("Expect"));
    EXPECT_EQ(contents, received().body);
}

TEST_F(HttpClient, PostFileSendsAnEmptyFile) {
    const std::string path = fixture.directory() / "body";
    testing_support::writeFile(path, "");
    EXPECT_EQ(0, client.PostFile("a", path));
    EXPECT_EQ("0", received().header("Content-Length"));
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("GET /a HTTP/1.1", received().line);
}

TEST_F(HttpClient, AnHttpErrorIsAnAnswer) {
    Server failing(fixture.options(), [](Connection& c) { c.answerAll(404, R"({"errorCode": 1})"); });
    AWClientCURL asking = HttpFixture::client(failing);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ(404, asking.httpStatus);
    EXPECT_EQ(R"({"errorCode": 1})", asking.responseBody);
}

TEST_F(HttpClient, AnAnswerWithoutABodyLeavesNoneOfTheOneBefore) {
    Server changing(fixture.options(), [](Connection& c) {
        c.read();
        c.answer(200, "text");
        c.read();
        c.write("HTTP/1.1 204 No Content\r\n\r\n");
        c.stall();
    });
    AWClientCURL asking = HttpFixture::client(changing);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ(0, asking.Delete("a"));
    EXPECT_EQ(204, asking.httpStatus);
    EXPECT_EQ("", asking.responseBody);
}

TEST_F(HttpClient, AChunkedBodyIsPutTogether) {
    Server chunking(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
        c.stall();
    });
    AWClientCURL asking = HttpFixture::client(chunking);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ("abcde", asking.responseBody);
}

TEST_F(HttpClient, HeadersMayFollowAChunkedBody) {
    Server trailing(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\nX-T: v\r\nX-U: w\r\n\r\n");
        c.answerAll(200, "more");
    });
    AWClientCURL asking = HttpFixture::client(trailing);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ(200, asking.httpStatus);
    EXPECT_EQ("abc", asking.responseBody);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ("more", asking.responseBody);
    EXPECT_EQ(1, trailing.connections());
}

TEST_F(HttpClient, TheAnswerComesAfterWhatOnlyAnnouncesIt) {
    for (const char* announcement : {"100 Continue", "103 Early Hints\r\nLink: </a>"}) {
        Server announcing(fixture.options(), [announcement](Connection& c) {
            c.read();
            c.write("HTTP/1.1 " + std::string(announcement) + "\r\n\r\n");
            c.answer(200, "the answer");
            c.stall();
        });
        AWClientCURL asking = HttpFixture::client(announcing);
        EXPECT_EQ(0, asking.Get("a")) << announcement;
        EXPECT_EQ(200, asking.httpStatus);
        EXPECT_EQ("the answer", asking.responseBody);
    }
}

TEST_F(HttpClient, ABodyWithoutALengthEndsWithTheConnection) {
    Server closing(fixture.options(), [](Connection& c) {
        c.read();
        c.write("HTTP/1.1 200 OK\r\n\r\nto the end");
    });
    AWClientCURL asking = HttpFixture::client(closing);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ("to the end", asking.responseBody);
}

TEST_F(HttpClient, FollowsNoRedirect) {
    const std::string elsewhere = "https://localhost:" + std::to_string(server.port()) + "/other";
    Server redirecting(fixture.options(), [&elsewhere](Connection& c) {
        c.read();
        c.answer(302, "", "Location: " + elsewhere + "\r\n");
        c.stall();
    });
    AWClientCURL asking = HttpFixture::client(redirecting);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ(302, asking.httpStatus);
    EXPECT_EQ(0, server.connections());
    EXPECT_THAT(redirecting.requests(), SizeIs(1));
}

TEST_F(HttpClient, SendsNoCookiesBack) {
    Server baking(fixture.options(), [](Connection& c) {
        while (c.read() && c.answer(200, "", "Set-Cookie: a=b\r\n")) {
        }
    });
    AWClientCURL asking = HttpFixture::client(baking);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ("", baking.requests().back().header("Cookie"));
}

TEST_F(HttpClient, ShowsTheIssuersThatStandBehindTheHostsCertificate) {
    const testing_support::CertificateAuthority between("an issuer in between", fixture.authority);
    testing_support::Certificate host = between.issue();
    host.certificate += between.certificate();
    fixture.useHostCertificate(host);
    Server::Options options = fixture.options();
    options.clientAuthority = fixture.authority.certificate();
    const Server asking(options, [](Connection& c) { c.answerAll(200, "the answer"); });
    EXPECT_EQ(0, HttpFixture::client(asking).Get("a"));
}

TEST_F(HttpClient, UsesNoProxyOfTheEnvironment) {
    const ScopedEnvironment lower("https_proxy", "http://127.0.0.1:1/");
    const ScopedEnvironment upper("HTTPS_PROXY", "http://127.0.0.1:1/");
    const ScopedEnvironment all("ALL_PROXY", "http://127.0.0.1:1/");
    EXPECT_EQ(0, client.Get("a"));
}

TEST_F(HttpClient, UsesNoNetrc) {
    testing_support::writeFile(fixture.directory() / ".netrc", "machine localhost login me password secret\n");
    const ScopedEnvironment home("HOME", fixture.directory().path().c_str());
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("", received().header("Authorization"));
}

TEST_F(HttpClient, ReachesAServerByItsAddress) {
    AWClientCURL asking("127.0.0.1", server.port(), SESSION_SERVICE, CERT_HOST);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ("127.0.0.1:" + std::to_string(server.port()), received().header("Host"));
}

class Ipv6Address : public HttpClient, public testing::WithParamInterface<const char*> {};

TEST_P(Ipv6Address, ReachesAServer) {
    if (!testing_support::hasIpv6Loopback()) {
        GTEST_SKIP() << "this machine has no IPv6";
    }
    Server::Options options = fixture.options();
    options.version = testing_support::IpVersion::V6;
    Server six(options, [](Connection& c) { c.answerAll(200, "the answer"); });
    AWClientCURL asking(GetParam(), six.port(), SESSION_SERVICE, CERT_HOST);
    EXPECT_EQ(0, asking.Get("a"));
    EXPECT_EQ("the answer", asking.responseBody);
    EXPECT_EQ("[::1]:" + std::to_string(six.port()), six.requests().front().header("Host"));
}

INSTANTIATE_TEST_SUITE_P(HttpClient, Ipv6Address, testing::Values("::1", "[::1]"));

TEST_F(HttpClient, ShowsTheHostsCertificate) {
    Server::Options asking = fixture.options();
    asking.clientAuthority = fixture.authority.certificate();
    Server strict(asking, [](Connection& c) { c.answerAll(200, "known"); });
    AWClientCURL known = HttpFixture::client(strict);
    EXPECT_EQ(0, known.Get("a"));
    EXPECT_EQ("known", known.responseBody);
}

TEST_F(HttpClient, NeedsNoCertificateOfItsOwnWhereNoneIsToBeShown) {
    fixture.settings().replace(R"({"tls": {"caFile": ")" + fixture.caFile() + R"("}})");
    AWClientCURL anonymous("localhost", server.port(), SESSION_SERVICE, CERT_NONE);
    EXPECT_EQ(0, anonymous.Get("a"));
}

TEST_F(HttpClient, TakesAnAnswerAsLargeAsTheLimit) {
    fixture.useSettings(R"({"maxResponseBytes": 10})");
    EXPECT_EQ(0, client.Get("a"));
    EXPECT_EQ("the answer", client.responseBody);
}

TEST_F(HttpClient, FactoriesMakeClients) {
    AWClientCURLFactory factory(CERT_HOST);
    AWClientCURL_BaseFactory& base = factory;
    const std::unique_ptr<AWClientCURL_Base> made(base.create("localhost", server.port(), SESSION_SERVICE));
    EXPECT_EQ(0, made->httpStatus);
    EXPECT_EQ("", made->responseBody);
    EXPECT_EQ(0, made->Get("a"));
    EXPECT_EQ(200, made->httpStatus);
    EXPECT_EQ("the answer", made->responseBody);
}

TEST_F(HttpClient, AFactorysClientsShowItsCertificate) {
    Server::Options asking = fixture.options();
    asking.clientAuthority = fixture.authority.certificate();
    Server strict(asking, [](Connection& c) { c.answerAll(200, "known"); });
    const std::unique_ptr<AWClientCURL_Base> known(
        AWClientCURLFactory(CERT_HOST).create("localhost", strict.port(), SESSION_SERVICE));
    const std::unique_ptr<AWClientCURL_Base> anonymous(
        AWClientCURLFactory(CERT_NONE).create("localhost", strict.port(), SESSION_SERVICE));
    EXPECT_EQ(0, known->Get("a"));
    EXPECT_EQ(platform_status::HTTP_CLIENT_CERTIFICATE_REFUSED, anonymous->Get("a"));
}

}  // namespace
