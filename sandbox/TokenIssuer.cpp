#include "sandbox/TokenIssuer.h"

#include "sandbox/JsonText.h"

#include <openssl/rand.h>

#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr char HEADER[] = R"({"alg":"RS256","typ":"JWT"})";
constexpr char ISSUER[] = "rbac-sandbox";

/// 128 random bits in hexadecimal digits.
std::string newSessionId() {
    static constexpr char DIGITS[] = "0123456789abcdef";
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        throw std::runtime_error("OpenSSL has no random bytes");
    }
    std::string id;
    for (const unsigned char byte : bytes) {
        id += {DIGITS[byte >> 4U], DIGITS[byte & 0xFU]};
    }
    return id;
}

std::string dump(const JsonPointer& document, const std::string& subject) {
    if (!document) {
        throw std::invalid_argument("the subject is not UTF-8: " + subject);
    }
    return json::dump(document, JSON_COMPACT | JSON_SORT_KEYS);
}

json_int_t milliseconds(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

JsonPointer claims(const Identity& identity, const std::string& id, json_int_t expiry) {
    return JsonPointer(json_pack("{s:s, s:s, s:s, s:I, s:s}", "iss", ISSUER, "jti", id.c_str(), "sub",
                                 identity.subject.c_str(), "exp", expiry, "is_machine",
                                 identity.isMachine ? "true" : "false"));
}

}  // namespace

TokenIssuer::TokenIssuer(SigningKey key) : key_(std::move(key)) {}

SessionTokens TokenIssuer::issue(const Identity& identity, std::chrono::system_clock::time_point expiry) const {
    const std::string id = newSessionId();
    const JsonPointer session = claims(identity, id, milliseconds(expiry));
    const std::string sessionToken = key_.signToken(HEADER, dump(session, identity.subject));

    json_t* const roles = json_array();
    for (const int role : identity.roleIds) {
        json_array_append_new(roles, json_integer(role));
    }
    json_object_set_new(session.get(), "roles", roles);
    return {id, sessionToken, key_.signToken(HEADER, dump(session, identity.subject))};
}

}  // namespace Tesmor::Arkwell::Sandbox
