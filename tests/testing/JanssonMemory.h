#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdlib>

namespace testing_support {

// NOLINTBEGIN(cppcoreguidelines-no-malloc): what jansson uses

/// While it lives, jansson's memory is counted, and after `granted` blocks the next `failing` ones are refused. One at
/// a time.
class JanssonMemory {
public:
    static constexpr long ALL = -1;

    explicit JanssonMemory(long granted = ALL, long failing = ALL) {
        blocks = 0;
        failed = false;
        granted_ = granted;
        failing_ = failing;
        json_set_alloc_funcs(allocate, release);
    }
    ~JanssonMemory() { json_set_alloc_funcs(std::malloc, std::free); }
    JanssonMemory(const JanssonMemory&) = delete;
    JanssonMemory& operator=(const JanssonMemory&) = delete;

    /// Blocks that are not released yet.
    static inline int blocks = 0;
    /// Whether one has been refused.
    static inline bool failed = false;

private:
    static bool refuse() {
        if (granted_ != 0) {
            granted_ -= granted_ > 0 ? 1 : 0;
            return false;
        }
        granted_ = failing_ > 0 && --failing_ == 0 ? ALL : 0;
        failed = true;
        return true;
    }
    static void* allocate(std::size_t size) {
        if (refuse()) {
            return nullptr;
        }
        ++blocks;
        return std::malloc(size);
    }
    static void release(void* block) {
        blocks -= block != nullptr ? 1 : 0;
        std::free(block);
    }

    static inline long granted_ = ALL;
    static inline long failing_ = ALL;
};

// NOLINTEND(cppcoreguidelines-no-malloc)

}  // namespace testing_support
