#include "sandbox/AccessModel.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr std::size_t FIRST_SLOTS = 16;
constexpr std::size_t TEXT_BLOCK_SIZE = std::size_t{1} << 20;
constexpr std::size_t TOLERATED_UNUSED_LISTS = 1000;
constexpr std::size_t TOLERATED_DELETED_OBJECTS = 1000;

std::tuple<std::int32_t, std::int32_t, GrantScope> asTuple(const Grant& grant) {
    return {grant.roleId, grant.operationBit, grant.scope};
}

std::uint32_t hashOf(const Grant* first, std::size_t count) {
    static_assert(sizeof(Grant) == 12, "hashed byte by byte, so there is no padding");
    return detail::HashIndex::hash({reinterpret_cast<const char*>(first), count * sizeof(Grant)});
}

/// How many that makes.
std::size_t isDeleted(ObjectState state) {
    return state == ObjectState::DELETED ? 1 : 0;
}

/// The grants as a set.
std::vector<Grant> inOrder(const ModelObject& object) {
    std::vector<Grant> grants = object.grants;
    for (const Grant& grant : grants) {
        if (grant.operationBit < 0) {
            throw std::invalid_argument("operation number " + std::to_string(grant.operationBit) + " of object " +
                                        object.name.str() + " is negative");
        }
    }
    std::sort(grants.begin(), grants.end());
    grants.erase(std::unique(grants.begin(), grants.end()), grants.end());
    return grants;
}

}  // namespace

bool operator==(const Grant& left, const Grant& right) {
    return asTuple(left) == asTuple(right);
}

bool operator<(const Grant& left, const Grant& right) {
    return asTuple(left) < asTuple(right);
}

namespace detail {

std::uint32_t HashIndex::hash(std::string_view bytes) {
    const std::uint64_t wide = std::hash<std::string_view>()(bytes);
    return static_cast<std::uint32_t>(wide ^ (wide >> 32U));
}

void HashIndex::reserveOne() {
    if ((used_ + 1) * 4 <= slots_.size() * 3) {
        return;
    }
    std::vector<Slot> old(std::max(FIRST_SLOTS, slots_.size() * 2));
    old.swap(slots_);
    for (const Slot& slot : old) {
        if (slot.number != NONE) {
            put(slot);
        }
    }
}

void HashIndex::add(std::uint32_t hash, std::uint32_t number) {
    reserveOne();
    put({hash, number});
    ++used_;
}

void HashIndex::clear() {
    slots_.clear();
    used_ = 0;
}

void HashIndex::put(Slot slot) {
    std::size_t i = slot.hash & mask();
    while (slots_[i].number != NONE) {
        i = (i + 1) & mask();
    }
    slots_[i] = slot;
}

TextArena::Place TextArena::add(std::string_view text) {
    if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::length_error("a namespace of " + std::to_string(text.size()) + " bytes is too long");
    }
    if (blocks_.empty() || blocks_.back().capacity() - blocks_.back().size() < text.size()) {
        std::string block;
        block.reserve(std::max(TEXT_BLOCK_SIZE, text.size()));
        blocks_.push_back(std::move(block));
    }
    std::string& block = blocks_.back();
    const Place place{static_cast<std::uint32_t>(blocks_.size() - 1), static_cast<std::uint32_t>(block.size()),
                      static_cast<std::uint32_t>(text.size())};
    block.append(text);
    return place;
}

}  // namespace detail

AccessModel::AccessModel() : AccessModel(ObjectNamespace()) {}

AccessModel::AccessModel(ObjectNamespace scopeOfCache) : scope(std::move(scopeOfCache)) {
    lists_.push_back({0, 0, 0});
    listIndex_.add(hashOf(nullptr, 0), 0);
}

void AccessModel::add(const ModelObject& object) {
    if (unusedLists_ > TOLERATED_UNUSED_LISTS + lists_.size() / 2) {
        dropUnusedLists();
    }
    if (deletedObjects_ > TOLERATED_DELETED_OBJECTS + objects_.size() / 2) {
        dropDeletedObjects();
    }
    const std::uint32_t list = intern(inOrder(object));
    const std::string& text = object.name.str();
    const std::uint32_t hash = detail::HashIndex::hash(text);
    const std::uint32_t known = indexOf(hash, text);
    if (known != detail::HashIndex::NONE) {
        StoredObject& stored = objects_[known];
        const std::uint32_t before = stored.grantList;
        deletedObjects_ -= isDeleted(stored.state);
        deletedObjects_ += isDeleted(object.state);
        stored.grantList = list;
        stored.state = object.state;
        stored.inherit = object.inherit;
        use(list);
        release(before);
        return;
    }
    objectIndex_.reserveOne();
    objects_.push_back({texts_.add(text), list, object.state, object.inherit});
    objectIndex_.add(hash, static_cast<std::uint32_t>(objects_.size() - 1));
    deletedObjects_ += isDeleted(object.state);
    use(list);
}

AccessModel::Entry AccessModel::entry(std::size_t index) const {
    const StoredObject& stored = objects_[index];
    return {texts_.at(stored.name), stored.grantList, stored.state, stored.inherit};
}

AccessModel::GrantList AccessModel::grants(std::uint32_t list) const {
    const StoredList& stored = lists_[list];
    const Grant* const first = grants_.data() + stored.first;
    return {first, first + stored.count};
}

std::uint32_t AccessModel::indexOf(std::uint32_t hash, std::string_view text) const {
    return objectIndex_.find(hash, [&](std::uint32_t index) { return texts_.at(objects_[index].name) == text; });
}

/// The number of the list with exactly these grants, which nobody need have yet.
std::uint32_t AccessModel::intern(const std::vector<Grant>& wanted) {
    const std::uint32_t hash = hashOf(wanted.data(), wanted.size());
    const std::uint32_t known = listIndex_.find(hash, [&](std::uint32_t number) {
        const GrantList list = grants(number);
        return std::equal(list.begin(), list.end(), wanted.begin(), wanted.end());
    });
    if (known != detail::HashIndex::NONE) {
        return known;
    }
    const auto number = static_cast<std::uint32_t>(lists_.size());
    listIndex_.reserveOne();
    lists_.push_back({grants_.size(), static_cast<std::uint32_t>(wanted.size()), 0});
    try {
        grants_.insert(grants_.end(), wanted.begin(), wanted.end());
    } catch (...) {
        lists_.pop_back();
        throw;
    }
    listIndex_.add(hash, number);
    ++unusedLists_;
    return number;
}

void AccessModel::use(std::uint32_t list) {
    if (lists_[list].users++ == 0) {
        --unusedLists_;
    }
}

void AccessModel::release(std::uint32_t list) {
    if (--lists_[list].users == 0) {
        ++unusedLists_;
    }
}

void AccessModel::dropUnusedLists() {
    AccessModel kept(scope);
    std::vector<std::uint32_t> numbers(lists_.size());
    for (std::uint32_t list = 0; list < lists_.size(); ++list) {
        if (lists_[list].users != 0) {
            const GrantList old = grants(list);
            numbers[list] = kept.intern({old.begin(), old.end()});
        }
    }
    for (StoredObject& object : objects_) {
        object.grantList = numbers[object.grantList];
        kept.use(object.grantList);
    }
    grants_.swap(kept.grants_);
    lists_.swap(kept.lists_);
    std::swap(listIndex_, kept.listIndex_);
    unusedLists_ = kept.unusedLists_;
}

void AccessModel::dropDeletedObjects() {
    AccessModel kept(scope);
    for (const StoredObject& object : objects_) {
        if (object.state != ObjectState::DELETED) {
            const std::string_view text = texts_.at(object.name);
            kept.objectIndex_.add(detail::HashIndex::hash(text), static_cast<std::uint32_t>(kept.objects_.size()));
            kept.objects_.push_back(object);
            kept.objects_.back().name = kept.texts_.add(text);
        }
    }
    for (const StoredObject& object : objects_) {
        if (object.state == ObjectState::DELETED) {
            release(object.grantList);
        }
    }
    std::swap(texts_, kept.texts_);
    objects_.swap(kept.objects_);
    std::swap(objectIndex_, kept.objectIndex_);
    deletedObjects_ = 0;
}

}  // namespace Tesmor::Arkwell::Sandbox
