#include "rbac/cache/RoleTrees.h"
#include "rbac/enforcement/AccessWalk.h"
#include "rbac/enforcement/ClientQuery.h"
#include "rbac/enforcement/StubAccessControlClient.h"

#include <rbac/AccessExplanation.h>

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <iterator>
#include <ostream>
#include <string_view>
#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

using detail::AccessQuestion;
using detail::CacheView;
using detail::PathRecord;
using detail::RoleTree;
using detail::StepOutcome;
using Change = AccessExplanation::Change;
using Reason = AccessExplanation::Reason;
using Step = AccessExplanation::Step;

NodeOffset rootOf(const ManagedObject& record, RoleTree tree) {
    return tree == RoleTree::OWN ? record.ownRoles : record.childRoles;
}

/// Those of the caller's roles that hold the operation in the tree.
std::vector<int> rolesHolding(const CacheView& cache, NodeOffset root, const AccessQuestion& question) {
    std::vector<int> holding;
    std::copy_if(question.roleIds.begin(), question.roleIds.end(), std::back_inserter(holding),
                 [&](int role) { return detail::operationBit(cache.nodes, root, role, question.operationBit); });
    return holding;
}

/// All roles that hold the operation in the tree, save the one that needs no grants.
std::vector<int> allRolesHolding(const CacheView& cache, NodeOffset root, std::int32_t operationBit) {
    std::vector<int> holding;
    detail::forEachNode(cache.nodes, root, [&](const detail::RoleNode& role) {
        if (role.key != detail::ALL_POWERFUL_ROLE && detail::wordBit(cache.nodes, role.payload, operationBit)) {
            holding.push_back(role.key);
        }
    });
    return holding;
}

/// The length of the text of the namespace above, 0 above the root.
std::size_t parentLength(std::string_view text, std::size_t length) {
    const std::size_t bar = length < 2 ? std::string_view::npos : text.rfind('|', length - 2);
    return bar == std::string_view::npos ? 0 : bar + 1;
}

/// Puts the steps of a walk together, and between them the namespaces that the cache does not hold.
class StepRecorder {
public:
    StepRecorder(const CacheView& cache, const AccessQuestion& question, const std::string& text,
                 std::vector<Step>& steps)
        : cache_(cache), question_(question), text_(text), next_(text.size()), steps_(steps) {}

    void operator()(const PathRecord& path, RoleTree tree, StepOutcome outcome) {
        skipTo(path.textLength);
        Step step;
        step.textLength = path.textLength;
        step.found = true;
        step.own = tree == RoleTree::OWN;
        step.inherits = path.record->inherit != 0;
        if (outcome == StepOutcome::GRANTED) {
            step.granting = rolesHolding(cache_, rootOf(*path.record, tree), question_);
        }
        steps_.push_back(std::move(step));
        next_ = parentLength(text_, next_);
    }

    /// Notes the namespaces from the next one upwards, down to this length, as absent.
    void skipTo(std::size_t length) {
        for (; next_ > length; next_ = parentLength(text_, next_)) {
            Step step;
            step.textLength = next_;
            step.own = next_ == text_.size();
            steps_.push_back(std::move(step));
        }
    }

private:
    const CacheView& cache_;
    const AccessQuestion& question_;
    const std::string& text_;
    std::size_t next_;
    std::vector<Step>& steps_;
};

Reason explainWalk(const AccessCache& cache, const AccessQuestion& question, const std::string& text,
                   std::vector<Step>& steps) {
    const AccessCache::Reader reader = cache.lock();
    const CacheView view = detail::CacheAccess::view(reader);
    StepRecorder recorder(view, question, text, steps);
    StepOutcome last = StepOutcome::PASSED_ON;
    walkAccess(view, text, question, [&](const PathRecord& path, RoleTree tree, StepOutcome outcome) {
        recorder(path, tree, outcome);
        last = outcome;
    });
    if (last == StepOutcome::PASSED_ON) {
        recorder.skipTo(0);
        return Reason::NOBODY_GRANTS;
    }
    return last == StepOutcome::GRANTED ? Reason::GRANTED : Reason::STOPPED;
}

/// The walk that goes on where a namespace does not inherit, so that it shows what is behind.
std::vector<Change> changesOnTheWay(const AccessCache& cache, const AccessQuestion& question, const std::string& text) {
    const AccessCache::Reader reader = cache.lock();
    const CacheView view = detail::CacheAccess::view(reader);
    detail::PathRecords path;
    descend(view, text, [&path](const ManagedObject& record, std::size_t length) {
        path.push_back({&record, length});
    });

    std::vector<Change> changes;
    Change inherit{Change::Kind::INHERIT};
    for (auto step = path.rbegin(); step != path.rend(); ++step) {
        const RoleTree tree = step->textLength == text.size() ? RoleTree::OWN : RoleTree::CHILD;
        const NodeOffset root = rootOf(*step->record, tree);
        if (std::vector<int> held = rolesHolding(view, root, question); !held.empty()) {
            if (inherit.textLengths.empty()) {
                return {};  // by now it is allowed
            }
            inherit.roles = std::move(held);
            changes.push_back(std::move(inherit));
            break;
        }
        const bool isOnTheWay = inherit.textLengths.empty();
        if (std::vector<int> others = allRolesHolding(view, root, question.operationBit);
            isOnTheWay && !others.empty()) {
            changes.push_back({Change::Kind::HOLD_ROLE, {step->textLength}, std::move(others)});
        }
        if (step->record->inherit == 0) {
            inherit.textLengths.push_back(step->textLength);
        }
    }
    return changes;
}

void writeRoles(std::ostream& out, const std::vector<int>& roles) {
    out << (roles.size() == 1 ? "role " : "roles ");
    for (std::size_t i = 0; i < roles.size(); ++i) {
        out << (i == 0 ? "" : ", ") << std::to_string(roles[i]);
    }
}

void writeStep(std::ostream& out, const AccessExplanation& explanation, const Step& step) {
    out << "  " << explanation.textOf(step) << ": ";
    if (!step.found) {
        out << "not in the cache\n";
        return;
    }
    const char* const where = step.own ? "" : " for what is below";
    if (!step.granting.empty()) {
        out << "grants it to ";
        writeRoles(out, step.granting);
        out << where << "\n";
        return;
    }
    out << "grants it to none of them" << where
        << (step.inherits ? "; inherits\n" : "; does not inherit, so the search ends here\n");
}

const char* conclusionOf(Reason reason) {
    switch (reason) {
        case Reason::NOBODY_GRANTS:
            return "  nothing on the way grants it\n";
        case Reason::SUPERUSER:
            return "  role 0 may do everything\n";
        case Reason::UNKNOWN_OPERATION:
            return "  there is no such operation\n";
        case Reason::NOT_ENFORCED:
            return "  access is not restricted on this installation\n";
        default:
            return "";
    }
}

}  // namespace

int explainAccess(AccessControlClient& client, const std::set<int>& roleIds, const ObjectNamespace& operation,
                  const ObjectNamespace& object, AccessExplanation& explanation) {
    AccessExplanation made;
    made.roles = detail::ascending(roleIds);
    made.operation = operation.str();
    made.object = object.str();
    if (dynamic_cast<const StubAccessControlClient*>(&client) != nullptr) {
        made.reason = Reason::NOT_ENFORCED;
    } else {
        const DiskAccessControlClient& disk = detail::diskClient(client);
        boost::optional<Operation> known;
        if (const int status = detail::findOperation(disk, operation, known); status != 0) {
            return status;
        }
        if (!known) {
            made.reason = Reason::UNKNOWN_OPERATION;
        } else if (roleIds.count(detail::ALL_POWERFUL_ROLE) != 0) {
            made.reason = Reason::SUPERUSER;
        } else {
            made.reason = explainWalk(disk.cache(), {made.roles, known->bitNumber()}, made.object, made.steps);
        }
    }
    made.allowed =
        made.reason == Reason::GRANTED || made.reason == Reason::SUPERUSER || made.reason == Reason::NOT_ENFORCED;
    explanation = std::move(made);
    return 0;
}

std::vector<Change> whatWouldAllow(AccessControlClient& client, const AccessExplanation& explanation) {
    if (explanation.reason != Reason::STOPPED && explanation.reason != Reason::NOBODY_GRANTS) {
        return {};
    }
    const DiskAccessControlClient& disk = detail::diskClient(client);
    boost::optional<Operation> known;
    const auto operation = boost::lexical_cast<ObjectNamespace>(explanation.operation);
    if (detail::findOperation(disk, operation, known) != 0 || !known) {
        return {};
    }
    return changesOnTheWay(disk.cache(), {explanation.roles, known->bitNumber()}, explanation.object);
}

std::ostream& operator<<(std::ostream& out, const AccessExplanation& explanation) {
    out << (explanation.allowed ? "allowed: " : "denied: ") << explanation.operation << " on " << explanation.object
        << " for ";
    if (explanation.roles.empty()) {
        out << "no role";
    } else {
        writeRoles(out, explanation.roles);
    }
    out << "\n";
    for (const Step& step : explanation.steps) {
        writeStep(out, explanation, step);
    }
    return out << conclusionOf(explanation.reason);
}

void writeChanges(std::ostream& out, const AccessExplanation& explanation, const std::vector<Change>& changes) {
    if (changes.empty()) {
        return;
    }
    out << "it would be allowed if\n";
    for (const Change& change : changes) {
        if (change.kind == Change::Kind::HOLD_ROLE) {
            out << (change.roles.size() == 1 ? "  " : "  one of the ");
            writeRoles(out, change.roles);
            out << (change.roles.size() == 1 ? " was" : " were") << " held, granted at "
                << explanation.object.substr(0, change.textLengths.front()) << "\n";
            continue;
        }
        out << "  ";
        for (std::size_t i = 0; i < change.textLengths.size(); ++i) {
            out << (i == 0 ? "" : " and ") << explanation.object.substr(0, change.textLengths[i]);
        }
        out << " inherited: beyond that it is granted to ";
        writeRoles(out, change.roles);
        out << "\n";
    }
}

}  // namespace Tesmor::Arkwell::Rbac
