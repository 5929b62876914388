// conv_weight_operands.h: what all kernels of a convolution's weight gradient begin with. Internal; for *_vector.cpp
// alone.
#pragma once

#include <algorithm>
#include <vector>

#include "conv_stage.h"
#include "conv_weight_blocks.h"
#include "cpu_conv_kernels.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {
namespace {

/// An image and a grid in the blocks of conv_weight_blocks.h.
template <typename T>
struct WeightOperands {
    const ConvGeometry& geometry;
    const T* image;
    const T* grid;
    WeightBlocks blocks;
    StagePlan plan;
    std::int64_t taps;

    WeightOperands(const ConvPass& pass, const ConvGeometry& of, const T* image_planes, const T* grid_planes)
        : geometry(of),
          image(image_planes),
          grid(grid_planes),
          blocks(pass, of),
          plan(pass, blocks.tile, SlotLayout::shared),
          taps(pass.taps()) {}

    /// One block: a tile of some samples.
    struct Unit {
        Tile tile;
        std::int64_t sample;
        std::int64_t samples;
    };
    Unit unit(std::int64_t index) const {
        const std::int64_t sample = index / plan.tiles() * blocks.samples;
        return {Tile(plan, index % plan.tiles()), sample, std::min(blocks.samples, geometry.batch - sample)};
    }
    /// Where the tile's part of a grid plane begins.
    const T* grid_at(const Tile& tile, std::int64_t plane_index) const {
        return grid + plane_index * plan.pass.target_plane() + tile.row * plan.pass.cols.positions + tile.col;
    }

    /// Runs as many items, which share `work` multiplications of a position; body(begin, end).
    template <typename Body>
    void run_items(std::int64_t items, std::int64_t work, const Body& body) const {
        const std::int64_t each = geometry.batch * plan.pass.target_plane() * work / items;
        parallel_for(items, 1, std::max<std::int64_t>(2, conv_grain / std::max<std::int64_t>(1, each)), body);
    }
};

/// `count` places, `step` apart.
inline std::vector<std::int64_t> places(std::int64_t count, std::int64_t step) {
    std::vector<std::int64_t> result;
    for (std::int64_t i = 0; i < count; ++i) {
        result.push_back(i * step);
    }
    return result;
}

}  // namespace
}  // namespace ornik::device::cpu
