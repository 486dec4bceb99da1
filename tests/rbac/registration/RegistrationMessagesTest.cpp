#include "RegistrationFixture.h"
#include "testing/Certificates.h"
#include "testing/JanssonMemory.h"
#include "testing/TemporaryDirectory.h"

#include <boost/lexical_cast.hpp>

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing_support::ScriptedHttp;
using Service = DefaultObjectRegistrationService;

namespace {

constexpr char SINGLE_TAG[] = "DefaultObjectRegistrationService::extractRegisteredNamespaces";
constexpr char BULK_TAG[] = "DefaultObjectRegistrationService::extractBulkRegisteredNamespaces";
const std::string URL = "arkwell/some/thing";

/// A type of request, and what there is to it.
struct Kind {
    HttpRequestType type;
    const char* method;
    const char* body;  ///< what is sent of the payload "p"
    long success;
    const char* transportFailure;
};
constexpr Kind KINDS[] = {
    {HTTP_POST, "POST", "p", 201,
     "Failed to send the POST object register request(arkwell/some/thing). CURL request failed. error  = 9554"},
    {HTTP_DELETE, "DELETE", "", 204,
     "Failed to send the DELETE object request(arkwell/some/thing). CURL request failed. error  = 9554"},
    {HTTP_PATCH, "PATCH", "p", 204,
     "Failed to send the PATCH object unregister request(arkwell/some/thing). CURL request failed. error  = 9554"}};

/// Makes clients that have a status before they have sent anything.
class UsedClients : public ScriptedHttp {
public:
    AWClientCURL_Base* create(const std::string& serverName, int serverPort, AWCurlSessionType kind) override {
        AWClientCURL_Base* const client = ScriptedHttp::create(serverName, serverPort, kind);
        client->httpStatus = 204;
        client->responseBody = R"({"errorCode":31})";
        return client;
    }
};

std::string dumped(const boost::shared_ptr<json_t>& document) {
    return json_dumps_shared(document).get();
}

class SendHttpRequestTest : public RegistrationFixture {
protected:
    static LogLine line(int level, const std::string& message) { return {level, SEND_TAG, message}; }
    static LogLine sending(HttpRequestType type) {
        return line(4, "Send request type " + std::to_string(type) + " to URL " + URL);
    }

    int statusOfSending(HttpRequestType type, const std::string& payload = "p") {
        return statusOf([&] { service_.sendHttpRequest(type, URL, payload, response_); });
    }

    std::string response_ = "before";
};

class RequestBodyTest : public RegistrationFixture {
protected:
    using Build = std::function<boost::shared_ptr<json_t>()>;

    /// That a request is built whole or not at all where jansson is refused one block, whichever that is.
    static void expectWholeOrNothing(const Build& build) {
        const std::string whole = dumped(build());
        bool failed = true;
        for (long granted = 0; failed; ++granted) {
            const testing_support::JanssonMemory memory(granted, 1);
            try {
                const boost::shared_ptr<json_t> built = build();
                failed = testing_support::JanssonMemory::failed;
                ASSERT_EQ(dumped(built), whole) << granted;
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(testing_support::JanssonMemory::failed);
            } catch (std::bad_alloc* thrown) {  // NOLINT(misc-throw-by-value-catch-by-reference): as it is thrown
                const std::unique_ptr<std::bad_alloc> owner(thrown);
            }
        }
    }

    /// More than an array of jansson holds before it grows.
    static std::list<ObjectNamespace> manyObjects() {
        std::list<ObjectNamespace> objects;
        for (int i = 0; i < 20; ++i) {
            objects.emplace_back(std::to_string(i));
        }
        return objects;
    }
};

class AnswerTest : public RegistrationFixture {
protected:
    /// The status of reading an answer, and the only line that is logged for it.
    void expectUnreadable(const std::string& body, const std::string& message) {
        log_.clear();
        EXPECT_EQ(statusOf([&] { Service::extractRegisteredNamespaces(body); }), 9103) << body;
        EXPECT_THAT(log_.lines(), ElementsAre(LogLine{16, SINGLE_TAG, message})) << body;
    }
    void expectUnreadableInBulk(const std::string& body, const LogLine& logged) {
        log_.clear();
        EXPECT_EQ(statusOf([&] { Service::extractBulkRegisteredNamespaces(body); }), 9103) << body;
        EXPECT_THAT(log_.lines(), ElementsAre(logged)) << body;
    }
};

}  // namespace

TEST(RegistrationConstantsTest, NameTheServicesResources) {
    EXPECT_EQ(Service::OBJECT_REGISTRATION_URI, "arkwell/access-control/object-registration-requests");
    EXPECT_EQ(Service::BULK_OBJECT_REGISTRATION_URI, "arkwell/access-control/bulk-object-registration-requests");
    EXPECT_EQ(Service::BULK_OBJECT_UPDATE_URI, "arkwell/access-control/bulk-object-update-requests");
    EXPECT_EQ(Service::MANAGED_OBJECT_URI, "arkwell/access-control/managed-objects");
}

TEST(RegistrationConstantsTest, CarryTheVersionInTheMediaTypes) {
    EXPECT_EQ(Service::JSON_MEDIA_TYPE, "application/vnd.arkwell+json;version=6.0");
    EXPECT_EQ(Service::OCTET_STREAM_MEDIA_TYPE, "application/vnd.arkwell+octet-stream;version=6.0");
}

TEST(RegistrationConstantsTest, HaveTheirNumbers) {
    EXPECT_EQ(HTTP_POST, 2);
    EXPECT_EQ(HTTP_DELETE, 3);
    EXPECT_EQ(HTTP_PATCH, 4);
}

TEST(RegistrationConstantsTest, NumberAndNameTheStatesOfObjects) {
    EXPECT_EQ(READY, 0);
    EXPECT_EQ(PENDING, 1);
    EXPECT_EQ(DELETED, 2);
    EXPECT_EQ(READY_STR, "READY");
    EXPECT_EQ(PENDING_STR, "PENDING");
    EXPECT_EQ(DELETED_STR, "DELETED");
}

TEST(RegistrationServiceTest, TalksToThePrimaryServerWithTheHostsCertificate) {
    // The host has no certificate, so nothing is sent; the log says what was missing for whom.
    const testing_support::TemporaryDirectory files;
    testing_support::writeFile(files / "ca.pem", testing_support::CertificateAuthority().certificate());
    const SettingsFixture settings(R"({"primaryServer":"primary.example","tls":{"caFile":")" + (files / "ca.pem") +
                                   "\"}}");
    const testing_support::LogCapture log;
    Service service;
    EXPECT_THROW(service.sendHttpRequest(HTTP_POST, URL, "p"), EC_exception);
    ASSERT_EQ(log.linesAt(16).size(), 2U);
    EXPECT_EQ(log.linesAt(16)[0].tag, "AWClientCURL::Post");
    EXPECT_THAT(
        log.linesAt(16)[0].message,
        testing::AllOf(testing::StartsWith("POST to primary.example:1556 failed: a required setting is missing"),
                       testing::HasSubstr("\"tls.certFile\" is missing")));
}

TEST(RegistrationServiceTest, IsNotMadeWithoutAPrimaryServer) {
    const SettingsFixture settings("{}");
    const testing_support::LogCapture log;
    const auto http = boost::make_shared<ScriptedHttp>();
    try {
        const Service service(1556, http);
        FAIL();
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 9513);
    }
    EXPECT_EQ(log.lines().back(), (testing_support::LogLine{16, "get_master", "Couldn't get master server: 9513"}));
}

TEST_F(SendHttpRequestTest, GoesToTheServicesHostAndPort) {
    Service service(4711, http_);
    settings_.replace(R"({"primaryServer":"another.example"})");
    http_->answer(201);
    service.sendHttpRequest(HTTP_POST, URL, "p");
    EXPECT_EQ(http_->lastServer().host, "primary.example");
    EXPECT_EQ(http_->lastServer().port, 4711);
    EXPECT_EQ(http_->lastServer().session, SESSION_SERVICE);
}

TEST_F(SendHttpRequestTest, SendsEachTypeInTheServicesVersionAndHandsTheAnswerOut) {
    for (const Kind& kind : KINDS) {
        log_.clear();
        http_->forgetRequests();
        http_->answer(kind.success, std::string(kind.method) + " answered");
        EXPECT_EQ(statusOfSending(kind.type), 0);
        EXPECT_EQ(response_, std::string(kind.method) + " answered");
        EXPECT_THAT(http_->requests(), ElementsAre(HttpRequest{kind.method, URL, kind.body, "6.0"}));
        EXPECT_THAT(log_.lines(), ElementsAre(sending(kind.type), line(2, "Request payload: p")));
        EXPECT_EQ(http_->liveClients(), 0);
    }
}

TEST_F(SendHttpRequestTest, LogsAPayloadAsItIs) {
    http_->answer(201);
    statusOfSending(HTTP_POST, "100%s of it");
    EXPECT_EQ(log_.lines()[1], line(2, "Request payload: 100%s of it"));
}

TEST_F(SendHttpRequestTest, NeedsNoPlaceForTheAnswer) {
    http_->answer(201, "answered");
    service_.sendHttpRequest(HTTP_POST, URL, "p");
    http_->answer(409, CONFLICT);
    EXPECT_EQ(statusOf([this] { service_.sendHttpRequest(HTTP_POST, URL, "q"); }), 5003);
    EXPECT_THAT(http_->requests(), ElementsAre(post(URL, "p"), post(URL, "q")));
}

TEST_F(SendHttpRequestTest, SendsNothingOfAnotherType) {
    for (const int type : {0, 1, 5, -1}) {
        log_.clear();
        response_ = "before";
        EXPECT_EQ(statusOfSending(static_cast<HttpRequestType>(type)), 0);
        EXPECT_EQ(response_, "");
        EXPECT_THAT(log_.lines(),
                    ElementsAre(sending(static_cast<HttpRequestType>(type)), line(2, "Request payload: p")));
    }
    EXPECT_THAT(http_->requests(), IsEmpty());
    EXPECT_EQ(http_->liveClients(), 0);
}

TEST_F(SendHttpRequestTest, FailsForAnotherTypeWhereTheClientHasAStatus) {
    Service service(1556, boost::make_shared<UsedClients>());
    EXPECT_EQ(statusOf([&] { service.sendHttpRequest(static_cast<HttpRequestType>(5), URL, "p"); }), 31);
    EXPECT_THAT(errors(), ElementsAre(line(16, "Failed to register object. HTTP response code = 204. error = 31")));
}

TEST_F(SendHttpRequestTest, PassesTheTransportsStatusOn) {
    for (const Kind& kind : KINDS) {
        log_.clear();
        http_->fail(9554);
        EXPECT_EQ(statusOfSending(kind.type), 9554);
        EXPECT_THAT(log_.lines(),
                    ElementsAre(sending(kind.type), line(2, "Request payload: p"), line(16, kind.transportFailure)));
    }
    EXPECT_EQ(response_, "before");
}

TEST_F(SendHttpRequestTest, TakesNoOtherSuccess) {
    for (const Kind& kind : KINDS) {
        for (const long status : {200L, 201L, 202L, 204L, 0L}) {
            if (status != kind.success) {
                log_.clear();
                http_->answer(status, R"({"errorCode":31})");
                EXPECT_EQ(statusOfSending(kind.type), 31) << kind.method << status;
                EXPECT_THAT(errors(), ElementsAre(line(16, "Failed to register object. HTTP response code = " +
                                                               std::to_string(status) + ". error = 31")));
            }
        }
    }
    EXPECT_EQ(response_, "before");
}

TEST_F(SendHttpRequestTest, ThrowsTheServicesErrorCode) {
    for (const Kind& kind : KINDS) {
        log_.clear();
        http_->answer(409, CONFLICT);
        EXPECT_EQ(statusOfSending(kind.type), 5003);
        EXPECT_THAT(log_.lines(),
                    ElementsAre(sending(kind.type), line(2, "Request payload: p"), line(16, CONFLICT_LOG)));
    }
}

TEST_F(SendHttpRequestTest, ThrowsAlsoTheErrorCodeZero) {
    http_->answer(500, R"({"errorCode":0})");
    EXPECT_EQ(thrownBy<EC_exception>([this] { service_.sendHttpRequest(HTTP_POST, URL, "p"); }).status, 0);
    EXPECT_THAT(errors(), ElementsAre(line(16, "Failed to register object. HTTP response code = 500. error = 0")));
}

TEST_F(SendHttpRequestTest, ThrowsAStatusOfItsOwnWithoutAUsableErrorBody) {
    for (const Kind& kind : KINDS) {
        for (const auto& [body, parseError] :
             {std::pair("", "9522"), std::pair("no JSON", "9522"), std::pair("[]", "9522"), std::pair("{}", "9523"),
              std::pair(R"({"errorCode":"31"})", "9523")}) {
            log_.clear();
            http_->answer(404, body);
            EXPECT_EQ(statusOfSending(kind.type), 9103) << body;
            EXPECT_THAT(
                errors(),
                ElementsAre(line(
                    16,
                    std::string("Failed to parse error from JSON response. HTTP response code = 404. parse error = ") +
                        parseError)))
                << body;
        }
    }
    EXPECT_EQ(response_, "before");
}

TEST_F(SendHttpRequestTest, PassesOnWhatAClientThrowsAfterTheLog) {
    http_->raise(std::runtime_error("no socket"));
    EXPECT_STREQ(thrownBy<std::runtime_error>([this] { statusOfSending(HTTP_POST); }).what(), "no socket");
    EXPECT_THAT(log_.lines(), ElementsAre(sending(HTTP_POST), line(2, "Request payload: p")));
    EXPECT_EQ(http_->liveClients(), 0);
    EXPECT_EQ(response_, "before");
}

TEST_F(RequestBodyTest, PairsAnObjectWithItsState) {
    EXPECT_EQ(dumped(Service::buildNamespaceStatePair(ObjectNamespace("a b|c"), "ANY")),
              R"({"objectId":"|a+b%7Cc|","state":"ANY"})");
}

TEST_F(RequestBodyTest, ListsReadyThenPendingThenDeletedObjects) {
    const boost::shared_ptr<json_t> request = Service::buildBulkStateUpdateRequest(
        {ObjectNamespace("D"), ObjectNamespace("C")}, {ObjectNamespace("B"), ObjectNamespace("E")},
        {ObjectNamespace("F"), ObjectNamespace("A")});
    EXPECT_EQ(dumped(request), R"({"data":{"type":"managedObjectUpdate","attributes":{"managedObjectsWithAttributes":[)"
                               R"({"objectId":"|D|","state":"READY"},{"objectId":"|C|","state":"READY"},)"
                               R"({"objectId":"|B|","state":"PENDING"},{"objectId":"|E|","state":"PENDING"},)"
                               R"({"objectId":"|F|","state":"DELETED"},{"objectId":"|A|","state":"DELETED"}]}}})");
}

TEST_F(RequestBodyTest, ListsNoObjectsAsAnEmptyArray) {
    EXPECT_EQ(dumped(Service::buildBulkStateUpdateRequest({}, {}, {})),
              R"({"data":{"type":"managedObjectUpdate","attributes":{"managedObjectsWithAttributes":[]}}})");
}

TEST_F(RequestBodyTest, LeavesOneReferenceToEachPartOfAStateUpdate) {
    const boost::shared_ptr<json_t> request = Service::buildBulkStateUpdateRequest({ObjectNamespace("A")}, {}, {});
    const json_t* const pairs = json_object_get(json_object_get(json_object_get(request.get(), "data"), "attributes"),
                                                "managedObjectsWithAttributes");
    EXPECT_EQ(pairs->refcount, 1U);
    EXPECT_EQ(json_array_get(pairs, 0)->refcount, 1U);
}

TEST_F(RequestBodyTest, DescribesAnObjectToRegister) {
    const auto data =
        boost::make_shared<Data>(ObjectNamespace("a b|c"), "\xC3\xA9", json_loads_shared(R"([1,{"b":null,"a":"x"}])"),
                                 std::list<ObjectNamespace>{ObjectNamespace("y", "z"), ObjectNamespace("x")}, true);
    EXPECT_EQ(dumped(Service::buildRegistrationJSON(data)),
              R"({"id":"|a+b%7Cc|","type":"objectRegistrationData","attributes":{"objectType":"\u00E9",)"
              R"("ignoreAlreadyRegistered":true,"accessControlAttributes":[1,{"b":null,"a":"x"}],)"
              R"("relativeChildNamespaces":["|y|z|","|x|"]}})");
}

TEST_F(RequestBodyTest, DescribesAnObjectWithoutChildrenThatIsNotToBeThereYet) {
    EXPECT_EQ(dumped(Service::buildRegistrationJSON(dataOf(ObjectNamespace()))),
              R"({"id":"|","type":"objectRegistrationData","attributes":{"objectType":"DATABASE",)"
              R"("ignoreAlreadyRegistered":false,"accessControlAttributes":{"owner":"o"},)"
              R"("relativeChildNamespaces":[]}})");
}

TEST_F(RequestBodyTest, WrapsTheObjectToRegister) {
    const boost::shared_ptr<Data> data = dataOf(ObjectNamespace("A"));
    EXPECT_EQ(dumped(Service::buildRegistrationRequest(data)),
              R"({"data":)" + dumped(Service::buildRegistrationJSON(data)) + "}");
}

TEST_F(RequestBodyTest, WrapsManyObjectsInTheOrderOfTheList) {
    const boost::shared_ptr<Data> a = dataOf(ObjectNamespace("A"));
    const boost::shared_ptr<Data> b = dataOf(ObjectNamespace("B"), "HOST");
    EXPECT_EQ(dumped(Service::buildBulkRegistrationRequest({b, a, b})),
              R"({"data":[)" + dumped(Service::buildRegistrationJSON(b)) + "," +
                  dumped(Service::buildRegistrationJSON(a)) + "," + dumped(Service::buildRegistrationJSON(b)) + "]}");
    EXPECT_EQ(dumped(Service::buildBulkRegistrationRequest({})), R"({"data":[]})");
}

TEST_F(RequestBodyTest, SharesTheAccessControlAttributesWithTheRequest) {
    const boost::shared_ptr<Data> data = dataOf(ObjectNamespace("A"));
    {
        const boost::shared_ptr<json_t> request = Service::buildBulkRegistrationRequest({data});
        EXPECT_EQ(data->accessControlAttributes->refcount, 2U);
        const json_t* const objects = json_object_get(request.get(), "data");
        EXPECT_EQ(objects->refcount, 1U);
        EXPECT_EQ(json_array_get(objects, 0)->refcount, 1U);
    }
    EXPECT_EQ(json_object_get(Service::buildRegistrationRequest(data).get(), "data")->refcount, 1U);
    EXPECT_EQ(data->accessControlAttributes->refcount, 1U);
}

TEST_F(RequestBodyTest, NamesAllObjectsOfAStateUpdateOrNone) {
    const std::list<ObjectNamespace> objects = manyObjects();
    expectWholeOrNothing([&] { return Service::buildBulkStateUpdateRequest(objects, {}, objects); });
}

TEST_F(RequestBodyTest, NamesAllChildrenOrNone) {
    const boost::shared_ptr<Data> data = dataOf(ObjectNamespace("A"), "HOST", manyObjects());
    expectWholeOrNothing([&] { return Service::buildRegistrationRequest(data); });
}

TEST_F(RequestBodyTest, DescribesAllObjectsToRegisterOrNone) {
    const std::list<boost::shared_ptr<Data> > data(20, dataOf(ObjectNamespace("A")));
    expectWholeOrNothing([&] { return Service::buildBulkRegistrationRequest(data); });
}

TEST_F(RequestBodyTest, HoldsAnObjectTypeWhole) {
    const boost::shared_ptr<json_t> described =
        Service::buildRegistrationJSON(dataOf(ObjectNamespace("A"), std::string("A\0B", 3)));
    EXPECT_THAT(dumped(described), testing::HasSubstr(R"("objectType":"A\u0000B")"));
}

TEST_F(RequestBodyTest, TakesAnObjectTypeThatIsNoTextForNoMemory) {
    const boost::shared_ptr<Data> data = dataOf(ObjectNamespace("A"), "\xFF");
    EXPECT_THROW(Service::buildRegistrationJSON(data), std::bad_alloc);
    EXPECT_THAT(log_.lines(),
                ElementsAre(LogLine{16, "json_pack_shared", "Error generating JSON: Invalid UTF-8 string"}));
    EXPECT_EQ(data->accessControlAttributes->refcount, 1U);
}

TEST_F(RequestBodyTest, TakesMissingAccessControlAttributesForNoMemory) {
    const boost::shared_ptr<Data> data = dataOf(ObjectNamespace("A"));
    data->accessControlAttributes.reset();
    EXPECT_THROW(Service::buildRegistrationJSON(data), std::bad_alloc);
    EXPECT_THAT(log_.lines(), ElementsAre(LogLine{16, "json_pack_shared", "Error generating JSON: NULL object"}));
}

TEST_F(RequestBodyTest, RefusesMissingData) {
    const std::string refusal = "registration data is required";
    EXPECT_EQ(thrownBy<std::invalid_argument>([] { Service::buildRegistrationJSON({}); }).what(), refusal);
    EXPECT_EQ(thrownBy<std::invalid_argument>([] { Service::buildRegistrationRequest({}); }).what(), refusal);
    EXPECT_EQ(thrownBy<std::invalid_argument>([] { Service::buildBulkRegistrationRequest({{}}); }).what(), refusal);
}

TEST_F(AnswerTest, NamesAnObjectAndWhatWasRegisteredForItInItsOrder) {
    const auto expected =
        Pair(ObjectNamespace("a b|c"), ElementsAre(ObjectNamespace("B"), ObjectNamespace("A"), ObjectNamespace("B")));
    const std::string object = registered("|a+b%7Cc|", {"|B|", "|A|", "|B|"});
    EXPECT_THAT(Service::extractRegisteredNamespaces(json_loads_shared(object).get()), expected);
    EXPECT_THAT(Service::extractRegisteredNamespaces(answerOf(object)), expected);
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(AnswerTest, NamesNothingMoreWithoutRelationships) {
    const auto expected = Pair(ObjectNamespace("A"), IsEmpty());
    EXPECT_THAT(Service::extractRegisteredNamespaces(json_loads_shared(R"({"id":"|A|"})").get()), expected);
    EXPECT_THAT(Service::extractRegisteredNamespaces(answerOf(R"({"id":"|A|"})")), expected);
    EXPECT_THAT(Service::extractRegisteredNamespaces(answerOf(registered("|A|", {}))), expected);
}

TEST_F(AnswerTest, MayHoldMore) {
    EXPECT_THAT(Service::extractRegisteredNamespaces(
                    R"({"meta":1,"data":{"type":"t","id":"|A|","relationships":{"other":1,"registeredObjects":)"
                    R"({"links":{},"data":[{"type":"t","id":"|B|"}]}}}})"),
                Pair(ObjectNamespace("A"), ElementsAre(ObjectNamespace("B"))));
}

TEST_F(AnswerTest, NamesNothingMoreWhereTheRegisteredObjectsAreNoArray) {
    EXPECT_THAT(Service::extractRegisteredNamespaces(
                    answerOf(R"({"id":"|A|","relationships":{"registeredObjects":{"data":{"id":"|B|"}}}})")),
                Pair(ObjectNamespace("A"), IsEmpty()));
}

TEST_F(AnswerTest, IsNotReadWhereItIsNotJson) {
    expectUnreadable("", "Error parsing JSON response at position 0: '[' or '{' expected near end of file");
    expectUnreadable("no JSON", "Error parsing JSON response at position 2: '[' or '{' expected near 'no'");
    expectUnreadable("{\n\"data\":", "Error parsing JSON response at position 9: unexpected token near end of file");
}

TEST_F(AnswerTest, IsNotReadWithoutData) {
    expectUnreadable("{}", "Error parsing JSON response at position 4: Object item not found: data");
    expectUnreadable("[]", "Error parsing JSON response at position 1: Expected object, got array");
}

TEST_F(AnswerTest, IsNotReadInAnotherShape) {
    expectUnreadable(answerOf("[]"), "Error parsing JSON response at position 1: Expected object, got array");
    expectUnreadable(answerOf("{}"), "Error parsing JSON response at position 4: Object item not found: id");
    expectUnreadable(answerOf(R"({"id":7})"),
                     "Error parsing JSON response at position 4: Expected string, got integer");
    expectUnreadable(answerOf(R"({"id":"|A|","relationships":{}})"),
                     "Error parsing JSON response at position 13: Object item not found: registeredObjects");
    expectUnreadable(answerOf(R"({"id":"|A|","relationships":null})"),
                     "Error parsing JSON response at position 10: Expected object, got null");
    expectUnreadable(answerOf(R"({"id":"|A|","relationships":{"registeredObjects":{}}})"),
                     "Error parsing JSON response at position 16: Object item not found: data");
}

TEST_F(AnswerTest, IsNotReadWhereARegisteredObjectHasNoId) {
    expectUnreadable(answerOf(R"({"id":"|A|","relationships":{"registeredObjects":{"data":[{"id":"|B|"},{}]}}})"),
                     "Error parsing JSON response at position 4: Object item not found: id");
    expectUnreadable(answerOf(R"({"id":"|A|","relationships":{"registeredObjects":{"data":["|B|"]}}})"),
                     "Error parsing JSON response at position 1: Expected object, got string");
}

TEST_F(AnswerTest, IsNotReadWhereThereIsNoObject) {
    EXPECT_EQ(statusOf([] { Service::extractRegisteredNamespaces(static_cast<const json_t*>(nullptr)); }), 9103);
    EXPECT_THAT(log_.lines(),
                ElementsAre(LogLine{16, SINGLE_TAG, "Error parsing JSON response at position 0: NULL root value"}));
}

TEST_F(AnswerTest, IsNotReadWhereAnIdIsNoNamespace) {
    for (const char* id : {"A", "", "|A", " |A|", "|A| ", "|%7|"}) {
        const std::string bad = id;
        EXPECT_THROW(Service::extractRegisteredNamespaces(answerOf(registered(bad, {}))), boost::bad_lexical_cast);
        EXPECT_THROW(Service::extractRegisteredNamespaces(answerOf(registered("|A|", {"|B|", bad}))),
                     boost::bad_lexical_cast);
        EXPECT_THROW(Service::extractBulkRegisteredNamespaces(answerOf("[" + registered(bad, {}) + "]")),
                     boost::bad_lexical_cast);
    }
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(AnswerTest, NamesManyObjectsWithWhatWasRegisteredForEach) {
    EXPECT_THAT(
        Service::extractBulkRegisteredNamespaces(answerOf("[" + registered("|B|", {"|B|2|", "|B|1|"}) +
                                                          R"(,{"id":"|C|"},)" + registered("|A|", {"|A|"}) + "]")),
        ElementsAre(Pair(ObjectNamespace("A"), ElementsAre(ObjectNamespace("A"))),
                    Pair(ObjectNamespace("B"), ElementsAre(ObjectNamespace("B", "2"), ObjectNamespace("B", "1"))),
                    Pair(ObjectNamespace("C"), IsEmpty())));
    EXPECT_THAT(Service::extractBulkRegisteredNamespaces(answerOf("[]")), IsEmpty());
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(AnswerTest, IsLeftAloneWhereItIsOnlyLent) {
    std::string lent = answerOf("[" + registered("|A|", {"|B|"}) + "]");
    EXPECT_THAT(Service::extractBulkRegisteredNamespaces(lent),
                ElementsAre(Pair(ObjectNamespace("A"), ElementsAre(ObjectNamespace("B")))));
    EXPECT_EQ(lent, answerOf("[" + registered("|A|", {"|B|"}) + "]"));
}

TEST_F(AnswerTest, IsReleasedWhereItIsGivenAway) {
    std::string given = answerOf("[" + registered("|A|", {"|B|"}) + "]");
    EXPECT_THAT(Service::extractBulkRegisteredNamespaces(std::move(given)),
                ElementsAre(Pair(ObjectNamespace("A"), ElementsAre(ObjectNamespace("B")))));
    EXPECT_EQ(given.capacity(), std::string().capacity());  // NOLINT(bugprone-use-after-move): that is the question
}

TEST_F(AnswerTest, LosesNothingOfAnObjectThatIsInItTwice) {
    EXPECT_THAT(Service::extractBulkRegisteredNamespaces(
                    answerOf("[" + registered("|A|", {"|A|"}) + "," + registered("|A|", {"|A|1|", "|A|2|"}) + "]")),
                ElementsAre(Pair(ObjectNamespace("A"), ElementsAre(ObjectNamespace("A"), ObjectNamespace("A", "1"),
                                                                   ObjectNamespace("A", "2")))));
}

TEST_F(AnswerTest, IsNotReadInBulkWhereItIsNotJsonOrWithoutData) {
    expectUnreadableInBulk(
        "", {16, BULK_TAG, "Error parsing JSON response at position 0: '[' or '{' expected near end of file"});
    expectUnreadableInBulk("{}",
                           {16, BULK_TAG, "Error parsing JSON response at position 4: Object item not found: data"});
    expectUnreadableInBulk("[]",
                           {16, BULK_TAG, "Error parsing JSON response at position 1: Expected object, got array"});
}

TEST_F(AnswerTest, IsNotReadInBulkWhereTheDataIsNoArray) {
    for (const char* data : {"{}", R"({"id":"|A|"})", "null", "\"|A|\""}) {
        expectUnreadableInBulk(answerOf(data),
                               {16, BULK_TAG, "Invalid bulk registration response. data is not an array"});
    }
}

TEST_F(AnswerTest, IsNotReadInBulkWhereOneObjectCannotBeRead) {
    expectUnreadableInBulk(answerOf("[" + registered("|A|", {}) + ",{}]"),
                           {16, SINGLE_TAG, "Error parsing JSON response at position 4: Object item not found: id"});
}
