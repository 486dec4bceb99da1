#pragma once

#include "rbac/cache/SegmentDescent.h"

#include <boost/container/small_vector.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tesmor::Arkwell::Rbac::detail {

/// A namespace on the way to an object that the cache holds.
struct PathRecord {
    const ManagedObject* record;
    std::size_t textLength;  // of its text, which is the beginning of the object's
};

/// Those of one object, outermost first. Objects nested deeper than this need memory for each check.
using PathRecords = boost::container::small_vector<PathRecord, 64>;

/// What is asked on a walk.
struct AccessQuestion {
    const std::vector<int>& roleIds;  // ascending
    std::int32_t operationBit;
};

/// Whether one of the roles holds the operation in the given role tree of the record.
inline bool anyRoleHolds(const CacheView& cache, const ManagedObject& record, RoleTree tree,
                         const AccessQuestion& question) {
    const int* const roles = question.roleIds.data();
    return anyOperationBit(cache.nodes, tree == RoleTree::OWN ? record.ownRoles : record.childRoles, roles,
                           roles + question.roleIds.size(), question.operationBit);
}

/// What a namespace on the way says.
enum class StepOutcome {
    GRANTED,   ///< one of the roles holds the operation
    STOPPED,   ///< none does, and the namespace takes nothing from its ancestors
    PASSED_ON  ///< none does, but the ancestors are to be asked
};

/// Asks one namespace on the way to the answer. The one place where that is decided.
inline StepOutcome askStep(const CacheView& cache, const ManagedObject& record, RoleTree tree,
                           const AccessQuestion& question) {
    if (anyRoleHolds(cache, record, tree, question)) {
        return StepOutcome::GRANTED;
    }
    return record.inherit == 0 ? StepOutcome::STOPPED : StepOutcome::PASSED_ON;
}

/// Whether the operation is allowed on the object with the given text.
///
/// The object's own role tree is asked first, then the child role trees of its ancestors, nearest first, until a role
/// holds the operation (yes) or a namespace does not inherit (no). Namespaces that the cache does not hold are passed
/// over; beyond the root the answer is no.
///
/// @param onStep called as onStep(pathRecord, tree, outcome) for each namespace that is asked, in that order.
template <class OnStep>
bool walkAccess(const CacheView& cache, const std::string& text, const AccessQuestion& question, OnStep onStep) {
    PathRecords path;
    descend(cache, text, [&](const ManagedObject& record, std::size_t length) {
        // Records and role trees are read when the descent is over: by then they have been fetched beside it.
        __builtin_prefetch(&record);
        if (!path.empty()) {
            __builtin_prefetch(cache.nodes + path.back().record->childRoles / sizeof(TreeNode<int, NodeBits>));
        }
        path.push_back({&record, length});
    });
    for (auto step = path.rbegin(); step != path.rend(); ++step) {
        const RoleTree tree = step->textLength == text.size() ? RoleTree::OWN : RoleTree::CHILD;
        const StepOutcome outcome = askStep(cache, *step->record, tree, question);
        onStep(*step, tree, outcome);
        if (outcome != StepOutcome::PASSED_ON) {
            return outcome == StepOutcome::GRANTED;
        }
    }
    return false;
}

}  // namespace Tesmor::Arkwell::Rbac::detail
