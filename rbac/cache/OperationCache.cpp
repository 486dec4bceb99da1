#include "InstallationPaths.h"
#include "rbac/cache/JsonFile.h"

#include <platform/FileLock.h>
#include <platform/Logger.h>
#include <rbac/EC_exception.h>
#include <rbac/OperationCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/numeric/conversion/cast.hpp>
#include <jansson.h>

#include <mutex>
#include <string>
#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

using platform_detail::JsonPointer;

constexpr char SERVICE_FILE[] = TARVO_ROOT "/wmc/webserver/temp/operation-cache.json";
constexpr int STATUS_NOT_LOADED = 13;
constexpr long WITHOUT_LIMIT = -1;

[[noreturn]] void failLoading(const char* reason) {
    logmsgf(16, "OperationCache::load", "Error loading operation cache: %s", reason);
    throw EC_exception(STATUS_NOT_LOADED);
}

FileLockGuard lockFile(const std::string& path) {
    try {
        const FileLock lock = FileLockManager::instance().getLock(path + ".lck");
        return {lock, FileLockGuard::SHARED, WITHOUT_LIMIT, FileLock::DEFAULT_INTERVAL};
    } catch (const EC_exception& failure) {
        // Where the folder is missing, so is the file.
        failLoading(failure.what());
    }
}

JsonPointer parseFile(const std::string& path) {
    json_error_t error{};
    JsonPointer document = loadJsonFile(path, error);
    if (!document) {
        failLoading(error.text);
    }
    return document;
}

}  // namespace

OperationCache::OperationCache() : OperationCache(SERVICE_FILE) {}

OperationCache::OperationCache(std::string path) : path_(std::move(path)) {}

OperationCache::~OperationCache() = default;

void OperationCache::load() {
    const std::lock_guard<std::mutex> reading(reading_);
    readFile();
}

boost::optional<Operation> OperationCache::operator[](const ObjectNamespace& ns) {
    if (auto known = find(ns)) {
        return known;
    }
    logmsgf(8, "OperationCache::operator[]", "Operation %s not found in cache; reloading from disk", ns.str().c_str());
    {
        const std::lock_guard<std::mutex> reading(reading_);
        // Another thread may have read the file meanwhile.
        if (auto known = find(ns)) {
            return known;
        }
        readFile();
    }
    if (auto known = find(ns)) {
        return known;
    }
    logmsgf(16, "OperationCache::operator[]", "Operation %s still not found in cache", ns.str().c_str());
    return boost::none;
}

std::vector<std::pair<ObjectNamespace, Operation>> OperationCache::known() const {
    const std::shared_lock<std::shared_mutex> shared(mutex_);
    return {operations_.begin(), operations_.end()};
}

boost::optional<Operation> OperationCache::find(const ObjectNamespace& ns) const {
    const std::shared_lock<std::shared_mutex> shared(mutex_);
    const auto entry = operations_.find(ns);
    if (entry == operations_.end()) {
        return boost::none;
    }
    return entry->second;
}

void OperationCache::readFile() {
    const FileLockGuard lock = lockFile(path_);
    const JsonPointer document = parseFile(path_);

    const char* key = nullptr;
    json_t* value = nullptr;
    json_object_foreach(document.get(), key, value) {
        auto ns = boost::lexical_cast<ObjectNamespace>(key);
        const auto bitNumber = boost::numeric_cast<std::int32_t>(json_integer_value(value));
        add(std::move(ns), Operation(bitNumber));
    }
}

/// What is known stays as it is.
void OperationCache::add(ObjectNamespace ns, Operation operation) {
    const std::lock_guard<std::shared_mutex> exclusive(mutex_);
    operations_.emplace(std::move(ns), operation);
}

}  // namespace Tesmor::Arkwell::Rbac
