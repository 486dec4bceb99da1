#pragma once

#include <platform/HttpClient.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <deque>
#include <exception>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

struct HttpRequest {
    std::string method;
    std::string url;
    std::string body;
    std::string apiVersion;

    friend bool operator==(const HttpRequest& a, const HttpRequest& b) {
        return a.method == b.method && a.url == b.url && a.body == b.body && a.apiVersion == b.apiVersion;
    }
};
inline void PrintTo(const HttpRequest& request, std::ostream* out) {
    *out << request.method << " " << request.url << " [" << request.apiVersion << "] " << request.body;
}

struct HttpAnswer {
    int transportStatus;
    long httpStatus;
    std::string body;
    std::exception_ptr thrown;  ///< what the request throws instead; null: nothing
};

/// Makes clients that give the answers of a script, one after the other, and remember what they were asked. After the
/// last answer, requests fail with transport status NO_MORE_ANSWERS.
class ScriptedHttp : public AWClientCURL_BaseFactory {
public:
    static constexpr int NO_MORE_ANSWERS = -1;

    /// The next request is answered with this HTTP status and body.
    void answer(long httpStatus, const std::string& body = "") { answers_.push_back({0, httpStatus, body, {}}); }
    /// The next request fails with this transport status.
    void fail(int transportStatus) { answers_.push_back({transportStatus, 0, "", {}}); }
    /// The next request throws this.
    template <class Thrown>
    void raise(const Thrown& thrown) {
        answers_.push_back({0, 0, "", std::make_exception_ptr(thrown)});
    }

    AWClientCURL_Base* create(const std::string& serverName, int serverPort, AWCurlSessionType kind) override {
        host = serverName;
        port = serverPort;
        session = kind;
        return new Client(*this);
    }

    std::vector<HttpRequest> requests;
    std::string host;  ///< what the last client was made for, as the next two
    int port = 0;
    AWCurlSessionType session = SESSION_NONE;
    int liveClients = 0;

private:
    class Client : public AWClientCURL_Base {
    public:
        explicit Client(ScriptedHttp& script) : script_(script) { ++script_.liveClients; }
        ~Client() override { --script_.liveClients; }

        int Put(const std::string& url, const std::string& body) override { return send("PUT", url, body); }
        int Post(const std::string& url, const std::string& body) override { return send("POST", url, body); }
        int PostFile(const std::string& url, const std::string& filePath) override {
            return send("POST file", url, filePath);
        }
        int Patch(const std::string& url, const std::string& body) override { return send("PATCH", url, body); }
        int Get(const std::string& url) override { return send("GET", url, ""); }
        int Delete(const std::string& url) override { return send("DELETE", url, ""); }
        void setApiVersion(const std::string& version) override { apiVersion_ = version; }

    private:
        int send(const char* method, const std::string& url, const std::string& body) {
            script_.requests.push_back({method, url, body, apiVersion_});
            if (script_.answers_.empty()) {
                return NO_MORE_ANSWERS;
            }
            const HttpAnswer answer = std::move(script_.answers_.front());
            script_.answers_.pop_front();
            if (answer.thrown) {
                std::rethrow_exception(answer.thrown);
            }
            httpStatus = answer.httpStatus;
            responseBody = answer.body;
            return answer.transportStatus;
        }

        ScriptedHttp& script_;
        std::string apiVersion_;
    };

    std::deque<HttpAnswer> answers_;
};

}  // namespace testing_support
