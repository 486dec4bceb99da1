#pragma once

#include "platform/SlotPool.h"

#include <platform/FileLock.h>
#include <rbac/AccessCache.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Tesmor::Arkwell::Rbac::detail {

/// One holding of a cache's file lock, by one or more readers.
struct ReaderSession {
    platform_detail::Slot<ReaderSession>* slot = nullptr;  // that it lives in
    std::atomic<unsigned> readers{0};                      // and whether others may join them
    std::atomic<std::int64_t> openedAt{0};                 // tick of the coarse clock
    std::atomic<unsigned> opener{0};                       // thread that opened it and has not left it yet
    std::atomic<std::uint64_t> generation{0};              // of the mappings that it may read; 0: none
    std::optional<FileLock> lock;
    std::optional<FileLockGuard> guard;
};

/// Who reads a cache at this moment, and the old mappings that they may still be reading.
///
/// **Joining.** Taking the file lock costs every thread two system calls on one inode, which do not scale. So a thread
/// that wants to read while another holds the lock joins that one's session: the lock has been held all the time since
/// the session brought the mappings up to date, no writer can have run since, so there is nothing to refresh. A session
/// can be joined during one tick of the coarse clock only. A thread that comes later opens a new one, through the file
/// lock, where a waiting writer is let pass; overlapping readers can therefore not keep a writer out for longer than a
/// tick and the longest single reading. A session that is just being opened is waited for, briefly. A thread does not
/// join the session that it has itself open: it may have reasons of its own to look anew.
///
/// **Remapping.** A mapping is replaced when a file's size differs from the mapped one. While the lock is held no
/// writer changes a size, so whoever finds one changed is the first to come since a writer was here, and of the others
/// that hold the lock none has finished its own comparison, hence none reads yet. That holds as long as everybody locks
/// the same file. Against those who don't (the lock file was replaced under a reader, a writer that does not lock), a
/// mapping that is replaced is not removed before the last session is gone that was opened while it was current. This
/// is decided by generation numbers: a session notes the current one before it first reads a mapping's base, and
/// replacing publishes the new base, tags the old mapping with the current number and raises it. A session that notes
/// its number too late to be seen by the one who removes mappings can only find the new base.
///
/// Sessions of the parent are gone in a fork child, whose file locks they were not. A fork waits until no thread is
/// replacing a mapping, so the child finds whole ones and the mutex free.
class ReaderSessions {
public:
    using Slot = platform_detail::Slot<ReaderSession>;

    explicit ReaderSessions(std::string lockName);
    ~ReaderSessions();
    ReaderSessions(const ReaderSessions&) = delete;
    ReaderSessions& operator=(const ReaderSessions&) = delete;

    /// Joins a session of another thread, or takes the lock for a new one, which nobody joins before share().
    ReaderSession& enter();
    /// Lets others join; the mappings must be up to date.
    void share(ReaderSession& session);
    static bool isShared(const ReaderSession& session);
    /// One more reader of a session that the caller has open.
    static void addReader(ReaderSession& session);
    /// The counterpart of enter() and of addReader().
    void leave(ReaderSession& session);

    /// Brings one map up to its file's size.
    void refresh(MemoryMap& map, ReaderSession& session);

private:
    friend class ForkRegistry;

    struct Retired {
        std::uint64_t generation;  // the last one in which it was current
        Mapping mapping;
    };

    // Bits of ReaderSession::readers beside the number of readers.
    static constexpr unsigned JOINABLE = 1U << 31U;
    static constexpr unsigned OPENING = 1U << 30U;  // only its opener is there yet, and it may still fail
    static constexpr unsigned NUMBER = OPENING - 1;

    ReaderSession* join();
    ReaderSession& open();
    static bool joinReaders(ReaderSession& session);
    void makeCurrent(Slot& slot);
    void close(ReaderSession& session);
    void retire(Mapping mapping, ReaderSession& session);
    void unmapUnread();

    std::string lockName_;
    platform_detail::SlotPool<ReaderSession> sessions_;
    std::atomic<Slot*> current_{nullptr};
    std::atomic<std::uint64_t> generation_{1};
    std::mutex remapping_;
    std::vector<Retired> retired_;              // guarded by remapping_
    std::atomic<std::size_t> retiredCount_{0};  // its size, to be looked at without the mutex
};

}  // namespace Tesmor::Arkwell::Rbac::detail
