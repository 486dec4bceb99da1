#include "platform/Handles.h"
#include "rbac/cache/FaultReport.h"

#include <platform/FileLock.h>
#include <platform/Status.h>
#include <rbac/AccessCache.h>

#include <boost/lexical_cast.hpp>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace Tesmor::Arkwell::Rbac {

namespace {

using detail::FaultReport;
using detail::Mapping;
using platform_detail::Descriptor;

constexpr long WITHOUT_LIMIT = -1;
constexpr std::size_t PIECE = std::size_t{256} << 10U;
constexpr std::uint64_t LARGEST_MANIFEST = std::uint64_t{16} << 20U;

/// A file of the cache, and what is wrong with it.
class OpenFile {
public:
    OpenFile(const std::string& directory, const std::string& name, FaultReport& faults)
        : name_(name), faults_(faults), descriptor_(open(directory + "/" + name)) {
        if (!descriptor_.isOpen()) {
            fault(0, "cannot be opened: " + errorText());
            return;
        }
        struct stat status {};
        if (fstat(descriptor_.get(), &status) != 0) {
            fault(0, "cannot be examined: " + errorText());
        } else if (!S_ISREG(status.st_mode)) {
            fault(0, "is no regular file");
        } else {
            isFile_ = true;
            size_ = static_cast<std::uint64_t>(status.st_size);
        }
    }

    /// Whether it is a regular file that can be read from.
    bool isFile() const { return isFile_; }
    std::uint64_t size() const { return size_; }

    void fault(std::uint64_t offset, const std::string& what) { faults_.add(name_, offset, {}, what); }

    /// Reads every byte, so that what the disk does not return is a fault here, and no signal when it is looked at in
    /// the mapping.
    bool readThrough() {
        std::vector<char> buffer(PIECE);
        for (std::uint64_t done = 0; done < size_;) {
            const ssize_t count = pread(descriptor_.get(), buffer.data(), buffer.size(), static_cast<off_t>(done));
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                fault(done, "cannot be read: " + (count < 0 ? errorText() : "it has become shorter"));
                return false;
            }
            done += static_cast<std::uint64_t>(count);
        }
        return true;
    }

    /// Its contents, which `mapping` holds; none where they cannot be had.
    std::optional<std::string_view> map(Mapping& mapping) {
        if (!isFile() || faults_.stopped() || !readThrough()) {
            return std::nullopt;
        }
        if (size_ == 0) {
            return std::string_view();
        }
        void* const base = mmap(nullptr, size_, PROT_READ, MAP_SHARED, descriptor_.get(), 0);
        if (base == MAP_FAILED) {
            fault(0, "cannot be mapped: " + errorText());
            return std::nullopt;
        }
        mapping = Mapping(base, size_);
        return std::string_view(mapping.base(), size_);
    }

private:
    static int open(const std::string& path) {
        int descriptor = -1;
        do {
            // Not blocking: a fifo in the file's place must not hang the caller.
            descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        } while (descriptor < 0 && errno == EINTR);
        return descriptor;
    }
    static std::string errorText() { return std::generic_category().message(errno); }

    const std::string& name_;
    FaultReport& faults_;
    Descriptor descriptor_;
    bool isFile_ = false;
    std::uint64_t size_ = 0;
};

/// Takes the cache's lock, unless there can be none. The manifest is the lock file, and locking one that is missing
/// would make it.
void lock(const std::string& path, std::optional<FileLockGuard>& guard) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return;
    }
    try {
        guard.emplace(FileLockManager::instance().getLock(path), FileLockGuard::SHARED, WITHOUT_LIMIT,
                      FileLock::DEFAULT_INTERVAL);
    } catch (const EC_exception& failure) {
        if (failure.status != platform_status::LOCK_UNAVAILABLE) {
            throw;  // GCOVR_EXCL_LINE: no other is thrown without a limit
        }
    }
}

/// The text of the manifest's namespace; empty where it has none.
std::string readManifest(const std::string& directory, FaultReport& faults) {
    OpenFile file(directory, AccessCache::MANIFEST_FILE_NAME, faults);
    if (!file.isFile()) {
        return {};
    }
    if (file.size() > LARGEST_MANIFEST) {
        file.fault(0, "has " + std::to_string(file.size()) + " bytes, and none needs more than " +
                          std::to_string(LARGEST_MANIFEST));
        return {};
    }
    if (!file.readThrough()) {
        return {};
    }
    try {
        return Manifest({}, directory).objectNamespace().str();
    } catch (const EC_exception&) {
        file.fault(0, "is no JSON object with a text \"namespace\"");
    } catch (const boost::bad_lexical_cast&) {
        file.fault(0, "its \"namespace\" is not the text of one");
    }
    return {};
}

}  // namespace

CacheStatistics verifyCache(const std::string& directory, const OnCacheFault& onFault) {
    FaultReport faults(onFault);
    std::optional<FileLockGuard> guard;
    lock(directory + "/" + AccessCache::MANIFEST_FILE_NAME, guard);
    const std::string namespaceText = readManifest(directory, faults);
    Mapping metadata;
    Mapping objects;
    Mapping nodes;
    Mapping segments;
    CacheBytes bytes;
    bytes.metadata = OpenFile(directory, AccessCache::METADATA_FILE_NAME, faults).map(metadata);
    bytes.objects = OpenFile(directory, AccessCache::OBJECT_FILE_NAME, faults).map(objects);
    bytes.nodes = OpenFile(directory, AccessCache::NODE_FILE_NAME, faults).map(nodes);
    bytes.segments = OpenFile(directory, AccessCache::SEGMENT_FILE_NAME, faults).map(segments);
    CacheStatistics statistics = detail::verifyRecords(bytes, faults);
    statistics.namespaceText = namespaceText;
    statistics.locked = guard.has_value();
    return statistics;
}

}  // namespace Tesmor::Arkwell::Rbac
