#include "sandbox/MediaType.h"

#include <gtest/gtest.h>

using namespace Tesmor::Arkwell::Sandbox;

TEST(ServiceMediaTypeTest, TakesPlainJson) {
    for (const char* type : {"application/json", "Application/JSON", "application/json; charset=utf-8",
                             "application/json ; charset=\"UTF-8\""}) {
        EXPECT_TRUE(isMediaTypeTaken(type)) << type;
    }
}

TEST(ServiceMediaTypeTest, TakesItsOwnTypeInVersionsUpToTheNewest) {
    for (const char* type :
         {"application/vnd.arkwell+json", "application/vnd.arkwell+json;version=6.0",
          "application/vnd.arkwell+json; version=5.9", "application/vnd.arkwell+json;version=1.0",
          "application/vnd.arkwell+json;version=\"2.0\"", "application/vnd.arkwell+json;version=3"}) {
        EXPECT_TRUE(isMediaTypeTaken(type)) << type;
    }
}

TEST(ServiceMediaTypeTest, TakesNothingElse) {
    for (const char* type : {"", "text/json", "application/vnd.arkwell+octet-stream;version=6.0",
                             "application/vnd.arkwell+json;version=6.1", "application/vnd.arkwell+json;version=7.0",
                             "application/vnd.arkwell+json;version=0.9", "application/vnd.arkwell+json;version=",
                             "application/vnd.arkwell+json;version=6.", "application/vnd.arkwell+json;version=.6",
                             "application/vnd.arkwell+json;version=6.0.1", "application/vnd.arkwell+json;version=-6",
                             "application/vnd.arkwell+json;version=99999", "application/json;charset=latin1"}) {
        EXPECT_FALSE(isMediaTypeTaken(type)) << type;
    }
}

TEST(ServiceMediaTypeTest, AnswersInPlainJsonUnlessMoreIsAsked) {
    for (const char* accept : {"", "*/*", "application/*", "application/json", "text/html, */*;q=0.1"}) {
        EXPECT_EQ(mediaTypeFor(accept), "application/json") << accept;
    }
}

TEST(ServiceMediaTypeTest, AnswersInTheVersionThatIsAsked) {
    EXPECT_EQ(mediaTypeFor("application/vnd.arkwell+json;version=5.0"), "application/vnd.arkwell+json;version=5.0");
    EXPECT_EQ(mediaTypeFor("application/vnd.arkwell+json"), "application/vnd.arkwell+json;version=6.0");
    EXPECT_EQ(mediaTypeFor("application/vnd.arkwell+json;version=7.0, application/vnd.arkwell+json;version=6.0"),
              "application/vnd.arkwell+json;version=6.0");
}

TEST(ServiceMediaTypeTest, HasNoAnswerInOtherTypes) {
    for (const char* accept :
         {"text/html", "application/vnd.arkwell+json;version=7.0", "application/json;q=0", "application/json;q=0.0"}) {
        EXPECT_EQ(mediaTypeFor(accept), "") << accept;
    }
}
