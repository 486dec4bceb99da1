#pragma once

/// @file
/// Managed objects and the access that is defined on them.

#include <platform/Export.h>
#include <rbac/BaseAPI.h>
#include <rbac/ManagedObjectState.h>
#include <rbac/ObjectNamespace.h>
#include <rbac/RoleAPI.h>

#include <boost/shared_ptr.hpp>

#include <iosfwd>
#include <list>
#include <string>

struct json_t;

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// On what an access definition holds. Written to and read from streams as the enumerator's name; boost::lexical_cast
/// converts it to and from text.
class ARKWELL_EXPORT Propagation {
public:
    /// What it can be.
    enum enum_type {
        OBJECT = 0,              ///< the object itself
        CHILDREN = 1,            ///< its descendants, as far as they inherit
        OBJECT_AND_CHILDREN = 2  ///< both
    };

    /// OBJECT.
    Propagation() = default;
    /// Stands for the value.
    Propagation(enum_type value) : value_(value) {}  // NOLINT(google-explicit-constructor): one is as good as the other

    /// What it is.
    enum_type value() const { return value_; }

    /// Whether both are the same.
    friend bool operator==(const Propagation& a, const Propagation& b) { return a.value_ == b.value_; }
    /// Whether they differ.
    friend bool operator!=(const Propagation& a, const Propagation& b) { return !(a == b); }

private:
    enum_type value_ = OBJECT;
};

/// Writes the name.
///
/// @throws std::invalid_argument for a value that is none of the three.
ARKWELL_EXPORT std::ostream& operator<<(std::ostream& out, Propagation::enum_type value);
/// The same.
ARKWELL_EXPORT std::ostream& operator<<(std::ostream& out, const Propagation& propagation);

/// Reads one word; any but the three names sets the stream's fail state and leaves the value as it was.
ARKWELL_EXPORT std::istream& operator>>(std::istream& in, Propagation::enum_type& value);
/// The same.
ARKWELL_EXPORT std::istream& operator>>(std::istream& in, Propagation& propagation);

/// A managed object as the service describes it.
struct ARKWELL_EXPORT ManagedObjectResource {
    /// Reads a managed object's resource object.
    ///
    /// @param resource borrowed for the call.
    /// @throws EC_exception 7610: it is not of the right shape; 9103: it is not a managed object, or neither READY nor
    /// PENDING. Both are logged. boost::bad_lexical_cast: its id is no namespace.
    explicit ManagedObjectResource(const json_t* resource);

    std::string href;                  ///< always empty
    ObjectNamespace objectNamespace;   ///< its name
    int inherit = 0;                   ///< 1: access is also taken from the ancestors; 0: it is not
    ManagedObjectState state = READY;  ///< READY or PENDING
};

/// A grant on a managed object, as the service describes it.
struct ARKWELL_EXPORT AccessDefinition {
    /// Reads an access definition's resource object.
    ///
    /// @param resource borrowed for the call.
    /// @throws EC_exception 7610: it is not of the right shape; 9103: something in it is not of the type that it should
    /// be. Both are logged. boost::bad_lexical_cast: a namespace, the propagation or the role's id is not one.
    explicit AccessDefinition(const json_t* resource);

    std::string href;         ///< its own link, below the service's root; empty where the service gave none
    std::string id;           ///< what delete_access_definition_by_id() takes
    Propagation propagation;  ///< on what it holds
    int roleId = 0;           ///< to whom
    std::list<ObjectNamespace> operations;  ///< what is granted
    ObjectNamespace managedObject;          ///< where it is defined
};

/// The client of the service's managed objects and of the access that is defined on them.
///
/// Every operation throws EC_exception as RoleAPI's do, and boost::bad_lexical_cast for a namespace without a text
/// form. Several threads may use one object at once.
class ARKWELL_EXPORT ManagedObjectAPI : public BaseAPI {
public:
    /// As BaseAPI's.
    ManagedObjectAPI();
    /// As BaseAPI's.
    explicit ManagedObjectAPI(boost::shared_ptr<AWClientCURL_BaseFactory> factory);

    /// Gets an object, READY or PENDING.
    ManagedObjectResource get_object(const ObjectNamespace& ns);

    /// Says whether the object also takes its access from its ancestors.
    void set_inherit(const ObjectNamespace& ns, bool inherit);

    /// Lists the access that is defined on the object itself, in the service's order.
    std::list<AccessDefinition> get_access_definitions(const ObjectNamespace& ns);

    /// Grants operations on the object to a role.
    ///
    /// @param ns the object.
    /// @param role only its id counts.
    /// @param propagation whether it holds for the object, its descendants or both.
    /// @param operations an array of objects with an "id", the operation's namespace as text, and the "type"
    /// "accessControlOperation". Shared for the call.
    /// @return the definition as the service has it now.
    /// @throws std::invalid_argument for a propagation that is none of the three, std::bad_alloc for no operations:
    /// before anything is sent.
    AccessDefinition add_access_definition(const ObjectNamespace& ns, const Role& role, Propagation propagation,
                                           boost::shared_ptr<json_t> operations);

    /// Takes a grant back.
    ///
    /// @param ns the object.
    /// @param id as AccessDefinition has it; it becomes part of the URL as it is.
    void delete_access_definition_by_id(const ObjectNamespace& ns, const std::string& id);
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
