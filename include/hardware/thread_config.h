// thread_config.h: the size of the thread team.
//
// Work is cut into as many blocks as the team has members and run by at most as many threads as there are
// processors; results do not depend on either number.
#pragma once

#include "../export.h"

namespace ornik {

/// Sets the OpenMP team size that every CPU tensor construction applies on its thread, and applies it
/// to the calling thread at once. `count` below 1 is an error. The default is 4.
ORNIK_API void ConfigSetNumThreads(int count);

/// The configured team size.
ORNIK_API int ConfigGetNumThreads();

}  // namespace ornik
