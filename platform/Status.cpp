#include <platform/Status.h>

namespace {

struct StatusText {
    int status;
    const char* text;
};

constexpr StatusText TEXTS[] = {
    {0, "success"},
    {10, "base64 decoding failed"},
    {12, "a file cannot be opened or is not valid"},
    {13, "a file cannot be read"},
    {20, "a required argument is missing or not valid"},
    {36, "out of memory"},
    {114, "the request failed unexpectedly"},
    {117, "the session token is unknown to the authorization database"},
    {220, "the authorization database failed"},
    {7610, "a JSON document is malformed or incomplete"},
    {8001, "the token has expired"},
    {8002, "the token is not valid"},
    {8007, "the public key cannot be used"},
    {8022, "the registration failed and was rolled back"},
    {8023, "the unregistration failed and was undone"},
    {8024, "the final state could not be committed"},
    {8025, "the rollback failed"},
    {8030, "the bulk state update failed"},
    {9103, "a JSON document holds an unexpected value"},
    {platform_status::LOCK_TIMED_OUT, "the file lock was not granted in time"},
    {platform_status::LOCK_UNAVAILABLE, "the lock file cannot be opened, made or locked"},
    {platform_status::LOCK_MODE_UNKNOWN, "the file lock's mode is neither shared nor exclusive"},
    {platform_status::SETTINGS_UNREADABLE, "the settings file cannot be read"},
    {platform_status::SETTINGS_DAMAGED, "the settings file is damaged"},
    {platform_status::SETTING_MISSING, "a required setting is missing"},
    {platform_status::SETTING_TOO_LONG, "a setting is too long"},
    {platform_status::TEXT_MALFORMED, "the percent-encoded text is malformed"},
    {platform_status::JSON_MALFORMED, "the error body is not a JSON object"},
    {platform_status::JSON_MEMBER_MISSING, "the error body has no usable error code"},
    {platform_status::DATABASE_NOT_CONFIGURED, "no authorization database is configured"},
    {platform_status::DATABASE_UNREACHABLE, "no connection to the authorization database can be made"},
    {platform_status::DATABASE_BUSY, "no connection to the authorization database became free in time"},
    {platform_status::DATABASE_STATEMENT_FAILED, "the authorization database refused a statement"},
    {platform_status::DATABASE_TIMED_OUT, "the authorization database did not answer in time"},
    {platform_status::DATABASE_CONNECTION_LOST, "the connection to the authorization database is lost"},
    {platform_status::DATABASE_FETCH_FAILED, "a row cannot be fetched from the authorization database"},
    {platform_status::DATABASE_VALUE_TOO_LONG, "a value in the authorization database is too long"},
    {platform_status::DATABASE_VALUE_UNUSABLE, "a value in the authorization database is not of the expected kind"},
    {platform_status::DATABASE_MISUSED, "the data-access layer was called with arguments that it cannot use"},
    {platform_status::DATABASE_END_OF_ROWS, "there are no more rows"},
};

/// Null for a status that has no text.
const char* textOf(int status) {
    for (const StatusText& known : TEXTS) {
        if (known.status == status) {
            return known.text;
        }
    }
    return nullptr;
}

}  // namespace

std::string getECmsg(int status) {
    const char* text = textOf(status);
    return text != nullptr ? text : "unknown status " + std::to_string(status);
}

EC_exception::EC_exception(int code) : std::runtime_error(getECmsg(code)), status(code) {}

EC_exception::~EC_exception() = default;
