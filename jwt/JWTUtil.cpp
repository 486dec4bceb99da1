#include "InstallationPaths.h"
#include "jwt/PublicKeyFile.h"
#include "platform/Handles.h"

#include <jwt/JWTUtil.h>
#include <platform/Logger.h>

#include <ext/stdio_filebuf.h>
#include <fcntl.h>

#include <istream>
#include <sstream>

namespace Tesmor::Arkwell {

namespace {

constexpr int KEY_FILE_NOT_OPENED = 12;
constexpr int KEY_FILE_NOT_READ = 13;
constexpr int TOKEN_INVALID = 8002;

constexpr char PUBLIC_KEY_FILE[] = TARVO_ROOT "/var/global/tmsec/jwtkeys/jwtPublicKey";
constexpr char LOAD_CONTEXT[] = "JWTSSLApi::loadJwtPublicKey";

}  // namespace

int JWTUtil::tokenizeJWT(const std::string& jwt, std::vector<std::string>& parts) {
    const std::size_t first = jwt.find('.');
    const std::size_t second = first == std::string::npos ? first : jwt.find('.', first + 1);
    if (second == std::string::npos || jwt.find('.', second + 1) != std::string::npos) {
        logmsg(16, "JWT::tokenizeJWT", "JWT Token is invalid");
        return TOKEN_INVALID;
    }
    parts.push_back(jwt.substr(0, first));
    parts.push_back(jwt.substr(first + 1, second - first - 1));
    parts.push_back(jwt.substr(second + 1));
    const bool anyEmpty = first == 0 || second == first + 1 || second + 1 == jwt.size();
    return anyEmpty ? TOKEN_INVALID : 0;
}

int readPublicKeyFile(std::string& publicKey, const Trace& trace) {
    // Over a descriptor, because a file stream's own is inherited by the programs that other threads start.
    platform_detail::Descriptor descriptor(open(PUBLIC_KEY_FILE, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    __gnu_cxx::stdio_filebuf<char> buffer(descriptor.get(), std::ios::in);
    if (buffer.is_open()) {
        descriptor.release();
    }
    std::istream file(&buffer);
    try {
        file.exceptions(std::ios::badbit | std::ios::failbit);
        if (!buffer.is_open()) {
            file.setstate(std::ios::failbit);
        }
    } catch (const std::ios::failure& failure) {
        logmsgf(16, LOAD_CONTEXT, "failed to open jwt public key file. Error = %s ", failure.what());
        return KEY_FILE_NOT_OPENED;
    }
    trace(LOAD_CONTEXT, "successfully opened jwt public key file");

    std::ostringstream contents;
    try {
        // A stream takes it for a failure when there is nothing to insert.
        if (file.peek() != std::istream::traits_type::eof()) {
            contents.exceptions(std::ios::badbit | std::ios::failbit);
            contents << file.rdbuf();
        }
    } catch (const std::ios::failure& failure) {
        logmsgf(16, LOAD_CONTEXT, "failed to read jwt public key file. Error = %s ", failure.what());
        return KEY_FILE_NOT_READ;
    }
    trace(LOAD_CONTEXT, "successfully read jwt public key file");
    publicKey = contents.str();
    return 0;
}

int JWTUtil::loadJwtPublicKey(std::string& publicKey) {
    return readPublicKeyFile(publicKey, Trace());
}

}  // namespace Tesmor::Arkwell
