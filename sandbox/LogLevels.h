#pragma once

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

// Levels of the log at which the service writes.
constexpr int LEVEL_PROGRESS = 4;
constexpr int LEVEL_NOTICE = 8;
constexpr int LEVEL_ERROR = 16;

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
