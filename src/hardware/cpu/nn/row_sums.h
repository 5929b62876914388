// row_sums.h: sums along contiguous rows and down columns, for the normalizations. Internal.
//
// Elements are added in the element type within chunks of a fixed size, and chunks in double, in order: sums
// stay accurate however long they are, vectorise, and have the same bits at every team size.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "hardware/parallel.h"

namespace ornik::device::cpu {

inline constexpr std::int64_t row_chunk = 2048;          // elements of a row summed in the element type
inline constexpr std::int64_t column_chunk = 256;        // rows of a column summed in the element type
inline constexpr std::int64_t column_block = 1024;       // columns worked on together
inline constexpr std::int64_t elements_grain = 1 << 15;  // elements worth a second thread

/// The grain of a loop over items of so many elements.
inline std::int64_t grain_of_items(std::int64_t elements) {
    return std::max<std::int64_t>(2, elements_grain / std::max<std::int64_t>(1, elements));
}

/// The sum of term(begin) ... term(end - 1), in independent lanes so that it vectorises.
template <typename T, typename Term>
T lane_sum(std::int64_t begin, std::int64_t end, const Term& term) {
    constexpr std::int64_t lanes = 128 / sizeof(T);
    T sums[lanes];
    for (std::int64_t lane = 0; lane < lanes; ++lane) {
        sums[lane] = 0;
    }
    std::int64_t i = begin;
    for (; i + lanes <= end; i += lanes) {
        for (std::int64_t lane = 0; lane < lanes; ++lane) {
            sums[lane] += term(i + lane);
        }
    }
    T tail = 0;
    for (; i < end; ++i) {
        tail += term(i);
    }
    for (std::int64_t half = lanes / 2; half > 0; half /= 2) {
        for (std::int64_t lane = 0; lane < half; ++lane) {
            sums[lane] += sums[lane + half];
        }
    }
    return sums[0] + tail;
}

/// Count, mean and sum of squared deviations of a set of elements.
struct Moments {
    double count = 0;
    double mean = 0;
    double squares = 0;

    /// The moments of both sets together.
    void merge(const Moments& other) {
        const double total = count + other.count;
        const double delta = other.mean - mean;
        mean += delta * other.count / total;
        squares += other.squares + delta * delta * count * other.count / total;
        count = total;
    }
    double variance() const { return squares / count; }
};

template <typename T>
Moments row_moments(const T* x, std::int64_t n) {
    Moments moments;
    for (std::int64_t begin = 0; begin < n; begin += row_chunk) {
        const std::int64_t end = std::min(n, begin + row_chunk);
        const auto count = static_cast<double>(end - begin);
        const double mean = static_cast<double>(lane_sum<T>(begin, end, [=](std::int64_t i) { return x[i]; })) / count;
        const T center = static_cast<T>(mean);
        const T squares = lane_sum<T>(begin, end, [=](std::int64_t i) { return (x[i] - center) * (x[i] - center); });
        // The squares are about the rounded mean.
        const double off = mean - static_cast<double>(center);
        const Moments chunk{count, mean, std::max(0.0, static_cast<double>(squares) - count * off * off)};
        if (begin == 0) {
            moments = chunk;
        } else {
            moments.merge(chunk);
        }
    }
    return moments;
}

/// The sums of each term over 0 ... n - 1; chunks are in cache when the second term comes.
template <typename T, typename... Terms>
std::array<double, sizeof...(Terms)> row_sums(std::int64_t n, const Terms&... terms) {
    std::array<double, sizeof...(Terms)> sums{};
    for (std::int64_t begin = 0; begin < n; begin += row_chunk) {
        const std::int64_t end = std::min(n, begin + row_chunk);
        std::size_t k = 0;
        ((sums[k++] += static_cast<double>(lane_sum<T>(begin, end, terms))), ...);
    }
    return sums;
}

/// For every column j the sum over the rows i of row(i)(j).
template <typename T, typename Row>
std::vector<double> column_sums(std::int64_t rows, std::int64_t cols, const Row& row) {
    const std::int64_t chunks = (rows + column_chunk - 1) / column_chunk;
    const std::int64_t blocks = (cols + column_block - 1) / column_block;
    std::vector<double> partial(static_cast<std::size_t>(chunks * cols));
    const std::int64_t grain = grain_of_items(std::min(rows, column_chunk) * std::min(cols, column_block));
    parallel_for(chunks * blocks, 1, grain, [&](std::int64_t first, std::int64_t last) {
        for (std::int64_t item = first; item < last; ++item) {
            const std::int64_t row_end = std::min(rows, (item / blocks + 1) * column_chunk);
            const std::int64_t col_begin = item % blocks * column_block;
            const std::int64_t width = std::min(cols - col_begin, column_block);
            T sums[column_block];
            std::fill_n(sums, width, T(0));
            std::int64_t i = item / blocks * column_chunk;
            for (; i + 4 <= row_end; i += 4) {
                const auto t0 = row(i), t1 = row(i + 1), t2 = row(i + 2), t3 = row(i + 3);
                for (std::int64_t j = 0; j < width; ++j) {
                    const std::int64_t col = col_begin + j;
                    sums[j] += (t0(col) + t1(col)) + (t2(col) + t3(col));
                }
            }
            for (; i < row_end; ++i) {
                const auto term = row(i);
                for (std::int64_t j = 0; j < width; ++j) {
                    sums[j] += term(col_begin + j);
                }
            }
            std::copy_n(sums, width, partial.data() + item / blocks * cols + col_begin);
        }
    });
    for (std::int64_t chunk = 1; chunk < chunks; ++chunk) {
        for (std::int64_t j = 0; j < cols; ++j) {
            partial[static_cast<std::size_t>(j)] += partial[static_cast<std::size_t>(chunk * cols + j)];
        }
    }
    partial.resize(static_cast<std::size_t>(cols));
    return partial;
}

}  // namespace ornik::device::cpu
