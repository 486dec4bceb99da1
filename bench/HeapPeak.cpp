#include "bench/HeapPeak.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>

// The allocator itself, beneath the names that this file takes.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
}

namespace {

constexpr std::ptrdiff_t HEADER = sizeof(std::size_t);

bool counting = false;
std::ptrdiff_t live = 0;
std::ptrdiff_t peak = 0;

std::ptrdiff_t sizeOf(void* block) {
    return static_cast<std::ptrdiff_t>(malloc_usable_size(block)) + HEADER;
}

void* added(void* block) {
    if (counting && block != nullptr) {
        live += sizeOf(block);
        peak = std::max(peak, live);
    }
    return block;
}

void remove(void* block) {
    if (counting && block != nullptr) {
        live -= sizeOf(block);
    }
}

}  // namespace

namespace bench {

void startHeapCount() {
    live = 0;
    peak = 0;
    counting = true;
}

std::size_t finishHeapCount() {
    counting = false;
    return static_cast<std::size_t>(peak);
}

}  // namespace bench

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): glibc's have leading underscores
extern "C" {

void* malloc(std::size_t size) noexcept {
    return added(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return added(__libc_calloc(count, size));
}

void* realloc(void* memory, std::size_t size) noexcept {
    remove(memory);
    return added(__libc_realloc(memory, size));
}

void free(void* memory) noexcept {
    remove(memory);
    __libc_free(memory);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
