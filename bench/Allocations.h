#pragma once

namespace bench {

using AllocationCount = unsigned long;

/// How often this process has allocated memory through operator new.
AllocationCount allocations();

}  // namespace bench
