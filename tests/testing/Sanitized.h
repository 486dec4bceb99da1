#pragma once

namespace testing_support {

/// Whether this program runs under a sanitizer, many times as slow: what is done over and over is done less often then.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

/// @return how often under a sanitizer, of how often otherwise.
constexpr int lessIfSanitized(int count) {
    return SANITIZED ? count / 4 : count;
}

}  // namespace testing_support
