#pragma once

#include <rbac/AccessCache.h>

#include <cstdint>
#include <functional>
#include <string_view>

namespace Tesmor::Arkwell::Tools {

/// What a role may do after, and might not do before, or the other way round.
struct AccessChange {
    std::string_view objectText;  ///< valid until the visitor returns
    std::int32_t roleId;
    std::int32_t operationBit;
    bool gained;                 ///< otherwise lost
    bool onObject;               ///< the access to the object itself changes
    std::uint64_t changedBelow;  ///< to how many of the objects below it the access changes in the same way
    std::uint64_t objectsBelow;  ///< how many there are; 0 for DiffForm::EVERY_OBJECT, as is the number above
    bool toCome;                 ///< the access to what will be below it changes, which no object shows that is there
};

enum class DiffForm {
    /// A change at the top of a tree is one change, however many objects are below.
    ///
    /// The same change to two objects, one below the other, is visited with the upper one only, which counts the lower
    /// one. So it is if the upper one does not change itself, but passes the change on to what is below it. Objects in
    /// between need not change: `changedBelow` is then less than `objectsBelow`. A change that is to come is visited
    /// with the one to the object itself.
    ///
    /// Visited when what is below an object has been compared: an object after those below it, otherwise in the order
    /// of the texts.
    FOLDED,
    /// Each change to each object by itself, in the order of the texts. Those that are to come below an object are
    /// visited by themselves when the objects below it have been.
    EVERY_OBJECT
};

/// How far two caches are apart.
struct DiffSummary {
    std::uint64_t objects = 0;          ///< in one of the caches or both
    std::uint64_t onlyBefore = 0;       ///< of these in the first alone
    std::uint64_t onlyAfter = 0;        ///< in the second alone
    std::uint64_t inheritChanged = 0;   ///< in both, but taking access from their ancestors in one only
    std::uint64_t objectsAffected = 0;  ///< to which some role gains or loses access
    std::uint64_t gained = 0;           ///< how often a role gains an operation on an object
    std::uint64_t lost = 0;
    std::uint64_t gainedToCome = 0;  ///< how often a role gains an operation on what will be below an object
    std::uint64_t lostToCome = 0;
};

/// Compares who may do what, by two caches, with each object that at least one of them holds: for each role and each
/// operation the answer of AccessChecker::checkAccess(). How the files say it, and what does not change an answer, is
/// no difference. An object that a cache does not hold is judged there by its ancestors. Role 0, which may do
/// everything, never changes.
///
/// Objects that neither holds have answers as well: those of what the nearest object above them passes on. Where an
/// object passes on a change that the object above it does not, and no object below it has the change, that is a change
/// to come. So there is a difference, of one kind or the other, if and only if any object at all has another answer.
///
///     diffAccess(before, after, DiffForm::FOLDED, [](const AccessChange& change) {
///         std::cout << (change.gained ? "+ " : "- ") << change.roleId << " " << change.operationBit << " "
///                   << change.objectText << "\n";
///     });
///
/// Changes to one object come by role, then operation. The texts are in the order in which the caches hold them:
/// bytewise, except that a text with bytes beyond ASCII, which namespaces have in locales other than "C" only, may come
/// before others. The result is the same each time.
///
/// Needs memory for the way to one object and the changes on it, not for what the caches hold or what changes. Both
/// caches are locked while they are compared, which keeps their writers waiting: a visitor must be quick, and must not
/// ask these caches. What it throws ends the comparison. Both may be one AccessCache.
///
/// @throws what AccessCache::lock() throws.
DiffSummary diffAccess(const Rbac::AccessCache& before, const Rbac::AccessCache& after, DiffForm form,
                       const std::function<void(const AccessChange&)>& visit);

}  // namespace Tesmor::Arkwell::Tools
