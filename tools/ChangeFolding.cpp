#include "tools/ChangeFolding.h"

#include <algorithm>
#include <tuple>

namespace Tesmor::Arkwell::Tools {

namespace {

/// By role, then operation.
auto placeOf(const GrantChange& change) {
    return std::tuple(change.roleId, change.operationBit, change.gained);
}

}  // namespace

void UnshownChanges::enter(const ChangeList& passedOn) {
    passedOn.forEach([&](const GrantChange& change) { ++awaiting(change)[keyOf(change)]; });
}

void UnshownChanges::show(const ChangeList& changes) {
    if (awaiting_[0].empty() && awaiting_[1].empty()) {
        return;
    }
    changes.forEach([&](const GrantChange& change) { awaiting(change).erase(keyOf(change)); });
}

std::vector<GrantChange> UnshownChanges::leave(const ChangeList& passedOn) {
    std::vector<GrantChange> unshown;
    passedOn.forEach([&](const GrantChange& change) {
        // What was shown was shown to all: who awaits it since then is further down, and was left before.
        auto& objects = awaiting(change);
        const auto found = objects.find(keyOf(change));
        if (found == objects.end()) {
            return;
        }
        unshown.push_back(change);
        if (--found->second == 0) {
            objects.erase(found);
        }
    });
    std::sort(unshown.begin(), unshown.end(),
              [](const GrantChange& a, const GrantChange& b) { return placeOf(a) < placeOf(b); });
    return unshown;
}

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
                          const ChangeList& passedOn, const std::vector<GrantChange>& unshown) {
    if (levels_.size() <= level) {
        if (unshown.empty()) {
            return;
        }
        levels_.resize(level + 1);
    }
    Level& left = levels_[level];
    if (left.changedAsPassedOn != 0) {
        passedOn.forEach([&](const GrantChange& change) { count(change) += left.changedAsPassedOn; });
        left.changedAsPassedOn = 0;
    }
    std::sort(left.opened.begin(), left.opened.end(),
              [](const Opened& a, const Opened& b) { return placeOf(a.change) < placeOf(b.change); });
    auto toCome = unshown.begin();
    // Opened further up, but not passed on from there to here.
    const auto visitUnopened = [&] {
        visit_({text, toCome->roleId, toCome->operationBit, toCome->gained, false, 0, objectsBelow, true});
        ++toCome;
    };
    for (const auto& [change, onObject] : left.opened) {
        while (toCome != unshown.end() && placeOf(*toCome) < placeOf(change)) {
            visitUnopened();
        }
        const bool isToCome = toCome != unshown.end() && placeOf(*toCome) == placeOf(change);
        toCome += isToCome ? 1 : 0;
        const std::uint64_t changedBelow = count(change);
        openCounts(change).erase(keyOf(change));
        if (onObject || changedBelow != 0 || isToCome) {
            visit_({text, change.roleId, change.operationBit, change.gained, onObject, changedBelow, objectsBelow,
                    isToCome});
        }
    }
    while (toCome != unshown.end()) {
        visitUnopened();
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
