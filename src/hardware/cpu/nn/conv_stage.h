// conv_stage.h: copies the part of the source that a tile reads into slots (conv_pass.h), zeros where the
// source ends, so that the loops behind it meet neither edges nor steps.
#pragma once

#include <algorithm>
#include <complex>
#include <cstring>

#include "conv_pass.h"
#include "descriptors/tile_transpose.h"
#include "hardware/allocator.h"

namespace ornik::device::cpu {

/// Copies run in whole pieces of this many bytes and may read and write beyond their end, by less than one
/// piece. Buffers have room for that.
inline constexpr std::int64_t piece_bytes = 32;
template <typename T>
inline constexpr std::int64_t piece = piece_bytes / static_cast<std::int64_t>(sizeof(T));

template <typename T>
void copy_piece(const T* from, T* to) {
#if defined(__AVX__) && defined(__GNUC__) && !defined(__clang__)
    // GCC copies 32 bytes in halves.
    using Vector = float __attribute__((vector_size(32), aligned(4), may_alias));
    *reinterpret_cast<Vector*>(to) = *reinterpret_cast<const Vector*>(from);
#else
    std::memcpy(static_cast<void*>(to), static_cast<const void*>(from), piece_bytes);
#endif
}

/// Working memory from the pool of the tensors, starting at a multiple of 64 bytes, with room for the pieces.
template <typename T>
class Scratch {
  public:
    explicit Scratch(std::int64_t count)
        : buffer_(
              AllocTensorBuffer(0, count * static_cast<std::int64_t>(sizeof(T)) + 64 + 9 * piece_bytes, dtype::uint8)) {
        const auto address = reinterpret_cast<std::uintptr_t>(buffer_);
        data_ = reinterpret_cast<T*>(address + (64 - address % 64) % 64);
    }
    ~Scratch() { FreeTensorBuffer(0, buffer_); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    T* get() const { return data_; }

  private:
    void* buffer_;
    T* data_;
};

/// Tiles of one pass with their slots.
struct StagePlan {
    StagePlan(const ConvPass& conv_pass, TileShape tile_shape);

    ConvPass pass;
    TileShape tile;
    AxisSlots rows;
    AxisSlots cols;
    std::int64_t row_tiles;
    std::int64_t col_tiles;
    std::int64_t plane;                 // slots of one channel
    std::vector<std::int64_t> taps;     // slot of the tile's first position, per tap
    std::vector<std::int64_t> kernels;  // position in the kernel, per tap

    std::int64_t tiles() const { return row_tiles * col_tiles; }
};

/// The positions of one tile.
struct Tile {
    std::int64_t row;
    std::int64_t col;
    std::int64_t rows;
    std::int64_t cols;
    Tile(const StagePlan& plan, std::int64_t index)
        : row(index / plan.col_tiles * plan.tile.rows),
          col(index % plan.col_tiles * plan.tile.cols),
          rows(std::min(plan.tile.rows, plan.pass.rows.positions - row)),
          cols(std::min(plan.tile.cols, plan.pass.cols.positions - col)) {}
    std::int64_t positions() const { return rows * cols; }
};

/// Calls span(first slot of a run of columns, slots, source, slots before the source begins, slots with a
/// source) for every row and run of one channel's slots; the source advances by the column step. Slots of
/// rows outside the source have none.
template <typename Span>
void for_each_span(const StagePlan& plan, const Tile& tile, const Span& span) {
    const PassAxis& rows = plan.pass.rows;
    const PassAxis& cols = plan.pass.cols;
    for (const AxisSlots::Run& row_run : plan.rows.runs) {
        for (std::int64_t r = 0; r < row_run.count; ++r) {
            const std::int64_t source_row = (tile.row + r) * rows.step + row_run.source;
            const bool outside = source_row < 0 || source_row >= rows.source;
            for (const AxisSlots::Run& run : plan.cols.runs) {
                const std::int64_t slot = (row_run.slot + r) * plan.cols.count + run.slot;
                const std::int64_t start = tile.col * cols.step + run.source;
                const std::int64_t before = start >= 0 ? 0 : (-start + cols.step - 1) / cols.step;
                const std::int64_t until = start >= cols.source ? 0 : (cols.source - 1 - start) / cols.step + 1;
                const std::int64_t begin = std::min(before, run.count);
                const std::int64_t count = outside ? 0 : std::max<std::int64_t>(0, std::min(until, run.count) - begin);
                span(slot, run.count, source_row * cols.source + start + begin * cols.step, begin, count);
            }
        }
    }
}

/// slots[channel * plan.plane + slot] for `channels` source planes.
template <typename T>
void stage_planes(const StagePlan& plan, const Tile& tile, const T* source, std::int64_t channels, T* slots) {
    const std::int64_t step = plan.pass.cols.step;
    const std::int64_t source_plane = plan.pass.source_plane();
    for_each_span(
        plan, tile,
        [&](std::int64_t slot, std::int64_t length, std::int64_t from, std::int64_t begin, std::int64_t count) {
            for (std::int64_t c = 0; c < channels; ++c) {
                T* to = slots + c * plan.plane + slot;
                std::fill(to, to + begin, T(0));
                std::fill(to + begin + count, to + length, T(0));
                if (count == 0) {
                    continue;
                }
                const T* first = source + c * source_plane + from;
                if (step == 1) {
                    std::memcpy(static_cast<void*>(to + begin), first, static_cast<std::size_t>(count) * sizeof(T));
                } else {
                    for (std::int64_t k = 0; k < count; ++k) {
                        to[begin + k] = first[k * step];
                    }
                }
            }
        });
}

/// slots[slot * channels + channel]: the channels of one place side by side.
template <typename T>
void stage_channels_last(const StagePlan& plan, const Tile& tile, const T* source, std::int64_t channels, T* slots) {
    const std::int64_t step = plan.pass.cols.step;
    const std::int64_t source_plane = plan.pass.source_plane();
    for_each_span(
        plan, tile,
        [&](std::int64_t slot, std::int64_t length, std::int64_t from, std::int64_t begin, std::int64_t count) {
            T* to = slots + slot * channels;
            T* place = to + begin * channels;
            std::fill(to, place, T(0));
            std::fill(place + count * channels, to + length * channels, T(0));
            if (count > 0 && step == 1 && channels % 8 == 0) {
                constexpr auto item = static_cast<std::int64_t>(sizeof(T));
                transpose_tile(place, channels, reinterpret_cast<const char*>(source + from), source_plane * item, item,
                               channels, count);
                return;
            }
            for (std::int64_t c = 0; count > 0 && c < channels; ++c) {
                const T* first = source + c * source_plane + from;
                for (std::int64_t k = 0; k < count; ++k) {
                    place[k * channels + c] = first[k * step];
                }
            }
        });
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
