#pragma once

#include "rbac/cache/SegmentDescent.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Tesmor::Arkwell::Tools {

/// The namespaces at and below one, as lines of a drawn tree: the objects of a cache whose lock is held, and the
/// namespaces between them. In memory for the way to one of them and a bit for each line. Walks through the cache
/// twice: only what follows a namespace tells whether it is the last of its siblings.
class NamespaceTree {
public:
    struct Node {
        std::string branches;               ///< what stands before the name
        std::string name;                   ///< the last component; for the top its whole text
        const Rbac::ManagedObject* record;  ///< null: the cache does not hold it
    };

    /// @param deepest how many components a namespace has at most that is shown.
    NamespaceTree(const Rbac::detail::CacheView& cache, std::string_view top, std::size_t deepest, bool utf8)
        : cache_(cache), top_(top), deepest_(deepest), utf8_(utf8) {}

    /// Visits them from top to bottom. Nothing where there is no object.
    void forEach(const std::function<void(const Node&)>& visit);

private:
    /// A namespace on the way to the one that is visited.
    struct Level {
        std::size_t textLength = 0;
        std::size_t line = 0;
        std::size_t lastChild = 0;  // the line of the newest one; 0: none yet
    };
    /// Is told the text of an object and its record; the namespace that is visited, the last level, may end before the
    /// object does.
    using Visit = std::function<void(const std::string&, const Rbac::ManagedObject&)>;

    void walk(const Visit& visit);
    void findLastChildren();
    std::string nameIn(const std::string& text) const;
    std::string branches() const;

    const Rbac::detail::CacheView& cache_;
    std::string top_;
    std::size_t deepest_;
    bool utf8_;
    std::vector<Level> levels_;
    std::vector<bool> isLast_;  // of its siblings, by line
};

}  // namespace Tesmor::Arkwell::Tools
