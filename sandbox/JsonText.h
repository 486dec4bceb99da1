#pragma once

#include "platform/Handles.h"

#include <cstddef>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

using platform_detail::JsonPointer;

namespace json {

/// What one of jansson's functions made.
///
/// @throws std::bad_alloc where it made nothing.
JsonPointer required(json_t* value);

/// @param flags as json_dumps() takes them.
/// @throws std::bad_alloc
std::string dump(const JsonPointer& document, std::size_t flags = JSON_COMPACT);

}  // namespace json

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
