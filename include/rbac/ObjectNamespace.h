#pragma once

/// @file
/// The names of objects and operations.

#include <platform/Export.h>

#include <boost/optional.hpp>

#include <iosfwd>
#include <list>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// The name of a protected object or of an operation: a path of components from an implicit root, outermost first.
///
/// A component is any sequence of bytes, the empty one included; the root has no components. The text form is "|"
/// followed, for each component, by its escaped bytes and one "|": the root is `|`, ("ARKWELL") is `|ARKWELL|`, and a
/// component `a b|c` is written `a+b%7Cc`.
///
/// A value type. The text form is computed once, on the first call of str(), and kept inside the value, also in a const
/// one: a namespace that several threads share must have its text computed before it is shared. Operations throw
/// nothing but std::bad_alloc unless they say otherwise.
///
///     const ObjectNamespace policy("PROTECTION", "POLICIES", "nightly");
///     policy.str();                                  // "|PROTECTION|POLICIES|nightly|"
///     (policy | "schedule").parentNamespace();       // policy
///     boost::lexical_cast<ObjectNamespace>("|A|B|"); // ObjectNamespace("A", "B")
class ARKWELL_EXPORT ObjectNamespace {
public:
    /// The root.
    ObjectNamespace();
    /// @name From components
    /// @{

    /// A path of one to six components. Each argument becomes one component as it is: nothing is split or decoded.
    ObjectNamespace(const std::string& c1);  // NOLINT(google-explicit-constructor): a component is a namespace
    ObjectNamespace(const std::string& c1, const std::string& c2);
    ObjectNamespace(const std::string& c1, const std::string& c2, const std::string& c3);
    ObjectNamespace(const std::string& c1, const std::string& c2, const std::string& c3, const std::string& c4);
    ObjectNamespace(const std::string& c1, const std::string& c2, const std::string& c3, const std::string& c4,
                    const std::string& c5);
    ObjectNamespace(const std::string& c1, const std::string& c2, const std::string& c3, const std::string& c4,
                    const std::string& c5, const std::string& c6);
    /// @}

    /// Copies the components, and the text where it has been computed.
    ObjectNamespace(const ObjectNamespace&) = default;
    /// Leaves `other` valid, with any components.
    ObjectNamespace(ObjectNamespace&& other) = default;
    /// Where it throws, this namespace is unchanged.
    ObjectNamespace& operator=(const ObjectNamespace& other);
    /// Leaves `other` valid, with any components.
    ObjectNamespace& operator=(ObjectNamespace&& other) = default;

    /// Whether this is the root.
    bool is_root() const;

    /// Whether this namespace's components are a prefix of `other`'s. A namespace is its own ancestor, and the root is
    /// everybody's.
    bool is_ancestor_of(const ObjectNamespace& other) const;

    /// The namespace without its last component; none for the root.
    boost::optional<ObjectNamespace> parentNamespace() const;

    /// A new namespace: this one's components followed by `component`.
    ObjectNamespace operator|(const std::string& component) const;
    /// A new namespace: this one's components followed by all of `tail`'s.
    ObjectNamespace operator|(ObjectNamespace tail) const;

    /// The text form of one component. Letters and digits (as isalnum() classifies them), "-", "*", "_" and "." stand
    /// for themselves, a space becomes "+", and every other byte "%" and two upper-case hexadecimal digits.
    static std::string encode_component(const std::string& component);

    /// The text form. The reference is valid until this namespace is changed or destroyed.
    const std::string& str() const;

    /// The text form for log lines. Where it cannot be made (an EC_exception), the namespace takes the text
    /// "[conversion failed]" and keeps it.
    const std::string& toLogStr() const;

private:
    friend ARKWELL_EXPORT bool operator==(const ObjectNamespace& left, const ObjectNamespace& right);
    friend ARKWELL_EXPORT bool operator<(const ObjectNamespace& left, const ObjectNamespace& right);
    friend ARKWELL_EXPORT std::istream& operator>>(std::istream& in, ObjectNamespace& ns);
    friend struct NamespaceText;

    std::list<std::string> components_;
    mutable std::string text_;  // empty: not computed yet
};

/// Whether both have the same components, byte for byte.
ARKWELL_EXPORT bool operator==(const ObjectNamespace& left, const ObjectNamespace& right);
/// Whether they differ.
inline bool operator!=(const ObjectNamespace& left, const ObjectNamespace& right) {
    return !(left == right);
}

/// Lexicographic order of the components, each compared bytewise: a namespace sorts directly before its descendants.
ARKWELL_EXPORT bool operator<(const ObjectNamespace& left, const ObjectNamespace& right);

/// Writes the text form, whatever the stream's formatting; sets failbit where there is none.
ARKWELL_EXPORT std::ostream& operator<<(std::ostream& out, const ObjectNamespace& ns);

/// Reads a text form up to the end of the input. On anything else sets failbit; `ns` then holds the components before
/// the fault. boost::lexical_cast<ObjectNamespace> throws boost::bad_lexical_cast instead.
ARKWELL_EXPORT std::istream& operator>>(std::istream& in, ObjectNamespace& ns);

/// Writes the text form of `ns` to `out`.
///
/// @return 0, or 114 with `out` untouched where `ns` has no text form.
ARKWELL_EXPORT int namespaceToString(const ObjectNamespace& ns, std::string& out);

/// The namespaces at the top of every installation, and the operations that every installation knows. Their texts are
/// computed when the library is loaded, so any thread may use them.
namespace root_namespaces {
ARKWELL_EXPORT extern const ObjectNamespace ARKWELL;       ///< ("ARKWELL")
ARKWELL_EXPORT extern const ObjectNamespace SECURITY;      ///< ("SECURITY")
ARKWELL_EXPORT extern const ObjectNamespace MANAGE;        ///< ("MANAGE")
ARKWELL_EXPORT extern const ObjectNamespace PROTECTION;    ///< ("PROTECTION")
ARKWELL_EXPORT extern const ObjectNamespace STORAGE;       ///< ("STORAGE")
ARKWELL_EXPORT extern const ObjectNamespace DEPLOYMENT;    ///< ("DEPLOYMENT")
ARKWELL_EXPORT extern const ObjectNamespace OBJECT_TYPES;  ///< ("OBJECT_TYPES")
ARKWELL_EXPORT extern const ObjectNamespace ASSETS;        ///< ("ASSETS")

namespace operations {
ARKWELL_EXPORT extern const ObjectNamespace VIEW;           ///< ("OPERATIONS", "VIEW")
ARKWELL_EXPORT extern const ObjectNamespace ADD;            ///< ("OPERATIONS", "ADD")
ARKWELL_EXPORT extern const ObjectNamespace UPDATE;         ///< ("OPERATIONS", "UPDATE")
ARKWELL_EXPORT extern const ObjectNamespace DELETE_NS;      ///< ("OPERATIONS", "DELETE")
ARKWELL_EXPORT extern const ObjectNamespace MANAGE_ACCESS;  ///< ("OPERATIONS", "MANAGE_ACCESS")
}  // namespace operations
}  // namespace root_namespaces

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
