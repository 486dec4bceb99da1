#pragma once

#include "rbac/cache/SegmentDescent.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Tesmor::Arkwell::Tools {

/// The namespaces at and below one, as lines of a drawn tree: the objects of a cache whose lock is held, and the
/// namespaces between them. In memory for the way to one of them.
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
        std::size_t textLength;
        std::string lastBelow;  // the text of the last object at or below it
        bool isLast;            // of its siblings
    };

    void visitObject(const std::string& text, const Rbac::ManagedObject& record,
                     const std::function<void(const Node&)>& visit);
    bool isLastChild(std::string_view text) const;
    std::string branches() const;

    const Rbac::detail::CacheView& cache_;
    std::string top_;
    std::size_t deepest_;
    bool utf8_;
    std::vector<Level> levels_;
};

}  // namespace Tesmor::Arkwell::Tools
