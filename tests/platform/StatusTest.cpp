#include <platform/Status.h>

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

namespace {

const std::map<int, std::string> TEXTS = {
    {0, "success"},
    {10, "base64 decoding failed"},
    {12, "a file cannot be opened or is not valid"},
    {13, "a file cannot be read"},
    {20, "a required argument is missing or not valid"},
    {36, "out of memory"},
    {114, "the request failed unexpectedly"},
    {117, "the session token is unknown to the authorization database"},
    {220, "the authorization database failed"},
    {7610, "a JSON document is malformed or incomplete"},
    {8001, "the token has expired"},
    {8002, "the token is not valid"},
    {8007, "the public key cannot be used"},
    {8022, "the registration failed and was rolled back"},
    {8023, "the unregistration failed and was undone"},
    {8024, "the final state could not be committed"},
    {8025, "the rollback failed"},
    {8030, "the bulk state update failed"},
    {9103, "a JSON document holds an unexpected value"},
    {9501, "the file lock was not granted in time"},
    {9502, "the lock file cannot be opened, made or locked"},
    {9503, "the file lock's mode is neither shared nor exclusive"},
    {9511, "the settings file cannot be read"},
    {9512, "the settings file is damaged"},
    {9513, "a required setting is missing"},
    {9514, "a setting is too long"},
    {9521, "the percent-encoded text is malformed"},
    {9522, "the error body is not a JSON object"},
    {9523, "the error body has no usable error code"},
    {9531, "no authorization database is configured"},
    {9532, "no connection to the authorization database can be made"},
    {9533, "no connection to the authorization database became free in time"},
    {9534, "the authorization database refused a statement"},
    {9535, "the authorization database did not answer in time"},
    {9536, "the connection to the authorization database is lost"},
    {9537, "a row cannot be fetched from the authorization database"},
    {9538, "a value in the authorization database is too long"},
    {9539, "a value in the authorization database is not of the expected kind"},
    {9540, "the data-access layer was called with arguments that it cannot use"},
    {9551, "the HTTP request cannot be expressed"},
    {9552, "the file to send cannot be read"},
    {9553, "the server's name cannot be resolved"},
    {9554, "the server refused the connection"},
    {9555, "the server cannot be reached"},
    {9556, "the connection to the server was not made in time"},
    {9557, "the server did not answer in time"},
    {9558, "the file of trusted certificate issuers cannot be used"},
    {9559, "the host's certificate or key cannot be used"},
    {9560, "the server refused the host's certificate"},
    {9561, "the issuer of the server's certificate is not trusted"},
    {9562, "the server's certificate is for another name"},
    {9563, "the server's certificate has expired"},
    {9564, "the server's certificate is not valid yet"},
    {9565, "the server's certificate is not acceptable"},
    {9566, "no secure connection to the server can be agreed"},
    {9567, "the server closed the connection without an answer"},
    {9568, "the server's answer is malformed or cut short"},
    {9569, "the server's answer is too large"},
    {9570, "the HTTP client ran out of memory"},
    {9571, "the HTTP request failed"},
    {2007031, "there are no more rows"},
};

TEST(Status, EveryStatusOfTheProductHasItsText) {
    for (const auto& [status, text] : TEXTS) {
        EXPECT_EQ(text, getECmsg(status));
    }
}

TEST(Status, NoTwoStatusesShareAText) {
    std::set<std::string> texts;
    for (const auto& [status, text] : TEXTS) {
        EXPECT_TRUE(texts.insert(getECmsg(status)).second) << status;
    }
}

TEST(Status, OneWithoutATextIsAnsweredWithItsNumber) {
    EXPECT_EQ("unknown status 1", getECmsg(1));
    EXPECT_EQ("unknown status -1", getECmsg(-1));
    EXPECT_EQ("unknown status 2147483647", getECmsg(INT_MAX));
    EXPECT_EQ("unknown status -2147483648", getECmsg(INT_MIN));
}

TEST(EcException, CarriesItsStatusAndTheStatussMessage) {
    const EC_exception failure(7610);
    EXPECT_EQ(7610, failure.status);
    EXPECT_STREQ("a JSON document is malformed or incomplete", failure.what());
}

TEST(EcException, HasAMessageForAStatusThatNobodyKnows) {
    EXPECT_STREQ("unknown status 8000", EC_exception(8000).what());
}

TEST(EcException, IsCaughtAsARuntimeError) {
    std::string text;
    try {
        throw EC_exception(8001);
    } catch (const std::runtime_error& failure) {
        text = failure.what();
    }
    EXPECT_EQ("the token has expired", text);
}

}  // namespace
