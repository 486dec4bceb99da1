#pragma once

#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace testing_support {

/// What a program printed, and how it ended: the exit status, or the negative number of the signal.
struct CommandRun {
    int status = -1;
    std::string out = {};
    std::string err = {};

    friend bool operator==(const CommandRun& left, const CommandRun& right) {
        return left.status == right.status && left.out == right.out && left.err == right.err;
    }
};
void PrintTo(const CommandRun& run, std::ostream* out);

/// Runs a program, found as a shell finds it, with these words.
///
/// @param environment variables that it gets besides the test's own; an empty value takes one away.
/// @param input what it reads.
CommandRun runProgram(const std::vector<std::string>& words, const std::map<std::string, std::string>& environment = {},
                      const std::string& input = {});

/// The lines of a text, each without its end.
std::vector<std::string> linesOf(const std::string& text);

/// rbac-cache on a cache as the access-control service publishes it:
///
///     |                    inherits; 2: VIEW (object and children)
///     |ASSETS|             inherits; 5: VIEW,ADD (object and children); 9: UPDATE (children)
///     |ASSETS|db+1|        does not inherit; 5: UPDATE (object); 7: VIEW (object and children)
///     |ASSETS|db+1|t|      inherits
///     |ASSETS|web|eu|a%2F| inherits; 5: ADD (object); 5: UPDATE (children)
///     |STORAGE|            inherits; -3: #31 (children)
///
/// VIEW is operation 37, ADD 0, UPDATE 32; nobody has heard of 31.
class CacheCommandTest : public testing::Test {
protected:
    CacheCommandTest();

    std::string published(const std::string& name) const { return directory_ / ("published/" + name); }
    const std::string& cache() const { return cache_; }

    /// Runs a subcommand on the cache.
    CommandRun run(std::vector<std::string> words, const std::map<std::string, std::string>& environment = {}) const;
    /// What it prints where it ends with 0 and says nothing else.
    std::string succeed(const std::vector<std::string>& words) const;

    TemporaryDirectory directory_;

private:
    std::string cache_ = published("access-caches/all");
};

}  // namespace testing_support
