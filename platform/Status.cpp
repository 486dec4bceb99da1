#include <platform/Status.h>

namespace {

/// Null for a status that has no text.
const char* textOf(int status) {
    switch (status) {
        case 0:
            return "success";
        case 10:
            return "base64 decoding failed";
        case 12:
            return "a file cannot be opened or is not valid";
        case 13:
            return "a file cannot be read";
        case 20:
            return "a required argument is missing or not valid";
        case 36:
            return "out of memory";
        case 114:
            return "the request failed unexpectedly";
        case 117:
            return "the session token is unknown to the authorization database";
        case 220:
            return "the authorization database failed";
        case 7610:
            return "a JSON document is malformed or incomplete";
        case 8001:
            return "the token has expired";
        case 8002:
            return "the token is not valid";
        case 8007:
            return "the public key cannot be used";
        case 8022:
            return "the registration failed and was rolled back";
        case 8023:
            return "the unregistration failed and was undone";
        case 8024:
            return "the final state could not be committed";
        case 8025:
            return "the rollback failed";
        case 8030:
            return "the bulk state update failed";
        case 9103:
            return "a JSON document holds an unexpected value";
        case platform_status::LOCK_TIMED_OUT:
            return "the file lock was not granted in time";
        case platform_status::LOCK_UNAVAILABLE:
            return "the lock file cannot be opened, made or locked";
        case platform_status::LOCK_MODE_UNKNOWN:
            return "the file lock's mode is neither shared nor exclusive";
        case platform_status::SETTINGS_UNREADABLE:
            return "the settings file cannot be read";
        case platform_status::SETTINGS_DAMAGED:
            return "the settings file is damaged";
        case platform_status::SETTING_MISSING:
            return "a required setting is missing";
        case platform_status::SETTING_TOO_LONG:
            return "a setting is too long";
        case platform_status::TEXT_MALFORMED:
            return "the percent-encoded text is malformed";
        case platform_status::JSON_MALFORMED:
            return "the error body is not a JSON object";
        case platform_status::JSON_MEMBER_MISSING:
            return "the error body has no usable error code";
        default:
            return nullptr;
    }
}

}  // namespace

std::string getECmsg(int status) {
    const char* text = textOf(status);
    return text != nullptr ? text : "unknown status " + std::to_string(status);
}

EC_exception::EC_exception(int code) : std::runtime_error(getECmsg(code)), status(code) {}

EC_exception::~EC_exception() = default;
