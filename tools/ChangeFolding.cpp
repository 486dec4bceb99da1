#include "tools/ChangeFolding.h"

#include <algorithm>
#include <tuple>

namespace Tesmor::Arkwell::Tools {

void ChangeFolding::add(std::size_t level, const ChangeList& changes) {
    changes.forEach([&](const GrantChange& change) {
        if (!open(level, change, true)) {
            ++count(change);
        }
    });
}

void ChangeFolding::enter(std::size_t level, const ChangeList& passedOn) {
    passedOn.forEach([&](const GrantChange& change) { open(level, change, false); });
}

void ChangeFolding::addPassedOn(std::size_t level) {
    if (levels_.size() <= level) {
        levels_.resize(level + 1);
    }
    ++levels_[level].changedAsPassedOn;
}

void ChangeFolding::leave(std::size_t level, std::string_view text, std::uint64_t objectsBelow,
                          const ChangeList& passedOn) {
    if (levels_.size() <= level) {
        return;
    }
    Level& left = levels_[level];
    if (left.changedAsPassedOn != 0) {
        passedOn.forEach([&](const GrantChange& change) { count(change) += left.changedAsPassedOn; });
        left.changedAsPassedOn = 0;
    }
    std::sort(left.opened.begin(), left.opened.end(), [](const Opened& a, const Opened& b) {
        return std::tie(a.change.roleId, a.change.operationBit, a.change.gained) <
               std::tie(b.change.roleId, b.change.operationBit, b.change.gained);
    });
    for (const auto& [change, onObject] : left.opened) {
        const std::uint64_t changedBelow = count(change);
        openCounts(change).erase(keyOf(change));
        if (onObject || changedBelow != 0) {
            visit_({text, change.roleId, change.operationBit, change.gained, onObject, changedBelow, objectsBelow});
        }
    }
    left.opened.clear();
}

bool ChangeFolding::open(std::size_t level, const GrantChange& change, bool onObject) {
    if (!openCounts(change).try_emplace(keyOf(change), 0).second) {
        return false;
    }
    if (levels_.size() <= level) {
        levels_.resize(level + 1);
    }
    levels_[level].opened.push_back({change, onObject});
    return true;
}

}  // namespace Tesmor::Arkwell::Tools
