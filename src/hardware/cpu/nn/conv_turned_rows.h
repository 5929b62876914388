// conv_turned_rows.h: a window of the planes of channels that stay apart, channels side by side. Internal; for
// *_vector.cpp alone.
#pragma once

#include <algorithm>
#include <vector>

#include "conv_transpose.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {
namespace {

/// Planes of one size, and windows of one size that move over them.
template <typename T>
struct TurnedWindow {
    std::int64_t plane_rows;
    std::int64_t plane_cols;
    std::int64_t rows;
    std::int64_t cols;
    std::vector<std::int64_t> planes;  // of a vector's lanes
    std::vector<std::int64_t> places;  // in the window, of what follows the first column of a row that is there whole

    TurnedWindow() = default;
    TurnedWindow(std::int64_t of_rows, std::int64_t of_cols, std::int64_t window_rows, std::int64_t window_cols)
        : plane_rows(of_rows), plane_cols(of_cols), rows(window_rows), cols(window_cols) {
        for (std::int64_t i = 0; i < vec::lanes<T>; ++i) {
            planes.push_back(i * plane_rows * plane_cols);
        }
        for (std::int64_t row = 0; row < rows; ++row) {
            for (std::int64_t col = 0; col < plane_cols; ++col) {
                places.push_back((row * cols + col) * vec::lanes<T>);
            }
        }
    }
    /// From one row to the next.
    std::int64_t pitch() const { return cols * vec::lanes<T>; }
};

/// A vector for every place of a window: zeros where it lies beyond the planes' edges.
template <typename T>
class TurnedRows {
  public:
    explicit TurnedRows(const TurnedWindow<T>& window) : window_(window), slots_(window.rows * window.pitch()) {}

    /// Moves the window to begin at a row and a column, either of which may lie beyond the edges, of `count` planes, at
    /// most a vector. What both windows see of the same planes is kept.
    void move(const T* from, std::int64_t count, std::int64_t row, std::int64_t col) {
        const auto& [plane_rows, plane_cols, rows, cols, planes, places] = window_;
        const std::int64_t pitch = window_.pitch();
        T* const slots = slots_.get();
        std::int64_t kept = 0;
        if (from == from_ && col == col_ && row > row_ && row < row_ + rows) {
            kept = row_ + rows - row;
            std::copy(slots + (rows - kept) * pitch, slots + rows * pitch, slots);
        }
        from_ = from;
        row_ = row;
        col_ = col;
        const std::int64_t left = std::clamp<std::int64_t>(-col, 0, cols);
        const std::int64_t right = std::clamp<std::int64_t>(plane_cols - col, left, cols);  // behind the last one
        for (std::int64_t r = kept; r < rows; ++r) {
            T* const to = slots + r * pitch;
            const bool outside = row + r < 0 || row + r >= plane_rows;
            std::fill(to, to + (outside ? cols : left) * lanes, T(0));
            std::fill(to + (outside ? cols : right) * lanes, to + pitch, T(0));
        }
        if (left == right) {
            return;
        }
        const bool whole = right - left == plane_cols;  // Such rows follow each other.
        const std::int64_t end = std::min(row + rows, plane_rows);
        for (std::int64_t at = std::max<std::int64_t>(row + kept, 0); at < end; at = whole ? end : at + 1) {
            turn_rows_to(from + at * plane_cols + col + left, planes.data(), count, lanes,
                         whole ? (end - at) * plane_cols : right - left, slots + (at - row) * pitch + left * lanes,
                         [to = places.data()](std::int64_t k) { return to[k]; });
        }
    }

    /// The window's first place.
    const T* get() const { return slots_.get(); }

  private:
    static constexpr std::int64_t lanes = vec::lanes<T>;

    const TurnedWindow<T>& window_;
    Scratch<T> slots_;
    const T* from_ = nullptr;
    std::int64_t row_ = 0;
    std::int64_t col_ = 0;
};

}  // namespace
}  // namespace ornik::device::cpu
