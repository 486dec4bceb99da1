#pragma once

#include <rbac/ObjectNamespace.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

using Rbac::ObjectNamespace;

/// Where an object is in its registration, and so what an access cache says of it.
enum class ObjectState {
    READY,    ///< as it is modelled
    PENDING,  ///< known, but grants nothing to anybody and inherits nothing
    DELETED   ///< not in the cache
};

/// On what a grant holds: the object itself, its descendants, or both.
enum class GrantScope { OBJECT, CHILDREN, OBJECT_AND_CHILDREN };

/// One operation granted to one role.
struct Grant {
    std::int32_t roleId;
    std::int32_t operationBit;  ///< at least 0
    GrantScope scope;
};
bool operator==(const Grant& left, const Grant& right);
/// By role, then operation, then scope.
bool operator<(const Grant& left, const Grant& right);

/// One protected object with the access that is defined on it.
struct ModelObject {
    ObjectNamespace name;
    bool inherit = true;
    ObjectState state = ObjectState::READY;
    std::vector<Grant> grants = {};
};

namespace detail {

/// Finds small numbers by what they stand for: an open hash table that knows nothing of the things that are numbered,
/// so they are stored once, wherever their owner keeps them.
class HashIndex {
public:
    static constexpr std::uint32_t NONE = 0xFFFFFFFFU;

    static std::uint32_t hash(std::string_view bytes);

    /// The number that was added with this hash and that `isWanted(number)` accepts, or NONE.
    template <class IsWanted>
    std::uint32_t find(std::uint32_t hash, IsWanted isWanted) const {
        if (slots_.empty()) {
            return NONE;
        }
        for (std::size_t i = hash & mask();; i = (i + 1) & mask()) {
            const Slot& slot = slots_[i];
            if (slot.number == NONE || (slot.hash == hash && isWanted(slot.number))) {
                return slot.number;
            }
        }
    }

    /// Makes room for one more number, so that the next add() cannot fail.
    void reserveOne();
    /// Adds a number that is not in yet.
    void add(std::uint32_t hash, std::uint32_t number);
    void clear();

private:
    struct Slot {
        std::uint32_t hash = 0;
        std::uint32_t number = NONE;
    };

    std::size_t mask() const { return slots_.size() - 1; }
    void put(Slot slot);

    std::vector<Slot> slots_;  // as many as a power of two
    std::size_t used_ = 0;
};

/// Texts, stored end to end.
class TextArena {
public:
    struct Place {
        std::uint32_t block;
        std::uint32_t offset;
        std::uint32_t length;
    };

    /// @throws std::length_error for a text of 4 GiB or more.
    Place add(std::string_view text);
    std::string_view at(const Place& place) const {
        return std::string_view(blocks_[place.block]).substr(place.offset, place.length);
    }

private:
    std::vector<std::string> blocks_;
};

}  // namespace detail

/// What an access cache is made from: objects, their states and the access defined on them.
///
/// Kept small, for a million objects and more: a name is stored as its text form only, and objects with equal grants
/// share one list. A value type, not synchronised.
class AccessModel {
public:
    /// A list of grants that objects share, in order and without repetitions.
    struct GrantList {
        const Grant* first;
        const Grant* last;

        const Grant* begin() const { return first; }
        const Grant* end() const { return last; }
        std::size_t size() const { return static_cast<std::size_t>(last - first); }
    };

    /// An object as it is stored; valid until the model is changed.
    struct Entry {
        std::string_view text;  ///< the name's text form
        std::uint32_t grantList;
        ObjectState state;
        bool inherit;
    };

    /// The namespace that the cache covers.
    ObjectNamespace scope;

    AccessModel();
    explicit AccessModel(ObjectNamespace scopeOfCache);

    /// Adds the object, or replaces the one of that name. The grants become a set: order and repetitions are dropped.
    ///
    /// @throws std::invalid_argument for a negative operation number. The model is then unchanged, as it is after
    /// std::bad_alloc.
    void add(const ModelObject& object);

    /// How many objects were added. Those that are DELETED count as well, until there are too many of them.
    std::size_t objectCount() const { return objects_.size(); }

    /// Object number `index`, in the order in which the names were first added.
    Entry entry(std::size_t index) const;

    /// How many lists of grants there are. Their numbers stay what they are when an object gets other grants, so a
    /// cache that is laid out in this order changes little when the model does. For that, lists that no object has any
    /// more count as well, until there are too many of them.
    std::size_t grantListCount() const { return lists_.size(); }
    GrantList grants(std::uint32_t list) const;

private:
    struct StoredObject {
        detail::TextArena::Place name;
        std::uint32_t grantList;
        ObjectState state;
        bool inherit;
    };
    struct StoredList {
        std::size_t first;
        std::uint32_t count;
        std::uint32_t users;
    };

    std::uint32_t indexOf(std::uint32_t hash, std::string_view text) const;
    std::uint32_t intern(const std::vector<Grant>& wanted);
    void use(std::uint32_t list);
    void release(std::uint32_t list);
    void dropUnusedLists();
    void dropDeletedObjects();

    detail::TextArena texts_;
    std::vector<StoredObject> objects_;
    detail::HashIndex objectIndex_;
    std::vector<Grant> grants_;
    std::vector<StoredList> lists_;
    detail::HashIndex listIndex_;
    std::size_t unusedLists_ = 1;  // the empty one, at first
    std::size_t deletedObjects_ = 0;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
