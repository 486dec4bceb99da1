#include "platform/HttpTarget.h"

#include "platform/HttpRequest.h"

#include <platform/Status.h>

#include <algorithm>
#include <string_view>

namespace platform_detail {

namespace {

constexpr int HIGHEST_PORT = 65535;

[[noreturn]] void unusable(const std::string& reason) {
    throw HttpFailure{platform_status::HTTP_REQUEST_UNUSABLE, reason};
}

bool isAlphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool consistsOf(std::string_view text, std::string_view others) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [others](char c) {
        return isAlphanumeric(c) || others.find(c) != std::string_view::npos;
    });
}

/// The host as a URL holds it: an IPv6 address in brackets.
std::string authorityHost(const std::string& host) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    const std::string_view inside = bracketed ? std::string_view(host).substr(1, host.size() - 2) : host;
    const bool isIpv6 = inside.find(':') != std::string_view::npos;
    if (bracketed && !isIpv6) {
        unusable("the host's name is not valid");
    }
    if (!consistsOf(inside, isIpv6 ? ".:" : ".-_")) {
        unusable("the host's name is not valid");
    }
    return isIpv6 ? "[" + std::string(inside) + "]" : host;
}

/// Blanks and control characters would end the request line or begin a header, "#" would silently cut the path.
bool isUnusableInPath(char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7f' || c == '#';
}

}  // namespace

std::string httpTarget(const std::string& host, int port, const std::string& path) {
    if (port < 1 || port > HIGHEST_PORT) {
        unusable("the port is not valid");
    }
    if (std::any_of(path.begin(), path.end(), isUnusableInPath)) {
        unusable("the path holds a blank, a control character or a \"#\"");
    }
    std::string url = "https://" + authorityHost(host) + ":" + std::to_string(port);
    if (path.empty() || path.front() != '/') {
        url += '/';
    }
    return url += path;
}

std::string httpMediaType(const std::string& apiVersion) {
    if (apiVersion.empty()) {
        return "application/json";
    }
    if (!consistsOf(apiVersion, "!#$%&'*+-.^_`|~")) {
        unusable("the API version is not a token");
    }
    return "application/vnd.arkwell+json;version=" + apiVersion;
}

}  // namespace platform_detail
