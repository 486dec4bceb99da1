#include "rbac/cache/JsonFile.h"

#include <platform/Logger.h>
#include <rbac/AccessCache.h>

#include <boost/lexical_cast.hpp>
#include <jansson.h>

namespace Tesmor::Arkwell::Rbac {

namespace {

using platform_detail::JsonPointer;

constexpr int INVALID_CACHE = 12;

JsonPointer loadManifest(const std::string& path) {
    json_error_t error;
    JsonPointer document = loadJsonFile(path, error);
    if (!document) {
        logmsgf(16, "Manifest constructor", "Error loading %s at position %d: %s", path.c_str(), error.position,
                error.text);
        throw EC_exception(INVALID_CACHE);
    }
    return document;
}

ObjectNamespace readNamespace(json_t* document, const std::string& path) {
    const char* text = nullptr;
    json_error_t error;
    if (json_unpack_ex(document, &error, 0, "{s:s}", "namespace", &text) != 0) {
        logmsgf(16, "Manifest constructor", "Error loading %s: %s", path.c_str(), error.text);
        throw EC_exception(INVALID_CACHE);
    }
    return boost::lexical_cast<ObjectNamespace>(text);
}

}  // namespace

const std::string AccessCache::MANIFEST_FILE_NAME = "manifest.json";
const std::string AccessCache::METADATA_FILE_NAME = "metadata";
const std::string AccessCache::OBJECT_FILE_NAME = "objects";
const std::string AccessCache::NODE_FILE_NAME = "nodes";
const std::string AccessCache::SEGMENT_FILE_NAME = "segments";
const std::string AccessCache::AD_COUNT_FILE_NAME = "counts";

Manifest::Manifest(const std::string& name, const std::string& directory)
    : name_(name), directory_(directory), path_(directory + "/" + AccessCache::MANIFEST_FILE_NAME) {
    const JsonPointer document = loadManifest(path_);
    objectNamespace_ = readNamespace(document.get(), path_);
    // Readers on any thread name the cache in their log lines.
    objectNamespace_.str();
}

}  // namespace Tesmor::Arkwell::Rbac
