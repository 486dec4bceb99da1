#include "testing/FailingAllocations.h"

#include <atomic>
#include <cstdlib>

namespace testing_support {

namespace {

// This is what the others are built on, so it gets and returns memory itself.
// NOLINTBEGIN(cppcoreguidelines-no-malloc)

thread_local long allowance = -1;  // negative: without limit
thread_local long failuresLeft = FailingAllocations::ALL;
thread_local bool anyFailed = false;
std::atomic<long> live{0};

bool refuse() {
    if (allowance < 0) {
        return false;
    }
    if (allowance > 0) {
        --allowance;
        return false;
    }
    anyFailed = true;
    if (failuresLeft > 0 && --failuresLeft == 0) {
        allowance = -1;
    }
    return true;
}

void* allocate(std::size_t size) noexcept {
    const bool isRefused = failuresLeft != FailingAllocations::ALL_OF_JANSSON && refuse();
    void* memory = isRefused ? nullptr : std::malloc(size != 0 ? size : 1);
    live += memory != nullptr ? 1 : 0;
    return memory;
}

void release(void* memory) noexcept {
    if (memory != nullptr) {
        --live;
        std::free(memory);
    }
}

// NOLINTEND(cppcoreguidelines-no-malloc)

}  // namespace

FailingAllocations::FailingAllocations(long granted, long failing) {
    anyFailed = false;
    failuresLeft = failing;
    allowance = granted;
}

FailingAllocations::~FailingAllocations() {
    allowance = -1;
}

bool FailingAllocations::failed() {
    return anyFailed;
}

// NOLINTBEGIN(cppcoreguidelines-no-malloc)

void* allocateForJansson(std::size_t size) noexcept {
    const bool isRefused = failuresLeft < 0 && refuse();
    return isRefused ? nullptr : std::malloc(size);
}

void releaseForJansson(void* memory) noexcept {
    std::free(memory);
}

// NOLINTEND(cppcoreguidelines-no-malloc)

long liveAllocations() {
    return live;
}

}  // namespace testing_support

void* operator new(std::size_t size) {
    void* memory = testing_support::allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return testing_support::allocate(size);
}

void operator delete(void* memory) noexcept {
    testing_support::release(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    testing_support::release(memory);
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    testing_support::release(memory);
}

// The library's own for arrays come down to these, but those of the address sanitizer do not.

void* operator new[](std::size_t size) {
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}

void operator delete[](void* memory) noexcept {
    testing_support::release(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    testing_support::release(memory);
}

void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
    testing_support::release(memory);
}
