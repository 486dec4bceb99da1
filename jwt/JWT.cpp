#include <jwt/JWT.h>
#include <jwt/JWTSSLApi.h>
#include <jwt/JWTUtil.h>
#include <platform/Logger.h>

#include <jansson.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell {

namespace {

constexpr int JSON_INVALID = 7610;
constexpr int TOKEN_INVALID = 8002;

constexpr char NOT_INITIALIZED[] = "JSON Payload Object is null. JWT Object is not initialized correctly";
constexpr char NOT_A_STRING[] = "JWT is invalid. JSON object is not of type string";
constexpr char NOT_AN_INTEGER[] = "JWT is invalid. JSON object is not of type integer";

int refuse(const char* who, const char* why) {
    logmsg(16, who, why);
    return TOKEN_INVALID;
}

int readString(const json_t* payload, const char* claim, const char* context, const char* typeMessage,
               std::string& value) {
    if (payload == nullptr) {
        return refuse(context, NOT_INITIALIZED);
    }
    const json_t* member = json_object_get(payload, claim);
    if (!json_is_string(member)) {
        return refuse(context, typeMessage);
    }
    value.assign(json_string_value(member), json_string_length(member));
    return 0;
}

int readExpiry(const json_t* payload, const char* context, long long& milliseconds) {
    if (payload == nullptr) {
        return refuse(context, NOT_INITIALIZED);
    }
    const json_t* member = json_object_get(payload, "exp");
    if (!json_is_integer(member)) {
        return refuse(context, NOT_AN_INTEGER);
    }
    milliseconds = json_integer_value(member);
    return 0;
}

}  // namespace

JWT::JWT() = default;

JWT::JWT(const std::string& token) : token_(token) {}

JWT::~JWT() {
    json_decref(payloadJson_);
}

int JWT::init(const std::string& token) {
    std::vector<std::string> parts;
    if (const int status = JWTUtil::tokenizeJWT(token, parts); status != 0) {
        return status;
    }
    // Whatever becomes of this token, the claims of the one before are gone.
    json_decref(std::exchange(payloadJson_, nullptr));
    header_ = std::move(parts[0]);
    payload_ = std::move(parts[1]);
    signature_ = std::move(parts[2]);

    unsigned char* decoded = nullptr;
    int length = 0;
    if (const int status = JWTSSLApi::B64DecodeURL(payload_, decoded, length); status != 0) {
        return status;
    }
    const std::unique_ptr<unsigned char[]> json(decoded);
    return loadJSONPayload(json.get());
}

int JWT::loadJSONPayload(const unsigned char* json) {
    const std::string text(json != nullptr ? reinterpret_cast<const char*>(json) : "");
    json_decref(payloadJson_);
    payloadJson_ = json_loads(text.c_str(), 0, nullptr);
    if (!json_is_object(payloadJson_)) {
        logmsg(16, "JWT::loadJSON", "Error in loading json");
        return JSON_INVALID;
    }
    return 0;
}

int JWT::getJwtId(std::string& jti) {
    return readString(payloadJson_, "jti", "JWT::getJwtId",
                      "JWT is invalid. JTI claim JSON object is not of type string", jti);
}

int JWT::getSubject(std::string& sub) {
    return readString(payloadJson_, "sub", "JWT::getSubject", NOT_A_STRING, sub);
}

int JWT::getExpiry(long long& exp) {
    return readExpiry(payloadJson_, "JWT::getExpiry", exp);
}

int JWT::isExpired(bool& expired) {
    expired = true;
    long long expiry = 0;
    if (const int status = readExpiry(payloadJson_, "JWT::isExpired", expiry); status != 0) {
        return status;
    }
    // The product's tokens carry milliseconds, not the seconds that are usual elsewhere.
    const long long now = static_cast<long long>(time(nullptr)) * 1000;
    expired = expiry < now;
    return 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): programs are compiled against it as it is
int JWT::createJWT(std::string token, JWT*& jwt) {
    jwt = nullptr;
    auto made = std::make_unique<JWT>(token);
    if (const int status = made->init(token); status != 0) {
        return status;
    }
    jwt = made.release();
    return 0;
}

int JWT::isMachineCheck(const std::string& token, bool& isMachine) {
    constexpr char CONTEXT[] = "isMachineCheck";
    isMachine = false;
    JWT* parsed = nullptr;
    if (const int status = createJWT(token, parsed); status != 0) {
        logmsg(16, CONTEXT, "failed to create JWT");
        return status;
    }
    const std::unique_ptr<JWT> jwt(parsed);
    std::string claim;
    if (const int status = readString(jwt->payloadJson_, "is_machine", CONTEXT, NOT_A_STRING, claim); status != 0) {
        return status;
    }
    isMachine = claim == "true";
    return 0;
}

char* JWT::extractSubject(const std::string& token) {
    constexpr char CONTEXT[] = "extractSubject";
    JWT* parsed = nullptr;
    if (createJWT(token, parsed) != 0) {
        logmsg(16, CONTEXT, "failed to create JWT");
        return nullptr;
    }
    const std::unique_ptr<JWT> jwt(parsed);
    std::string subject;
    if (jwt->getSubject(subject) != 0) {
        logmsg(16, CONTEXT, "JWT getSubject failed");
        return nullptr;
    }
    return strdup(subject.c_str());
}

}  // namespace Tesmor::Arkwell

namespace {

using Tesmor::Arkwell::JWT;

struct Free {
    void operator()(char* text) const { free(text); }  // NOLINT(cppcoreguidelines-no-malloc): strdup() made it
};
using CText = std::unique_ptr<char, Free>;

CText subjectOf(const char* token) {
    return CText(JWT::extractSubject(token != nullptr ? token : ""));
}

/// The components between colons; empty ones are left out.
std::vector<std::string> splitSubject(std::string subject) {
    std::vector<std::string> components;
    char* rest = nullptr;
    for (char* component = strtok_r(subject.data(), ":", &rest); component != nullptr;
         component = strtok_r(nullptr, ":", &rest)) {
        components.emplace_back(component);
    }
    return components;
}

/// Sets the output to a copy; leaves it alone where the caller wants none or there is no memory for one.
void handOut(const char* text, char** output) {
    if (output == nullptr) {
        return;
    }
    if (char* const copy = strdup(text)) {
        *output = copy;
    }
}

void handOut(const std::vector<std::string>& components, std::size_t index, char** output) {
    if (index < components.size()) {
        handOut(components[index].c_str(), output);
    }
}

/// Runs an entry point's work for a caller that may not be able to catch anything.
template <typename Work>
void withoutExceptions(const char* context, const Work& work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        logmsg(16, context, "Out of memory");
    }
}

}  // namespace

void extractSubjectNT_C(const char* token, char** subject) {
    withoutExceptions("JWT::extractSubjectNT_C", [&] {
        const CText text = subjectOf(token);
        if (text) {
            handOut(text.get(), subject);
        }
    });
}

void extractSubject_C(const char* token, char** second, char** first, char** third) {
    constexpr char CONTEXT[] = "JWT::extractSubject_C";
    withoutExceptions(CONTEXT, [&] {
        const CText subject = subjectOf(token);
        bool isMachine = false;
        if (!subject || JWT::isMachineCheck(token, isMachine) != 0) {
            return;
        }
        std::vector<std::string> components;
        if (isMachine) {
            logmsg(4, CONTEXT, "Machine certificate found");
            components = {subject.get(), "", "tm"};
        } else {
            components = splitSubject(subject.get());
        }
        handOut(components, 0, first);
        handOut(components, 1, second);
        handOut(components, 2, third);
    });
}
