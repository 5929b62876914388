// instruction_set.h: which instructions the library that runs was compiled for.
#pragma once

#include "../export.h"

namespace ornik {

/// "x86-64-v3" or another level of the x86-64 architecture, the highest that the library's kernels were compiled for;
/// of other architectures the name. A package that carries the library several times shows which one was loaded.
[[nodiscard]] ORNIK_API const char* instruction_set() noexcept;

}  // namespace ornik
