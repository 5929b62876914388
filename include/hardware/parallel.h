// parallel.h: all threading of the library. Internal.
//
// Work is cut into blocks, and blocks are run by workers:
//
//   * Blocks: a range of n items is cut into as many static, contiguous blocks as the OpenMP team has
//     members (the team size, 4 unless configured otherwise). The cut depends on n, the unit and the
//     team size alone.
//   * Workers: at most as many threads as there are processors that this process may use run the
//     blocks. A worker takes its share in a few pieces, none below half the grain, and then what is
//     left of the others': a processor that the machine lends to somebody else for a while does not hold
//     up the rest. The calling thread runs everything itself, in order, when n is below the grain or when
//     it is already inside a parallel region.
//
// The workers do not live on in a child process after fork(): once there were any, the child runs everything
// itself.
//
// This is the equivalent of forking one thread per block: an item is handled once, by the same code,
// whoever runs its block. A team larger than the machine therefore costs nothing, where four spinning
// threads on two processors would slow every region down a hundredfold. No other file of the library
// forks threads.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

namespace ornik {

/// Makes the configured team size the calling thread's (omp_get_max_threads()).
void apply_team_size();

/// Processors this process may use: its affinity mask and the limits of its container counted, at
/// least 1. Read once.
int usable_processors();

namespace detail {
using RangeFunction = void (*)(void* context, std::int64_t begin, std::int64_t end);
void parallel_ranges(std::int64_t n, std::int64_t unit, std::int64_t grain, RangeFunction run, void* context);
}  // namespace detail

/// Calls body(begin, end) on disjoint ranges that cover [0, n), in parallel when n >= grain.
/// Every range but the last starts and ends at a multiple of `unit`. An exception thrown by a body
/// reaches the caller after all ranges have ended (that of the lowest range, when several throw).
template <typename Body>
void parallel_for(std::int64_t n, std::int64_t unit, std::int64_t grain, Body&& body) {
    using Plain = std::remove_reference_t<Body>;
    detail::parallel_ranges(
        n, unit, grain,
        [](void* context, std::int64_t begin, std::int64_t end) { (*static_cast<Plain*>(context))(begin, end); },
        const_cast<void*>(static_cast<const void*>(std::addressof(body))));
}

}  // namespace ornik
