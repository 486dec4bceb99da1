#pragma once

#include <functional>
#include <string>
#include <vector>

namespace testing_support {

/// What is done in the same child before and after the work, where no call fails, and which calls may fail.
struct AroundTheWork {
    std::function<void()> before = [] {};
    std::function<std::string()> after = [] { return ""; };  ///< adds this to the outcome
    /// Whether calls on a file of this name, without its folder, may fail.
    std::function<bool(const std::string&)> concerns = [](const std::string&) { return true; };
};

/// Runs `work` again and again, each time in a forked child, in which its first, second, ... system call fails with
/// `error`, until there is none left to fail. The kernel does not carry a call out that fails, but for close(), which
/// closes in any case.
///
/// Calls are counted that open, examine, map, unmap, lock, read, write, sync and close files, create and delete them,
/// whether the library makes them or what it is built on; in the thread that runs `work`.
///
/// @param work says what came of it.
/// @return what came of each failure, in order: "open objects: error opening file". Where the child has another number
/// of descriptors than before, that is said at the end: "+1".
std::vector<std::string> failEachSystemCall(int error, const std::function<std::string()>& work,
                                            const AroundTheWork& around = {});

/// Whether nobody, on whatever descriptor, holds the lock on the file as a whole. Takes no part in what this process
/// keeps for its own file locks.
bool isUnlocked(const std::string& path);

/// What a call throws, with what it writes to the standard error stream and logs as an error; "done" where it throws
/// nothing. Texts after the first have the names of files without their folders.
std::string outcomeOf(const std::function<void()>& call);

}  // namespace testing_support
