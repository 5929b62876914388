// product_strips.h: a panel of a product, strip of rows by strip of rows. Included by *_vector.cpp files.
#pragma once

#include <optional>

#include "product_few_rows.h"

namespace ornik::device::cpu {

namespace {

// Blocks of A and of panels that stay in the second level of cache, beside the sums that wait for them.
constexpr std::int64_t near_bytes_of_a = std::int64_t{vec::vector_bytes == 64 ? 320 : 160} << 10;
constexpr std::int64_t panels_together = 8;

// Rows [begin, end) in the fewest strips of a tile's height, as even as they can be.
template <typename T>
struct Strips {
    std::int64_t begin;
    std::int64_t rows;
    std::int64_t count;
    std::int64_t least;   // rows of a strip
    std::int64_t larger;  // strips that have one more

    Strips(std::int64_t first, std::int64_t last)
        : begin(first),
          rows(last - first),
          count(parts_of(rows, TileShape<T>::rows)),
          least(rows / count),
          larger(rows % count) {}
    std::int64_t first(std::int64_t strip) const { return begin + strip * least + std::min(strip, larger); }
    std::int64_t height(std::int64_t strip) const { return least + (strip < larger ? 1 : 0); }
};

// Memory for panels: on the stack while that is enough.
template <typename R>
class PanelMemory {
  public:
    R* take(std::int64_t count) {
        if (count <= near) {
            return here_;
        }
        if (count > count_) {
            far_.emplace(count);
            count_ = count;
        }
        return far_->get();
    }

  private:
    static constexpr std::int64_t near = 8192 / sizeof(R);
    alignas(64) R here_[near + Scratch<R>::beyond / sizeof(R)];
    std::optional<Scratch<R>> far_;
    std::int64_t count_ = 0;
};

// A tile of `cols` columns.
template <typename T, bool Swapped, bool Packed>
void tile_at(const TileOperands<T>& in, std::int64_t rows, std::int64_t cols, const TileTarget<T>& to, TileEnd end) {
    using Shape = TileShape<T>;
    constexpr std::int64_t width = lanes<RealOf<T>>;
    const std::int64_t vectors = cols > width ? Shape::vectors : 1;
    const SumTile<T> sum = tile_function<T, Swapped, Packed>(rows, vectors);
    if (cols == vectors * width) {
        sum(in, to, end);
        return;
    }
    alignas(64) T whole[Shape::rows * Shape::cols];
    sum(in, {whole, Shape::cols}, TileEnd::store);
    copy_sums(whole, Shape::cols, rows, cols, to, end);
}

// The packed strips of a block of A lie one after the other, each with room for the last vector.
template <typename T>
std::int64_t strip_place(const Strips<T>& strips, std::int64_t strip, std::int64_t depth) {
    return (strips.first(strip) - strips.begin) * depth + strip * lanes<RealOf<T>>;
}
template <typename T>
std::int64_t strips_size(const Strips<T>& strips, std::int64_t depth) {
    return strips.rows * depth + strips.count * lanes<RealOf<T>>;
}

template <typename T>
void pack_strip(const Factors<T>& f, const Strips<T>& strips, std::int64_t strip, std::int64_t k, std::int64_t depth,
                T* to) {
    pack_rows(f.a.from(strips.first(strip), k), strips.height(strip), depth, to + strip_place(strips, strip, depth));
}

// What a panel's tiles read, and where the sums of the first row go.
template <typename T>
struct PanelOperands {
    const T* packed;  // strips of A, or null
    std::int64_t k;
    std::int64_t depth;
    std::int64_t panel;
    const RealOf<T>* b;
    std::int64_t b_step;
    TileTarget<T> to;
    TileEnd end;
    Ahead* ahead;                   // or null
    RealOf<T>* laid_out = nullptr;  // where the first tile lays B out for the others, or null
};

template <typename T, bool Swapped>
void panel_times_strips(const Factors<T>& f, const Strips<T>& strips, const PanelOperands<T>& in) {
    for (std::int64_t s = 0; s < strips.count; ++s) {
        const std::int64_t row = strips.first(s);
        const std::int64_t height = strips.height(s);
        const std::int64_t below = row - strips.begin;
        const TileTarget<T> to{in.to.out + below * in.to.out_row, in.to.out_row, in.to.old + below * in.to.old_row,
                               in.to.old_row, in.to.row_bias == nullptr ? nullptr : in.to.row_bias + row};
        const bool is_laid_out = in.laid_out != nullptr && s > 0;
        TileOperands<T> tile{nullptr,
                             1,
                             height,
                             is_laid_out ? in.laid_out : in.b,
                             is_laid_out ? panel_row<T>(TileShape<T>::cols) : in.b_step,
                             in.depth,
                             in.ahead,
                             in.laid_out};
        if (in.packed != nullptr) {
            tile.a = in.packed + strip_place(strips, s, in.depth);
        } else {
            const Strided<T> a = f.a.from(row, in.k);
            tile.a = a.data;
            tile.a_row = a.row;
            tile.a_step = a.col;
        }
        if constexpr (TileShape<T>::parts == 1) {
            if (in.laid_out != nullptr && s == 0) {
                (in.packed != nullptr ? copying_tile_function<T, true>(height)
                                      : copying_tile_function<T, false>(height))(tile, to, in.end);
                continue;
            }
        }
        if (in.packed != nullptr) {
            tile_at<T, Swapped, true>(tile, height, f.panel_cols(in.panel), to, in.end);
        } else {
            tile_at<T, Swapped, false>(tile, height, f.panel_cols(in.panel), to, in.end);
        }
    }
}

}  // namespace

}  // namespace ornik::device::cpu
