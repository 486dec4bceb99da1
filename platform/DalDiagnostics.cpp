#include "platform/DalDiagnostics.h"

#include "platform/DalConnectionString.h"

#include <sqlext.h>

#include <algorithm>
#include <array>
#include <utility>

namespace Tesmor {
namespace Dal {
namespace detail {

namespace {

constexpr SQLSMALLINT MOST_RECORDS = 64;
constexpr std::size_t SHORTEST_BEGINNING = 8;

struct Record {
    std::string state;
    long nativeCode = 0;
    std::string message;
};

/// @return whether there is a record of that number.
bool readRecord(SQLSMALLINT handleType, SQLHANDLE handle, SQLSMALLINT number, Record& record) {
    std::array<SQLCHAR, SQL_SQLSTATE_SIZE + 1> state{};
    std::array<SQLCHAR, 1024> buffer{};
    SQLINTEGER nativeCode = 0;
    SQLSMALLINT length = 0;
    if (!SQL_SUCCEEDED(SQLGetDiagRec(handleType, handle, number, state.data(), &nativeCode, buffer.data(),
                                     static_cast<SQLSMALLINT>(buffer.size()), &length))) {
        return false;
    }
    record.state = reinterpret_cast<const char*>(state.data());
    record.nativeCode = nativeCode;
    record.message = reinterpret_cast<const char*>(buffer.data());
    return true;
}

bool isSecret(const std::string& key) {
    static constexpr std::array<std::string_view, 10> KEYS{"pwd",     "password", "uid",   "user",        "username",
                                                           "user id", "userid",   "login", "sslpassword", "pqopt"};
    return std::find(KEYS.begin(), KEYS.end(), key) != KEYS.end();
}

/// The text with each of the letters twice.
std::string doubled(std::string_view text, std::string_view letters) {
    std::string result;
    for (const char c : text) {
        result.append(letters.find(c) == std::string_view::npos ? 1 : 2, c);
    }
    return result;
}

/// How many bytes of the secret the text begins with.
std::size_t lengthInCommon(std::string_view text, std::string_view secret) {
    const std::size_t longest = std::min(text.size(), secret.size());
    return static_cast<std::size_t>(
        std::mismatch(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(longest), secret.begin()).first -
        text.begin());
}

}  // namespace

Diagnosis diagnose(SQLSMALLINT handleType, SQLHANDLE handle) {
    Diagnosis diagnosis;
    Record record;
    std::string previousState;
    for (SQLSMALLINT i = 1; i <= MOST_RECORDS && readRecord(handleType, handle, i, record); ++i) {
        if (i == 1) {
            diagnosis.state = record.state;
            diagnosis.nativeCode = record.nativeCode;
        } else if (record.state != previousState) {
            diagnosis.message += "; ";
        }
        // Records of one state are one message in pieces.
        diagnosis.message += record.message;
        previousState = record.state;
    }
    return diagnosis;
}

void Redaction::hide(std::string_view secret) {
    if (secret.empty()) {
        return;
    }
    secrets_.emplace_back(secret);
    const std::string quoted = doubled(secret, "'");
    if (quoted != secret) {
        secrets_.push_back(quoted);
    }
    const std::string escaped = doubled(secret, "'\\");
    if (escaped != quoted) {
        secrets_.push_back(escaped);
    }
}

void Redaction::hideCredentials(const std::string& connectionString) {
    hide(connectionString);
    ConnectionAttributes attributes(connectionString);
    std::string key;
    std::string value;
    while (attributes.next(key, value)) {
        if (isSecret(key)) {
            hide(value);
            hide(trimmed(value));
        }
    }
}

std::string Redaction::applyTo(std::string_view message) const {
    std::string redacted;
    while (!message.empty()) {
        std::size_t hidden = 0;
        for (const std::string& secret : secrets_) {
            const std::size_t common = lengthInCommon(message, secret);
            if (common == secret.size() || common >= SHORTEST_BEGINNING) {
                hidden = std::max(hidden, common);
            }
        }
        if (hidden > 0) {
            redacted += "***";
        } else {
            redacted += message.front();
        }
        message.remove_prefix(std::max<std::size_t>(hidden, 1));
    }
    return redacted;
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
