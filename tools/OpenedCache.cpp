#include "tools/OpenedCache.h"

#include "platform/Handles.h"
#include "tools/LibraryLog.h"
#include "tools/ToolFailures.h"

#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <boost/numeric/conversion/cast.hpp>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Tesmor::Arkwell::Tools {

using Rbac::AccessCache;
using Rbac::Manifest;

namespace {

constexpr char OPERATIONS_FILE[] = "operation-cache.json";

Manifest readManifest(const std::string& directory) {
    try {
        return {"", requireCacheFolder(directory)};
    } catch (const EC_exception& failure) {
        throw Unusable(directory + ": " + LibraryLog::describe(failure.status));
    } catch (const boost::bad_lexical_cast&) {
        throw Unusable(directory + "/" + AccessCache::MANIFEST_FILE_NAME + " names no namespace");
    }
}

/// The library says what it cannot open on the standard error stream, so it is not asked to open what is not there.
void requireRegularFile(const std::string& path) {
    const platform_detail::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.isOpen()) {
        throw Unusable("cannot open " + path + ": " + std::generic_category().message(errno));
    }
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw Unusable(path + " is no regular file");
    }
}

boost::shared_ptr<const AccessCache> openCache(const Manifest& manifest) {
    for (const std::string& name : {AccessCache::METADATA_FILE_NAME, AccessCache::OBJECT_FILE_NAME,
                                    AccessCache::NODE_FILE_NAME, AccessCache::SEGMENT_FILE_NAME}) {
        requireRegularFile(manifest.directory() + "/" + name);
    }
    try {
        auto cache = boost::make_shared<const AccessCache>(manifest);
        cache->lock();
        return cache;
    } catch (const EC_exception& failure) {
        throw Unusable(manifest.directory() + ": " + LibraryLog::describe(failure.status));
    } catch (const std::runtime_error& failure) {
        throw Unusable(manifest.directory() + ": " + failure.what());
    }
}

Rbac::CacheStatistics requireSound(const std::string& directory) {
    return Rbac::verifyCache(directory, [&](const Rbac::CacheFault& fault) -> bool {
        throw Unusable(directory + " is damaged: " + fault.file + ", byte " + std::to_string(fault.offset) + ": " +
                       fault.what + ". All faults: rbac-cache verify --cache " + directory);
    });
}

}  // namespace

std::string requireCacheFolder(const std::string& directory) {
    std::error_code ignored;
    const std::string manifest = directory + "/" + AccessCache::MANIFEST_FILE_NAME;
    if (!std::filesystem::exists(manifest, ignored)) {
        throw Unusable(directory + " is no access cache: there is no " + AccessCache::MANIFEST_FILE_NAME + " in it");
    }
    return directory;
}

std::string operationsFileOf(const std::string& directory, const ReadingOptions& reading) {
    if (!reading.operationsFile.empty()) {
        requireRegularFile(reading.operationsFile);
        return reading.operationsFile;
    }
    // With a slash at its end, a path's parent would be itself.
    std::filesystem::path folder = (std::filesystem::absolute(directory) / ".").lexically_normal().parent_path();
    for (int above = 0; above <= 2; ++above, folder = folder.parent_path()) {
        std::error_code ignored;
        const std::filesystem::path file = folder / OPERATIONS_FILE;
        if (std::filesystem::is_regular_file(file, ignored)) {
            return file.string();
        }
    }
    throw Unusable(std::string("there is no ") + OPERATIONS_FILE + " in " + directory +
                   " or in the two folders above it; name one with --operations");
}

void loadOperations(Rbac::OperationCache& operations, const std::string& path) {
    try {
        operations.load();
    } catch (const EC_exception& failure) {
        throw Unusable(path + ": " + LibraryLog::describe(failure.status));
    } catch (const boost::bad_lexical_cast&) {
        throw Unusable(path + " names an operation by a text that is no namespace");
    } catch (const boost::numeric::bad_numeric_cast&) {
        throw Unusable(path + " holds a number that does not fit into 32 bits");
    }
}

OpenedCache::OpenedCache(const std::string& directory, const ReadingOptions& reading)
    : manifest_(readManifest(directory)),
      operationsFile_(operationsFileOf(directory, reading)),
      cache_(openCache(manifest_)),
      operations_(operationsFile_),
      client_(manifest_.objectNamespace(), cache_, operations_) {
    if (!reading.trust) {
        statistics_ = requireSound(directory);
    }
    loadOperations(operations_, operationsFile_);
}

}  // namespace Tesmor::Arkwell::Tools
