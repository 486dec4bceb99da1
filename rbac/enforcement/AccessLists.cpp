#include "rbac/cache/ObjectCursor.h"
#include "rbac/cache/RoleTrees.h"
#include "rbac/enforcement/AccessWalk.h"
#include "rbac/enforcement/ClientQuery.h"

#include <rbac/AccessLists.h>
#include <rbac/EC_exception.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

namespace Tesmor::Arkwell::Rbac {

namespace {

using detail::AccessQuestion;
using detail::CacheView;
using detail::RoleTree;
using detail::StepOutcome;

/// What the objects on the way to the one that is being visited grant to their descendants.
class GrantsFromAbove {
public:
    GrantsFromAbove(const CacheView& cache, const AccessQuestion& question) : cache_(cache), question_(question) {}

    /// Forgets the objects whose texts are longer than this.
    void keepUpTo(std::size_t textLength) {
        while (!levels_.empty() && levels_.back().textLength > textLength) {
            levels_.pop_back();
        }
    }

    /// Goes on below the object.
    void enter(const ManagedObject& record, std::size_t textLength) {
        levels_.push_back({textLength, &record, isGranted()});
    }

    /// Whether an object below is allowed that says nothing itself.
    bool isGranted() {
        if (levels_.empty()) {
            return false;
        }
        // Most objects have no descendants, so an object is asked when the first of its descendants comes.
        Level& level = levels_.back();
        if (level.record != nullptr) {
            const StepOutcome outcome = askStep(cache_, *level.record, RoleTree::CHILD, question_);
            level.granted = outcome == StepOutcome::PASSED_ON ? level.granted : outcome == StepOutcome::GRANTED;
            level.record = nullptr;
        }
        return level.granted;
    }

private:
    struct Level {
        std::size_t textLength;
        const ManagedObject* record;  // as long as it has not been asked
        bool granted;                 // until then what its ancestors say
    };

    const CacheView& cache_;
    const AccessQuestion& question_;
    std::vector<Level> levels_;
};

bool isAllowed(const CacheView& cache, const ManagedObject& record, const AccessQuestion& question,
               GrantsFromAbove& above) {
    const StepOutcome own = askStep(cache, record, RoleTree::OWN, question);
    return own == StepOutcome::PASSED_ON ? above.isGranted() : own == StepOutcome::GRANTED;
}

void visitAllowedObjects(const CacheView& cache, const AccessQuestion& question, const std::string& below,
                         const std::function<bool(const std::string&)>& visit) {
    const bool everything =
        std::binary_search(question.roleIds.begin(), question.roleIds.end(), detail::ALL_POWERFUL_ROLE);
    GrantsFromAbove above(cache, question);
    descend(cache, below, [&](const ManagedObject& record, std::size_t length) {
        if (length < below.size()) {
            above.enter(record, length);
        }
    });
    detail::ObjectCursor cursor(cache, below);
    while (cursor.next()) {
        above.keepUpTo(cursor.sharedLength());
        if ((everything || isAllowed(cache, cursor.record(), question, above)) && !visit(cursor.text())) {
            return;
        }
        above.enter(cursor.record(), cursor.text().size());
    }
}

/// The role trees that decide about the object: its own, and its ancestors' as far as each inherits.
std::vector<NodeOffset> decidingRoleTrees(const CacheView& cache, const std::string& text) {
    const std::vector<int> nobody;
    std::vector<NodeOffset> roots;
    walkAccess(cache, text, {nobody, 0}, [&roots](const detail::PathRecord& step, RoleTree tree, StepOutcome) {
        roots.push_back(tree == RoleTree::OWN ? step.record->ownRoles : step.record->childRoles);
    });
    return roots;
}

void visitAllowedRoles(const CacheView& cache, const std::string& text, std::int32_t operationBit,
                       const std::function<bool(int)>& visit) {
    std::vector<detail::NodeCursor> trees;
    for (const NodeOffset root : decidingRoleTrees(cache, text)) {
        trees.emplace_back(cache.nodes, root);
    }
    constexpr std::int64_t NONE = std::numeric_limits<std::int64_t>::max();
    for (bool isSuperuserDue = true;;) {
        // The smallest role that a tree has next; role 0 needs none.
        std::int64_t role = isSuperuserDue ? detail::ALL_POWERFUL_ROLE : NONE;
        for (const detail::NodeCursor& tree : trees) {
            role = tree.node() == nullptr ? role : std::min<std::int64_t>(role, tree.node()->key);
        }
        if (role == NONE) {
            return;
        }
        bool allowed = role == detail::ALL_POWERFUL_ROLE;
        for (detail::NodeCursor& tree : trees) {
            if (tree.node() != nullptr && tree.node()->key == role) {
                allowed = allowed || detail::wordBit(cache.nodes, tree.node()->payload, operationBit);
                tree.advance();
            }
        }
        isSuperuserDue = isSuperuserDue && role != detail::ALL_POWERFUL_ROLE;
        if (allowed && !visit(static_cast<int>(role))) {
            return;
        }
    }
}

}  // namespace

int forEachAllowedObject(AccessControlClient& client, const std::set<int>& roleIds, const ObjectNamespace& operation,
                         const ObjectNamespace& below, const std::function<bool(const std::string&)>& visit) {
    const DiskAccessControlClient& disk = detail::diskClient(client);
    boost::optional<Operation> known;
    if (const int status = detail::findOperation(disk, operation, known); status != 0 || !known) {
        return status;
    }
    const std::vector<int> roles = detail::ascending(roleIds);
    const AccessCache::Reader reader = disk.cache().lock();
    const CacheView cache = detail::CacheAccess::view(reader);
    visitAllowedObjects(cache, {roles, known->bitNumber()}, below.str(), visit);
    return 0;
}

int forEachAllowedRole(AccessControlClient& client, const ObjectNamespace& operation, const ObjectNamespace& object,
                       const std::function<bool(int)>& visit) {
    const DiskAccessControlClient& disk = detail::diskClient(client);
    boost::optional<Operation> known;
    if (const int status = detail::findOperation(disk, operation, known); status != 0 || !known) {
        return status;
    }
    const AccessCache::Reader reader = disk.cache().lock();
    visitAllowedRoles(detail::CacheAccess::view(reader), object.str(), known->bitNumber(), visit);
    return 0;
}

int forEachAllowedOperation(AccessControlClient& client, const std::set<int>& roleIds, const ObjectNamespace& object,
                            const std::function<bool(const ObjectNamespace&)>& visit) {
    const DiskAccessControlClient& disk = detail::diskClient(client);
    try {
        disk.operations().load();
    } catch (const EC_exception& failure) {
        return failure.status;
    }
    const std::vector<int> roles = detail::ascending(roleIds);
    const bool everything = roleIds.count(detail::ALL_POWERFUL_ROLE) != 0;
    const AccessCache::Reader reader = disk.cache().lock();
    const CacheView cache = detail::CacheAccess::view(reader);
    for (const auto& [name, operation] : disk.operations().known()) {
        const bool allowed = everything || walkAccess(cache, object.str(), {roles, operation.bitNumber()},
                                                      [](const detail::PathRecord&, RoleTree, StepOutcome) {});
        if (allowed && !visit(name)) {
            break;
        }
    }
    return 0;
}

}  // namespace Tesmor::Arkwell::Rbac
