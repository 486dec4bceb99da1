#pragma once

#include "sandbox/AccessService.h"
#include "sandbox/FaultSwitches.h"

#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// Carries out a command that the service, or who stands in for it while it does not run, is given:
///
///     {"command": "import-tree", "path": "/usr/share", "revoke": ["everybody:VIEW:/usr/share/doc"]}
///     {"command": "import-roles"}
///     {"command": "add-operation", "name": "|OPERATIONS|RESTORE|", "appliesTo": "|ASSETS|"}
///     {"command": "settle", "name": "|ASSETS|db|", "state": "READY", "user": "root"}
///     {"command": "set-faults", "faults": ["/=delay:500"]}    {"command": "clear-faults"}    {"command":
///     "list-faults"}
///
/// @return {"output": text for people} or {"error": text}. Throws nothing but std::bad_alloc.
std::string carryOutCommand(AccessService& service, FaultSwitches& faults, const std::string& command);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
