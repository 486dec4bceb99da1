#include "rbac/rest/Rbac2Curl.h"

#include "platform/Handles.h"

#include <platform/Installation.h>
#include <platform/Logger.h>
#include <platform/Text.h>
#include <rbac/EC_exception.h>

#include <climits>

namespace Tesmor::Arkwell::Rbac {

namespace {

using platform_detail::JsonPointer;

constexpr int REQUEST_FAILED = 114;
constexpr std::size_t SERVER_NAME_SIZE = 257;

/// The strings of an array, " (a; b)". At an element that is no string the text ends where it stands.
std::string describeDetails(const json_t* details) {
    if (json_array_size(details) == 0) {
        return "";
    }
    std::string text = " (";
    for (std::size_t i = 0; i < json_array_size(details); ++i) {
        text += i > 0 ? "; " : "";
        const char* const detail = json_string_value(json_array_get(details, i));
        if (detail == nullptr) {
            return text;
        }
        text += detail;
    }
    return text + ")";
}

}  // namespace

int find_master(std::string& name) {
    char buffer[SERVER_NAME_SIZE];
    const int status = db_getservernameEx(buffer, sizeof buffer);
    if (status == 0) {
        name = buffer;
    }
    return status;
}

std::string get_master() {
    std::string name;
    if (const int status = find_master(name); status != 0) {
        logmsgf(16, "get_master", "Couldn't get master server: %d", status);
        throw EC_exception(status);
    }
    return name;
}

std::string encode_uri_part(const std::string& part) {
    std::string encoded;
    if (const int status = percentEncodeUriPart(part, encoded); status != 0) {
        logmsgf(16, "rbac2_encode_uri_part", "Failed to encode. str=%s, status=%d", part.c_str(), status);
        throw EC_exception(status);
    }
    return encoded;
}

void throw_on_http_error(int expected, int actual, const std::string& body, const char* who) {
    if (actual == expected) {
        return;
    }
    const JsonPointer document(json_loads(body.c_str(), 0, nullptr));
    json_int_t code = 0;
    const char* message = nullptr;
    json_t* details = nullptr;
    if (!document ||
        json_unpack(document.get(), "{s:I, s:s, s?:o}", "errorCode", &code, "errorMessage", &message, "errorDetails",
                    &details) != 0 ||
        code < INT_MIN || code > INT_MAX) {
        logmsgf(16, who, "Unexpected HTTP status: %d", actual);
        throw EC_exception(REQUEST_FAILED);
    }
    const std::string text = message + describeDetails(details);
    logmsgf(16, who, "Unexpected HTTP status: %d: %s", actual, text.c_str());
    throw EC_exception(static_cast<int>(code));
}

std::string finish_request(const AWClientCURL_Base& client, int transportStatus, const std::string& url, int expected,
                           const char* who) {
    if (transportStatus != 0) {
        throw EC_exception(transportStatus);
    }
    logmsgf(4, who, "Request for %s; curl status %d; http status %ld", url.c_str(), transportStatus, client.httpStatus);
    std::string body = client.responseBody;
    throw_on_http_error(expected, static_cast<int>(client.httpStatus), body, who);
    return body;
}

}  // namespace Tesmor::Arkwell::Rbac
