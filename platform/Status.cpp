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
    {platform_status::HTTP_REQUEST_UNUSABLE, "the HTTP request cannot be expressed"},
    {platform_status::HTTP_FILE_UNREADABLE, "the file to send cannot be read"},
    {platform_status::HTTP_NAME_NOT_RESOLVED, "the server's name cannot be resolved"},
    {platform_status::HTTP_CONNECTION_REFUSED, "the server refused the connection"},
    {platform_status::HTTP_HOST_UNREACHABLE, "the server cannot be reached"},
    {platform_status::HTTP_CONNECT_TIMED_OUT, "the connection to the server was not made in time"},
    {platform_status::HTTP_TIMED_OUT, "the server did not answer in time"},
    {platform_status::HTTP_CA_FILE_UNUSABLE, "the file of trusted certificate issuers cannot be used"},
    {platform_status::HTTP_CLIENT_CERTIFICATE_UNUSABLE, "the host's certificate or key cannot be used"},
    {platform_status::HTTP_CLIENT_CERTIFICATE_REFUSED, "the server refused the host's certificate"},
    {platform_status::HTTP_SERVER_ISSUER_UNKNOWN, "the issuer of the server's certificate is not trusted"},
    {platform_status::HTTP_SERVER_NAME_WRONG, "the server's certificate is for another name"},
    {platform_status::HTTP_SERVER_CERTIFICATE_EXPIRED, "the server's certificate has expired"},
    {platform_status::HTTP_SERVER_CERTIFICATE_NOT_YET_VALID, "the server's certificate is not valid yet"},
    {platform_status::HTTP_SERVER_CERTIFICATE_UNUSABLE, "the server's certificate is not acceptable"},
    {platform_status::HTTP_TLS_FAILED, "no secure connection to the server can be agreed"},
    {platform_status::HTTP_CONNECTION_CLOSED, "the server closed the connection without an answer"},
    {platform_status::HTTP_RESPONSE_MALFORMED, "the server's answer is malformed or cut short"},
    {platform_status::HTTP_RESPONSE_TOO_LARGE, "the server's answer is too large"},
    {platform_status::HTTP_OUT_OF_MEMORY, "the HTTP client ran out of memory"},
    {platform_status::HTTP_FAILED, "the HTTP request failed"},
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
