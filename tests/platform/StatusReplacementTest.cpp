#include <platform/Status.h>

#include <gtest/gtest.h>

// The program's own function, in front of the library's.
std::string getECmsg(int status) {
    return "the program's text for " + std::to_string(status);
}

namespace {

TEST(StatusReplacement, TheProgramsOwnMessagesReachTheLibrarysExceptions) {
    EXPECT_STREQ("the program's text for 8002", EC_exception(8002).what());
}

}  // namespace
