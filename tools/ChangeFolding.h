#pragma once

#include "tools/AccessDiff.h"
#include "tools/ChangeList.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Tesmor::Arkwell::Tools {

/// A number for a role and an operation.
inline std::uint64_t keyOf(const GrantChange& change) {
    return std::uint64_t{static_cast<std::uint32_t>(change.roleId)} << 32U |
           static_cast<std::uint32_t>(change.operationBit);
}

/// Finds the changes that an object passes on, but that no object below it has: who adds one there will meet them.
class UnshownChanges {
public:
    /// The way leads on below an object that passes these changes on, which the object above it does not.
    void enter(const ChangeList& passedOn);
    /// An object below all those that were entered and not left has these changes.
    void show(const ChangeList& changes);
    /// The way comes back to above the object.
    ///
    /// @param passedOn as it was given to enter().
    /// @return those that were not shown in between, by role, then operation.
    std::vector<GrantChange> leave(const ChangeList& passedOn);

private:
    std::unordered_map<std::uint64_t, std::size_t>& awaiting(const GrantChange& change) {
        return awaiting_[change.gained ? 1 : 0];
    }

    std::array<std::unordered_map<std::uint64_t, std::size_t>, 2> awaiting_;  // how many objects on the way
};

/// Counts the changes to objects below the topmost object on the way that has them or passes them on. Levels are the
/// objects on the way, 1 and up; where nothing changes, nothing need be said of them.
class ChangeFolding {
public:
    explicit ChangeFolding(const std::function<void(const AccessChange&)>& visit) : visit_(visit) {}

    /// The object at the level, to which the way now leads, changes.
    void add(std::size_t level, const ChangeList& changes);
    /// The way leads on below the level, whose object passes on these changes.
    void enter(std::size_t level, const ChangeList& passedOn);
    /// An object below the level changes by what the level passes on. Not counted one by one, for there may be
    /// millions.
    void addPassedOn(std::size_t level);
    /// The way comes back to above the level.
    ///
    /// @param passedOn as it was given to enter().
    /// @param unshown those of them for what will be below, by role, then operation.
    void leave(std::size_t level, std::string_view text, std::uint64_t objectsBelow, const ChangeList& passedOn,
               const std::vector<GrantChange>& unshown);

private:
    struct Opened {
        GrantChange change;
        bool onObject;
    };
    struct Level {
        std::vector<Opened> opened;
        std::uint64_t changedAsPassedOn = 0;
    };

    /// How many objects change, below the one where the change was opened.
    std::uint64_t& count(const GrantChange& change) { return openCounts(change)[keyOf(change)]; }
    /// Whether the change was not open yet.
    bool open(std::size_t level, const GrantChange& change, bool onObject);
    std::unordered_map<std::uint64_t, std::uint64_t>& openCounts(const GrantChange& change) {
        return openCounts_[change.gained ? 1 : 0];
    }

    const std::function<void(const AccessChange&)>& visit_;
    std::vector<Level> levels_;  // as deep as there were changes
    std::array<std::unordered_map<std::uint64_t, std::uint64_t>, 2> openCounts_;
};

}  // namespace Tesmor::Arkwell::Tools
