#include "sandbox/ServiceError.h"

#include "sandbox/Json.h"

#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

std::string whole(const ErrorKind& kind, const std::vector<std::string>& details) {
    std::string text = kind.message;
    const char* separator = ": ";
    for (const std::string& detail : details) {
        text += separator + detail;
        separator = "; ";
    }
    return text;
}

}  // namespace

ServiceError::ServiceError(const ErrorKind& errorKind, std::vector<std::string> details)
    : std::runtime_error(whole(errorKind, details)), kind_(errorKind), details_(std::move(details)) {}

ServiceError::ServiceError(const ErrorKind& errorKind, const std::string& detail)
    : ServiceError(errorKind, std::vector<std::string>{detail}) {}

std::string errorBody(int code, const std::string& message, const std::vector<std::string>& details) {
    const JsonPointer list = json::array();
    for (const std::string& detail : details) {
        json_array_append_new(list.get(), json_stringn(detail.data(), detail.size()));
    }
    return json::dump(
        json::pack("{s:i, s:s, s:O}", "errorCode", code, "errorMessage", message.c_str(), "errorDetails", list.get()));
}

}  // namespace Tesmor::Arkwell::Sandbox
