#include "platform/HttpPool.h"
#include "platform/HttpRequest.h"
#include "platform/HttpTarget.h"
#include "platform/HttpUpload.h"
#include "platform/Settings.h"

#include <platform/HttpClient.h>
#include <platform/Logger.h>
#include <platform/Status.h>

#include <memory>
#include <new>
#include <optional>
#include <utility>

namespace {

using namespace platform_detail;

constexpr HttpMethod PUT{"PUT", "AWClientCURL::Put", true};
constexpr HttpMethod POST{"POST", "AWClientCURL::Post", false};
constexpr HttpMethod POST_FILE{"POST", "AWClientCURL::PostFile", false};
constexpr HttpMethod PATCH{"PATCH", "AWClientCURL::Patch", false};
constexpr HttpMethod GET{"GET", "AWClientCURL::Get", true};
constexpr HttpMethod DELETE_METHOD{"DELETE", "AWClientCURL::Delete", true};

std::shared_ptr<const Settings> usableSettings() {
    std::shared_ptr<const Settings> settings = currentSettings();
    if (settings->status != 0) {
        throw HttpFailure{settings->status, settings->error};
    }
    return settings;
}

/// Throws nothing, also where there is no memory for the whole line.
void logFailure(const HttpMethod& method, const std::string& host, int port, int status, const char* detail) {
    try {
        logmsgf(16, method.function, "%s to %s:%d failed: %s: %s", method.name, host.c_str(), port,
                getECmsg(status).c_str(), detail);
    } catch (const std::bad_alloc&) {
        logmsg(16, method.function, detail);
    }
}

}  // namespace

AWClientCURL_Base::~AWClientCURL_Base() = default;

AWClientCURL::AWClientCURL(const std::string& host, int port, AWCurlSessionType session, cert_type certificate)
    : host_(host), port_(port), session_(session), certificate_(certificate) {}

AWClientCURL::~AWClientCURL() = default;

int AWClientCURL::Put(const std::string& url, const std::string& body) {
    return send(PUT, url, {&body, nullptr});
}

int AWClientCURL::Post(const std::string& url, const std::string& body) {
    return send(POST, url, {&body, nullptr});
}

int AWClientCURL::PostFile(const std::string& url, const std::string& filePath) {
    return send(POST_FILE, url, {nullptr, &filePath});
}

int AWClientCURL::Patch(const std::string& url, const std::string& body) {
    return send(PATCH, url, {&body, nullptr});
}

int AWClientCURL::Get(const std::string& url) {
    return send(GET, url, {});
}

int AWClientCURL::Delete(const std::string& url) {
    return send(DELETE_METHOD, url, {});
}

void AWClientCURL::setApiVersion(const std::string& version) {
    apiVersion_ = version;
}

int AWClientCURL::send(const HttpMethod& method, const std::string& url, const HttpBody& body) {
    HttpResponse response;
    int status = 0;
    try {
        HttpRequest request{method, httpTarget(host_, port_, url), httpMediaType(apiVersion_), body.text, nullptr};
        std::optional<HttpUpload> upload;
        if (body.filePath != nullptr) {
            request.upload = &upload.emplace(*body.filePath);
        }
        const std::shared_ptr<const Settings> settings = usableSettings();
        response =
            HttpPool::instance().lend(host_, port_, session_, certificate_, settings).perform(request, settings->http);
    } catch (const HttpFailure& failure) {
        status = failure.status;
        logFailure(method, host_, port_, failure.status, failure.detail.c_str());
    } catch (const std::bad_alloc&) {
        status = platform_status::HTTP_OUT_OF_MEMORY;
        logFailure(method, host_, port_, status, "no memory for the request");
    }
    // Not before: the caller may have passed the last response's body as this request's.
    httpStatus = response.status;
    responseBody = std::move(response.body);
    return status;
}

AWClientCURL_BaseFactory::~AWClientCURL_BaseFactory() = default;

AWClientCURLFactory::AWClientCURLFactory(cert_type certificate) : certificate_(certificate) {}

AWClientCURLFactory::~AWClientCURLFactory() = default;

AWClientCURL_Base* AWClientCURLFactory::create(const std::string& host, int port, AWCurlSessionType session) {
    return new AWClientCURL(host, port, session, certificate_);
}
