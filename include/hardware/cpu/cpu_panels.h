// cpu_panels.h: a matrix product whose operands the caller has packed. Internal.
//
// A product repacks both operands for its inner loop every time. A kernel that multiplies one matrix by many
// others, or that can write an operand straight into the packed form, does so once and calls `multiply`.
//
// The left operand (rows x depth) is cut into panels of rows, stored one after the other: a panel of w rows
// holds w elements for every step of depth. Panels are as wide as fits, see next_panel. The right operand
// (depth x cols) goes through `pack_right`.
#pragma once

#include <algorithm>
#include <complex>
#include <cstdint>

namespace ornik::device::cpu {

/// Bytes of panels that are read again and again from the nearest cache.
inline constexpr std::int64_t near_bytes = 24 << 10;

template <typename T>
struct PanelKernel {
    /// Widths in falling order, the last one 1; a first width of 0 means one panel of all rows.
    std::int64_t widths[6];

    /// packed = right operand; element (k, j) lies at b[k * row_stride + j * col_stride]. Columns from a
    /// multiple of 4, j, start at packed + j * depth.
    void (*pack_right)(const T* b, std::int64_t row_stride, std::int64_t col_stride, std::int64_t depth,
                       std::int64_t cols, T* packed);

    /// out += left right; element (i, j) of out lies at out[i + j * out_stride]. `left` starts at a multiple
    /// of 64 bytes.
    void (*multiply)(const T* left, const T* right, std::int64_t rows, std::int64_t depth, std::int64_t cols, T* out,
                     std::int64_t out_stride);

    /// Rows of the next panel when `rows` are left.
    std::int64_t next_panel(std::int64_t rows) const {
        if (widths[0] == 0) {
            return rows;
        }
        const std::int64_t* width = widths;
        while (*width > rows) {
            ++width;
        }
        return *width;
    }

    /// Rows to pack and multiply at once, out of `rows` that are left: whole widest panels that stay near while
    /// the right operand passes by, or all rows when there are fewer.
    std::int64_t next_stretch(std::int64_t rows, std::int64_t depth) const {
        const std::int64_t panel_bytes = widths[0] * depth * static_cast<std::int64_t>(sizeof(T));
        if (panel_bytes == 0) {
            return rows;
        }
        return std::min(rows, std::max<std::int64_t>(1, near_bytes / panel_bytes) * widths[0]);
    }
};

/// The fastest kernel for T: float, double and their std::complex.
template <typename T>
const PanelKernel<T>& panel_kernel();

/// The one that uses nothing but the matrix library's public product.
template <typename T>
const PanelKernel<T>& plain_panel_kernel();

}  // namespace ornik::device::cpu
