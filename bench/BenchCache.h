#pragma once

#include "sandbox/AccessModel.h"

#include <rbac/ObjectNamespace.h>

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

/// The access model of the corpus of `count` objects, and the deep ones.
Tesmor::Arkwell::Sandbox::AccessModel corpusModel(std::size_t count);

/// A published access cache in a temporary directory, removed at the end.
class BenchCache {
public:
    /// The cache of corpusModel(count).
    static BenchCache ofCorpus(std::size_t count);
    /// The cache of any model.
    static BenchCache of(const Tesmor::Arkwell::Sandbox::AccessModel& model);
    ~BenchCache();
    BenchCache(BenchCache&& other) noexcept;
    BenchCache& operator=(BenchCache&&) = delete;

    const std::string& directory() const { return directory_; }
    const std::vector<std::string>& sortedTexts() const { return texts_; }

    /// Objects that follow one another in the order of their names, all of `depth` components, as a server meets them
    /// that lists folders.
    std::vector<Tesmor::Arkwell::Rbac::ObjectNamespace> neighbours(std::size_t count, int depth) const;
    /// Objects picked at random, of exactly `depth` components unless that is 0.
    std::vector<Tesmor::Arkwell::Rbac::ObjectNamespace> sample(std::size_t count, int depth, unsigned seed) const;

private:
    BenchCache();
    std::vector<const std::string*> ofDepth(int depth) const;

    std::string directory_;
    std::vector<std::string> texts_;
};

}  // namespace bench
