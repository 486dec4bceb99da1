#pragma once

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

// What documents say of themselves as their "type".
constexpr char CACHE_TYPE[] = "accessCache";
constexpr char ROLE_TYPE[] = "accessControlRole";
constexpr char OPERATION_TYPE[] = "accessControlOperation";
constexpr char OBJECT_TYPE[] = "managedObject";
constexpr char DEFINITION_TYPE[] = "accessDefinition";
constexpr char REGISTRATION_TYPE[] = "objectRegistrationData";
constexpr char UPDATE_TYPE[] = "managedObjectUpdate";

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
