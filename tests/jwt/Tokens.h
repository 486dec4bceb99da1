#pragma once

#include "sandbox/SigningKey.h"

#include <ctime>
#include <string>

namespace testing_support {

/// The key that the tests' host signs with; made once in a program.
inline const Tesmor::Arkwell::Sandbox::SigningKey& hostKey() {
    static const auto key = Tesmor::Arkwell::Sandbox::SigningKey::generate();
    return key;
}

/// A key that the host knows nothing of.
inline const Tesmor::Arkwell::Sandbox::SigningKey& strangersKey() {
    static const auto key = Tesmor::Arkwell::Sandbox::SigningKey::generate();
    return key;
}

constexpr char RS256_HEADER[] = R"({"alg":"RS256","typ":"JWT"})";

/// A token with this payload, signed by the host's key.
inline std::string signedToken(const std::string& payload) {
    return hostKey().signToken(RS256_HEADER, payload);
}

/// A token with this payload and a signature that nobody has to look at.
inline std::string unsignedToken(const std::string& payload) {
    return "eyJ9." + Tesmor::Arkwell::Sandbox::base64Url(payload) + ".c2ln";
}

/// Ten megabytes of one character.
inline std::string tenMegabytesOf(char c) {
    std::string text;
    text.resize(10'000'000, c);
    return text;
}

inline long long nowInMilliseconds() {
    return static_cast<long long>(time(nullptr)) * 1000;
}

/// The claims of a session that lasts another hour.
inline std::string sessionClaims(const std::string& id) {
    return R"({"jti":")" + id + R"(","exp":)" + std::to_string(nowInMilliseconds() + 3'600'000) + "}";
}

}  // namespace testing_support
