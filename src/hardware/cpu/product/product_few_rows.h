// product_few_rows.h: products whose B is read once, as it is stored. Included by *_vector.cpp files.
//
// Panels cost a write and a read of B. Where few rows make use of them, chains wait in memory instead, or squares of B
// are transposed on their way: the order of the sums is that of product_tile.h.
#pragma once

#include <algorithm>

#include "cpu_product_kernels.h"
#include "hardware/parallel.h"
#include "hardware/scratch.h"
#include "product_panels.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t block_depth = product_block;
// Multiplications worth a second thread, and bytes of panels that are laid out at once.
constexpr std::int64_t grain_work = 1 << 18;
constexpr std::int64_t panels_bytes = std::int64_t{8} << 20;

constexpr std::int64_t parts_of(std::int64_t n, std::int64_t size) { return (n + size - 1) / size; }

// One product of row-major C; element (i, j) at c + i * c_row + j. `add`: to what C holds, where the depth is one
// block.
template <typename T>
struct Factors {
    Strided<T> a;
    Strided<T> b;
    T* c;
    std::int64_t c_row;
    std::int64_t rows;
    std::int64_t cols;
    std::int64_t depth;
    bool add;
    const ProductEnds* ends;  // or null
    Ahead* next = nullptr;    // The next product of a batch, or null.

    std::int64_t work() const { return rows * cols * depth; }
    std::int64_t panels() const { return parts_of(cols, TileShape<T>::cols); }
    std::int64_t panel_cols(std::int64_t panel) const {
        return std::min<std::int64_t>(TileShape<T>::cols, cols - panel * TileShape<T>::cols);
    }
    // The rows' bias, where tiles add it to the sums of the block of depth that ends at `last_step`.
    const T* bias_in_tiles(std::int64_t last_step) const {
        return TileShape<T>::parts == 1 && ends != nullptr && last_step == depth ? static_cast<const T*>(ends->row_bias)
                                                                                 : nullptr;
    }
    // What comes after the sums, in a part of C; without what tiles have added.
    void finish(std::int64_t row, std::int64_t row_count, std::int64_t col, std::int64_t col_count,
                const T* added = nullptr) const;
    TileEnd end(std::int64_t first_step) const { return first_step > 0 || add ? TileEnd::add : TileEnd::store; }
};

template <typename T>
void Factors<T>::finish(std::int64_t row, std::int64_t row_count, std::int64_t col, std::int64_t col_count,
                        const T* added) const {
    if (ends == nullptr) {
        return;
    }
    const T* bias = static_cast<const T*>(ends->bias);
    const T* row_bias = added == ends->row_bias ? nullptr : static_cast<const T*>(ends->row_bias);
    if (bias == nullptr && row_bias == nullptr && ends->residual == nullptr && ends->row == nullptr) {
        return;
    }
    for (std::int64_t i = row; i < row + row_count; ++i) {
        T* to = c + i * c_row + col;
        if (bias != nullptr) {
            std::transform(to, to + col_count, bias + col, to, [](T sum, T x) { return sum + x; });
        }
        if (row_bias != nullptr) {
            const T x = row_bias[i];
            std::transform(to, to + col_count, to, [x](T sum) { return sum + x; });
        }
        if (ends->residual != nullptr) {
            const T* from = static_cast<const T*>(ends->residual) + i * ends->residual_row + col;
            std::transform(to, to + col_count, from, to, [](T sum, T x) { return sum + x; });
        }
        if (ends->row != nullptr) {
            ends->row(to, col_count);
        }
    }
}

// Stores or adds sums that were computed aside.
template <typename T>
void copy_sums(const T* from, std::int64_t from_row, std::int64_t rows, std::int64_t cols, const TileTarget<T>& to,
               TileEnd end) {
    for (std::int64_t i = 0; i < rows; ++i, from += from_row) {
        T* out = to.out + i * to.out_row;
        if (end == TileEnd::store) {
            std::copy_n(from, cols, out);
        } else {
            const T* old = to.old + i * to.old_row;
            std::transform(old, old + cols, from, out, [](T x, T sum) { return x + sum; });
        }
        if (to.row_bias != nullptr) {
            std::transform(out, out + cols, out, [x = to.row_bias[i]](T sum) { return sum + x; });
        }
    }
}

// Do steps between the rows of a matrix, as it is stored, bring many rows to the same places of a cache?
template <typename T>
bool is_crowding(const Strided<T>& matrix) {
    return std::max(matrix.row, matrix.col) * static_cast<std::int64_t>(sizeof(T)) % 4096 == 0;
}
// Are rows far from each other, on pages of their own or nearly?
template <typename T>
bool is_far(const Strided<T>& matrix) {
    return std::max(matrix.row, matrix.col) * static_cast<std::int64_t>(sizeof(T)) > 2048;
}

constexpr std::int64_t streamed_rows = 16;  // of B, that are read side by side

// Takes chains of columns [col, end) through some steps of depth.
template <typename T>
void add_steps(const Factors<T>& f, std::int64_t k, std::int64_t steps, std::int64_t col, std::int64_t col_end,
               T* chains, std::int64_t chain_row, TileEnd end) {
    using Shape = TileShape<T>;
    constexpr std::int64_t wide = 4 * Shape::cols;  // of one row, or twice that of two
    const Strided<T> a = f.a.from(0, k);
    while (col < col_end) {
        const std::int64_t left = col_end - col;
        const Strided<T> b = f.b.from(k, col);
        TileOperands<T> in{a.data, a.row, a.col, b.data, b.row, steps};
        std::int64_t cols = std::min<std::int64_t>(left, Shape::cols);
        SumTile<T> sum = tile_function<T, false, false>(f.rows, cols > lanes<T> ? Shape::vectors : 1);
        alignas(64) T whole[streamed_rows * Shape::cols];
        if (f.rows == 1 && left >= wide) {
            cols = wide;
            sum = sum_tile<T, false, false, 1, 4 * Shape::vectors>;
        } else if (f.rows == 2 && left >= wide / 2) {
            cols = wide / 2;
            sum = sum_tile<T, false, false, 2, 2 * Shape::vectors>;
        } else if (cols < Shape::cols) {
            pack_panel(b, steps, cols, whole);
            in.b = whole;
            in.b_step = panel_row<T>(cols);
        }
        sum(in, {chains, chain_row}, end);
        col += cols;
        chains += cols;
    }
}

// One row or two, that wait for memory alone: every worker takes whole blocks of depth, which lie in memory from end to
// end.
template <typename T>
void multiply_by_blocks(const Factors<T>& f) {
    constexpr std::int64_t most_cols = 16384 / sizeof(T);
    const std::int64_t blocks = parts_of(f.depth, block_depth);
    const std::int64_t chain_row = f.cols + 64 / sizeof(T);
    const Scratch<T> sums(blocks * f.rows * chain_row);
    parallel_for(blocks, 1, 2, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t block = begin; block < end; ++block) {
            T* chains = sums.get() + block * f.rows * chain_row;
            const std::int64_t first = block * block_depth;
            const std::int64_t last = std::min(first + block_depth, f.depth);
            for (std::int64_t col = 0; col < f.cols; col += most_cols) {
                for (std::int64_t k = first; k < last; k += streamed_rows) {
                    add_steps(f, k, std::min(streamed_rows, last - k), col, std::min(col + most_cols, f.cols),
                              chains + col, chain_row, k == first ? TileEnd::store : TileEnd::resume);
                }
            }
        }
    });
    parallel_for(f.cols, TileShape<T>::cols, parts_of(grain_work / 4, blocks * f.rows), [&](auto begin, auto end) {
        for (std::int64_t block = 0; block < blocks; ++block) {
            copy_sums(sums.get() + block * f.rows * chain_row + begin, chain_row, f.rows, end - begin,
                      TileTarget<T>{f.c + begin, f.c_row}, f.end(block * block_depth));
        }
        f.finish(0, f.rows, begin, end - begin);
    });
}

// A few rows and a large B: every worker takes some columns down all rows of B, a few rows at a time, so that memory is
// read in long rows.
template <typename T>
void multiply_streaming(const Factors<T>& f) {
    if (f.rows <= 2 && parts_of(f.depth, block_depth) >= 2 * usable_processors()) {
        multiply_by_blocks(f);
        return;
    }
    constexpr std::int64_t unit = TileShape<T>::cols;
    constexpr std::int64_t most_cols = 4096 / sizeof(T);
    constexpr std::int64_t chain_row = most_cols + 64 / sizeof(T);  // The rows' chains do not crowd the same places.
    const std::int64_t grain = std::max<std::int64_t>(2, grain_work / 8 / (f.depth * unit));
    parallel_for(f.panels(), 1, grain, [&](std::int64_t begin, std::int64_t end) {
        const Scratch<T> chains(f.rows * chain_row);
        for (std::int64_t col = begin * unit; col < std::min(f.cols, end * unit); col += most_cols) {
            const std::int64_t col_end = std::min({f.cols, end * unit, col + most_cols});
            for (std::int64_t block = 0; block < f.depth; block += block_depth) {
                const std::int64_t block_end = std::min(block + block_depth, f.depth);
                for (std::int64_t k = block; k < block_end; k += streamed_rows) {
                    add_steps(f, k, std::min(streamed_rows, block_end - k), col, col_end, chains.get(), chain_row,
                              k == block ? TileEnd::store : TileEnd::resume);
                }
                copy_sums(chains.get(), chain_row, f.rows, col_end - col, TileTarget<T>{f.c + col, f.c_row},
                          f.end(block));
            }
            f.finish(0, f.rows, col, col_end - col);
        }
    });
}

// The chains of a vector of columns through as many steps: columns of B are rows in memory.
template <typename Steps, typename T>
ORNIK_EXPAND void add_square(Steps& steps, const Strided<T>& a, const T* const* columns, std::int64_t k,
                             typename Steps::Sum& chain) {
    constexpr int width = lanes<T>;
    Vector<T> square[width];
    ORNIK_UNROLLED for (int i = 0; i < width; ++i) { square[i] = load<Vector<T>>(columns[i] + k); }
    vec::transpose_square(square);
    ORNIK_UNROLLED for (int i = 0; i < width; ++i) {
        steps.add(steps.weight(a.data[(k + i) * a.col]), steps.factor(square[i]), chain);
    }
}

// One row times the transpose of what is stored.
template <typename T>
void multiply_turned_row(const Factors<T>& f) {
    using V = Vector<T>;
    constexpr int width = lanes<T>;
    constexpr int together = 2;  // chains, none of which waits for itself
    const std::int64_t grain = std::max<std::int64_t>(2, grain_work / 8 / (f.depth * together * width));
    parallel_for(parts_of(f.cols, together * width), 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t col = begin * together * width; col < std::min(f.cols, end * together * width);
             col += together * width) {
            const std::int64_t cols = std::min<std::int64_t>(together * width, f.cols - col);
            const T* columns[together * width];
            for (int i = 0; i < together * width; ++i) {
                columns[i] = f.b.data + std::min(col + i, f.cols - 1) * f.b.col;
            }
            for (std::int64_t block = 0; block < f.depth; block += block_depth) {
                const std::int64_t block_end = std::min(block + block_depth, f.depth);
                T sums[together * width];
                vec::run_chains<T>([&](auto steps) ORNIK_EXPANDED {
                    typename decltype(steps)::Sum chains[together];
                    std::fill_n(chains, together, steps.from(V{}));
                    std::int64_t k = block;
                    for (; k + width <= block_end; k += width) {
                        for (int t = 0; t < together; ++t) {
                            add_square(steps, f.a, columns + t * width, k, chains[t]);
                        }
                    }
                    for (; k < block_end; ++k) {
                        T step[together * width];
                        for (int i = 0; i < together * width; ++i) {
                            step[i] = columns[i][k];
                        }
                        for (int t = 0; t < together; ++t) {
                            steps.add(steps.weight(f.a.data[k * f.a.col]), steps.factor(load<V>(step + t * width)),
                                      chains[t]);
                        }
                    }
                    if (!steps.vouches_for(chains)) {
                        return false;
                    }
                    for (int t = 0; t < together; ++t) {
                        vec::store(steps.value(chains[t]), sums + t * width);
                    }
                    return true;
                });
                copy_sums(sums, 0, 1, cols, TileTarget<T>{f.c + col, 0}, f.end(block));
            }
            f.finish(0, 1, col, cols);
        }
    });
}

}  // namespace

}  // namespace ornik::device::cpu
