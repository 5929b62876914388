// conv_stage.h: copies the part of the source that a tile reads into slots (conv_pass.h), zeros where the
// source ends, so that the loops behind it meet neither edges nor steps.
#pragma once

#include <algorithm>
#include <complex>
#include <cstring>
#include <span>

#include "conv_copy.h"
#include "conv_parts.h"
#include "conv_pass.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {

/// Copies run in whole pieces of this many bytes and may read and write beyond their end, by less than one
/// piece. Buffers have room for that.
inline constexpr std::int64_t piece_bytes = 32;
template <typename T>
inline constexpr std::int64_t piece = piece_bytes / static_cast<std::int64_t>(sizeof(T));

/// How the slots of one channel lie: neighbouring taps of a row share slots, and rows end with what the last taps
/// reach; or every tap of a row has rows of its own, so that the positions of a tile follow each other without gaps.
enum class SlotLayout { shared, linear };

/// `length` slots in a row: `begin` of them lie before the source, `count` in it, from `source` on and a column
/// step apart.
struct StageSpan {
    std::int64_t slot;
    std::int64_t length;
    std::int64_t source;
    std::int64_t begin;
    std::int64_t count;
};

/// Tiles of one pass with their slots.
class StagePlan {
  public:
    StagePlan(const ConvPass& conv_pass, TileShape tile_shape, SlotLayout layout);

    ConvPass pass;
    TileShape tile;
    std::int64_t row_tiles;
    std::int64_t col_tiles;
    std::int64_t plane;                 // slots of one channel
    std::int64_t slot_row;              // slots from one row of positions to the next
    std::vector<std::int64_t> taps;     // slot of the tile's first position, per tap
    std::vector<std::int64_t> kernels;  // position in the kernel, per tap

    std::int64_t tiles() const { return row_tiles * col_tiles; }
    /// The slots of a tile, in order.
    std::span<const StageSpan> spans(std::int64_t index) const {
        const auto tile_index = static_cast<std::size_t>(index);
        return {spans_.data() + first_spans_[tile_index], spans_.data() + first_spans_[tile_index + 1]};
    }

  private:
    void add_span(std::int64_t slot, std::int64_t row, std::int64_t col);

    std::vector<StageSpan> spans_;
    std::vector<std::size_t> first_spans_;  // per tile, and the end
};

/// The positions of one tile.
struct Tile {
    std::int64_t index;
    std::int64_t row;
    std::int64_t col;
    std::int64_t rows;
    std::int64_t cols;
    Tile(const StagePlan& plan, std::int64_t tile_index)
        : index(tile_index),
          row(index / plan.col_tiles * plan.tile.rows),
          col(index % plan.col_tiles * plan.tile.cols),
          rows(std::min(plan.tile.rows, plan.pass.rows.positions - row)),
          cols(std::min(plan.tile.cols, plan.pass.cols.positions - col)) {}
    std::int64_t positions() const { return rows * cols; }
};

/// How a tile's positions follow each other in their slots: in rows, or all of them without a gap.
struct PositionRuns {
    std::int64_t rows;
    std::int64_t cols;
    PositionRuns(const StagePlan& plan, const Tile& tile)
        : rows(plan.slot_row == tile.cols ? 1 : tile.rows),
          cols(plan.slot_row == tile.cols ? tile.positions() : tile.cols) {}
};

/// Zeros in whole pieces: may write beyond the end.
template <typename T>
void zero_pieces(T* to, std::int64_t count) {
    for (std::int64_t i = 0; i < count; i += piece<T>) {
        std::memset(static_cast<void*>(to + i), 0, piece_bytes);
    }
}

/// slots[channel * plan.plane + slot] for `channels` source planes.
template <typename T>
void stage_planes(const StagePlan& plan, const Tile& tile, const T* source, std::int64_t channels, T* slots) {
    const std::int64_t step = plan.pass.cols.step;
    const std::span<const StageSpan> spans = plan.spans(tile.index);
    for (std::int64_t c = 0; c < channels; ++c) {
        const T* plane = source + c * plan.pass.source_plane();
        // In the order of the slots: zeros beyond the end of a span are written over by what follows.
        for (const StageSpan& span : spans) {
            T* to = slots + c * plan.plane + span.slot;
            zero_pieces(to, span.begin);
            const T* first = plane + span.source;
            for (std::int64_t k = 0; k < span.count * step; k += 64 / static_cast<std::int64_t>(sizeof(T))) {
                vec::prefetch(first + plan.pass.source_plane() + k);
            }
            if (step == 1) {
                copy_row(as_real(first), span.count * parts<T>, as_real(to + span.begin));
            } else if (step == 2 && parts<T> == 1) {
                copy_every_second(as_real(first), span.count, as_real(to + span.begin));
            } else {
                for (std::int64_t k = 0; k < span.count; ++k) {
                    to[span.begin + k] = first[k * step];
                }
            }
            zero_pieces(to + span.begin + span.count, span.length - span.begin - span.count);
        }
    }
}

/// Writes results, one per position of the tile, to their places in a target plane.
template <typename T>
void write_positions(const ConvPass& pass, const Tile& tile, const T* results, T* target) {
    for (std::int64_t r = 0; r < tile.rows; ++r) {
        T* row = target + (pass.rows.first + (tile.row + r) * pass.rows.stride) * pass.cols.target + pass.cols.first +
                 tile.col * pass.cols.stride;
        for (std::int64_t x = 0; x < tile.cols; ++x) {
            row[x * pass.cols.stride] = results[r * tile.cols + x];
        }
    }
}

}  // namespace ornik::device::cpu
