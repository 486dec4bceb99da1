#pragma once

#include <platform/HttpClient.h>

#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// For the tests of programs that talk to a server: nothing is sent. Header-only, and of no test framework.

namespace platform_testing {

/// A request as a client was asked for it.
struct HttpRequest {
    std::string method;      ///< "PUT", "POST", "POST file", "PATCH", "GET" or "DELETE"
    std::string url;         ///< as the caller gave it
    std::string body;        ///< of PostFile() the file's path; the file is not read
    std::string apiVersion;  ///< what setApiVersion() was last given

    /// Whether all members are the same.
    friend bool operator==(const HttpRequest& a, const HttpRequest& b) {
        return a.method == b.method && a.url == b.url && a.body == b.body && a.apiVersion == b.apiVersion;
    }
    /// For the messages of tests.
    friend std::ostream& operator<<(std::ostream& out, const HttpRequest& request) {
        return out << request.method << " " << request.url << " [" << request.apiVersion << "] " << request.body;
    }
};

/// What a client was made for.
struct HttpServer {
    std::string host;                          ///< its name
    int port = 0;                              ///< its port
    AWCurlSessionType session = SESSION_NONE;  ///< what becomes of the connection
};

/// Makes clients that give the answers of a script and remember what they were asked.
///
///     const auto http = boost::make_shared<ScriptedHttpFactory>();
///     http->answer(200, R"({"data":[]})");                               // to the next request, whatever it is
///     http->on("DELETE", "arkwell/access-control/roles/7").answer(204);  // to the next one like this
///     RoleAPI(http).get_roles("");
///     http->requests();   // the GET
///     http->complaint();  // "unused: DELETE arkwell/access-control/roles/7\n"
///
/// Each answer is given once. A request takes the first of those for its method and URL, or else the first of those for
/// whatever comes; where there is none it fails with UNEXPECTED_REQUEST. As with the client over libcurl, a slash that
/// a URL begins with makes no difference, and after a failure `httpStatus` is 0 and `responseBody` is empty; unlike
/// that one's, a scripted failure is not logged.
///
/// Threads: every function may be called from any thread, also while clients are in use; a client belongs to one thread
/// at a time. Clients may outlive the factory.
class ScriptedHttpFactory : public AWClientCURL_BaseFactory {
    struct State;

public:
    /// The transport status of a request for which the script has no answer.
    static constexpr int UNEXPECTED_REQUEST = -1;

    /// The answers to one kind of request, made by on(). Not to be used once the factory is gone.
    class Answers {
    public:
        /// The next such request is answered with this HTTP status and body.
        Answers& answer(long httpStatus, const std::string& body = "") { return add({0, httpStatus, body, {}}); }
        /// The next such request fails with this transport status, for example platform_status::HTTP_TIMED_OUT.
        Answers& fail(int transportStatus) { return add({transportStatus, 0, "", {}}); }
        /// The next such request throws a copy of this, as no client of the platform does.
        template <class Thrown>
        Answers& raise(const Thrown& thrown) {
            return add({0, 0, "", std::make_exception_ptr(thrown)});
        }

    private:
        friend class ScriptedHttpFactory;
        Answers(State& state, std::string key) : state_(state), key_(std::move(key)) {}

        struct Answer {
            int transportStatus;
            long httpStatus;
            std::string body;
            std::exception_ptr thrown;  // null: nothing
        };
        Answers& add(Answer answer) {
            const std::lock_guard<std::mutex> lock(state_.mutex);
            state_.answers[key_].push_back(std::move(answer));
            return *this;
        }

        State& state_;
        std::string key_;
    };

    /// The answers to the requests of this method, as HttpRequest has it, for this URL.
    Answers on(const std::string& method, const std::string& url) { return {*state_, keyOf(method, url)}; }

    /// Answers::answer() to whatever comes, for which there is no answer of its own.
    void answer(long httpStatus, const std::string& body = "") { Answers(*state_, "").answer(httpStatus, body); }
    /// Answers::fail() in the same way.
    void fail(int transportStatus) { Answers(*state_, "").fail(transportStatus); }
    /// Answers::raise() in the same way.
    template <class Thrown>
    void raise(const Thrown& thrown) {
        Answers(*state_, "").raise(thrown);
    }

    /// What `look` makes of the requests so far, as requests() would give them, without a copy. No request gets on
    /// meanwhile.
    template <class Look>
    auto lookAtRequests(const Look& look) const {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        return look(std::as_const(state_->requests));
    }
    /// All requests so far, in order, unexpected ones included.
    std::vector<HttpRequest> requests() const {
        return lookAtRequests([](const std::vector<HttpRequest>& all) { return all; });
    }
    /// requests() begins anew.
    void forgetRequests() {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->requests.clear();
    }

    /// A line for each request that was unexpected and for each answer that nobody has asked for; empty: all went as it
    /// was scripted. A test that asks at its end misses nothing.
    std::string complaint() const {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        std::string lines;
        for (const std::string& request : state_->unexpected) {
            lines += "unexpected: " + request + "\n";
        }
        for (const auto& [key, answers] : state_->answers) {
            for (std::size_t i = 0; i < answers.size(); ++i) {
                lines += "unused: " + (key.empty() ? "an answer to whatever comes" : key) + "\n";
            }
        }
        return lines;
    }

    /// What the last client was made for.
    HttpServer lastServer() const {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->lastServer;
    }
    /// The clients that have not been deleted yet.
    int liveClients() const {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->liveClients;
    }

    AWClientCURL_Base* create(const std::string& host, int port, AWCurlSessionType session) override {
        {
            const std::lock_guard<std::mutex> lock(state_->mutex);
            state_->lastServer = {host, port, session};
        }
        return new Client(state_);
    }

private:
    struct State {
        std::mutex mutex;  // guards all below
        std::map<std::string, std::deque<Answers::Answer> > answers;
        std::vector<HttpRequest> requests;
        std::vector<std::string> unexpected;
        HttpServer lastServer;
        int liveClients = 0;
    };

    static std::string keyOf(const std::string& method, const std::string& url) {
        return method + " " + (url.empty() || url.front() != '/' ? url : url.substr(1));
    }

    class Client : public AWClientCURL_Base {
    public:
        explicit Client(std::shared_ptr<State> state) : state_(std::move(state)) { count(1); }
        ~Client() override { count(-1); }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;

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
        void count(int more) {
            const std::lock_guard<std::mutex> lock(state_->mutex);
            state_->liveClients += more;
        }

        int send(const char* method, const std::string& url, const std::string& body) {
            const Answers::Answer answer = take({method, url, body, apiVersion_});
            httpStatus = answer.httpStatus;
            responseBody = answer.body;
            if (answer.thrown) {
                std::rethrow_exception(answer.thrown);
            }
            return answer.transportStatus;
        }

        Answers::Answer take(const HttpRequest& request) {
            const std::lock_guard<std::mutex> lock(state_->mutex);
            state_->requests.push_back(request);
            const std::string key = keyOf(request.method, request.url);
            for (const std::string& candidate : {key, std::string()}) {
                const auto found = state_->answers.find(candidate);
                if (found != state_->answers.end() && !found->second.empty()) {
                    Answers::Answer answer = std::move(found->second.front());
                    found->second.pop_front();
                    return answer;
                }
            }
            state_->unexpected.push_back(key);
            return {UNEXPECTED_REQUEST, 0, "", {}};
        }

        const std::shared_ptr<State> state_;
        std::string apiVersion_;
    };

    const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace platform_testing
