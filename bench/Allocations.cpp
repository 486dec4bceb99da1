#include "bench/Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bench::AllocationCount> count{0};

}  // namespace

namespace bench {

AllocationCount allocations() {
    return count.load();
}

}  // namespace bench

void* operator new(std::size_t size) {
    count.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
