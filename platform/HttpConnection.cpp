#include "platform/HttpConnection.h"

#include "platform/HttpFailures.h"
#include "platform/HttpSockets.h"
#include "platform/KeepLoaded.h"

#include <platform/Status.h>

#include <openssl/ssl.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <new>
#include <string_view>
#include <utility>

namespace platform_detail {

namespace {

constexpr std::string_view STATUS_LINE = "HTTP/";
constexpr long NO_CONTENT = 204;
constexpr long NOT_MODIFIED = 304;

bool isWithoutBody(long status) {
    return status == NO_CONTENT || status == NOT_MODIFIED;
}

// What libcurl and this file make of the same time may differ by so much.
constexpr std::chrono::milliseconds CLOCK_TOLERANCE{5};

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds timeSince(Clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
}

// libcurl's callbacks. No exception may pass through it.

std::size_t onBody(const char* data, std::size_t /*one*/, std::size_t size, void* pointer) {
    auto& exchange = *static_cast<HttpExchange*>(pointer);
    std::string& body = exchange.response.body;
    if (size > exchange.maxResponseBytes - body.size()) {
        exchange.bodyTooLarge = true;
        return 0;
    }
    try {
        body.append(data, size);
        return size;
    } catch (const std::exception&) {
        exchange.outOfMemory = true;
        return 0;
    }
}

std::size_t onHeader(const char* line, std::size_t /*one*/, std::size_t size, void* pointer) {
    auto& exchange = *static_cast<HttpExchange*>(pointer);
    exchange.headerBytes += size;
    // What follows a chunked body are lines of headers, too, but only a status line begins another answer.
    const std::string_view text(line, size);
    if (text.substr(0, STATUS_LINE.size()) == STATUS_LINE) {
        exchange.headersEnded = false;
    } else if (text == "\r\n" || text == "\n") {
        exchange.headersEnded = true;
    }
    exchange.headersTooLarge = exchange.headerBytes > MAX_HEADER_BYTES;
    return exchange.headersTooLarge ? 0 : size;
}

std::size_t onUpload(char* buffer, std::size_t one, std::size_t capacity, void* pointer) {
    const auto& exchange = *static_cast<HttpExchange*>(pointer);
    const long count = exchange.upload->read(buffer, one * capacity);
    return count < 0 ? CURL_READFUNC_ABORT : static_cast<std::size_t>(count);
}

// Called each time that the request is about to go out on a connection. libcurl sends a request again when a kept
// connection breaks before any answer, whatever the method; the server may have acted on the first one by then.
int onSend(void* pointer, char* /*remote*/, char* /*local*/, int /*remotePort*/, int /*localPort*/) {
    auto& exchange = *static_cast<HttpExchange*>(pointer);
    exchange.connecting = false;
    ++exchange.sendings;
    exchange.resendRefused = exchange.sendings > 1 && !exchange.idempotent;
    return exchange.resendRefused ? CURL_PREREQFUNC_ABORT : CURL_PREREQFUNC_OK;
}

curl_socket_t onOpenSocket(void* pointer, curlsocktype /*purpose*/, curl_sockaddr* address) {
    auto& exchange = *static_cast<HttpExchange*>(pointer);
    exchange.connecting = true;
    try {
        return HttpSockets::instance().open(*address);
    } catch (const std::bad_alloc&) {
        exchange.outOfMemory = true;
        return CURL_SOCKET_BAD;
    }
}

int onCloseSocket(void* /*unused*/, curl_socket_t socket) {
    HttpSockets::instance().close(socket);
    return 0;
}

void onTlsEvent(const SSL* tls, int event, int value) {
    auto* exchange = static_cast<HttpExchange*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(tls), 0));
    if ((event & SSL_CB_ALERT) == 0) {
        return;
    }
    const int alert = value & 0xff;
    if (alert == SSL_AD_CLOSE_NOTIFY) {
        exchange->endAnnounced |= (event & SSL_CB_READ) != 0;
    } else if ((event & SSL_CB_READ) != 0) {
        exchange->tlsAlert = alert;
    } else {
        exchange->verification = SSL_get_verify_result(tls);
    }
}

long curlMilliseconds(std::chrono::milliseconds time) {
    return static_cast<long>(std::min<std::chrono::milliseconds::rep>(time.count(), INT_MAX));
}

CurlList headersOf(const HttpRequest& request) {
    CurlList headers;
    const auto add = [&headers](const std::string& line) {
        curl_slist* longer = curl_slist_append(headers.get(), line.c_str());
        if (longer == nullptr) {
            throw std::bad_alloc();  // GCOVR_EXCL_LINE: of libcurl
        }
        // The list's beginning stays the same once there is one.
        if (!headers) {
            headers.reset(longer);
        }
    };
    const bool hasBody = request.upload != nullptr || (request.text != nullptr && !request.text->empty());
    add("Accept: " + request.mediaType);
    add("Content-Type:" + (hasBody ? " " + request.mediaType : ""));
    add("Expect:");
    return headers;
}

// A resolver that does not answer in time is left behind in a thread of its own, which ends when it can.
bool isResolverLeftBehind(CURLcode code, CURL* handle) {
    curl_off_t resolved = 0;
    curl_easy_getinfo(handle, CURLINFO_NAMELOOKUP_TIME_T, &resolved);
    return code == CURLE_OPERATION_TIMEDOUT && resolved == 0;
}

}  // namespace

HttpConnection::HttpConnection(HttpPeer peer, std::shared_ptr<TlsSessions> sessions)
    : peer_(std::move(peer)), sessions_(std::move(sessions)), handle_(curl_easy_init()) {
    if (!handle_) {
        throw std::bad_alloc();  // GCOVR_EXCL_LINE: of libcurl
    }
    setTerms();
    setCallbacks();
}

template <class Value>
void HttpConnection::set(CURLoption option, Value value) {
    // In parentheses: the macro of that name wants to know the option when it is compiled.
    const CURLcode code = (curl_easy_setopt)(handle_.get(), option, value);
    if (code == CURLE_OUT_OF_MEMORY) {
        throw std::bad_alloc();  // GCOVR_EXCL_LINE: of libcurl
    }
    // An option that is not in effect may be one that the others rely on, such as the only trusted issuers.
    if (code != CURLE_OK) {
        // GCOVR_EXCL_START: the library checks what it sets, and its packages name the libcurl that has these options.
        throw HttpFailure{platform_status::HTTP_FAILED, std::string("libcurl's options: ") + curl_easy_strerror(code)};
        // GCOVR_EXCL_STOP
    }
}

CURLcode HttpConnection::onTlsContext(CURL* /*handle*/, void* context, void* connection) {
    auto* tls = static_cast<SSL_CTX*>(context);
    auto& self = *static_cast<HttpConnection*>(connection);
    // Number 0 is the one that belongs to the application.
    if (SSL_CTX_set_ex_data(tls, 0, &self.exchange_) != 1) {
        return CURLE_OUT_OF_MEMORY;
    }
    SSL_CTX_set_info_callback(tls, onTlsEvent);
    const HostCertificate* certificate = self.peer_.files->hostCertificate.get();
    return certificate == nullptr || certificate->giveTo(tls) ? CURLE_OK : CURLE_OUT_OF_MEMORY;
}

/// What holds for every request on this connection.
void HttpConnection::setTerms() {
    set(CURLOPT_PROTOCOLS_STR, "https");
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    const std::string& issuers = peer_.files->issuersText;
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): libcurl only reads it
    auto* const bytes = const_cast<char*>(issuers.data());
    curl_blob blob{bytes, issuers.size(), CURL_BLOB_NOCOPY};
    set(CURLOPT_CAINFO_BLOB, &blob);
    set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // else the system's issuers are trusted as well
    set(CURLOPT_FOLLOWLOCATION, 0L);
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_PROXY, "");
    set(CURLOPT_NOPROXY, "*");
    set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_MAXCONNECTS, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);  // else a time limit that passes waits for the resolver to end
    if (sessions_) {
        set(CURLOPT_SHARE, sessions_->share());
    } else {
        set(CURLOPT_FORBID_REUSE, 1L);
        set(CURLOPT_SSL_SESSIONID_CACHE, 0L);
    }
}

void HttpConnection::setCallbacks() {
    set(CURLOPT_ERRORBUFFER, error_.data());
    set(CURLOPT_WRITEFUNCTION, onBody);
    set(CURLOPT_WRITEDATA, &exchange_);
    set(CURLOPT_HEADERFUNCTION, onHeader);
    set(CURLOPT_HEADERDATA, &exchange_);
    set(CURLOPT_READFUNCTION, onUpload);
    set(CURLOPT_READDATA, &exchange_);
    set(CURLOPT_PREREQFUNCTION, onSend);
    set(CURLOPT_PREREQDATA, &exchange_);
    set(CURLOPT_OPENSOCKETFUNCTION, onOpenSocket);
    set(CURLOPT_OPENSOCKETDATA, &exchange_);
    set(CURLOPT_CLOSESOCKETFUNCTION, onCloseSocket);
    set(CURLOPT_SSL_CTX_FUNCTION, onTlsContext);
    set(CURLOPT_SSL_CTX_DATA, this);
}

void HttpConnection::setLimits(const Settings::Http& limits) {
    set(CURLOPT_CONNECTTIMEOUT_MS, curlMilliseconds(limits.connectTimeout));
    set(CURLOPT_TIMEOUT_MS, curlMilliseconds(limits.timeout));
    set(CURLOPT_MAXFILESIZE_LARGE,
        static_cast<curl_off_t>(std::min<std::uint64_t>(limits.maxResponseBytes, LLONG_MAX)));
}

void HttpConnection::setBody(const HttpRequest& request) {
    const bool isText = request.upload == nullptr;
    set(CURLOPT_POST, 1L);
    set(CURLOPT_POSTFIELDSIZE_LARGE,
        isText ? static_cast<curl_off_t>(request.text->size()) : static_cast<curl_off_t>(request.upload->size()));
    set(CURLOPT_POSTFIELDS, isText ? request.text->data() : nullptr);
}

void HttpConnection::setMethod(const HttpRequest& request) {
    if (request.text != nullptr || request.upload != nullptr) {
        setBody(request);
    } else {
        set(CURLOPT_HTTPGET, 1L);
    }
    set(CURLOPT_CUSTOMREQUEST, request.method.name);
}

curl_socket_t HttpConnection::socket() const {
    curl_socket_t socket = CURL_SOCKET_BAD;
    curl_easy_getinfo(handle_.get(), CURLINFO_ACTIVESOCKET, &socket);
    return socket;
}

/// Whether nothing has come from the server since the last response. What comes then is a farewell, at best a ticket
/// for the next TLS session. Nor will anything come that belongs to that response.
bool HttpConnection::isIdle() const {
    if (exchange_.leavesBody) {
        return false;
    }
    pollfd readable{socket(), POLLIN, 0};
    return readable.fd != CURL_SOCKET_BAD && poll(&readable, 1, 0) == 0;
}

/// Whether the body had no end but that of the connection, and nobody knows who ended that: libcurl takes it as whole.
bool HttpConnection::isPerhapsCutShort() const {
    if (exchange_.endAnnounced || socket() != CURL_SOCKET_BAD) {
        return false;
    }
    curl_off_t length = 0;
    curl_easy_getinfo(handle_.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    return length < 0 && header("Transfer-Encoding") == nullptr && !isWithoutBody(exchange_.response.status);
}

/// Whether the answer announces a body that no answer of its status has. libcurl does not read it, so it would be taken
/// for the answer to the next request.
bool HttpConnection::leavesBody() const {
    const char* const length = header("Content-Length");
    const bool isAnnounced =
        (length != nullptr && std::string_view(length) != "0") || header("Transfer-Encoding") != nullptr;
    return isAnnounced && isWithoutBody(exchange_.response.status);
}

/// The header of the last answer, or null.
const char* HttpConnection::header(const char* name) const {
    curl_header* found = nullptr;
    return curl_easy_header(handle_.get(), name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK ? found->value : nullptr;
}

/// What libcurl received and took as whole.
HttpResponse HttpConnection::takeResponse() {
    curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &exchange_.response.status);
    if (!exchange_.headersEnded) {
        throw HttpFailure{platform_status::HTTP_RESPONSE_MALFORMED, "the answer ends in its headers"};
    }
    if (isPerhapsCutShort()) {
        throw HttpFailure{platform_status::HTTP_RESPONSE_MALFORMED, "the answer may have been cut short"};
    }
    exchange_.leavesBody = leavesBody();
    return std::move(exchange_.response);
}

CURLcode HttpConnection::attempt(const HttpRequest& request, const Settings::Http& limits, bool onKeptConnection) {
    exchange_ = HttpExchange();
    exchange_.idempotent = request.method.idempotent;
    exchange_.upload = request.upload;
    exchange_.maxResponseBytes = limits.maxResponseBytes;
    error_.front() = '\0';

    const CurlList headers = headersOf(request);
    set(CURLOPT_URL, request.url.c_str());
    set(CURLOPT_HTTPHEADER, headers.get());
    set(CURLOPT_FRESH_CONNECT, onKeptConnection ? 0L : 1L);
    setMethod(request);
    setLimits(limits);
    return curl_easy_perform(handle_.get());
}

bool HttpConnection::brokeUnanswered(CURLcode code) const {
    const bool broke = code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR || code == CURLE_GOT_NOTHING;
    return broke && exchange_.sendings <= 1 && exchange_.headerBytes == 0 && exchange_.response.body.empty();
}

CURLcode HttpConnection::attemptAgain(const HttpRequest& request, Settings::Http limits,
                                      std::chrono::milliseconds passed) {
    if (limits.timeout <= passed) {
        error_.front() = '\0';  // what it says is of the first attempt
        return CURLE_OPERATION_TIMEDOUT;
    }
    limits.timeout -= passed;
    return attempt(request, limits, false);
}

HttpResponse HttpConnection::perform(const HttpRequest& request, const Settings::Http& limits) {
    const Clock::time_point begin = Clock::now();
    const bool wasKept = isIdle();
    CURLcode code = attempt(request, limits, wasKept);
    // libcurl itself starts again where it cannot read the answer, but not where the connection breaks in the midst of
    // a body.
    if (wasKept && request.method.idempotent && brokeUnanswered(code)) {
        code = attemptAgain(request, limits, timeSince(begin));
    }
    if (isResolverLeftBehind(code, handle_.get())) {
        keepLoaded(reinterpret_cast<const void*>(&curl_easy_perform));  // into which that thread returns
    }
    if (code != CURLE_OK) {
        exchange_.timeIsUp = limits.timeout <= timeSince(begin) + CLOCK_TOLERANCE;
        long systemError = 0;
        curl_easy_getinfo(handle_.get(), CURLINFO_OS_ERRNO, &systemError);
        // Closing reads what the server still had to say, such as why it refused a certificate.
        handle_.reset();
        // What libcurl says of the issuers does not name their file.
        const std::string detail = code == CURLE_SSL_CACERT_BADFILE
                                       ? peer_.files->issuers.path + ": there is no usable certificate in it"
                                       : error_.data();
        throw httpFailure(code, systemError, exchange_, detail);
    }
    return takeResponse();
}

}  // namespace platform_detail
