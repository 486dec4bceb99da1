#include "rbac/rest/Rbac2Curl.h"
#include "testing/LogCapture.h"

#include <platform/Text.h>
#include <rbac/EC_exception.h>

#include <gmock/gmock.h>

// The platform's encoder, replaced by one that fails, as a program may put its own in front of it.
int percentEncodeUriPart(const std::string& /*text*/, std::string& /*encoded*/) {
    return 77;
}

TEST(EncodeUriPartTest, ReportsTheStatusOfTheEncoder) {
    const testing_support::LogCapture log;
    try {
        Tesmor::Arkwell::Rbac::encode_uri_part("a b");
        FAIL();
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 77);
    }
    EXPECT_THAT(log.lines(), testing::ElementsAre(testing_support::LogLine{16, "rbac2_encode_uri_part",
                                                                           "Failed to encode. str=a b, status=77"}));
}
