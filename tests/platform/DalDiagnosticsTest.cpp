#include "platform/DalDiagnostics.h"

#include <gtest/gtest.h>

namespace {

using Tesmor::Dal::detail::Redaction;

std::string withoutCredentials(const std::string& connectionString, const std::string& message) {
    Redaction redaction;
    redaction.hideCredentials(connectionString);
    return redaction.applyTo(message);
}

std::string without(const std::string& secret, const std::string& message) {
    Redaction redaction;
    redaction.hide(secret);
    return redaction.applyTo(message);
}

TEST(DalDiagnosticsTest, AMessageWithoutSecretsStaysAsItIs) {
    EXPECT_EQ(without("secret", "some message"), "some message");
    EXPECT_EQ(without("", "some message"), "some message");
    EXPECT_EQ(without("secret", ""), "");
}

TEST(DalDiagnosticsTest, EveryOccurrenceIsHidden) {
    EXPECT_EQ(without("key", "key akeyb key"), "*** a***b ***");
}

TEST(DalDiagnosticsTest, ASecretAsItIsWrittenInSqlIsHidden) {
    EXPECT_EQ(without("it's", "VALUES ('it''s')"), "VALUES ('***')");
    EXPECT_EQ(without("a\\b'c", R"(E'a\\b''c')"), "E'***'");
}

TEST(DalDiagnosticsTest, ASecretThatIsCutShortIsHidden) {
    EXPECT_EQ(without("0123456789", "value \"01234567\""), "value \"***\"");
}

TEST(DalDiagnosticsTest, AFewBytesAsASecretBeginsAreNotASecret) {
    EXPECT_EQ(without("0123456789", "value \"0123456\""), "value \"0123456\"");
}

TEST(DalDiagnosticsTest, TheLongestOfSeveralSecretsIsHidden) {
    Redaction redaction;
    redaction.hide("ab");
    redaction.hide("abcd");
    EXPECT_EQ(redaction.applyTo("abcd ab"), "*** ***");
}

TEST(DalDiagnosticsTest, AConnectionStringIsHiddenAsAWhole) {
    EXPECT_EQ(withoutCredentials("Driver=x;Port=1", "cannot use Driver=x;Port=1."), "cannot use ***.");
}

TEST(DalDiagnosticsTest, CredentialsAreHidden) {
    for (const char* key : {"PWD", "pwd", "Password", "UID", "User", "UserName", "User ID", " pWd ", "pqopt"}) {
        const std::string connectionString = "Driver=x;" + std::string(key) + "=hidden;Port=1";
        EXPECT_EQ(withoutCredentials(connectionString, "x hidden 1"), "x *** 1") << key;
    }
}

TEST(DalDiagnosticsTest, CredentialsInBracesAreHidden) {
    EXPECT_EQ(withoutCredentials("PWD={a;b}}c};Port=1", "got a;b}c 1"), "got *** 1");
    EXPECT_EQ(withoutCredentials("PWD={unfinished", "got unfinished"), "got ***");
    EXPECT_EQ(withoutCredentials("A={x;PWD=no};UID=yes", "no yes"), "no ***");
}

TEST(DalDiagnosticsTest, AStrangeConnectionStringHidesWhatItCan) {
    EXPECT_EQ(withoutCredentials(";;=;PWD;PWD=;UID=hidden", "x hidden"), "x ***");
    EXPECT_EQ(withoutCredentials("PWD=hidden", "x hidden"), "x ***");
}

}  // namespace
