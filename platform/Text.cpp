#include "platform/Handles.h"

#include <platform/Status.h>
#include <platform/Text.h>

#include <climits>
#include <string_view>
#include <utility>

namespace {

constexpr char UPPER_HEX[] = "0123456789ABCDEF";

/// The C library's classification would depend on the locale.
bool isUnreserved(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~").find(c) != std::string_view::npos;
}

/// -1 for a character that is no hexadecimal digit.
int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

}  // namespace

int percentEncodeUriPart(const std::string& in, std::string& out) {
    std::string encoded;
    encoded.reserve(in.size() * 3);
    for (const char c : in) {
        if (isUnreserved(c)) {
            encoded += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        encoded += {'%', UPPER_HEX[byte >> 4], UPPER_HEX[byte & 0xF]};
    }
    out = std::move(encoded);
    return 0;
}

int percentDecodeUriPart(const std::string& in, std::string& out) {
    std::string decoded;
    decoded.reserve(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '%') {
            decoded += in[i] == '+' ? ' ' : in[i];
            continue;
        }
        if (in.size() - i < 3) {
            return platform_status::TEXT_MALFORMED;
        }
        const int high = hexValue(in[i + 1]);
        const int low = hexValue(in[i + 2]);
        if (high < 0 || low < 0) {
            return platform_status::TEXT_MALFORMED;
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    out = std::move(decoded);
    return 0;
}

int extractErrorFromJSON(const std::string& body, int& errorCode) {
    json_error_t error;
    const platform_detail::JsonPointer document(json_loadb(body.data(), body.size(), 0, &error));
    if (!document && json_error_code(&error) == json_error_numeric_overflow) {
        return platform_status::JSON_MEMBER_MISSING;
    }
    if (!json_is_object(document.get())) {
        return platform_status::JSON_MALFORMED;
    }
    const json_t* member = json_object_get(document.get(), "errorCode");
    const json_int_t code = json_integer_value(member);
    if (!json_is_integer(member) || code < INT_MIN || code > INT_MAX) {
        return platform_status::JSON_MEMBER_MISSING;
    }
    errorCode = static_cast<int>(code);
    return 0;
}
