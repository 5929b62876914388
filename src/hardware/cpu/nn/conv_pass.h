// conv_pass.h: a convolution as sums over taps, and the part of the source that a tile of positions reads.
//
// A pass computes one set of positions of its target from its source planes:
//
//     target[first + q * stride]  from  source[q * step + tap]  for every tap, q = 0 .. positions - 1
//
// along each axis. A convolution is one pass with step = its stride. Its adjoint is one pass with step 1 for
// every remainder of a target position by the stride, each with the kernel elements that meet such positions.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "hardware/cpu/nn/cpu_conv.h"

namespace ornik::device::cpu {

struct PassAxis {
    struct Tap {
        std::int64_t offset;  // in the source
        std::int64_t kernel;  // index in the kernel
    };
    std::int64_t source;
    std::int64_t target;
    std::int64_t positions;
    std::int64_t step;
    std::int64_t first;
    std::int64_t stride;
    std::vector<Tap> taps;  // at least one

    bool is_inside(const Tap& tap, std::int64_t position) const {
        const std::int64_t at = position * step + tap.offset;
        return at >= 0 && at < source;
    }
    /// The taps that meet the source at a position: [first, end), where they are neighbours; otherwise all of them.
    std::pair<std::int64_t, std::int64_t> taps_inside(std::int64_t position) const;
};

struct ConvPass {
    PassAxis rows;
    PassAxis cols;
    std::int64_t kernel_cols;  // extent of a kernel row
    std::int64_t taps() const { return static_cast<std::int64_t>(rows.taps.size() * cols.taps.size()); }
    std::int64_t source_plane() const { return rows.source * cols.source; }
    std::int64_t target_plane() const { return rows.target * cols.target; }
    /// True when the positions are all places of the target, in order.
    bool fills_target() const;
    /// True when every position reads the one source place with its own number.
    bool is_pointwise() const;
    /// A pointwise pass that fills its target, with planes of one row.
    ConvPass as_one_row() const;
};

/// The geometry with its long axis as columns: planes of one column become planes of one row.
ConvGeometry with_long_columns(const ConvGeometry& geometry);

ConvPass grid_pass(const ConvGeometry& geometry);
/// Target places that belong to no pass have no taps.
std::vector<ConvPass> image_passes(const ConvGeometry& geometry);

/// Where a tile of `tile` consecutive positions finds its source along one axis after staging: copied into runs of
/// slots such that the slot of a tap at neighbouring positions is the neighbouring one, whatever the step. Taps share
/// the runs that they can share, or stay apart. All runs are of one length.
struct AxisSlots {
    struct Tap {
        std::size_t run;
        std::int64_t slot;  // in the run, of position 0 of the tile
    };
    std::int64_t length = 0;
    std::vector<std::int64_t> sources;  // of a run's first slot, for position 0; later ones follow `step` apart
    std::vector<Tap> taps;

    AxisSlots() = default;
    AxisSlots(const PassAxis& axis, std::int64_t tile, bool apart);
};

/// How a pass is cut: tiles of `rows` x `cols` positions. Either cols is the pass's whole width, or rows is 1.
struct TileShape {
    std::int64_t rows;
    std::int64_t cols;
};

/// Tiles of about `most` positions or fewer, near whole `unit`s of positions, which the product runs fastest.
TileShape choose_tile(const ConvPass& pass, std::int64_t most, std::int64_t unit);

}  // namespace ornik::device::cpu
