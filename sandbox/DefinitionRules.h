#pragma once

#include "sandbox/Json.h"
#include "sandbox/ServiceTables.h"

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// The object of this name.
///
/// @throws ServiceError of the kind OBJECT_UNKNOWN.
ObjectRecord requireObject(const ServiceTables& tables, const std::string& name);

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
