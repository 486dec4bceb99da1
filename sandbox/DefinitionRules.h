#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/Json.h"
#include "sandbox/ServiceTables.h"

#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// The object of this name.
///
/// @throws ServiceError of the kind OBJECT_UNKNOWN.
ObjectRecord requireObject(const ServiceTables& tables, const std::string& name);

/// Gives an object a state, in the name of who asks for it. DELETED removes it.
///
/// @throws ServiceError of the kind SYSTEM_DEFINED.
void setState(StateChange& change, const ObjectRecord& object, ObjectState state, const std::string& changedBy);

/// Now, as it is written beside a state.
std::string currentTime();

/// That an access definition can be added to an object: its role and operations are there, and the operations apply to
/// the object.
///
/// @throws ServiceError of the kinds ROLE_UNKNOWN, OPERATION_UNKNOWN and OPERATION_NOT_APPLICABLE.
void requireUsable(const ServiceTables& tables, const DefinitionRecord& definition);

/// @throws ServiceError of the kind DOCUMENT_MALFORMED.
GrantScope readPropagation(const DocumentValue& value);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
