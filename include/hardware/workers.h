// workers.h: how many threads work is cut for. Internal.
#pragma once

namespace ornik {

/// Threads that parallel_for() (parallel.h) runs large work on: 1 inside a parallel region.
int parallel_workers();

}  // namespace ornik
