// Any bytes as a token to verify: what is accepted must say what the key's owner has signed, to the byte.

#include <jwt/JWTSSLApi.h>
#include <platform/Logger.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

std::string readFile(const std::string& path) {
    std::ostringstream contents;
    contents << std::ifstream(path).rdbuf();
    return contents.str();
}

const std::string& publicKey() {
    static const std::string pem = readFile(FUZZ_DATA "/publicKey.pem");
    return pem;
}

/// The header and payload of every token that was ever signed by the key.
const std::set<std::string>& signedTexts() {
    static const std::set<std::string> texts = [] {
        std::set<std::string> read;
        std::ifstream lines(FUZZ_DATA "/signed-texts");
        for (std::string line; std::getline(lines, line);) {
            read.insert(line);
        }
        return read;
    }();
    return texts;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    setLogSink([](int, const std::string&, const std::string&) {});
    if (publicKey().empty() || signedTexts().empty()) {
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string token(reinterpret_cast<const char*>(data), size);
    if (Tesmor::Arkwell::JWTSSLApi::verifyJWTSignature(token, publicKey()) &&
        signedTexts().count(token.substr(0, token.rfind('.'))) == 0) {
        abort();
    }
    return 0;
}
