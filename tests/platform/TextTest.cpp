#include <platform/Status.h>
#include <platform/Text.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>

namespace {

const std::string UNRESERVED = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";

std::string allBytes() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string encode(const std::string& text) {
    std::string out = "before";
    EXPECT_EQ(0, percentEncodeUriPart(text, out));
    return out;
}

std::string decode(const std::string& text) {
    std::string out = "before";
    EXPECT_EQ(0, percentDecodeUriPart(text, out));
    return out;
}

TEST(PercentEncodeUriPart, KeepsTheUnreservedCharacters) {
    EXPECT_EQ(UNRESERVED, encode(UNRESERVED));
}

TEST(PercentEncodeUriPart, WritesEveryOtherByteInUpperCaseHexadecimal) {
    for (const char c : allBytes()) {
        if (UNRESERVED.find(c) == std::string::npos) {
            char expected[8];
            std::snprintf(expected, sizeof expected, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
            EXPECT_EQ(expected, encode(std::string(1, c)));
        }
    }
}

TEST(PercentEncodeUriPart, EncodesTheTextOfANamespace) {
    EXPECT_EQ("%7Ca%2Bb%257Cc%7C", encode("|a+b%7Cc|"));
}

TEST(PercentEncodeUriPart, LeavesAnEmptyTextEmpty) {
    EXPECT_EQ("", encode(""));
}

TEST(PercentEncodeUriPart, MayWriteOverItsInput) {
    std::string text = "a b";
    EXPECT_EQ(0, percentEncodeUriPart(text, text));
    EXPECT_EQ("a%20b", text);
}

TEST(PercentDecodeUriPart, ReadsBackEveryEncodedByte) {
    EXPECT_EQ(allBytes(), decode(encode(allBytes())));
}

TEST(PercentDecodeUriPart, TakesHexadecimalDigitsOfEitherCase) {
    EXPECT_EQ("|\xE9|\xE9", decode("%7C%E9%7c%e9"));
}

TEST(PercentDecodeUriPart, TurnsPlusIntoASpace) {
    EXPECT_EQ("a b|c", decode("a+b%7Cc"));
}

TEST(PercentDecodeUriPart, KeepsEveryOtherByte) {
    std::string others = allBytes();
    others.erase(others.find('%'), 1);
    others.erase(others.find('+'), 1);
    EXPECT_EQ(others, decode(others));
}

TEST(PercentDecodeUriPart, DecodesOnlyOnce) {
    EXPECT_EQ("%41", decode("%2541"));
}

TEST(PercentDecodeUriPart, LeavesAnEmptyTextEmpty) {
    EXPECT_EQ("", decode(""));
}

TEST(PercentDecodeUriPart, MayWriteOverItsInput) {
    std::string text = "a%20b";
    EXPECT_EQ(0, percentDecodeUriPart(text, text));
    EXPECT_EQ("a b", text);
}

class MalformedPercentText : public testing::TestWithParam<const char*> {};

TEST_P(MalformedPercentText, IsRefusedAndLeavesTheOutputAlone) {
    std::string out = "before";
    EXPECT_EQ(platform_status::TEXT_MALFORMED, percentDecodeUriPart(GetParam(), out));
    EXPECT_EQ("before", out);
}

INSTANTIATE_TEST_SUITE_P(PercentDecodeUriPart, MalformedPercentText,
                         testing::Values("%", "%4", "%4G", "%G4", "a%", "a%4", "%%41", "%4%41", "% 41", "%-1", "%+1",
                                         "%0x", "%4\xE9", "%41%"));

TEST(ExtractErrorFromJSON, ReadsTheErrorCode) {
    int code = -1;
    EXPECT_EQ(0, extractErrorFromJSON(R"({"errorCode": 8000, "errorMessage": "x", "errorDetails": ["a"]})", code));
    EXPECT_EQ(8000, code);
}

TEST(ExtractErrorFromJSON, ReadsTheLargestAndTheSmallestCode) {
    int code = 0;
    EXPECT_EQ(0, extractErrorFromJSON(R"({"errorCode": 2147483647})", code));
    EXPECT_EQ(INT_MAX, code);
    EXPECT_EQ(0, extractErrorFromJSON(R"({"errorCode": -2147483648})", code));
    EXPECT_EQ(INT_MIN, code);
}

class BodyThatIsNoObject : public testing::TestWithParam<const char*> {};

TEST_P(BodyThatIsNoObject, IsMalformedAndLeavesTheCodeAlone) {
    int code = 77;
    EXPECT_EQ(platform_status::JSON_MALFORMED, extractErrorFromJSON(GetParam(), code));
    EXPECT_EQ(77, code);
}

INSTANTIATE_TEST_SUITE_P(ExtractErrorFromJSON, BodyThatIsNoObject,
                         testing::Values("", "not found", "[]", R"([{"errorCode": 1}])", "1", R"({"errorCode": 1)",
                                         R"({"errorCode": 1} x)", R"({"errorCode": 01})",
                                         "{\"errorCode\": 1, \"\xE9\": 1}"));

class BodyWithoutACode : public testing::TestWithParam<const char*> {};

TEST_P(BodyWithoutACode, LacksTheMemberAndLeavesTheCodeAlone) {
    int code = 77;
    EXPECT_EQ(platform_status::JSON_MEMBER_MISSING, extractErrorFromJSON(GetParam(), code));
    EXPECT_EQ(77, code);
}

INSTANTIATE_TEST_SUITE_P(ExtractErrorFromJSON, BodyWithoutACode,
                         testing::Values("{}", R"({"errorcode": 1})", R"({"error": {"errorCode": 1}})",
                                         R"({"errorCode": "1"})", R"({"errorCode": 1.0})", R"({"errorCode": true})",
                                         R"({"errorCode": null})", R"({"errorCode": [1]})",
                                         R"({"errorCode": 2147483648})", R"({"errorCode": -2147483649})",
                                         R"({"errorCode": 4294967297})", R"({"errorCode": 99999999999999999999})"));

}  // namespace
