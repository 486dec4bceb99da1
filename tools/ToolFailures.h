#pragma once

#include <stdexcept>

namespace Tesmor::Arkwell::Tools {

/// How the command ends.
enum ExitCode : int {
    EXIT_YES = 0,      ///< allowed, sound, no difference, or done
    EXIT_NO = 1,       ///< denied, faults, differences
    EXIT_USAGE = 2,    ///< the command line makes no sense
    EXIT_UNUSABLE = 3  ///< the cache or another file cannot be used
};

/// What the command line says makes no sense.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The cache or another file cannot be used.
class Unusable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace Tesmor::Arkwell::Tools
