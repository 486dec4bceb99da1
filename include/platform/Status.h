#pragma once

/// @file
/// Status codes, their messages, and the exception that carries one.

#include <platform/Export.h>

#include <stdexcept>
#include <string>

/// Returns the message for a status code.
///
/// Never empty: a status that nobody has given a text to is answered with its number. Safe from any thread.
///
/// @param status 0 for success, or any of the product's status codes.
ARKWELL_EXPORT std::string getECmsg(int status);

/// A failure that carries one of the product's status codes. `what()` is getECmsg() of that status.
class ARKWELL_EXPORT EC_exception : public std::runtime_error {
public:
    /// Looks up the message of the code.
    explicit EC_exception(int code);
    ~EC_exception() override;

    int status;  ///< the code
};

/// The statuses of the platform library itself.
namespace platform_status {
enum : int {
    LOCK_TIMED_OUT = 9501,       ///< a file lock was not granted within its time limit
    LOCK_UNAVAILABLE = 9502,     ///< a lock file cannot be opened, made or locked
    LOCK_MODE_UNKNOWN = 9503,    ///< a file lock was asked for with a mode other than 0 and 1
    SETTINGS_UNREADABLE = 9511,  ///< the settings file is missing or cannot be read
    SETTINGS_DAMAGED = 9512,     ///< the settings file is not the JSON object that it has to be
    SETTING_MISSING = 9513,      ///< a setting that is needed is absent or empty
    SETTING_TOO_LONG = 9514,     ///< a setting does not fit into the caller's buffer
    TEXT_MALFORMED = 9521,       ///< percent-encoded text holds a "%" without two hexadecimal digits
    JSON_MALFORMED = 9522,       ///< an error body is not a JSON object
    JSON_MEMBER_MISSING = 9523,  ///< an error body has no 32-bit integer "errorCode"

    DATABASE_NOT_CONFIGURED = 9531,    ///< the settings file has no connection string
    DATABASE_UNREACHABLE = 9532,       ///< no connection to the database can be made
    DATABASE_BUSY = 9533,              ///< no connection of the pool became free in time
    DATABASE_STATEMENT_FAILED = 9534,  ///< the database refused a statement
    DATABASE_TIMED_OUT = 9535,         ///< the database did not answer in time
    DATABASE_CONNECTION_LOST = 9536,   ///< the connection to the database is lost
    DATABASE_FETCH_FAILED = 9537,      ///< a row cannot be fetched
    DATABASE_VALUE_TOO_LONG = 9538,    ///< a value does not fit into its column buffer
    DATABASE_VALUE_UNUSABLE = 9539,    ///< a value is not of its column buffer's kind
    DATABASE_MISUSED = 9540,           ///< a null pointer, a column outside its row buffer, an unknown kind
    DATABASE_END_OF_ROWS = 2007031,    ///< there is no further row to fetch

    HTTP_REQUEST_UNUSABLE = 9551,             ///< the host, port, path or API version holds what no request can carry
    HTTP_FILE_UNREADABLE = 9552,              ///< the file to send cannot be read
    HTTP_NAME_NOT_RESOLVED = 9553,            ///< the server's name has no address
    HTTP_CONNECTION_REFUSED = 9554,           ///< nobody listens on the server's port
    HTTP_HOST_UNREACHABLE = 9555,             ///< no way leads to the server
    HTTP_CONNECT_TIMED_OUT = 9556,            ///< no connection came about in time
    HTTP_TIMED_OUT = 9557,                    ///< the answer was not complete in time
    HTTP_CA_FILE_UNUSABLE = 9558,             ///< the file of trusted issuers cannot be used
    HTTP_CLIENT_CERTIFICATE_UNUSABLE = 9559,  ///< the host's certificate or key file cannot be used
    HTTP_CLIENT_CERTIFICATE_REFUSED = 9560,   ///< the server refused the host's certificate, or the lack of one
    HTTP_SERVER_ISSUER_UNKNOWN = 9561,        ///< no trusted issuer vouches for the server's certificate
    HTTP_SERVER_NAME_WRONG = 9562,            ///< the server's certificate is for another name
    HTTP_SERVER_CERTIFICATE_EXPIRED = 9563,   ///< the server's certificate, or an issuer's, has expired
    HTTP_SERVER_CERTIFICATE_NOT_YET_VALID = 9564,  ///< the server's certificate, or an issuer's, is not valid yet
    HTTP_SERVER_CERTIFICATE_UNUSABLE = 9565,       ///< the server's certificate is unacceptable for another reason
    HTTP_TLS_FAILED = 9566,                        ///< the TLS handshake failed for another reason
    HTTP_CONNECTION_CLOSED = 9567,                 ///< the server closed the connection without an answer
    HTTP_RESPONSE_MALFORMED = 9568,                ///< the answer is cut short or is not HTTP
    HTTP_RESPONSE_TOO_LARGE = 9569,                ///< the answer is larger than the settings allow
    HTTP_OUT_OF_MEMORY = 9570,                     ///< memory ran out during a request
    HTTP_FAILED = 9571,                            ///< a request failed for a reason that has no status
};
}  // namespace platform_status
