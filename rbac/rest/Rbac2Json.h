#pragma once

#include <platform/Export.h>
#include <rbac/ObjectNamespace.h>

#include <boost/shared_ptr.hpp>
#include <jansson.h>

#include <cstddef>
#include <list>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

// Every JSON document and every serialised text of the library is owned by a shared pointer that releases it as jansson
// wants it. None of these functions returns an empty one. What json_unpack() takes out of a document is borrowed: it
// lives as long as the document.
//
// Beware of two kinds of failure: where memory runs out, dumping and packing throw std::bad_alloc, but making an array
// or a string throws a pointer to one, which callers have come to rely on.

/// How documents are written: compact and in ASCII.
constexpr std::size_t JSON_TEXT_FLAGS = JSON_COMPACT | JSON_ENSURE_ASCII;

/// Serialises a document, compact and in ASCII.
///
/// @throws std::bad_alloc: out of memory, or an empty pointer was passed.
ARKWELL_EXPORT boost::shared_ptr<char> json_dumps_shared(const boost::shared_ptr<json_t>& doc);

/// Parses a document: one object or array.
///
/// @throws EC_exception 7610: it does not parse; the parser's message is logged.
ARKWELL_EXPORT boost::shared_ptr<json_t> json_loads_shared(const std::string& text);

/// Builds a document from a format and its arguments, as json_pack() does.
///
/// @throws std::bad_alloc: also where the arguments do not fit the format, or a text is not UTF-8; jansson's message is
/// logged.
ARKWELL_EXPORT boost::shared_ptr<json_t> json_pack_shared(const char* format, ...);

/// Makes an empty array.
///
/// @throws std::bad_alloc* (a pointer).
ARKWELL_EXPORT boost::shared_ptr<json_t> json_array_shared();

/// Makes an empty array, its name notwithstanding: programs have it so. Objects are built with json_pack_shared().
///
/// @throws std::bad_alloc* (a pointer).
ARKWELL_EXPORT boost::shared_ptr<json_t> json_object_shared();

/// Makes a string.
///
/// @throws std::bad_alloc* (a pointer): also where the text is not UTF-8.
ARKWELL_EXPORT boost::shared_ptr<json_t> json_string_shared(const std::string& s);

/// Makes a string of a namespace's text form.
///
/// @throws boost::bad_lexical_cast: it has none; otherwise as json_string_shared().
ARKWELL_EXPORT boost::shared_ptr<json_t> json_namespace_shared(const ObjectNamespace& ns);

/// Makes an array of the namespaces' strings, in the list's order.
///
/// @throws as json_namespace_shared().
ARKWELL_EXPORT boost::shared_ptr<json_t> json_namespaces_shared(const std::list<ObjectNamespace>& list);

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
