// cpu_blocks.h: images whose channels lie in groups of a vector, side by side. Internal.
//
// Element (n, c, y, x) lies at (((n * groups + c / lanes) * rows + y) * cols + x) * lanes + c % lanes. Lanes of the
// last group that have no channel hold anything.
#pragma once

#include <cstdint>

#include "../../../descriptors/descriptor_pool2D.h"

namespace ornik::device::cpu {

/// The elements of a vector of float32 or float64.
std::int64_t block_lanes(std::int64_t dtype);
std::int64_t block_groups(std::int64_t dtype, std::int64_t channels);

/// Of contiguous planes, and back.
void write_blocks(std::int64_t dtype, std::int64_t batch, std::int64_t channels, std::int64_t plane, const void* planes,
                  void* blocks);
void write_planes(std::int64_t dtype, std::int64_t batch, std::int64_t channels, std::int64_t plane, const void* blocks,
                  void* planes);

/// The plan's planes are groups. The values are those of the pools of planes (cpu_pool.h).
void max_pool_blocks(std::int64_t dtype, const PoolPlan& plan, const void* in, void* out);
void average_pool_blocks(std::int64_t dtype, const PoolPlan& plan, const void* in, void* out);

}  // namespace ornik::device::cpu
