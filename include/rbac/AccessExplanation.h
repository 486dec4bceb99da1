#pragma once

/// @file
/// Why an operation is allowed or denied.

#include <platform/Export.h>
#include <rbac/AccessControlClient.h>
#include <rbac/ObjectNamespace.h>

#include <cstddef>
#include <iosfwd>
#include <set>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// Why an operation is allowed on an object for some roles, or why it is not. A plain value.
struct ARKWELL_EXPORT AccessExplanation {
    /// What brought the answer.
    enum class Reason {
        GRANTED,            ///< yes: one of the roles holds the operation at the last step
        STOPPED,            ///< no: the last step takes nothing from its ancestors
        NOBODY_GRANTS,      ///< no: the walk ended beyond the root
        SUPERUSER,          ///< yes: role 0 may do everything; no walk was taken
        UNKNOWN_OPERATION,  ///< no: the service knows no such operation; no walk was taken
        NOT_ENFORCED        ///< yes: the installation restricts nothing; no walk was taken
    };

    /// A namespace on the way: the object, or one of its ancestors.
    struct Step {
        std::size_t textLength = 0;      ///< its text is the first so many bytes of the object's
        bool found = false;              ///< the cache holds it; one that it does not hold is passed over
        bool own = false;                ///< it was asked for rights on itself, otherwise for its descendants' rights
        bool inherits = true;            ///< the question goes on to its ancestors where no role grants here
        std::vector<int> granting = {};  ///< those of the roles that hold the operation here, ascending
    };

    /// Something that would turn a no into a yes.
    struct Change {
        /// What it takes.
        enum class Kind {
            HOLD_ROLE,  ///< hold one of `roles`, which are granted the operation at the namespace
            INHERIT     ///< let every one of the namespaces inherit
        };
        Kind kind = Kind::HOLD_ROLE;                ///< what it takes
        std::vector<std::size_t> textLengths = {};  ///< the namespaces, nearest to the object first
        std::vector<int> roles = {};  ///< ascending; for INHERIT those of the caller's that are then granted
    };

    bool allowed = false;                   ///< the answer
    Reason reason = Reason::NOBODY_GRANTS;  ///< what brought it
    std::vector<int> roles = {};            ///< the roles that were asked for, ascending
    std::string operation = {};             ///< the operation's text
    std::string object = {};                ///< the object's text
    std::vector<Step> steps = {};  ///< from the object upwards to where the walk ended, with what the cache lacks

    /// The text of a namespace on the way.
    std::string textOf(const Step& step) const { return object.substr(0, step.textLength); }
};

/// Explains what a checker of `client` answers for these roles, this operation and this object.
///
/// Takes the very walk of AccessChecker::checkAccess(), under one lock, and notes each step. May be called from several
/// threads at once; objects and operations that threads share must have had their texts computed before.
///
///     AccessExplanation why;
///     if (explainAccess(*client, roles, root_namespaces::operations::VIEW, object, why) == 0 && !why.allowed) {
///         std::cerr << why;
///         writeChanges(std::cerr, why, whatWouldAllow(*client, why));
///     }
///
/// @param client whose cache is asked.
/// @param roleIds the roles that the user has.
/// @param operation what the user wants to do.
/// @param object to what.
/// @param explanation replaced on success.
/// @return 0, or the status with which createAccessChecker() would fail; `explanation` is then untouched.
/// @throws what AccessChecker::checkAccess() throws; std::invalid_argument for a client that is a program's own.
ARKWELL_EXPORT int explainAccess(AccessControlClient& client, const std::set<int>& roleIds,
                                 const ObjectNamespace& operation, const ObjectNamespace& object,
                                 AccessExplanation& explanation);

/// The smallest changes that would turn the no that is explained into a yes, each by itself, as far as the cache has
/// them: the roles that hold the operation at the object or at an ancestor that the walk came by, and the namespaces
/// that stop it, if one of the caller's roles is granted the operation beyond them. Nearest to the object first.
///
/// Asks the cache anew. Nothing where the answer is yes, or the operation is not known. Role 0, which may do
/// everything, is not mentioned.
///
/// @throws as explainAccess().
ARKWELL_EXPORT std::vector<AccessExplanation::Change> whatWouldAllow(AccessControlClient& client,
                                                                     const AccessExplanation& explanation);

/// Writes a few lines for an administrator, such as
///
///     denied: |OPERATIONS|VIEW| on |ASSETS|db|t| for roles 5, 9
///       |ASSETS|db|t|: not in the cache
///       |ASSETS|db|: grants it to none of them for what is below; does not inherit, so the search ends here
ARKWELL_EXPORT std::ostream& operator<<(std::ostream& out, const AccessExplanation& explanation);

/// Writes a line for each change that whatWouldAllow() found for the explanation, such as
///
///     it would be allowed if
///       one of the roles 7, 12 were held, granted at |ASSETS|db|
///       |ASSETS|db| inherited: beyond that it is granted to role 5
ARKWELL_EXPORT void writeChanges(std::ostream& out, const AccessExplanation& explanation,
                                 const std::vector<AccessExplanation::Change>& changes);

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
