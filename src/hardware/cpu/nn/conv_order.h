// conv_order.h: the order in which a convolution adds. Internal.
//
// The inner axis of a target's sum is (source channel, kernel row, kernel column), in the order of the weight's
// memory. It is cut into blocks of whole source channels. A block is one chain of fused multiply-adds that starts from
// +0; the first block's sum is the total, the others are added to it in order, the bias last. Places beyond the edge
// of the source count as +0: their products are part of the chain (conv_edge_rows.h leaves out those that nothing
// shows). All kernels keep to this, whatever they hold in their lanes, so that the bits of a result depend on the sizes
// alone.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

namespace ornik::device::cpu {

/// Steps of a chain, unless one channel has more.
inline constexpr std::int64_t conv_block_steps = 288;

/// Source channels of a block: a power of two, or all there are.
inline std::int64_t conv_block_channels(std::int64_t source_channels, std::int64_t kernel_elements) {
    const auto fitting = static_cast<std::uint64_t>(std::max<std::int64_t>(1, conv_block_steps / kernel_elements));
    return std::min(std::max<std::int64_t>(1, source_channels), static_cast<std::int64_t>(std::bit_floor(fitting)));
}

inline std::int64_t round_up(std::int64_t count, std::int64_t unit) { return (count + unit - 1) / unit * unit; }

}  // namespace ornik::device::cpu
