// row_exp.h: the passes of a softmax over one dense row: its highest entry, exponentials and their sum.
// Internal.
//
// Every pass keeps one partial result per lane, lane l having the entries l, l + lanes, l + 2 lanes ..., and
// combines the lanes in order. Compilers turn the lanes into vector registers; the bits do not depend on how.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "../elements/elementary.h"

namespace ornik::device::cpu::row {

/// Lanes of one 64-byte line.
template <typename T>
inline constexpr std::int64_t lanes = 64 / static_cast<std::int64_t>(sizeof(T));

/// Calls block(first entry, entries) for the blocks of a row: whole ones of `lanes` entries, a number that the
/// compiler knows, and the rest.
template <typename T, typename Block>
inline void for_each_block(std::int64_t n, const Block& block) {
    const std::int64_t whole = n - n % lanes<T>;
    for (std::int64_t i = 0; i < whole; i += lanes<T>) {
        block(i, std::integral_constant<std::int64_t, lanes<T>>{});
    }
    if (whole < n) {
        block(whole, n - whole);
    }
}

template <typename T>
inline T sum_of_lanes(const T* sum) {
    T total = 0;
    for (std::int64_t l = 0; l < lanes<T>; ++l) {
        total += sum[l];
    }
    return total;
}

/// The highest entry; NaNs are passed over. -infinity when nothing is left.
template <typename T>
inline T highest(const T* x, std::int64_t n) {
    T best[lanes<T>];
    std::fill_n(best, lanes<T>, -std::numeric_limits<T>::infinity());
    for_each_block<T>(n, [&](std::int64_t first, auto count) {
        for (std::int64_t l = 0; l < count; ++l) {
            best[l] = x[first + l] > best[l] ? x[first + l] : best[l];
        }
    });
    return *std::max_element(best, best + lanes<T>);
}

/// The sum of exp(x - shift), where shift is the highest entry.
template <typename T>
inline T sum_exp(const T* x, std::int64_t n, T shift) {
    T sum[lanes<T>] = {};
    for_each_block<T>(n, [&](std::int64_t first, auto count) {
        for (std::int64_t l = 0; l < count; ++l) {
            sum[l] += elementary::exp(x[first + l] - shift);
        }
    });
    return sum_of_lanes(sum);
}

/// out = exp(x - shift); returns the sum. Out may be x.
template <typename T>
inline T exp_into(const T* x, std::int64_t n, T shift, T* out) {
    T sum[lanes<T>] = {};
    for_each_block<T>(n, [&](std::int64_t first, auto count) {
        T value[lanes<T>];
        for (std::int64_t l = 0; l < count; ++l) {
            value[l] = elementary::exp(x[first + l] - shift);
            sum[l] += value[l];
        }
        std::copy_n(value, std::int64_t{count}, out + first);
    });
    return sum_of_lanes(sum);
}

/// The sum of a[i] b[i].
template <typename T>
inline T dot(const T* a, const T* b, std::int64_t n) {
    T sum[lanes<T>] = {};
    for_each_block<T>(n, [&](std::int64_t first, auto count) {
        for (std::int64_t l = 0; l < count; ++l) {
            sum[l] += a[first + l] * b[first + l];
        }
    });
    return sum_of_lanes(sum);
}

}  // namespace ornik::device::cpu::row
