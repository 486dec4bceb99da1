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
constexpr off_t LARGEST_MANIFEST = off_t{16} << 20U;

std::string errorText() {
    return std::generic_category().message(errno);
}

/// The library says what it cannot open on the standard error stream, so it is not asked to open what is not there.
///
/// @return the file's size.
off_t requireRegularFile(const std::string& path) {
    const platform_detail::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.isOpen()) {
        throw Unusable("cannot open " + path + ": " + errorText());
    }
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw Unusable(path + " is no regular file");
    }
    return status.st_size;
}

Manifest readManifest(const std::string& directory) {
    const std::string path = directory + "/" + AccessCache::MANIFEST_FILE_NAME;
    if (const off_t size = requireRegularFile(path); size > LARGEST_MANIFEST) {
        throw Unusable(path + " has " + std::to_string(size) + " bytes, and none needs more than " +
                       std::to_string(LARGEST_MANIFEST));
    }
    try {
        return {"", directory};
    } catch (const EC_exception& failure) {
        throw Unusable(directory + ": " + LibraryLog::describe(failure.status));
    } catch (const boost::bad_lexical_cast&) {
        throw Unusable(path + " names no namespace");
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
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) {
        throw Unusable("cannot open " + directory + ": " + errorText());
    }
    const std::string folder = directory + "/";
    for (const std::string& name :
         {AccessCache::MANIFEST_FILE_NAME, AccessCache::METADATA_FILE_NAME, AccessCache::OBJECT_FILE_NAME,
          AccessCache::NODE_FILE_NAME, AccessCache::SEGMENT_FILE_NAME}) {
        if (lstat((folder + name).c_str(), &status) == 0) {
            return directory;
        }
        if (errno != ENOENT) {
            throw Unusable("cannot look into " + directory + ": " + errorText());
        }
    }
    throw Unusable(directory + " is no access cache: none of the files of one is in it");
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
    : operationsFile_(operationsFileOf(requireCacheFolder(directory), reading)),
      statistics_(reading.trust ? std::nullopt : std::optional(requireSound(directory))),
      manifest_(readManifest(directory)),
      cache_(openCache(manifest_)),
      operations_(operationsFile_),
      client_(manifest_.objectNamespace(), cache_, operations_) {
    loadOperations(operations_, operationsFile_);
}

}  // namespace Tesmor::Arkwell::Tools
