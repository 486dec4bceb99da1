#pragma once

#include <rbac/ObjectNamespace.h>

namespace Tesmor::Arkwell::Rbac {

/// What boost::lexical_cast does with namespaces, without the streams that it makes for each one: a document may hold
/// hundreds of thousands.
struct NamespaceText {
    /// boost::lexical_cast<ObjectNamespace>(text).
    ///
    /// @throws boost::bad_lexical_cast.
    static ObjectNamespace parse(const char* text);
    /// boost::lexical_cast<std::string>(ns), except that the namespace does not keep a text that it has not had.
    ///
    /// @throws boost::bad_lexical_cast.
    static std::string of(const ObjectNamespace& ns);
    /// Computes the text of a namespace.
    static std::string make(const ObjectNamespace& ns);
};

}  // namespace Tesmor::Arkwell::Rbac
