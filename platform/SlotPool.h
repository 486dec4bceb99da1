#pragma once

#include "platform/ForkGeneration.h"

#include <array>
#include <atomic>
#include <cstddef>

namespace platform_detail {

/// A small number for each thread that asks, in the order of asking.
inline unsigned threadNumber() {
    static std::atomic<unsigned> last{0};
    // Read on every check: the thread's own memory is reached without asking the loader where it is.
    __attribute__((tls_model("initial-exec"))) thread_local unsigned mine = 0;
    if (mine == 0) {
        mine = last.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    return mine;
}

template <class T>
class SlotPool;

/// A value of a SlotPool, on cache lines of its own.
template <class T>
class alignas(128) Slot {
public:
    T value;

    bool claimed() const { return claimedIn_.load(std::memory_order_acquire) == forkGeneration(); }

private:
    friend class SlotPool<T>;
    std::atomic<unsigned long> claimedIn_{0};
};

/// Values that are each in the hands of one user at a time, for state that is dear to make and cheap to keep. A thread
/// tends to get the same one again, on a cache line that no other thread writes. Claiming takes no lock, and memory is
/// allocated only when more are claimed at once than ever before.
///
/// In a child made by fork(), what the parent had claimed is free again; its value is as the parent left it.
template <class T>
class SlotPool {
public:
    using Slot = platform_detail::Slot<T>;

    SlotPool() = default;
    SlotPool(const SlotPool&) = delete;
    SlotPool& operator=(const SlotPool&) = delete;
    ~SlotPool() {
        for (Block* block = first_.next.load(); block != nullptr;) {
            Block* next = block->next.load();
            delete block;
            block = next;
        }
    }

    Slot& claim() {
        for (Block* block = &first_;; block = next(*block)) {
            if (Slot* slot = claimIn(*block)) {
                return *slot;
            }
        }
    }

    static void release(Slot& slot) { slot.claimedIn_.store(0, std::memory_order_release); }

    /// Whether the slot is one of the few that the pool starts with.
    bool isCore(const Slot& slot) const { return &slot >= &first_.slots.front() && &slot <= &first_.slots.back(); }

    /// Calls `visit` with every slot, claimed or not.
    template <class Visit>
    void forEach(Visit visit) {
        for (Block* block = &first_; block != nullptr; block = block->next.load()) {
            for (Slot& slot : block->slots) {
                visit(slot);
            }
        }
    }

private:
    struct Block {
        std::array<Slot, 16> slots;
        std::atomic<Block*> next{nullptr};
    };

    static Slot* claimIn(Block& block) {
        const unsigned long generation = forkGeneration();
        const std::size_t preferred = threadNumber();
        for (std::size_t i = 0; i < block.slots.size(); ++i) {
            Slot& slot = block.slots[(preferred + i) % block.slots.size()];
            unsigned long claimedIn = slot.claimedIn_.load(std::memory_order_relaxed);
            if (claimedIn != generation && slot.claimedIn_.compare_exchange_strong(claimedIn, generation)) {
                return &slot;
            }
        }
        return nullptr;
    }

    static Block* next(Block& block) {
        Block* following = block.next.load();
        if (following != nullptr) {
            return following;
        }
        auto* made = new Block;
        if (block.next.compare_exchange_strong(following, made)) {
            return made;
        }
        delete made;
        return following;
    }

    Block first_;
};

}  // namespace platform_detail
