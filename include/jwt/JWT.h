#pragma once

/// @file
/// A parsed token, and the entry points for programs written in C.

#include <platform/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Gets the subject (`sub`) of a token, for programs written in C. The signature is not verified.
///
/// @param token text that ends in a NUL.
/// @param subject set to a copy that the caller releases with free(); left alone on failure, which is logged, so
/// initialise it to NULL.
ARKWELL_EXPORT void extractSubjectNT_C(const char* token, char** subject);

/// Gets the components of a token's subject, for programs written in C. The signature is not verified.
///
/// The subject of a user is split at every ":", empty components left out. A machine (`is_machine` is "true") has the
/// three components subject, empty text and "tm". A token without `is_machine` gives nothing.
///
///     char *user = NULL, *domain = NULL, *type = NULL;
///     extractSubject_C(token, &domain, &user, &type);
///
/// Mind the order: the second component comes before the first.
///
/// What there is no component for, and everything on failure, which is logged, is left alone, so initialise all to
/// NULL. The caller releases each copy with free().
///
/// @param token text that ends in a NUL.
/// @param second set to a copy of the second component.
/// @param first set to a copy of the first component.
/// @param third set to a copy of the third component.
ARKWELL_EXPORT void extractSubject_C(const char* token, char** second, char** first, char** third);

#ifdef __cplusplus
}

#include <string>

struct json_t;

namespace Tesmor {
namespace Arkwell {

/// A JSON web token, split and with its payload parsed, as the product's authentication service issues it for a user or
/// a machine. It does not verify the signature; see JWTSSLApi and ValidatingJwtParser.
///
/// Every failure is logged at level 16 and returned as a status; nothing throws but std::bad_alloc. Different threads
/// may use different objects at once.
///
///     JWT* parsed = nullptr;
///     if (int status = JWT::createJWT(token, parsed)) {
///         return status;
///     }
///     const std::unique_ptr<JWT> jwt(parsed);
///     std::string subject;
///     jwt->getSubject(subject);
class ARKWELL_EXPORT JWT {
public:
    JWT();
    /// Keeps the text; init() parses it.
    explicit JWT(const std::string& token);
    JWT(const JWT&) = delete;
    JWT& operator=(const JWT&) = delete;
    ~JWT();

    /// Splits the token, decodes its payload (base64url, RFC 4648 section 5) and parses it as a JSON object.
    ///
    /// @return 0; 8002: not three segments, none of them empty; 10 or 20: the payload is not base64url text; 7610: it
    /// is not a JSON object.
    int init(const std::string& token);

    /// Takes text that ends in a NUL as the payload; null is empty text.
    ///
    /// @return 0, or 7610: it is not a JSON object.
    int loadJSONPayload(const unsigned char* json);

    /// The claim `jti`.
    ///
    /// @return 0, or 8002 with `jti` untouched: it is absent or not a string, or nothing has been parsed.
    int getJwtId(std::string& jti);
    /// The claim `sub`. Otherwise as getJwtId().
    int getSubject(std::string& sub);
    /// The claim `exp`, an integer: milliseconds since the epoch. Otherwise as getJwtId().
    int getExpiry(long long& exp);
    /// Whether `exp`, in milliseconds, is earlier than now, taken in whole seconds.
    ///
    /// @param expired true also on failure.
    /// @return 0, or 8002: `exp` is absent or not an integer, or nothing has been parsed.
    int isExpired(bool& expired);

    /// The payload; owned by this object. Null until it has been parsed.
    const json_t* payload() const { return payloadJson_; }

    /// Makes an object and calls init().
    ///
    /// @param token its text.
    /// @param jwt the new object, which the caller deletes; null on failure.
    /// @return what init() returns.
    static int createJWT(std::string token, JWT*& jwt);

    /// Whether the claim `is_machine` is exactly the string "true".
    ///
    /// @param token its text; the signature is not looked at.
    /// @param isMachine false on failure.
    /// @return 0; what init() returns; or 8002: the claim is absent or not a string.
    static int isMachineCheck(const std::string& token, bool& isMachine);

    /// The claim `sub` as a copy that the caller releases with free(), or null.
    static char* extractSubject(const std::string& token);

private:
    std::string token_;
    std::string signature_;  // this and the next two as they stand in the token
    std::string header_;
    std::string payload_;
    json_t* payloadJson_ = nullptr;
};

}  // namespace Arkwell
}  // namespace Tesmor
#endif
