#pragma once

namespace Tesmor::Arkwell::Tools {

/// The report page without its data.
extern const char REPORT_TEMPLATE[];

}  // namespace Tesmor::Arkwell::Tools
