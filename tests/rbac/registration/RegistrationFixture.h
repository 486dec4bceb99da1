#pragma once

#include "rbac/rest/ApiFixture.h"
#include "rbac/rest/Rbac2Json.h"

#include <platform/Logger.h>
#include <rbac/ObjectRegistrationService.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <exception>
#include <functional>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

inline constexpr char SEND_TAG[] = "DefaultObjectRegistrationService::sendHttpRequest";
inline constexpr char UPDATE_TAG[] = "DefaultObjectRegistrationService::bulkUpdateObjectState";
inline constexpr char CALLBACK_TAG[] = "callback";

inline const std::string REGISTRATIONS = "arkwell/access-control/object-registration-requests";
inline const std::string BULK_REGISTRATIONS = "arkwell/access-control/bulk-object-registration-requests";
inline const std::string UPDATES = "arkwell/access-control/bulk-object-update-requests";

/// An error of the service.
inline constexpr char CONFLICT[] = R"({"errorCode":5003,"errorMessage":"there is one already"})";
inline constexpr char CONFLICT_LOG[] = "Failed to register object. HTTP response code = 409. error = 5003";

/// A callback of the workflows for one object. It logs each call, so that the log shows when it came.
template <class Interface>
class LoggedCallback : public Interface {
public:
    int process() override {
        logmsg(0, CALLBACK_TAG, "process");
        return work();
    }
    void failed(int status) override {
        logmsgf(0, CALLBACK_TAG, "failed %d", status);
        afterFailure();
    }

    std::function<int()> work = [] { return 0; };
    std::function<void()> afterFailure = [] {};
};

/// Makes no clients.
class NoHttp : public AWClientCURL_BaseFactory {
public:
    AWClientCURL_Base* create(const std::string& /*host*/, int /*port*/, AWCurlSessionType /*session*/) override {
        throw std::runtime_error("no client");
    }
};

/// A registration service whose answers are scripted.
class RegistrationFixture : public ApiFixture {
protected:
    using Data = Tesmor::Arkwell::Rbac::ObjectRegistrationData;
    using HttpRequest = testing_support::HttpRequest;
    using LogLine = testing_support::LogLine;
    using ObjectNamespace = Tesmor::Arkwell::Rbac::ObjectNamespace;

    /// Everything logged, but for the bodies of requests, which are in http_->requests().
    std::vector<LogLine> story() const {
        std::vector<LogLine> lines = log_.lines();
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const LogLine& line) { return line.tag == SEND_TAG && line.level == 2; }),
                    lines.end());
        return lines;
    }

    static LogLine called(const std::string& what) { return {0, CALLBACK_TAG, what}; }
    static LogLine sending(const std::string& url) { return {4, SEND_TAG, "Send request type 2 to URL " + url}; }
    /// The request goes out, and comes to nothing with transport status 9554.
    static LogLine unsent(const std::string& url) {
        return {16, SEND_TAG,
                "Failed to send the POST object register request(" + url + "). CURL request failed. error  = 9554"};
    }
    static LogLine updating(int ready, int pending, int deleted) {
        return {4, UPDATE_TAG,
                "Updating object state. ready=" + std::to_string(ready) + ", pending=" + std::to_string(pending) +
                    ", deleted=" + std::to_string(deleted)};
    }

    static HttpRequest post(const std::string& url, const std::string& body) { return {"POST", url, body, "6.0"}; }

    /// The request that gives objects their states, both as the service names them.
    static HttpRequest stateUpdate(const std::vector<std::pair<std::string, std::string> >& states) {
        std::string pairs;
        for (const auto& [object, state] : states) {
            pairs += pairs.empty() ? "{" : ",{";
            pairs.append(R"("objectId":")").append(object).append(R"(","state":")").append(state).append("\"}");
        }
        return post(UPDATES, R"({"data":{"type":"managedObjectUpdate","attributes":{"managedObjectsWithAttributes":[)" +
                                 pairs + "]}}}");
    }

    static boost::shared_ptr<Data> dataOf(const ObjectNamespace& ns, const std::string& type = "DATABASE",
                                          const std::list<ObjectNamespace>& children = {}) {
        return boost::make_shared<Data>(ns, type, Tesmor::Arkwell::Rbac::json_loads_shared(R"({"owner":"o"})"),
                                        children, false);
    }

    /// One registered object of an answer.
    static std::string registered(const std::string& object, const std::vector<std::string>& objects) {
        std::string ids;
        for (const std::string& id : objects) {
            ids += ids.empty() ? "{" : ",{";
            ids.append(R"("id":")").append(id).append("\"}");
        }
        return R"({"id":")" + object + R"(","relationships":{"registeredObjects":{"data":[)" + ids + "]}}}";
    }

    static std::string answerOf(const std::string& data) { return R"({"data":)" + data + "}"; }

    /// From now on the service finds no client.
    void loseHttp() {
        service_ = Tesmor::Arkwell::Rbac::DefaultObjectRegistrationService(1556, boost::make_shared<NoHttp>());
    }

    /// What a call throws of this kind, which is expected.
    template <class Thrown, class Call>
    static Thrown thrownBy(Call call) {
        try {
            call();
        } catch (const Thrown& thrown) {
            return thrown;
        }
        throw std::logic_error("nothing was thrown");
    }

    Tesmor::Arkwell::Rbac::DefaultObjectRegistrationService service_{1556, http_};
};
