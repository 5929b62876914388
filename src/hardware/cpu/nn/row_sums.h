// row_sums.h: sums along contiguous rows and down columns, for the normalizations. Internal.
//
// Elements are added in the element type within chunks of a fixed size, and chunks in double, in order: sums
// stay accurate however long they are, vectorise, and have the same bits at every team size.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <utility>
#include <vector>

#include "descriptors/element_load.h"
#include "hardware/cpu/copy/cpu_core.h"
#include "hardware/cpu/vector_types.h"
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

/// True when there are no elements to work on: then what is reduced from them, null left out, becomes 0.
inline bool is_without_elements(const Tensor* input, std::initializer_list<Tensor*> reduced) {
    if (input->Size() != 0) {
        return false;
    }
    for (Tensor* result : reduced) {
        if (result != nullptr) {
            fill(result, 0.0F);
        }
    }
    return true;
}

/// What a term is evaluated with: at(p) stands for p[i], of one element or of several side by side.
template <typename V>
struct At {
    std::int64_t i;
    template <typename T>
    V operator()(const T* p) const {
        V values;
        std::memcpy(&values, p + i, sizeof(V));
        return values;
    }
};

/// The sum of every term over begin ... end - 1, in independent lanes whose number does not depend on the processor.
template <typename T, typename... Terms>
std::array<T, sizeof...(Terms)> lane_sums(std::int64_t begin, std::int64_t end, const Terms&... terms) {
    using V = vec::Vector<T>;
    constexpr std::int64_t lanes = 128 / sizeof(T);
    constexpr std::int64_t together = sizeof(V) / sizeof(T);
    V sums[sizeof...(Terms)][lanes / together];
    for (auto& of_term : sums) {
        for (V& lane : of_term) {
            lane = V{};
        }
    }
    std::int64_t i = begin;
    for (; i + lanes <= end; i += lanes) {
        for (std::int64_t v = 0; v < lanes / together; ++v) {
            const At<V> at{i + v * together};
            std::size_t k = 0;
            ((sums[k++][v] += terms(at)), ...);
        }
    }
    std::array<T, sizeof...(Terms)> totals{};  // The tail's, so far.
    for (; i < end; ++i) {
        std::size_t k = 0;
        ((totals[k++] += terms(At<T>{i})), ...);
    }
    for (std::size_t k = 0; k < sizeof...(Terms); ++k) {
        for (std::int64_t half = lanes / together / 2; half > 0; half /= 2) {
            for (std::int64_t v = 0; v < half; ++v) {
                sums[k][v] += sums[k][v + half];
            }
        }
        T parts[together];
        std::memcpy(parts, sums[k], sizeof(parts));
        for (std::int64_t half = together / 2; half > 0; half /= 2) {
            for (std::int64_t lane = 0; lane < half; ++lane) {
                parts[lane] += parts[lane + half];
            }
        }
        totals[k] = parts[0] + totals[k];
    }
    return totals;
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
        const double mean = static_cast<double>(lane_sums<T>(begin, end, [=](auto at) { return at(x); })[0]) / count;
        const T center = static_cast<T>(mean);
        const T squares = lane_sums<T>(begin, end, [=](auto at) { return (at(x) - center) * (at(x) - center); })[0];
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

/// The sums of each term over 0 ... n - 1.
template <typename T, typename... Terms>
std::array<double, sizeof...(Terms)> row_sums(std::int64_t n, const Terms&... terms) {
    std::array<double, sizeof...(Terms)> sums{};
    for (std::int64_t begin = 0; begin < n; begin += row_chunk) {
        const auto chunk = lane_sums<T>(begin, std::min(n, begin + row_chunk), terms...);
        for (std::size_t k = 0; k < chunk.size(); ++k) {
            sums[k] += static_cast<double>(chunk[k]);
        }
    }
    return sums;
}

/// sums[j] += the sum over rows begin ... end - 1 of row(i)(first + j), for j < width. Rows are added four at a time.
template <typename T, typename Row>
void add_rows(std::int64_t begin, std::int64_t end, std::int64_t first, std::int64_t width, const Row& row, T* sums) {
    std::int64_t i = begin;
    for (; i + 4 <= end; i += 4) {
        const auto t0 = row(i), t1 = row(i + 1), t2 = row(i + 2), t3 = row(i + 3);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t j = 0; j < width; ++j) {
            sums[j] += (t0(first + j) + t1(first + j)) + (t2(first + j) + t3(first + j));
        }
    }
    for (; i < end; ++i) {
        const auto term = row(i);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t j = 0; j < width; ++j) {
            sums[j] += term(first + j);
        }
    }
}

inline std::int64_t column_chunks(std::int64_t rows) { return (rows + column_chunk - 1) / column_chunk; }

/// The sums of every column over all chunks, from those of each: partial[chunk * cols + column].
inline std::vector<double> join_chunks(std::vector<double> partial, std::int64_t cols) {
    const auto width = static_cast<std::size_t>(cols);
    for (std::size_t chunk = width; chunk < partial.size(); chunk += width) {
        for (std::size_t j = 0; j < width; ++j) {
            partial[j] += partial[chunk + j];
        }
    }
    partial.resize(width);
    return partial;
}

/// For every column j the sum over the rows i of row(i)(j).
template <typename T, typename Row>
std::vector<double> column_sums(std::int64_t rows, std::int64_t cols, const Row& row) {
    const std::int64_t chunks = column_chunks(rows);
    const std::int64_t blocks = (cols + column_block - 1) / column_block;
    std::vector<double> partial(static_cast<std::size_t>(chunks * cols));
    const std::int64_t grain = grain_of_items(std::min(rows, column_chunk) * std::min(cols, column_block));
    parallel_for(chunks * blocks, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t item = begin; item < end; ++item) {
            const std::int64_t first_row = item / blocks * column_chunk;
            const std::int64_t first = item % blocks * column_block;
            const std::int64_t width = std::min(cols - first, column_block);
            T sums[column_block];
            std::fill_n(sums, width, T(0));
            add_rows(first_row, std::min(rows, first_row + column_chunk), first, width, row, sums);
            std::copy_n(sums, width, partial.data() + item / blocks * cols + first);
        }
    });
    return join_chunks(std::move(partial), cols);
}

}  // namespace ornik::device::cpu
