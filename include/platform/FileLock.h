#pragma once

#include <platform/Export.h>

#include <memory>
#include <string>

namespace platform_detail {
class LockFile;
}  // namespace platform_detail

/// @file
/// Locks named by the path of a file, shared and exclusive, between processes and between the threads of one process.
///
/// What is promised on a local file system:
///  - Shared holders never exclude one another; an exclusive holder excludes everybody else. Every guard is a holder of
///  its
///    own, also within one thread: a thread that holds a shared lock and asks for the exclusive one waits for itself.
///  - A process that ends, however it ends, holds nothing.
///  - Permission to read the lock file is enough for either mode. The file is made when it is missing, and its contents
///    are never read or changed. Taking a lock changes nothing on disk otherwise.
///  - When the lock file is deleted, renamed or replaced, whoever asks next locks the file that the path names now.
///    Those who hold the old file at that moment keep it until they are done and do not exclude holders of the new one.
///    An exclusive request on a file that has only just appeared therefore takes 20 ms longer than its limit may say.
///  - An exclusive request is not starved by shared ones: shared requests that come after it let it pass.
///  - A child made by fork() holds no lock of its parent, and what it does with the guards that it inherited changes
///    nothing for the parent. Programs started by exec inherit nothing.
///
/// What is not promised: anything on a network file system (NFS, SMB and the like), where locks may not reach other
/// hosts and a host that crashes may leave its locks behind; order among several waiting requests of the same mode; and
/// fork children made around the C library (raw clone(), _Fork()), which share their parent's locks.

/// A lock's name, resolved. A cheap value that may be copied and used from any thread; holds no lock by itself.
class ARKWELL_EXPORT FileLock {
public:
    /// How often, in milliseconds, a request with a time limit looks again.
    static constexpr long DEFAULT_INTERVAL = 10;

private:
    friend class FileLockManager;
    friend class FileLockGuard;
    explicit FileLock(std::shared_ptr<platform_detail::LockFile> file);

    std::shared_ptr<platform_detail::LockFile> file_;
};

/// Hands out file locks. One instance serves the whole process.
class ARKWELL_EXPORT FileLockManager {
public:
    /// The one manager of the process.
    static FileLockManager& instance();

    /// The lock named by `path`. Touches no file. Handles for one path share what is kept open for it, but not their
    /// reference counts, so threads that each use a handle of their own do not slow one another down.
    FileLock getLock(const std::string& path);

    FileLockManager(const FileLockManager&) = delete;
    FileLockManager& operator=(const FileLockManager&) = delete;

private:
    FileLockManager() = default;
};

/// Holds a lock from construction to destruction. Signals that arrive meanwhile neither end the wait nor change its
/// limit. A guard may be destroyed by another thread than the one that made it.
class ARKWELL_EXPORT FileLockGuard {
public:
    static constexpr int SHARED = 0;     ///< beside other shared holders
    static constexpr int EXCLUSIVE = 1;  ///< beside nobody

    /// Takes the lock.
    ///
    /// @param lock which one; need not outlive the guard.
    /// @param mode SHARED or EXCLUSIVE.
    /// @param timeoutMs how long to wait at most; 0 tries once, -1 (any negative number) waits without limit.
    /// @param intervalMs how often a wait with a limit looks again.
    /// @throws EC_exception with platform_status::LOCK_TIMED_OUT, LOCK_UNAVAILABLE (the lock file cannot be opened or
    /// made; the reason is logged) or LOCK_MODE_UNKNOWN.
    FileLockGuard(const FileLock& lock, int mode, long timeoutMs, long intervalMs);
    ~FileLockGuard();

    FileLockGuard(const FileLockGuard&) = delete;
    FileLockGuard& operator=(const FileLockGuard&) = delete;

private:
    std::shared_ptr<platform_detail::LockFile> file_;
    void* slot_ = nullptr;  // of file_
    unsigned long generation_;
};
