// conv_transpose.h: rows turned into columns in registers. Internal; for *_vector.cpp alone.
#pragma once

#include <algorithm>
#include <cstdint>

#include "hardware/cpu/vector_transpose.h"

namespace ornik::device::cpu {
namespace {

/// to[place(k) + i] = from[rows[i] + k] for i < count and 0 for count <= i < padded, k < length; `padded` makes whole
/// vectors. Reads and writes nothing else.
template <typename T, int Bytes = vec::vector_bytes, typename Place>
void turn_rows_to(const T* from, const std::int64_t* rows, std::int64_t count, std::int64_t padded, std::int64_t length,
                  T* to, const Place& place) {
    using V = vec::Vector<T, Bytes>;
    constexpr std::int64_t width = vec::lanes<T, Bytes>;
    if constexpr (Bytes > 16) {
        if (length < width) {
            return turn_rows_to<T, Bytes / 2>(from, rows, count, padded, length, to, place);
        }
    }
    for (std::int64_t first = 0; first < padded; first += width) {
        const std::int64_t present = std::clamp<std::int64_t>(count - first, 0, width);
        for (std::int64_t k = 0; k < length && length < width; ++k) {
            for (std::int64_t i = 0; i < width; ++i) {
                to[place(k) + first + i] = i < present ? from[rows[first + i] + k] : T(0);
            }
        }
        for (std::int64_t k = 0; k < length && length >= width; k += width) {
            const std::int64_t begin = std::min(k, length - width);  // The last square overlaps the one before it.
            V square[width];
            for (std::int64_t i = 0; i < width; ++i) {
                square[i] = i < present ? vec::load<V>(from + rows[first + i] + begin) : V{};
            }
            vec::transpose_square(square);
            for (std::int64_t i = 0; i < width; ++i) {
                vec::store(square[i], to + place(begin + i) + first);
            }
        }
    }
}

/// Places `pitch` apart.
template <typename T>
void turn_rows(const T* from, const std::int64_t* rows, std::int64_t count, std::int64_t padded, std::int64_t length,
               T* to, std::int64_t pitch) {
    turn_rows_to(from, rows, count, padded, length, to, [pitch](std::int64_t k) { return k * pitch; });
}

/// to[i * stride + k] = change(from[k * pitch + i], i, k) for i < count, at most a vector, and k < length. Reads whole
/// vectors.
template <typename T, typename Change>
void turn_columns(const T* from, std::int64_t pitch, std::int64_t length, std::int64_t count, T* to,
                  std::int64_t stride, const Change& change) {
    using V = vec::Vector<T>;
    constexpr std::int64_t width = vec::lanes<T>;
    if (length < width) {
        for (std::int64_t i = 0; i < count; ++i) {
            for (std::int64_t k = 0; k < length; ++k) {
                to[i * stride + k] = change(from[k * pitch + i], i, k);
            }
        }
        return;
    }
    for (std::int64_t k = 0; k < length; k += width) {
        const std::int64_t place = std::min(k, length - width);  // The last square overlaps the one before it.
        V square[width];
        for (std::int64_t i = 0; i < width; ++i) {
            square[i] = vec::load<V>(from + (place + i) * pitch);
        }
        vec::transpose_square(square);
        for (std::int64_t i = 0; i < count; ++i) {
            vec::store(change(square[i], i, place), to + i * stride + place);
        }
    }
}

}  // namespace
}  // namespace ornik::device::cpu
