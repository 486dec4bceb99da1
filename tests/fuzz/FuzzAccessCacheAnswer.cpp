// Any bytes as the service's answer to the question for an access cache: only what lies in the caches' own folder is
// looked for.

#include "FuzzHost.h"
#include "InstallationPaths.h"

#include <platform/HttpClient.h>
#include <rbac/AccessControlClient.h>

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

using namespace Tesmor::Arkwell::Rbac;

namespace {

const std::string CACHES = TARVO_ROOT "/wmc/webserver/temp/access-caches/";
const std::string MANIFEST = "/manifest.json";

std::string answer;
std::string lookedFor;

/// The folder of the cache whose manifest this is.
std::string folderOf(const std::string& path) {
    require(path.compare(0, CACHES.size(), CACHES) == 0 && path.size() >= CACHES.size() + MANIFEST.size());
    const std::size_t end = path.size() - MANIFEST.size();
    require(path.substr(end) == MANIFEST);
    return path.substr(CACHES.size(), end - CACHES.size());
}

}  // namespace

// In front of the platform's own.
int AWClientCURL::Get(const std::string& /*url*/) {
    httpStatus = 200;
    responseBody = answer;
    return 0;
}

// In front of jansson's own.
json_t* json_load_file(const char* path, std::size_t /*flags*/, json_error_t* error) {
    lookedFor = path;
    error->position = 0;
    error->text[0] = '\0';
    return nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const FuzzHost host;
    answer.assign(reinterpret_cast<const char*>(data), size);
    lookedFor.clear();
    boost::shared_ptr<AccessControlClient> client;
    const int status = AccessControlClient::create(ObjectNamespace(), client);
    require((status == 7610 || status == 12) && !client);
    if (!lookedFor.empty()) {
        const std::string folder = folderOf(lookedFor);
        require(status == 12 && folder != ".." && folder.find_first_of("/\\") == std::string::npos);
    }
    return 0;
}
