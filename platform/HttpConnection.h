#pragma once

#include "platform/HttpExchange.h"
#include "platform/HttpPeer.h"
#include "platform/HttpRequest.h"
#include "platform/Settings.h"
#include "platform/TlsSessions.h"

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>

namespace platform_detail {

struct CurlEasyRelease {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlListRelease {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlList = std::unique_ptr<curl_slist, CurlListRelease>;

/// Everything that one request needs.
struct HttpRequest {
    const HttpMethod& method;
    std::string url;
    std::string mediaType;
    const std::string* text;  // the body; null: none
    HttpUpload* upload;       // the body; null: none
};

/// A connection to one peer, opened by the first request and kept for the next ones. In one thread's hands at a time.
class HttpConnection {
public:
    /// @param sessions null: the connection is closed after each request, and nothing of it is remembered.
    HttpConnection(HttpPeer peer, std::shared_ptr<TlsSessions> sessions);
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    const HttpPeer& peer() const { return peer_; }
    /// Whether the connection outlasts a request.
    bool isKept() const { return sessions_ != nullptr; }

    /// Sends the request and receives the response, all of it within the limits. A connection that the server has
    /// closed meanwhile is replaced first. Where a kept one breaks later, but before any answer, an idempotent request
    /// is sent again on a new one; any other is sent once at most.
    ///
    /// @throws HttpFailure; the connection is not to be used any more then.
    HttpResponse perform(const HttpRequest& request, const Settings::Http& limits);

private:
    static CURLcode onTlsContext(CURL* handle, void* context, void* connection);

    template <class Value>
    void set(CURLoption option, Value value);
    void setTerms();
    void setCallbacks();
    void setLimits(const Settings::Http& limits);
    void setBody(const HttpRequest& request);
    void setMethod(const HttpRequest& request);
    curl_socket_t socket() const;
    bool isIdle() const;
    CURLcode attempt(const HttpRequest& request, const Settings::Http& limits, bool onKeptConnection);
    /// @param passed of the time for the whole request.
    CURLcode attemptAgain(const HttpRequest& request, Settings::Http limits, std::chrono::milliseconds passed);
    /// Whether the first attempt ended in a broken connection before anything came back.
    bool brokeUnanswered(CURLcode code) const;
    bool isPerhapsCutShort() const;
    bool leavesBody() const;
    const char* header(const char* name) const;
    HttpResponse takeResponse();

    HttpPeer peer_;
    std::shared_ptr<TlsSessions> sessions_;
    HttpExchange exchange_;
    std::array<char, CURL_ERROR_SIZE> error_{};
    std::unique_ptr<CURL, CurlEasyRelease> handle_;  // the last member: while it is released, it uses the others
};

}  // namespace platform_detail
