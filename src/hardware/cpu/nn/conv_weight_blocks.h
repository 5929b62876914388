// conv_weight_blocks.h: the order in which the gradient of a convolution's weight adds. Internal.
//
// The positions of a weight element's sum are those of the grid, sample by sample, row by row. A block is one chain of
// fused multiply-adds that starts from +0: as many whole samples as have up to 256 positions, else as many whole rows
// of one sample, else up to 256 positions of one row; the last one of the batch, plane or row may be smaller. Places
// beyond the edge of the image count as +0. Blocks make chunks, whose number depends on the sizes alone. The blocks of
// a chunk are added in order, then the chunks. A plane of one column counts as one row.
#pragma once

#include <algorithm>
#include <cstdint>

#include "conv_pass.h"

namespace ornik::device::cpu {

struct WeightBlocks {
    static constexpr std::int64_t most_positions = 256;
    static constexpr std::int64_t most_chunks = 16;
    static constexpr std::int64_t most_totals = 1 << 20;  // elements of all chunks together

    TileShape tile;
    std::int64_t samples;  // of a block
    std::int64_t units;    // blocks of the whole batch
    std::int64_t chunks;

    WeightBlocks(const ConvPass& pass, const ConvGeometry& geometry) {
        const std::int64_t rows = pass.rows.positions;
        const std::int64_t cols = pass.cols.positions;
        tile = {std::clamp<std::int64_t>(most_positions / cols, 1, rows), std::min(cols, most_positions)};
        samples = std::clamp<std::int64_t>(most_positions / (rows * cols), 1, geometry.batch);
        const std::int64_t tiles = ((rows + tile.rows - 1) / tile.rows) * ((cols + tile.cols - 1) / tile.cols);
        units = (geometry.batch + samples - 1) / samples * tiles;
        const std::int64_t weights = geometry.groups * geometry.grid_channels * geometry.image_channels * pass.taps();
        chunks = std::clamp<std::int64_t>(most_totals / weights, 1, std::min(units, most_chunks));
    }

    std::int64_t positions() const { return samples * tile.rows * tile.cols; }
    std::int64_t first(std::int64_t chunk) const { return chunk * units / chunks; }
};

}  // namespace ornik::device::cpu
