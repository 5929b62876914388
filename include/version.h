// version.h: which version of the library a program is compiled for, and which one it runs with.
//
//     #if ORNIK_VERSION >= 200  // 0.2.0 and later
#pragma once

#include "export.h"

#define ORNIK_VERSION_MAJOR 0
#define ORNIK_VERSION_MINOR 1
#define ORNIK_VERSION_PATCH 0
/// One number that grows from version to version.
#define ORNIK_VERSION (ORNIK_VERSION_MAJOR * 10000 + ORNIK_VERSION_MINOR * 100 + ORNIK_VERSION_PATCH)

namespace ornik {

/// "0.1.0": the version of the library that is loaded. Programs run with every version of the same SONAME: that of
/// one minor version before 1.0, of one major version from then on.
[[nodiscard]] ORNIK_API const char* version();

}  // namespace ornik
