// Any bytes as a token: parsing, claims, the subject's components.

#include <jwt/JWT.h>
#include <jwt/JWTHandler.h>
#include <platform/Logger.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

using Tesmor::Arkwell::JWT;

namespace {

void readClaims(JWT& jwt) {
    std::string text;
    long long expiry = 0;
    bool expired = false;
    jwt.getJwtId(text);
    jwt.getSubject(text);
    const int status = jwt.getExpiry(expiry);
    if (jwt.isExpired(expired) != status || (status != 0 && !expired)) {
        abort();
    }
}

void extractComponents(const std::string& token) {
    char* outputs[4] = {};
    extractSubjectNT_C(token.c_str(), &outputs[0]);
    extractSubject_C(token.c_str(), &outputs[1], &outputs[2], &outputs[3]);
    for (char* output : outputs) {
        free(output);  // NOLINT(cppcoreguidelines-no-malloc): as the entry points have it
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    setLogSink([](int, const std::string&, const std::string&) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string token(reinterpret_cast<const char*>(data), size);
    JWT* made = nullptr;
    if (JWT::createJWT(token, made) == 0) {
        const std::unique_ptr<JWT> jwt(made);
        readClaims(*jwt);
    } else if (made != nullptr) {
        abort();
    }
    std::set<int> roles;
    Tesmor::Arkwell::Rbac::JWTHandler().extractRoleIds(token, roles);
    extractComponents(token);
    return 0;
}
