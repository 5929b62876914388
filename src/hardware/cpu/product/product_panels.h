// product_panels.h: lays out operands of a product as its tiles read them. Included by *_vector.cpp files.
//
// Whatever is read is read along its rows in memory. Panels end with room for the last vector.
#pragma once

#include <algorithm>
#include <cstdint>

#include "hardware/cpu/vector_transpose.h"
#include "product_tile.h"

namespace ornik::device::cpu {

/// A matrix whose element (i, k) is at data[i * row + k * col]; one of the steps is 1.
template <typename T>
struct Strided {
    const T* data;
    std::int64_t row;
    std::int64_t col;

    Strided from(std::int64_t i, std::int64_t k) const { return {data + i * row + k * col, row, col}; }
    Strided turned() const { return {data, col, row}; }
};

/// to[k * to_row + i] = from(i, k), i < rows, k < depth, where from.col is 1. Between rows and the next whole vector,
/// to's rows are filled with anything, also behind the last one.
template <typename T>
void pack_turned(const Strided<T>& from, std::int64_t rows, std::int64_t depth, T* to, std::int64_t to_row) {
    std::int64_t k = 0;
#if defined(__GNUC__)
    if constexpr (std::is_floating_point_v<T>) {
        constexpr std::int64_t width = lanes<T>;
        const std::int64_t last = (rows - 1) / width * width;
        for (; k + width <= depth; k += width) {
            // The last vector of rows first: what it writes too far is written over.
            for (std::int64_t i = last; i >= 0; i -= width) {
                Vector<T> square[width];
                ORNIK_UNROLLED for (std::int64_t r = 0; r < width; ++r) {
                    square[r] = load<Vector<T>>(from.data + std::min(i + r, rows - 1) * from.row + k);
                }
                vec::transpose_square(square);
                ORNIK_UNROLLED for (std::int64_t r = 0; r < width; ++r) {
                    vec::store(square[r], to + (k + r) * to_row + i);
                }
            }
        }
    }
#endif
    for (; k < depth; ++k) {
        const T* item = from.data + k;
        for (T* at = to + k * to_row; at != to + k * to_row + rows; ++at, item += from.row) {
            *at = *item;
        }
    }
}

/// The same for all dtypes.
template <typename T>
void turn_items(const Strided<T>& from, std::int64_t rows, std::int64_t depth, T* to, std::int64_t to_row) {
    if constexpr (std::is_same_v<T, std::complex<float>>) {
        // Eight bytes are eight bytes.
        pack_turned(Strided<double>{reinterpret_cast<const double*>(from.data), from.row, 1}, rows, depth,
                    reinterpret_cast<double*>(to), to_row);
    } else {
        pack_turned(from, rows, depth, to, to_row);
    }
}

/// Rows of A as sum_tile<Packed> reads them: to[k * rows + i].
template <typename T>
void pack_rows(const Strided<T>& a, std::int64_t rows, std::int64_t depth, T* to) {
    if (a.col == 1) {
        turn_items(a, rows, depth, to, rows);
        return;
    }
    for (std::int64_t k = 0; k < depth; ++k) {
        std::copy_n(a.data + k * a.col, rows, to + k * rows);
    }
}

/// Reals of a panel's row that holds `cols` columns.
template <typename T>
constexpr std::int64_t panel_row(std::int64_t cols) {
    constexpr std::int64_t width = lanes<RealOf<T>>;
    return cols > width ? TileShape<T>::cols * TileShape<T>::parts : width * TileShape<T>::parts;
}

/// Complex rows, the real parts and then the imaginary ones.
template <typename T>
void split_rows(const Strided<T>& from, std::int64_t rows, std::int64_t cols, RealOf<T>* to) {
    using R = RealOf<T>;
    const std::int64_t row = panel_row<T>(cols);
    for (std::int64_t k = 0; k < rows; ++k) {
        const R* x = reinterpret_cast<const R*>(from.data + k * from.row);
        R* re = to + k * row;
        R* im = re + row / 2;
        for (std::int64_t j = 0; j < cols; ++j) {
            re[j] = x[2 * j];
            im[j] = x[2 * j + 1];
        }
        std::fill(re + cols, im, R(0));
        std::fill(im + cols, re + row, R(0));
    }
}

/// Rows of whole vectors, one after the other.
template <int Vectors, typename T>
void copy_rows(const Strided<T>& from, std::int64_t rows, T* to) {
    const T* row = from.data;
    for (std::int64_t i = 0; i < rows; ++i, row += from.row) {
        ORNIK_UNROLLED for (int v = 0; v < Vectors; ++v) {
            vec::store(load<Vector<T>>(row + v * lanes<T>), to);
            to += lanes<T>;
        }
    }
}

/// Rows of B over several whole panels, read from end to end: panel p at to + p * panel_size.
template <typename T>
void pack_along(const Strided<T>& b, std::int64_t rows, std::int64_t panels, T* to, std::int64_t panel_size) {
    constexpr std::int64_t cols = TileShape<T>::cols;
    for (std::int64_t k = 0; k < rows; ++k) {
        const T* from = b.data + k * b.row;
        T* target = to + k * cols;
        for (std::int64_t p = 0; p < panels; ++p, from += cols, target += panel_size) {
            ORNIK_UNROLLED for (int v = 0; v < TileShape<T>::vectors; ++v) {
                vec::store(load<Vector<T>>(from + v * lanes<T>), target + v * lanes<T>);
            }
        }
    }
}

/// Columns of B, at most a panel's, row k at to + k * panel_row(cols). `from`'s rows are B's.
template <typename T>
void pack_panel(const Strided<T>& b, std::int64_t depth, std::int64_t cols, RealOf<T>* to) {
    const std::int64_t row = panel_row<T>(cols);
    if constexpr (TileShape<T>::parts == 2) {
        if (b.col == 1) {
            split_rows(b, depth, cols, to);
            return;
        }
        constexpr std::int64_t at_once = 16;
        alignas(64) T rows[at_once * TileShape<T>::cols];
        for (std::int64_t k = 0; k < depth; k += at_once) {
            const std::int64_t steps = std::min(at_once, depth - k);
            turn_items(b.from(k, 0).turned(), cols, steps, rows, TileShape<T>::cols);
            split_rows(Strided<T>{rows, TileShape<T>::cols, 1}, steps, cols, to + k * row);
        }
    } else if (b.col == 1) {
        if (cols == TileShape<T>::cols) {
            copy_rows<TileShape<T>::vectors>(b, depth, to);
            return;
        }
        for (std::int64_t k = 0; k < depth; ++k) {
            std::copy_n(b.data + k * b.row, cols, to + k * row);
            std::fill(to + k * row + cols, to + (k + 1) * row, T(0));
        }
    } else {
        pack_turned(b.turned(), cols, depth, to, row);
        if (cols < row) {
            for (std::int64_t k = 0; k < depth; ++k) {
                std::fill(to + k * row + cols, to + (k + 1) * row, T(0));
            }
        }
    }
}

}  // namespace ornik::device::cpu
