#pragma once

#include <sql.h>

#include <string>
#include <string_view>
#include <vector>

namespace Tesmor {
namespace Dal {
namespace detail {

/// What a driver says about a call that failed.
struct Diagnosis {
    std::string state;    // the SQLSTATE of the first record
    long nativeCode = 0;  // of the first record
    std::string message;  // of all records; may hold secrets
};

Diagnosis diagnose(SQLSMALLINT handleType, SQLHANDLE handle);

/// Takes texts that nobody may read out of what is logged.
class Redaction {
public:
    /// Hides a text wherever it occurs, also as it is written in SQL, and also its beginning alone, as a driver may cut
    /// it short. Empty text hides nothing.
    void hide(std::string_view secret);
    /// Hides a connection string as a whole and what it says about the user: names, passwords, options for the client
    /// library.
    void hideCredentials(const std::string& connectionString);

    /// The message with "***" in the place of what is hidden.
    std::string applyTo(std::string_view message) const;

private:
    std::vector<std::string> secrets_;
};

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
