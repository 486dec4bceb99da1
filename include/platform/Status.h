#pragma once

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
    explicit EC_exception(int code);
    ~EC_exception() override;

    int status;
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
};
}  // namespace platform_status
