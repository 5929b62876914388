// processor_check.h: what brings the check of the processor into programs of a static library.
#pragma once

namespace ornik::detail {

/// Stands in the file that checks; who needs it has the check.
extern const bool processor_is_checked;

}  // namespace ornik::detail
