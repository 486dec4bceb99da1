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
    void leave(std::size_t level, std::string_view text, std::uint64_t objectsBelow, const ChangeList& passedOn);

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
    static std::uint64_t keyOf(const GrantChange& change) {
        return std::uint64_t{static_cast<std::uint32_t>(change.roleId)} << 32U |
               static_cast<std::uint32_t>(change.operationBit);
    }

    const std::function<void(const AccessChange&)>& visit_;
    std::vector<Level> levels_;  // as deep as there were changes
    std::array<std::unordered_map<std::uint64_t, std::uint64_t>, 2> openCounts_;
};

}  // namespace Tesmor::Arkwell::Tools
