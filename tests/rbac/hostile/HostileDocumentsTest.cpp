#include "HostileServiceFixture.h"

#include <platform/Status.h>
#include <rbac/RoleAPI.h>

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>

// Answers that are HTTP beyond reproach, with a body that is not what was asked for.

namespace {

using namespace testing_support;
using testing::Contains;
using testing::Field;
using testing::HasSubstr;

/// A server that answers each request with the status of a success and this body.
TlsServer::Script succeedingWith(const std::string& body) {
    return [body](TlsConnection& connection) {
        while (const auto request = connection.read()) {
            connection.answer(honestAnswer(*request).status, body);
        }
    };
}

/// A server that answers every request like this.
TlsServer::Script refusingWith(int status, const std::string& body, const std::string& headers = "") {
    return [=](TlsConnection& connection) {
        while (connection.read()) {
            connection.answer(status, body, headers);
        }
    };
}

/// A server that answers honestly until the requests of this path, to which it has this to say.
TlsServer::Script honestExceptFor(const std::string& path, const std::string& bytes) {
    return [=](TlsConnection& connection) {
        while (const auto request = connection.read()) {
            if (request->line.find(path) != std::string::npos) {
                connection.write(bytes);
                return;
            }
            connection.write(honestBytes(*request));
        }
    };
}

std::string repeated(int count, const std::string& text) {
    std::string all;
    all.reserve(text.size() * static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

struct Document {
    const char* name;
    std::string body;
};

class HostileDocument : public HostileServiceFixture {
protected:
    HostileDocument() { useLimits(seconds(20), seconds(30), MEGABYTE); }
};

/// What is no JSON document.
class NoDocument : public HostileDocument, public testing::WithParamInterface<Document> {};

TEST_P(NoDocument, IsUnreadableForWhoeverReadsIt) {
    serve(succeedingWith(GetParam().body));
    expectOutcomes([](const ServiceCall& call) { return outcomeWith(call, call.unreadable); });
}

constexpr char ROLE_WITH[] = R"({"data":{"type":"accessControlRole","id":"7","attributes":{"name":")";
constexpr char END[] = "\"}}}";

const Document NO_DOCUMENTS[] = {
    {"Nothing", ""},
    {"Null", "null"},
    {"ANumber", "42"},
    {"AWebPage", "<!DOCTYPE html><html></html>"},
    {"AnotherEncoding", std::string("{\0}\0", 4)},
    {"AByteOrderMark", "\xef\xbb\xbf{}"},
    {"ACompressedOne", "\x1f\x8b\x08"},
    {"AHundredThousandOpenArrays", repeated(100'000, "[")},
    {"AHundredThousandArrays", repeated(100'000, "[") + repeated(100'000, "]")},
    {"AHundredThousandObjects", repeated(100'000, R"({"data":)") + "1" + repeated(100'000, "}")},
    {"ANumberBeyondAllIntegers", R"({"data":99999999999999999999})"},
    {"ANumberBeyondAllReals", R"({"data":1e999})"},
    {"NotANumber", R"({"data":NaN})"},
    {"NotUtf8", std::string(ROLE_WITH) + "\xff\xfe" + END},
    {"AnOverlongCharacter", std::string(ROLE_WITH) + "\xc0\xaf" + END},
    {"HalfAPair", std::string(ROLE_WITH) + R"(\ud800)" + END},
    {"AnEscapedNul", std::string(ROLE_WITH) + R"(\u0000)" + END},
    {"ANulInIt", std::string(ROLE_WITH) + std::string(1, '\0') + END},
    {"AStringWithoutEnd", ROLE_WITH + std::string(900'000, 'x')},
    {"MoreThanADocument", R"({"data":{}}{"data":{}})"},
    {"AnEmptyObject", "{}"},
    {"AnEmptyArray", "[]"},
    {"DataInCapitals", R"({"DATA":{}})"},
};

INSTANTIATE_TEST_SUITE_P(HostileService, NoDocument, testing::ValuesIn(NO_DOCUMENTS),
                         [](const auto& document) { return document.param.name; });

/// Documents of a shape that some may read, and how the calls end that do not fail as they do for any other.
struct Shape {
    const char* name;
    std::string body;
    std::map<std::string, std::string> others;
};

class WrongShape : public HostileDocument, public testing::WithParamInterface<Shape> {};

TEST_P(WrongShape, IsRefusedByThoseWhoCannotReadIt) {
    serve(succeedingWith(GetParam().body));
    expectOutcomes([](const ServiceCall& call) {
        const auto other = GetParam().others.find(call.name);
        return other == GetParam().others.end() ? outcomeWith(call, call.unreadable) : other->second;
    });
}

const std::string NO_LIST = "returned 0";  // what is no array has no elements
const std::string OTHER = "threw 9103";
const std::string NO_TEXT = "threw bad_lexical_cast";

const Shape SHAPES[] = {
    {"DataThatIsNull",
     R"({"data":null})",
     {{"get_roles", NO_LIST}, {"get_access_definitions", NO_LIST}, {"get_operations", NO_LIST}}},
    {"DataThatIsAString",
     R"({"data":"accessCache"})",
     {{"get_roles", NO_LIST}, {"get_access_definitions", NO_LIST}, {"get_operations", NO_LIST}}},
    {"DataThatIsAnEmptyArray",
     R"({"data":[]})",
     {{"get_roles", NO_LIST},
      {"get_access_definitions", NO_LIST},
      {"get_operations", NO_LIST},
      {"bulkRegisterObjects", "returned 0"}}},
    {"ElementsThatAreArrays", R"({"data":[[[]]]})", {}},
    {"ElementsThatAreNumbers", R"({"data":[)" + repeated(50'000, "1,") + "1]}", {}},
    {"EverythingANumber",
     R"({"data":{"type":1,"id":2,"links":3,"attributes":4,"relationships":5}})",
     {{"get_roles", NO_LIST}, {"get_access_definitions", NO_LIST}, {"get_operations", NO_LIST}}},
    {"OfAnotherType",
     R"({"data":[{"type":"x","id":"|A|","attributes":{"name":"n","inherit":true,"state":"READY"}}]})",
     {{"get_roles", OTHER}, {"get_operations", OTHER}, {"bulkRegisterObjects", "returned 0"}}},
    {"RolesBeyondAllIds",
     R"({"data":[{"type":"accessControlRole","id":"2147483648","attributes":{"name":"n"}}]})",
     {{"get_roles", OTHER}, {"get_operations", OTHER}, {"bulkRegisterObjects", "returned 114"}}},
    {"ARoleBelowAllIds",
     R"({"data":{"type":"accessControlRole","id":"-1","attributes":{"name":"n"}}})",
     {{"get_roles", NO_LIST},
      {"get_role", OTHER},
      {"create_role", OTHER},
      {"get_access_definitions", NO_LIST},
      {"get_operations", NO_LIST},
      {"registerObject", "returned 114"}}},
    {"IdsThatAreNoNamespaces",
     R"({"data":[{"type":"accessControlOperation","id":"|%4|"}]})",
     {{"get_operations", NO_TEXT}, {"bulkRegisterObjects", "returned 114"}}},
    {"TheSameMemberTwice",
     R"({"data":{"type":"accessCache","id":"abc","id":"../abc"}})",
     {{"get_roles", NO_LIST},
      {"get_access_definitions", NO_LIST},
      {"get_operations", NO_LIST},
      {"registerObject", "returned 114"}}},
};

INSTANTIATE_TEST_SUITE_P(HostileService, WrongShape, testing::ValuesIn(SHAPES),
                         [](const auto& shape) { return shape.param.name; });

class HostileDocumentTest : public HostileDocument {
protected:
    std::string outcomeOfCreate(const std::string& id) {
        serve(succeedingWith(R"({"data":{"type":"accessCache","id":")" + id + "\"}}"));
        return outcomeOf(callNamed("create"));
    }
};

TEST_F(HostileDocumentTest, LeadsNobodyOutOfTheFolderOfTheCaches) {
    const LogCapture log;
    writeFile(caches() + "/../manifest.json", R"({"namespace":"|"})");
    EXPECT_EQ(outcomeOfCreate("../abc"), "returned 7610");
    EXPECT_EQ(outcomeOfCreate(R"(..\\abc)"), "returned 7610");
    EXPECT_EQ(outcomeOfCreate(R"(\u002e\u002e\u002fabc)"), "returned 7610");
    EXPECT_EQ(outcomeOfCreate("/etc"), "returned 7610");
    EXPECT_EQ(outcomeOfCreate(".."), "returned 12");
    EXPECT_EQ(outcomeOfCreate("."), "returned 12");
    EXPECT_EQ(outcomeOfCreate(""), "returned 12");
    EXPECT_EQ(outcomeOfCreate("%2e%2e%2fabc"), "returned 12");
    EXPECT_EQ(outcomeOfCreate(std::string(500'000, 'x')), "returned 12");
    std::filesystem::remove(caches() + "/../manifest.json");
}

// docs/http-client.md tells the factor.
TEST_F(HostileDocumentTest, TakesNoMoreThanAHundredTimesItsSize) {
    for (const char* element : {"[],", "{},", "{\"\":{}},", "\"\",", "[1],", "1,"}) {
        const std::string body =
            R"({"data":[)" + repeated(static_cast<int>(MEGABYTE / std::strlen(element)) - 10, element) + "0]}";
        serve(succeedingWith(body));
        const LogCapture log;
        const Costs costs = costsOf([] { EXPECT_EQ(outcomeOf(callNamed("get_role")), "threw 7610"); });
        EXPECT_LT(costs.time, BUSY);
#ifndef __SANITIZE_ADDRESS__
        const long factor = costs.bytes / static_cast<long>(body.size());
        std::printf("%s: %ld times its size\n", element, factor);
        EXPECT_LE(factor, 100) << element;
#endif
    }
}

TEST_F(HostileDocumentTest, IsReadUpToANul) {
    serve([](TlsConnection& connection) {
        while (const auto request = connection.read()) {
            const HonestAnswer answer = honestAnswer(*request);
            connection.answer(answer.status, answer.body + std::string("\0[[[", 4));
        }
    });
    expectStatus(0);
}

/// An answer, and another one that nobody has asked for behind it.
class SmuggledAnswer : public HostileDocument, public testing::WithParamInterface<bool> {};

TEST_P(SmuggledAnswer, IsNotTakenForTheNextOne) {
    const bool apart = GetParam();
    const std::string role = R"({"data":{"type":"accessControlRole","id":"666","attributes":{"name":""}}})";
    const std::string smuggled =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(role.size()) + "\r\n\r\n" + role;
    serve([&](TlsConnection& connection) {
        if (connection.number() == 1 && connection.read()) {
            const std::string first = "HTTP/1.1 204 No Content\r\n\r\n";
            connection.write(apart ? first : first + smuggled);
            if (apart) {
                connection.write(smuggled);
            }
        }
        honest()(connection);
    });
    Tesmor::Arkwell::Rbac::RoleAPI roles;
    for (int i = 0; i < 3; ++i) {
        roles.delete_role_by_id(7);
        usleep(50'000);
        EXPECT_EQ(roles.get_role(7).id, 7);
    }
    server.reset();
}

INSTANTIATE_TEST_SUITE_P(HostileService, SmuggledAnswer, testing::Bool(),
                         [](const auto& apart) { return apart.param ? "InARecordOfItsOwn" : "InTheSameRecord"; });

TEST_F(HostileDocumentTest, OfFifteenThousandRolesIsReadWhole) {
    const std::string role = R"({"type":"accessControlRole","id":"7","attributes":{"name":""}},)";
    serve(succeedingWith(R"({"data":[)" + repeated(15'000, role) + role.substr(0, role.size() - 1) + "]}"));
    const LogCapture log;
    const Costs costs = costsOf([] { EXPECT_EQ(outcomeOf(callNamed("get_roles")), "returned 0"); });
    EXPECT_LT(costs.time, BUSY);
}

TEST_F(HostileDocumentTest, BreaksNoLineOfTheLog) {
    const std::string file = fixture.directory() / "log";
    fixture.useSettings("{}", R"("primaryServer": "localhost", "log": {"file": ")" + file + "\"}");
    serve(succeedingWith(R"({"data":{"type":"x\n2026-01-01T00:00:00.000Z 16 1.1 [forged] line\r\u001b[2J","id":"7",)"
                         R"("attributes":{"name":""}}})"));
    EXPECT_EQ(outcomeOf(callNamed("get_role")), "threw 9103");
    const std::string log = readFile(file);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
    EXPECT_THAT(log,
                HasSubstr(R"(Unexpected response type: x\n2026-01-01T00:00:00.000Z 16 1.1 [forged] line\r\x1B[2J)"));
}

/// What a service may say instead of a success, without the reason that the interface has for it.
struct Refusal {
    const char* name;
    int status;
    std::string body;
    std::string headers = "";
    /// For those who want nothing but the code; 0: there is none.
    int code = 0;
};

class UnexplainedRefusal : public HostileDocument, public testing::WithParamInterface<Refusal> {};

TEST_P(UnexplainedRefusal, IsAFailureWithoutAReason) {
    const Refusal& refusal = GetParam();
    serve(refusingWith(refusal.status, refusal.body, refusal.headers));
    const TlsServer elsewhere(fixture.options(), honest());
    expectOutcomes([&](const ServiceCall& call) {
        return outcomeWith(call, call.unexplained == 9103 && refusal.code != 0 ? refusal.code : call.unexplained);
    });
    EXPECT_EQ(elsewhere.connections(), 0);
}

const Refusal REFUSALS[] = {
    {"AnEmptyBody", 500, ""},
    {"AWebPage", 502, "<html>Bad Gateway</html>"},
    {"AnotherSuccess", 202, "{}"},
    {"AnUnknownStatus", 999, "{}"},
    {"ACodeOfFourZeros", 404, R"({"errorCode":"0000"})"},
    {"ACodeThatIsAString", 400, R"({"errorCode":"5003","errorMessage":"x"})"},
    {"ACodeThatIsAReal", 400, R"({"errorCode":5003.0,"errorMessage":"x"})"},
    {"ACodeBeyondAllIntegers", 400, R"({"errorCode":99999999999999999999,"errorMessage":"x"})"},
    {"ACodeOfMoreThan32Bits", 400, R"({"errorCode":4294967296,"errorMessage":"x"})"},
    {"ACodeWithoutAMessage", 409, R"({"errorCode":5003})", "", 5003},
    {"AMessageThatIsAnObject", 409, R"({"errorCode":5003,"errorMessage":{}})", "", 5003},
    {"NestedArrays", 400, repeated(100'000, "[")},
    {"AMovedResource", 301, "", "Location: https://localhost:1/\r\n"},
    {"AResourceFoundElsewhere", 302, "", "Location: http://localhost/\r\n"},
    {"AResourceInAFile", 307, "", "Location: file:///etc/passwd\r\n"},
    {"ALoop", 308, "", "Location: /arkwell/access-control/roles\r\n"},
    {"AQuestionForAPassword", 401, "", "WWW-Authenticate: Basic realm=\"x\"\r\n"},
    {"AProxysQuestionForAPassword", 407, "", "Proxy-Authenticate: Negotiate\r\n"},
    {"AnUpgradeThatIsRequired", 426, "", "Upgrade: h2\r\nConnection: Upgrade\r\n"},
};

INSTANTIATE_TEST_SUITE_P(HostileService, UnexplainedRefusal, testing::ValuesIn(REFUSALS),
                         [](const auto& refusal) { return refusal.param.name; });

TEST_F(HostileDocumentTest, GivesItsOwnReasonToThoseWhoPassItOn) {
    const std::string details = R"(["a")" + repeated(50'000, ",\"b\"") + "]";
    for (const std::string& extra :
         {std::string(), ",\"errorDetails\":" + details, std::string(",\"errorDetails\":7")}) {
        serve(refusingWith(409, R"({"errorCode":5003,"errorMessage":"there is one already")" + extra + "}"));
        expectOutcomes([](const ServiceCall& call) { return outcomeWith(call, call.passesErrorsOn ? 5003 : 114); });
    }
}

TEST_F(HostileDocumentTest, SendsNobodyAPassword) {
    serve(refusingWith(401, "", "WWW-Authenticate: Basic realm=\"x\"\r\n"));
    expectOutcomes([](const ServiceCall& call) { return outcomeWith(call, call.unexplained); });
    for (const HttpMessage& request : server->requests()) {
        EXPECT_EQ(request.header("Authorization"), "");
    }
}

/// What comes for the second request of a workflow, when the first one has succeeded.
class HostileSecondAnswer : public HostileDocument, public testing::WithParamInterface<Document> {};

TEST_P(HostileSecondAnswer, LeavesTheWorkflowWithoutItsEnd) {
    serve(honestExceptFor("bulk-object-update-requests", GetParam().body));
    const LogCapture log;
    EXPECT_EQ(outcomeOf(callNamed("registerObject")), "returned 8024");
    EXPECT_EQ(outcomeOf(callNamed("bulkRegisterObjects")), "returned 8030");
    EXPECT_THAT(log.linesAt(16), Contains(Field(&LogLine::message, HasSubstr("Failed to commit [|A|OBJECT|]. "))));
    EXPECT_THAT(log.linesAt(16), Contains(Field(&LogLine::message, HasSubstr("State update failed, status="))));
}

const Document SECOND_ANSWERS[] = {
    {"ThatIsCutShort", "HTTP/1.1 201 Created\r\nContent-Length: 100\r\n\r\n{"},
    {"ThatIsMissing", ""},
    {"ThatIsNoHttp", "SSH-2.0-OpenSSH_9.2\r\n"},
    {"ThatIsTooLarge", "HTTP/1.1 201 Created\r\nContent-Length: 99999999\r\n\r\n"},
    {"ThatIsAnotherSuccess", "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n"},
    {"ThatIsARefusal", "HTTP/1.1 500 Oh\r\nConnection: close\r\nContent-Length: 15\r\n\r\n{\"errorCode\":7}"},
};

INSTANTIATE_TEST_SUITE_P(HostileService, HostileSecondAnswer, testing::ValuesIn(SECOND_ANSWERS),
                         [](const auto& document) { return document.param.name; });

}  // namespace
