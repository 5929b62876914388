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
        using V = Vector<T>;
        constexpr std::int64_t width = lanes<T>;
        // The last vector of rows first: what it writes too far is written over.
        const std::int64_t last = (rows - 1) / width * width;
        for (; k + width <= depth; k += width) {
            for (std::int64_t i = last; i >= 0; i -= width) {
                V square[width];
                ORNIK_UNROLLED for (std::int64_t r = 0; r < width; ++r) {
                    square[r] = load<V>(from.data + std::min(i + r, rows - 1) * from.row + k);
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
        for (std::int64_t i = 0; i < rows; ++i) {
            to[k * to_row + i] = from.data[i * from.row + k];
        }
    }
}

/// Rows of A as sum_tile<Packed> reads them: to[k * rows + i].
template <typename T>
void pack_rows(const Strided<T>& a, std::int64_t rows, std::int64_t depth, T* to) {
    if (a.col == 1) {
        if constexpr (std::is_same_v<T, std::complex<float>>) {
            // Eight bytes are eight bytes.
            pack_turned(Strided<double>{reinterpret_cast<const double*>(a.data), a.row, 1}, rows, depth,
                        reinterpret_cast<double*>(to), rows);
        } else {
            pack_turned(a, rows, depth, to, rows);
        }
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

/// Columns of B, at most a panel's, row k at to + k * panel_row(cols). `from`'s rows are B's.
template <typename T>
void pack_panel(const Strided<T>& b, std::int64_t depth, std::int64_t cols, RealOf<T>* to) {
    const std::int64_t row = panel_row<T>(cols);
    if constexpr (TileShape<T>::parts == 2) {
        using R = RealOf<T>;
        for (std::int64_t k = 0; k < depth; ++k) {
            R* re = to + k * row;
            R* im = re + row / 2;
            for (std::int64_t j = 0; j < cols; ++j) {
                const R* x = reinterpret_cast<const R*>(b.data + k * b.row + j * b.col);
                re[j] = x[0];
                im[j] = x[1];
            }
            std::fill(re + cols, im, R(0));
            std::fill(im + cols, re + row, R(0));
        }
    } else if (b.col == 1) {
        if (cols == row) {
            for (std::int64_t k = 0; k < depth; ++k) {
                if (cols == TileShape<T>::cols) {
                    std::copy_n(b.data + k * b.row, TileShape<T>::cols, to + k * row);
                } else {
                    std::copy_n(b.data + k * b.row, lanes<T>, to + k * row);
                }
            }
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
