#include "rbac/cache/ReaderSessions.h"

#include "platform/CoarseClock.h"

#include <pthread.h>

#include <algorithm>
#include <limits>
#include <new>
#include <set>

namespace Tesmor::Arkwell::Rbac::detail {

namespace {

constexpr int SHARED_MODE = 0;
constexpr long WITHOUT_LIMIT = -1;
// How often a session that is being opened is looked at: for about as long as opening takes if nobody is in the way.
constexpr int LONGEST_LOOK = 100;

}  // namespace

/// All that a fork has to wait for. Never destroyed: caches may be used until the very end.
class ForkRegistry {
public:
    static ForkRegistry& instance() {
        alignas(ForkRegistry) static unsigned char storage[sizeof(ForkRegistry)];
        static auto* const registry = new (storage) ForkRegistry;
        return *registry;
    }

    void add(ReaderSessions& sessions) {
        const std::lock_guard<std::mutex> lock(mutex_);
        all_.insert(&sessions);
    }
    void remove(ReaderSessions& sessions) {
        const std::lock_guard<std::mutex> lock(mutex_);
        all_.erase(&sessions);
    }

private:
    ForkRegistry() {
        pthread_atfork([] { instance().before(); }, [] { instance().after(); }, [] { instance().after(); });
    }

    void before() {
        mutex_.lock();
        for (ReaderSessions* const sessions : all_) {
            sessions->remapping_.lock();
        }
    }
    void after() {
        for (ReaderSessions* const sessions : all_) {
            sessions->remapping_.unlock();
        }
        mutex_.unlock();
    }

    std::mutex mutex_;
    std::set<ReaderSessions*> all_;
};

namespace {

// Made when the library is loaded: a fork while another thread made it would leave the child waiting for that thread.
[[maybe_unused]] const ForkRegistry* const MADE_AT_LOAD = &ForkRegistry::instance();

}  // namespace

ReaderSessions::ReaderSessions(std::string lockName) : lockName_(std::move(lockName)) {
    ForkRegistry::instance().add(*this);
}

ReaderSessions::~ReaderSessions() {
    ForkRegistry::instance().remove(*this);
}

ReaderSession& ReaderSessions::enter() {
    ReaderSession* const joined = join();
    return joined != nullptr ? *joined : open();
}

/// A session that another thread has open and that can be joined, or null.
ReaderSession* ReaderSessions::join() {
    Slot* const slot = current_.load(std::memory_order_acquire);
    if (slot == nullptr || !slot->claimed()) {
        return nullptr;
    }
    ReaderSession& session = slot->value;
    if ((session.readers.load(std::memory_order_relaxed) & (JOINABLE | OPENING)) == 0 ||
        session.opener.load(std::memory_order_relaxed) == platform_detail::threadNumber()) {
        return nullptr;
    }
    const std::int64_t now = platform_detail::coarseNow();
    if (session.openedAt.load(std::memory_order_relaxed) != now || !joinReaders(session)) {
        return nullptr;
    }
    // Between the look and the entry the session may have ended and the slot have got another one.
    if (session.openedAt.load(std::memory_order_relaxed) != now) {
        leave(session);
        return nullptr;
    }
    return &session;
}

bool ReaderSessions::joinReaders(ReaderSession& session) {
    for (int attempt = 0; attempt < LONGEST_LOOK; ++attempt) {
        unsigned readers = session.readers.load(std::memory_order_relaxed);
        while ((readers & JOINABLE) != 0) {
            if (session.readers.compare_exchange_weak(readers, readers + 1, std::memory_order_acquire,
                                                      std::memory_order_relaxed)) {
                return true;
            }
        }
        if ((readers & OPENING) == 0) {
            return false;
        }
        __builtin_ia32_pause();
    }
    return false;
}

ReaderSession& ReaderSessions::open() {
    Slot& slot = sessions_.claim();
    ReaderSession& session = slot.value;
    session.slot = &slot;
    try {
        if (!session.lock) {
            session.lock = FileLockManager::instance().getLock(lockName_);
        }
        session.opener.store(platform_detail::threadNumber(), std::memory_order_relaxed);
        session.openedAt.store(platform_detail::coarseNow(), std::memory_order_relaxed);
        session.readers.store(OPENING | 1, std::memory_order_release);
        makeCurrent(slot);
        session.guard.emplace(*session.lock, SHARED_MODE, WITHOUT_LIMIT, FileLock::DEFAULT_INTERVAL);
    } catch (...) {
        session.readers.store(0, std::memory_order_relaxed);
        platform_detail::SlotPool<ReaderSession>::release(slot);
        throw;
    }
    session.generation.store(generation_.load());
    return session;
}

void ReaderSessions::share(ReaderSession& session) {
    // Nobody but the opener is there.
    session.readers.store(JOINABLE | 1, std::memory_order_release);
    makeCurrent(*session.slot);
}

void ReaderSessions::makeCurrent(Slot& slot) {
    if (current_.load(std::memory_order_relaxed) != &slot) {
        current_.store(&slot, std::memory_order_release);
    }
}

bool ReaderSessions::isShared(const ReaderSession& session) {
    return (session.readers.load(std::memory_order_relaxed) & JOINABLE) != 0;
}

void ReaderSessions::addReader(ReaderSession& session) {
    session.readers.fetch_add(1, std::memory_order_relaxed);
}

void ReaderSessions::leave(ReaderSession& session) {
    if (session.opener.load(std::memory_order_relaxed) == platform_detail::threadNumber()) {
        session.opener.store(0, std::memory_order_relaxed);
    }
    unsigned readers = session.readers.load(std::memory_order_relaxed);
    unsigned left = 0;
    do {
        // The last one out closes the door: nobody can join once no reader is left.
        left = (readers & NUMBER) == 1 ? 0 : readers - 1;
    } while (
        !session.readers.compare_exchange_weak(readers, left, std::memory_order_acq_rel, std::memory_order_relaxed));
    if (left == 0) {
        close(session);
    }
}

void ReaderSessions::close(ReaderSession& session) {
    session.guard.reset();
    session.generation.store(0, std::memory_order_release);
    platform_detail::SlotPool<ReaderSession>::release(*session.slot);
    if (retiredCount_.load(std::memory_order_relaxed) != 0) {
        const std::unique_lock<std::mutex> lock(remapping_, std::try_to_lock);
        if (lock) {
            unmapUnread();
        }
    }
}

void ReaderSessions::refresh(MemoryMap& map, ReaderSession& session) {
    if (!map.resized()) {
        return;
    }
    const std::lock_guard<std::mutex> lock(remapping_);
    if (!map.resized()) {
        return;
    }
    retired_.reserve(retired_.size() + 1);  // once a mapping is replaced it must not be lost for want of memory
    Mapping old;
    try {
        map.replace(old);
    } catch (...) {
        retire(std::move(old), session);
        throw;
    }
    retire(std::move(old), session);
}

void ReaderSessions::retire(Mapping mapping, ReaderSession& session) {
    retired_.push_back({generation_.load(), std::move(mapping)});
    generation_.fetch_add(1);
    session.generation.store(generation_.load());  // this one has read nothing yet
    unmapUnread();
}

void ReaderSessions::unmapUnread() {
    std::uint64_t oldest = std::numeric_limits<std::uint64_t>::max();
    sessions_.forEach([&oldest](Slot& slot) {
        const std::uint64_t generation = slot.value.generation.load();
        if (generation != 0 && slot.claimed()) {
            oldest = std::min(oldest, generation);
        }
    });
    retired_.erase(std::remove_if(retired_.begin(), retired_.end(),
                                  [oldest](const Retired& retired) { return retired.generation < oldest; }),
                   retired_.end());
    retiredCount_.store(retired_.size(), std::memory_order_relaxed);
}

}  // namespace Tesmor::Arkwell::Rbac::detail
