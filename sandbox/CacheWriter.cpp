#include "sandbox/CacheWriter.h"

#include "platform/Handles.h"
#include "sandbox/JsonText.h"

#include <platform/FileLock.h>

#include <fcntl.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {

namespace {

using platform_detail::Descriptor;
using platform_detail::JsonPointer;
using Rbac::AccessCache;

constexpr std::size_t CHUNK_SIZE = std::size_t{64} << 10;
constexpr std::size_t LARGEST_WRITE = std::size_t{8} << 20;  // a multiple of every huge page but the gigantic ones
constexpr long WITHOUT_LIMIT = -1;
const char* const WRITER_LOCK_NAME = "writer.lck";

[[noreturn]] void throwSystemError(const char* verb, const std::string& path) {
    const int error = errno;
    throw std::system_error(error, std::generic_category(), std::string("cannot ") + verb + " " + path);
}

template <class Call>
auto retryInterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// The folder that `path`, which does not end in "/", lies in.
std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

FileLock lockNamed(const std::string& path) {
    return FileLockManager::instance().getLock(path);
}

/// Every change on disk goes through here.
class Disk {
public:
    explicit Disk(const CacheWriterOptions& options) : options_(options) {}

    /// Makes a system call that changes something, and returns what it returns.
    template <class Call>
    auto change(const char* verb, const std::string& path, Call call) const {
        announce(verb, path);
        const auto result = retryInterrupted(call);
        if (result < 0) {
            throwSystemError(verb, path);
        }
        return result;
    }

    void announce(const char* verb, const std::string& path) const {
        if (options_.beforeStep) {
            options_.beforeStep((std::string(verb) + " " + nameOf(path)).c_str());
        }
    }

    void sync(const std::string& path, int descriptor) const {
        if (options_.durable) {
            change("sync", path, [descriptor] { return fdatasync(descriptor); });
        }
    }

    void syncDirectory(const std::string& path) const {
        const Descriptor directory(
            retryInterrupted([&] { return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
        if (!directory.isOpen()) {
            throwSystemError("open", path);
        }
        sync(path, directory.get());
    }

    /// Makes the folder and those above it, where they are missing.
    void makeDirectory(const std::string& path) const {
        struct stat status {};
        if (stat(path.c_str(), &status) == 0) {
            return;
        }
        const std::string parent = parentOf(path);
        if (parent != path) {
            makeDirectory(parent);
        }
        change("create", path, [&] { return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST ? 0 : -1; });
        syncDirectory(parent);
    }

private:
    const CacheWriterOptions& options_;
};

/// A file that is there or is still to be created.
class File {
public:
    explicit File(std::string path) : path_(std::move(path)) {
        // Not blocking: a fifo in the file's place must not hang the caller.
        if (open(O_RDWR | O_NONBLOCK) < 0 && errno != ENOENT) {
            throwSystemError("open", path_);
        }
        if (exists() && !S_ISREG(status().st_mode)) {
            errno = EINVAL;
            throwSystemError("write", path_);
        }
    }

    bool exists() const { return descriptor_ && descriptor_->isOpen(); }

    std::uint64_t size() const { return exists() ? static_cast<std::uint64_t>(status().st_size) : 0; }

    /// Reads up to `size` bytes; fewer only at the end of the file.
    std::size_t read(char* to, std::size_t size, std::uint64_t offset) const {
        std::size_t done = 0;
        while (exists() && done < size) {
            const ssize_t count = retryInterrupted(
                [&] { return pread(descriptor_->get(), to + done, size - done, static_cast<off_t>(offset + done)); });
            if (count < 0) {
                throwSystemError("read", path_);
            }
            if (count == 0) {
                break;
            }
            done += static_cast<std::size_t>(count);
        }
        return done;
    }

    void createIfMissing(const Disk& disk) {
        if (!exists()) {
            disk.change("create", path_, [this] { return open(O_RDWR | O_CREAT); });
        }
    }

    void write(const Disk& disk, std::string_view bytes, std::uint64_t offset) {
        while (!bytes.empty()) {
            const ssize_t count = disk.change("write", path_, [&] {
                return pwrite(descriptor_->get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
            });
            bytes.remove_prefix(static_cast<std::size_t>(count));
            offset += static_cast<std::uint64_t>(count);
        }
    }

    void resize(const Disk& disk, std::uint64_t size) {
        if (this->size() != size) {
            disk.change("resize", path_, [&] { return ftruncate(descriptor_->get(), static_cast<off_t>(size)); });
        }
    }

    /// Takes the room for growth from the file system without changing what can be seen of the file.
    void reserve(const Disk& disk, std::uint64_t size) {
        if (!exists() || this->size() >= size) {
            return;
        }
        disk.change("reserve", path_, [&] {
            const int result = fallocate(descriptor_->get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size));
            return result < 0 && errno == EOPNOTSUPP ? 0 : result;
        });
    }

    void sync(const Disk& disk) const { disk.sync(path_, descriptor_->get()); }

private:
    int open(int flags) {
        descriptor_.emplace(
            retryInterrupted([&] { return ::open(path_.c_str(), flags | O_CLOEXEC | O_NOCTTY, 0644); }));
        return descriptor_->get();
    }

    struct stat status() const {
        struct stat status {};
        if (fstat(descriptor_->get(), &status) != 0) {
            throwSystemError("examine", path_);
        }
        return status;
    }

    std::string path_;
    std::optional<Descriptor> descriptor_;
};

std::int64_t nanosecondsSinceEpoch() {
    using std::chrono::nanoseconds;
    return std::chrono::duration_cast<nanoseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

/// One of the files of records, and which chunks of it are not yet as they are to be.
class RecordFile {
public:
    RecordFile(const std::string& path, std::string_view image) : file_(path), image_(image) {}

    std::uint64_t chunksChanged() const { return changes_.size(); }
    std::uint64_t bytesWritten() const { return bytesWritten_; }

    void compare() {
        std::vector<char> buffer(CHUNK_SIZE);
        for (std::size_t offset = 0; offset < image_.size(); offset += CHUNK_SIZE) {
            const std::string_view wanted = chunkAt(offset);
            const std::size_t size = file_.read(buffer.data(), wanted.size(), offset);
            if (std::string_view(buffer.data(), size) != wanted) {
                changes_.push_back(offset);
            }
        }
    }

    void reserve(const Disk& disk) { file_.reserve(disk, image_.size()); }

    void write(const Disk& disk) {
        file_.createIfMissing(disk);
        for (auto change = changes_.begin(); change != changes_.end();) {
            const std::size_t begin = *change;
            std::size_t end = begin;
            while (change != changes_.end() && *change == end) {
                end += CHUNK_SIZE;
                ++change;
            }
            writeRun(disk, begin, std::min(end, image_.size()));
        }
        file_.resize(disk, image_.size());
        // Also where nothing changed: what is there may be the work of a writer that was not allowed to finish.
        file_.sync(disk);
    }

private:
    std::string_view chunkAt(std::size_t offset) const { return image_.substr(offset, CHUNK_SIZE); }

    /// Writes neighbouring chunks in pieces that end where huge pages do: the page cache of a new file gets huge pages
    /// where it is written by whole ones, and readers that map it then touch far fewer address translations.
    void writeRun(const Disk& disk, std::size_t begin, std::size_t end) {
        while (begin < end) {
            const std::size_t pieceEnd = std::min(end, (begin / LARGEST_WRITE + 1) * LARGEST_WRITE);
            file_.write(disk, image_.substr(begin, pieceEnd - begin), begin);
            bytesWritten_ += pieceEnd - begin;
            begin = pieceEnd;
        }
    }

    File file_;
    std::string_view image_;
    std::vector<std::size_t> changes_;  // offsets
    std::uint64_t bytesWritten_ = 0;
};

/// The metadata file, which says whether the cache may be read.
class MetadataFile {
public:
    explicit MetadataFile(const std::string& path) : file_(path) {}

    /// The number of the last publication, or 0 where the file does not tell.
    std::uint64_t lastPublication() const {
        CacheMetadata metadata{};
        const std::size_t size = file_.read(reinterpret_cast<char*>(&metadata), sizeof metadata, 0);
        const bool known = size == sizeof metadata && metadata.version == CacheMetadata::VERSION &&
                           std::memcmp(metadata.magic, CacheMetadata::MAGIC, sizeof metadata.magic) == 0;
        return known ? metadata.publication : 0;
    }

    /// Writes the flag alone, so a file that is too short for readers stays so.
    void setWriting(const Disk& disk, bool writing) {
        file_.createIfMissing(disk);
        const char flag = writing ? 1 : 0;
        file_.write(disk, {&flag, 1}, offsetof(CacheMetadata, writing));
        file_.sync(disk);
    }

    /// Writes everything, with the flag set.
    void write(const Disk& disk, CacheMetadata metadata) {
        metadata.writing = 1;
        file_.write(disk, {reinterpret_cast<const char*>(&metadata), sizeof metadata}, 0);
        file_.resize(disk, sizeof metadata);
    }

private:
    File file_;
};

/// Makes the manifest hold `contents`. What it holds until then is no manifest: a beginning of a JSON object is none.
std::uint64_t writeManifest(const Disk& disk, const std::string& path, std::string_view contents) {
    File file(path);
    std::vector<char> buffer(contents.size() + 1);
    const bool same = std::string_view(buffer.data(), file.read(buffer.data(), buffer.size(), 0)) == contents;
    if (!same) {
        file.createIfMissing(disk);
        file.resize(disk, 0);
        file.write(disk, contents, 0);
    }
    file.sync(disk);
    return same ? 0 : contents.size();
}

/// Brings a cache's files to an image.
class Publication {
public:
    Publication(const Disk& disk, const std::string& directory, CacheImage& image)
        : disk_(disk),
          directory_(directory),
          image_(image),
          metadata_(directory + "/" + AccessCache::METADATA_FILE_NAME),
          objects_(directory + "/" + AccessCache::OBJECT_FILE_NAME, image.objectBytes()),
          nodes_(directory + "/" + AccessCache::NODE_FILE_NAME, image.nodeBytes()),
          segments_(directory + "/" + AccessCache::SEGMENT_FILE_NAME, image.segmentBytes()) {}

    /// What can be done while others read.
    void prepare() {
        for (RecordFile* file : recordFiles()) {
            file->compare();
        }
        // A full disk is found out while the old cache is still whole.
        for (RecordFile* file : recordFiles()) {
            file->reserve(disk_);
        }
        image_.metadata.publication = metadata_.lastPublication() + 1;
        image_.metadata.publishedAt = nanosecondsSinceEpoch();
    }

    void write(const std::string& manifestPath, const std::string& manifest) {
        metadata_.setWriting(disk_, true);
        for (RecordFile* file : recordFiles()) {
            file->write(disk_);
        }
        metadata_.write(disk_, image_.metadata);
        // A cache that is published for the first time is complete when its manifest can be read.
        manifestBytes_ = writeManifest(disk_, manifestPath, manifest);
        disk_.syncDirectory(directory_);
        metadata_.setWriting(disk_, false);
    }

    PublicationReport report(std::chrono::nanoseconds lockHeld) const {
        PublicationReport report{};
        report.publication = image_.metadata.publication;
        report.objects = image_.objects.size() - 1;
        report.nodes = image_.nodes.size() - 1;
        report.segments = image_.segments.size() - 1;
        report.bytes = image_.metadataBytes().size() + image_.objectBytes().size() + image_.nodeBytes().size() +
                       image_.segmentBytes().size();
        report.bytesWritten = image_.metadataBytes().size() + manifestBytes_;
        for (const RecordFile* file : {&objects_, &nodes_, &segments_}) {
            report.bytesWritten += file->bytesWritten();
            report.chunksChanged += file->chunksChanged();
        }
        report.lockHeld = lockHeld;
        return report;
    }

private:
    std::array<RecordFile*, 3> recordFiles() { return {&objects_, &nodes_, &segments_}; }

    const Disk& disk_;
    const std::string& directory_;
    CacheImage& image_;
    MetadataFile metadata_;
    RecordFile objects_;
    RecordFile nodes_;
    RecordFile segments_;
    std::uint64_t manifestBytes_ = 0;
};

/// Removes what a failure left behind.
class TemporaryFile {
public:
    explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
    ~TemporaryFile() { unlink(path_.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

/// The text form, computed in a copy: the caller's value may be in use elsewhere. What JSON cannot express, letters of
/// another locale than "C", is refused.
std::string textOf(const ObjectNamespace& ns) {
    std::string text = ObjectNamespace(ns).str();
    if (!JsonPointer(json_stringn(text.data(), text.size()))) {
        throw std::invalid_argument("namespace " + text + " is not UTF-8");
    }
    return text;
}

std::string manifestFor(const ObjectNamespace& scope) {
    const std::string text = textOf(scope);
    return json::dump(json::required(json_pack("{s:s}", "namespace", text.c_str())), 0);
}

std::string operationCacheFor(const std::map<ObjectNamespace, std::int32_t>& operations) {
    const JsonPointer document = json::required(json_object());
    for (const auto& [operation, bitNumber] : operations) {
        const std::string text = textOf(operation);
        if (json_object_set_new(document.get(), text.c_str(), json_integer(bitNumber)) != 0) {
            throw std::bad_alloc();
        }
    }
    return json::dump(document, JSON_INDENT(4)) + "\n";
}

}  // namespace

CacheWriter::CacheWriter(std::string directory, CacheWriterOptions options)
    : directory_(std::move(directory)), options_(std::move(options)) {}

PublicationReport CacheWriter::publish(const AccessModel& model) const {
    CacheImage image = CacheImage::build(model, options_.limits);
    if (options_.verify) {
        image.requireSound();
    }
    const std::string manifest = manifestFor(model.scope);
    const std::string manifestPath = directory_ + "/" + AccessCache::MANIFEST_FILE_NAME;
    const std::string writersPath = directory_ + "/" + WRITER_LOCK_NAME;

    const Disk disk(options_);
    disk.makeDirectory(directory_);
    disk.announce("lock", writersPath);
    const FileLockGuard writers(lockNamed(writersPath), FileLockGuard::EXCLUSIVE, WITHOUT_LIMIT,
                                FileLock::DEFAULT_INTERVAL);
    Publication publication(disk, directory_, image);
    publication.prepare();

    disk.announce("lock", manifestPath);
    const FileLockGuard readers(lockNamed(manifestPath), FileLockGuard::EXCLUSIVE, WITHOUT_LIMIT,
                                FileLock::DEFAULT_INTERVAL);
    const auto locked = std::chrono::steady_clock::now();
    publication.write(manifestPath, manifest);
    return publication.report(std::chrono::steady_clock::now() - locked);
}

void writeOperationCache(const std::string& path, const std::map<ObjectNamespace, std::int32_t>& operations) {
    const std::string contents = operationCacheFor(operations);
    const CacheWriterOptions options;
    const Disk disk(options);
    disk.makeDirectory(parentOf(path));
    const FileLockGuard lock(lockNamed(path + ".lck"), FileLockGuard::EXCLUSIVE, WITHOUT_LIMIT,
                             FileLock::DEFAULT_INTERVAL);
    const TemporaryFile temporary(path + ".new");
    File file(temporary.path());
    file.createIfMissing(disk);
    file.resize(disk, 0);
    file.write(disk, contents, 0);
    file.sync(disk);
    disk.change("replace", path, [&] { return std::rename(temporary.path().c_str(), path.c_str()); });
    disk.syncDirectory(parentOf(path));
}

}  // namespace Tesmor::Arkwell::Sandbox
