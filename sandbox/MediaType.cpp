#include "sandbox/MediaType.h"

#include <boost/optional.hpp>

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr char PLAIN[] = "application/json";
constexpr char VERSIONED[] = "application/vnd.arkwell+json";
using Version = std::pair<int, int>;
constexpr Version NEWEST{6, 0};
constexpr Version OLDEST{1, 0};

struct MediaType {
    std::string name;
    std::map<std::string, std::string> parameters;
};

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
        end = text.find(separator, begin);
        parts.push_back(trimmed(text.substr(begin, end == std::string::npos ? end : end - begin)));
    }
    return parts;
}

MediaType parse(const std::string& text) {
    const std::vector<std::string> parts = split(text, ';');
    MediaType type{lowerCase(parts.front()), {}};
    for (auto part = parts.begin() + 1; part != parts.end(); ++part) {
        const std::size_t equals = part->find('=');
        if (equals != std::string::npos) {
            std::string value = trimmed(part->substr(equals + 1));
            value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
            type.parameters[lowerCase(trimmed(part->substr(0, equals)))] = lowerCase(value);
        }
    }
    return type;
}

boost::optional<int> shortNumber(const std::string& text) {
    if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789") != std::string::npos) {
        return boost::none;
    }
    return std::stoi(text);
}

/// "6.0", "5", or nothing of the kind.
boost::optional<Version> parseVersion(const std::string& text) {
    const std::size_t dot = text.find('.');
    const boost::optional<int> major = shortNumber(text.substr(0, dot));
    const boost::optional<int> minor = dot == std::string::npos ? 0 : shortNumber(text.substr(dot + 1));
    if (!major || !minor) {
        return boost::none;
    }
    return Version(*major, *minor);
}

std::string parameterOr(const MediaType& type, const char* name, const std::string& fallback) {
    const auto found = type.parameters.find(name);
    return found == type.parameters.end() ? fallback : found->second;
}

bool isVersionKnown(const MediaType& type) {
    const boost::optional<Version> version = parseVersion(parameterOr(type, "version", NEWEST_VERSION));
    return version && *version >= OLDEST && *version <= NEWEST;
}

bool isTaken(const MediaType& type) {
    if (parameterOr(type, "charset", "utf-8") != "utf-8") {
        return false;
    }
    return type.name == PLAIN || (type.name == VERSIONED && isVersionKnown(type));
}

}  // namespace

bool isMediaTypeTaken(const std::string& contentType) {
    return isTaken(parse(contentType));
}

std::string mediaTypeFor(const std::string& accept) {
    if (trimmed(accept).empty()) {
        return PLAIN;
    }
    for (const std::string& text : split(accept, ',')) {
        const MediaType type = parse(text);
        if (parameterOr(type, "q", "1").find_first_not_of("0.") == std::string::npos) {
            continue;  // not wanted
        }
        if (type.name == "*/*" || type.name == "application/*" || (type.name == PLAIN && isTaken(type))) {
            return PLAIN;
        }
        if (type.name == VERSIONED && isTaken(type)) {
            return std::string(VERSIONED) + ";version=" + parameterOr(type, "version", NEWEST_VERSION);
        }
    }
    return {};
}

}  // namespace Tesmor::Arkwell::Sandbox
