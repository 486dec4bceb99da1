#include "HttpFixture.h"
#include "testing/FailingAllocations.h"
#include "testing/LogCapture.h"

#include <platform/HttpClient.h>
#include <platform/Status.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using Server = HttpFixture::Server;
using Connection = HttpFixture::Connection;

TEST(HttpOutOfMemory, IsAStatusWhereverItHappens) {
    const HttpFixture fixture;
    const Server server(fixture.options(), [](Connection& c) { c.answerAll(200, "the answer"); });
    const testing_support::LogCapture capture;
    const std::string path = "a/path/of/some/length/below/the/root";
    const std::string body = "a body of some length, so that it is not kept inside the string itself";
    int status = 0;
    AWClientCURL client = HttpFixture::client(server);
    const int failures = testing_support::failEachOnce(
        [&] { status = client.Put(path, body); },
        [&](bool thrown) {
            EXPECT_FALSE(thrown);
            EXPECT_TRUE(status == 0 || status == platform_status::HTTP_OUT_OF_MEMORY) << status;
        });
    EXPECT_GT(failures, 5);
    EXPECT_EQ(0, status);
    EXPECT_EQ("the answer", client.responseBody);
}

}  // namespace
