#include "platform/CoarseClock.h"
#include "platform/SlotPool.h"

#include <platform/FileLock.h>
#include <platform/Logger.h>
#include <platform/Status.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

// A lock is the kernel's flock() on an open description of its own for every guard, so threads exclude one another as
// processes do, a read-only descriptor is enough, and the end of the process releases it. Open descriptions are kept
// for the next guard.
//
// flock() alone lets a stream of shared holders starve an exclusive request for ever. So an exclusive request that has
// to wait announces itself, by a record lock on one byte far beyond any content, and shared requests look for it once
// in every tick of the coarse clock: from the tick after the announcement on nobody new comes in, until the request is
// granted. The announcement is itself a *shared* record lock, because that may be taken on a read-only descriptor;
// whether it is there is found by asking whether an exclusive one would be granted. It dies with its process as the
// lock does.
//
// In the same rhythm a holder asks whether the path still names the file that it locked. Within one tick a replaced
// lock file can therefore go unnoticed, which is why an exclusive holder of a file that has only just appeared waits
// until every descriptor of its predecessor must have been found out.

namespace platform_detail {

namespace {

using Clock = std::chrono::steady_clock;

constexpr off_t ANNOUNCEMENT_BYTE = std::numeric_limits<off_t>::max() - 1;
constexpr std::chrono::microseconds ANNOUNCEMENT_POLL{200};
// Longer than any grant takes, and short enough for a thread that holds a shared lock already and so keeps the
// announced request itself from being granted.
constexpr std::chrono::milliseconds LONGEST_COURTESY{50};
constexpr long LONGEST_TIMEOUT_MS = 1000L * 60 * 60 * 24 * 365;  // what is added to the clock must not overflow it
constexpr std::int64_t SETTLING_TIME = 2 * LONGEST_TICK;

/// When a request gives up.
class Deadline {
public:
    explicit Deadline(long timeoutMs) : limited_(timeoutMs >= 0) {
        if (limited_) {
            at_ = Clock::now() + std::chrono::milliseconds(std::min(timeoutMs, LONGEST_TIMEOUT_MS));
        }
    }

    bool limited() const { return limited_; }
    bool passed() const { return limited_ && Clock::now() >= at_; }
    /// The earlier of `wait` from now and the deadline.
    Clock::time_point within(Clock::duration wait) const {
        const Clock::time_point then = Clock::now() + wait;
        return limited_ ? std::min(then, at_) : then;
    }

private:
    bool limited_;
    Clock::time_point at_;
};

template <class Call>
auto retryInterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

[[noreturn]] void throwUnavailable(const char* what, const std::string& path, int error) {
    logmsgf(16, "FileLockGuard", "cannot %s lock file %s: %s", what, path.c_str(),
            std::generic_category().message(error).c_str());
    throw EC_exception(platform_status::LOCK_UNAVAILABLE);
}

struct flock announcementRecord(short type) {
    struct flock record {};
    record.l_type = type;
    record.l_whence = SEEK_SET;
    record.l_start = ANNOUNCEMENT_BYTE;
    record.l_len = 1;
    return record;
}

/// Announces an exclusive request while it waits. Where the file system refuses, the request waits its turn
/// unannounced.
class Announcement {
public:
    explicit Announcement(int fd) : fd_(fd) { set(F_RDLCK); }
    ~Announcement() { set(F_UNLCK); }
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;

    static bool seenFrom(int fd) {
        struct flock record = announcementRecord(F_WRLCK);
        return fcntl(fd, F_OFD_GETLK, &record) == 0 && record.l_type != F_UNLCK;
    }

private:
    void set(short type) const {
        struct flock record = announcementRecord(type);
        fcntl(fd_, F_OFD_SETLK, &record);
    }

    int fd_;
};

}  // namespace

/// An open description of a lock file, locked or idle.
struct LockDescriptor {
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
    std::int64_t checkedAt = -1;  // the tick in which the path was last found to name this file
    bool settled = false;         // known to have been there long enough for nobody to use a predecessor
};

using LockSlot = Slot<LockDescriptor>;

/// What is kept open for one path.
class LockFile {
public:
    explicit LockFile(std::string path);
    ~LockFile();
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;

    LockSlot& acquire(bool exclusive, long timeoutMs, long intervalMs);
    void release(LockSlot& slot);
    void forgetDescriptors();

private:
    void acquireShared(LockDescriptor& descriptor, const Deadline& deadline, long intervalMs);
    void acquireExclusive(LockDescriptor& descriptor, const Deadline& deadline, long intervalMs);
    void waitFor(int operation, const LockDescriptor& descriptor, const Deadline& deadline, long intervalMs) const;
    bool tryLock(int operation, const LockDescriptor& descriptor) const;
    static void letAnnouncedPass(const LockDescriptor& descriptor, const Deadline& deadline);
    bool stillNamed(const LockDescriptor& descriptor) const;
    void settle(LockDescriptor& descriptor) const;
    void ensureOpen(LockDescriptor& descriptor) const;
    static void closeDescriptor(LockDescriptor& descriptor);

    std::string path_;
    SlotPool<LockDescriptor> descriptors_;
};

namespace {

/// Every lock file of the process. Descriptors are opened and closed under its mutex, and fork() waits for it, so that
/// a child finds each descriptor that it inherited and closes it. Never destroyed: locks may be used until the very
/// end.
struct Registry {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<LockFile>> byPath;
    std::set<LockFile*> all;

    static Registry& instance() {
        alignas(Registry) static unsigned char storage[sizeof(Registry)];
        static auto* const registry = new (storage) Registry;
        return *registry;
    }

private:
    Registry() {
        pthread_atfork([] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); },
                       [] { instance().inChild(); });
    }

    void inChild() {
        for (LockFile* file : all) {
            file->forgetDescriptors();  // GCOVR_EXCL_LINE: in a child, which counts nothing
        }
        mutex.unlock();
    }
};

// Made when the library is loaded: a fork while another thread made it would leave the child waiting for that thread.
[[maybe_unused]] const Registry* const MADE_AT_LOAD = &Registry::instance();

}  // namespace

LockFile::LockFile(std::string path) : path_(std::move(path)) {}

LockFile::~LockFile() {
    descriptors_.forEach([](LockSlot& slot) { closeDescriptor(slot.value); });
    Registry& registry = Registry::instance();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    registry.all.erase(this);
    const auto entry = registry.byPath.find(path_);
    // The name may have been given to a successor already.
    if (entry != registry.byPath.end() && entry->second.expired()) {
        registry.byPath.erase(entry);
    }
}

LockSlot& LockFile::acquire(bool exclusive, long timeoutMs, long intervalMs) {
    const Deadline deadline(timeoutMs);
    LockSlot& slot = descriptors_.claim();
    try {
        if (exclusive) {
            acquireExclusive(slot.value, deadline, std::max(intervalMs, 1L));
        } else {
            acquireShared(slot.value, deadline, std::max(intervalMs, 1L));
        }
    } catch (...) {
        SlotPool<LockDescriptor>::release(slot);
        throw;
    }
    return slot;
}

void LockFile::acquireShared(LockDescriptor& descriptor, const Deadline& deadline, long intervalMs) {
    for (;;) {
        ensureOpen(descriptor);
        const std::int64_t now = coarseNow();
        if (now == descriptor.checkedAt && tryLock(LOCK_SH, descriptor)) {
            return;
        }
        letAnnouncedPass(descriptor, deadline);
        waitFor(LOCK_SH, descriptor, deadline, intervalMs);
        const std::int64_t checkedAt = coarseNow();
        if (stillNamed(descriptor)) {
            descriptor.checkedAt = checkedAt;
            return;
        }
        closeDescriptor(descriptor);
    }
}

void LockFile::acquireExclusive(LockDescriptor& descriptor, const Deadline& deadline, long intervalMs) {
    for (;;) {
        ensureOpen(descriptor);
        if (!tryLock(LOCK_EX, descriptor)) {
            const Announcement announcement(descriptor.fd);
            waitFor(LOCK_EX, descriptor, deadline, intervalMs);
        }
        if (stillNamed(descriptor)) {
            settle(descriptor);
            return;
        }
        closeDescriptor(descriptor);
    }
}

/// Locks, however long it takes within the deadline.
void LockFile::waitFor(int operation, const LockDescriptor& descriptor, const Deadline& deadline,
                       long intervalMs) const {
    if (!deadline.limited()) {
        if (retryInterrupted([&] { return flock(descriptor.fd, operation); }) != 0) {
            throwUnavailable("lock", path_, errno);
        }
        return;
    }
    while (!tryLock(operation, descriptor)) {
        if (deadline.passed()) {
            throw EC_exception(platform_status::LOCK_TIMED_OUT);
        }
        std::this_thread::sleep_until(deadline.within(std::chrono::milliseconds(intervalMs)));
    }
}

bool LockFile::tryLock(int operation, const LockDescriptor& descriptor) const {
    if (retryInterrupted([&] { return flock(descriptor.fd, operation | LOCK_NB); }) == 0) {
        return true;
    }
    if (errno != EWOULDBLOCK) {
        throwUnavailable("lock", path_, errno);
    }
    return false;
}

void LockFile::letAnnouncedPass(const LockDescriptor& descriptor, const Deadline& deadline) {
    if (!Announcement::seenFrom(descriptor.fd)) {
        return;
    }
    const Clock::time_point end = deadline.within(LONGEST_COURTESY);
    while (Clock::now() < end && Announcement::seenFrom(descriptor.fd)) {
        std::this_thread::sleep_for(ANNOUNCEMENT_POLL);
    }
}

bool LockFile::stillNamed(const LockDescriptor& descriptor) const {
    struct stat named {};
    return stat(path_.c_str(), &named) == 0 && named.st_dev == descriptor.device && named.st_ino == descriptor.inode;
}

void LockFile::settle(LockDescriptor& descriptor) const {
    if (descriptor.settled) {
        return;
    }
    struct stat locked {};
    timespec now{};
    if (fstat(descriptor.fd, &locked) != 0 || clock_gettime(CLOCK_REALTIME, &now) != 0) {
        const int error = errno;
        closeDescriptor(descriptor);  // it holds the lock
        throwUnavailable("examine", path_, error);
    }
    // The time of the last change of status: making a file and giving it another name both set it.
    const std::int64_t age =
        std::int64_t{now.tv_sec - locked.st_ctim.tv_sec} * 1'000'000'000 + (now.tv_nsec - locked.st_ctim.tv_nsec);
    if (age < SETTLING_TIME && age > -SETTLING_TIME) {
        std::this_thread::sleep_for(std::chrono::nanoseconds(SETTLING_TIME));
    }
    descriptor.settled = true;
}

void LockFile::ensureOpen(LockDescriptor& descriptor) const {
    if (descriptor.fd >= 0) {
        return;
    }
    // Not blocking: a fifo in the lock file's place must not hang the caller.
    constexpr int FLAGS = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    const std::lock_guard<std::mutex> lock(Registry::instance().mutex);
    int fd = retryInterrupted([&] { return open(path_.c_str(), FLAGS); });
    if (fd < 0 && errno == ENOENT) {
        fd = retryInterrupted([&] { return open(path_.c_str(), FLAGS | O_CREAT, 0644); });
    }
    if (fd < 0) {
        throwUnavailable("open", path_, errno);
    }
    struct stat opened {};
    if (fstat(fd, &opened) != 0) {
        const int error = errno;
        close(fd);
        throwUnavailable("examine", path_, error);
    }
    descriptor = LockDescriptor{};
    descriptor.fd = fd;
    descriptor.device = opened.st_dev;
    descriptor.inode = opened.st_ino;
}

void LockFile::closeDescriptor(LockDescriptor& descriptor) {
    if (descriptor.fd < 0) {
        return;
    }
    const std::lock_guard<std::mutex> lock(Registry::instance().mutex);
    close(descriptor.fd);
    descriptor = LockDescriptor{};
}

void LockFile::release(LockSlot& slot) {
    LockDescriptor& descriptor = slot.value;
    if (!descriptors_.isCore(slot) || retryInterrupted([&] { return flock(descriptor.fd, LOCK_UN); }) != 0) {
        closeDescriptor(descriptor);
    }
    SlotPool<LockDescriptor>::release(slot);
}

/// In a fork child: gives up the parent's descriptors. Closing them releases nothing, the parent's remain open.
// GCOVR_EXCL_START: in a child, which counts nothing
void LockFile::forgetDescriptors() {
    descriptors_.forEach([](LockSlot& slot) {
        if (slot.value.fd >= 0) {
            close(slot.value.fd);
        }
        slot.value = LockDescriptor{};
    });
}
// GCOVR_EXCL_STOP

}  // namespace platform_detail

using platform_detail::LockFile;
using platform_detail::Registry;

FileLock::FileLock(std::shared_ptr<LockFile> file) : file_(std::move(file)) {}

FileLockManager& FileLockManager::instance() {
    static FileLockManager manager;
    return manager;
}

FileLock FileLockManager::getLock(const std::string& path) {
    std::shared_ptr<LockFile> file;
    {
        Registry& registry = Registry::instance();
        const std::lock_guard<std::mutex> lock(registry.mutex);
        const auto known = registry.byPath.find(path);
        file = known == registry.byPath.end() ? nullptr : known->second.lock();
        if (!file) {
            file = std::make_shared<LockFile>(path);
            registry.all.insert(file.get());
            registry.byPath[path] = file;
        }
    }
    // A reference count of its own for each handle: copies made of it by one thread do not disturb other threads.
    LockFile* const pointer = file.get();
    return FileLock(std::shared_ptr<LockFile>(pointer, [keep = std::move(file)](LockFile*) mutable { keep.reset(); }));
}

FileLockGuard::FileLockGuard(const FileLock& lock, int mode, long timeoutMs, long intervalMs)
    : file_(lock.file_), generation_(platform_detail::forkGeneration()) {
    if (mode != SHARED && mode != EXCLUSIVE) {
        throw EC_exception(platform_status::LOCK_MODE_UNKNOWN);
    }
    slot_ = &file_->acquire(mode == EXCLUSIVE, timeoutMs, intervalMs);
}

FileLockGuard::~FileLockGuard() {
    // In a fork child there is nothing to release: the lock is the parent's.
    if (generation_ == platform_detail::forkGeneration()) {
        file_->release(*static_cast<platform_detail::LockSlot*>(slot_));
    }
}
