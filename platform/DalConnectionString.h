#pragma once

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

namespace Tesmor {
namespace Dal {
namespace detail {

inline bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

inline std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

/// Splits a connection string into its attributes: KEY=value;KEY={value};...
class ConnectionAttributes {
public:
    explicit ConnectionAttributes(std::string_view text) : rest_(text) {}

    bool next(std::string& key, std::string& value) {
        if (rest_.empty()) {
            return false;
        }
        const std::size_t end = std::min(rest_.find_first_of("=;"), rest_.size());
        key = std::string(trimmed(rest_.substr(0, end)));
        std::transform(key.begin(), key.end(), key.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        const bool hasValue = end < rest_.size() && rest_[end] == '=';
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        value = hasValue ? takeValue() : std::string();
        return true;
    }

private:
    std::string takeValue() {
        std::size_t end = 0;
        std::string unquoted;
        if (!rest_.empty() && rest_.front() == '{') {
            for (end = 1; end < rest_.size(); ++end) {
                if (rest_[end] == '}' && rest_.substr(end + 1, 1) != "}") {
                    break;
                }
                unquoted += rest_[end];
                end += rest_[end] == '}' ? 1 : 0;  // "}}" stands for "}"
            }
        }
        end = std::min(rest_.find(';', end), rest_.size());
        std::string value = unquoted.empty() ? std::string(rest_.substr(0, end)) : unquoted;
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        return value;
    }

    std::string_view rest_;
};

/// Whether it says by the driver's name that the database runs in this process. Not so where it names a data source.
inline bool namesSqlite(std::string_view connectionString) {
    ConnectionAttributes attributes(connectionString);
    std::string key;
    std::string value;
    while (attributes.next(key, value)) {
        if (key == "driver") {
            std::transform(value.begin(), value.end(), value.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            return value.find("sqlite", value.rfind('/') + 1) != std::string::npos;
        }
    }
    return false;
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
