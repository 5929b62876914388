// row_exp.h: the passes of a softmax over one dense row: its highest entry, exponentials and their sum.
// Internal.
//
// Every pass keeps one partial result per lane, lane l having the entries l, l + lanes, l + 2 lanes ..., and
// combines the lanes in order. Compilers turn the lanes into vector registers; the bits do not depend on how.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace ornik::device::cpu::row {

/// Lanes of one 64-byte line.
template <typename T>
inline constexpr std::int64_t lanes = 64 / static_cast<std::int64_t>(sizeof(T));

template <typename T>
struct ExpConstants;
template <>
struct ExpConstants<float> {
    using Bits = std::uint32_t;
    static constexpr int fraction_bits = 23;
    static constexpr Bits bias = 127;
    static constexpr float rounder = 0x1.8p23F;      // Adding it rounds to a whole number, in the low bits.
    static constexpr float ln2_high = 0.693359375F;  // Few bits: exact times any exponent.
    static constexpr float ln2_low = -2.12194440e-4F;
    static constexpr float lowest = -88.0F;  // Rounds to k = -bias.
    static constexpr int degree = 7;
};
template <>
struct ExpConstants<double> {
    using Bits = std::uint64_t;
    static constexpr int fraction_bits = 52;
    static constexpr Bits bias = 1023;
    static constexpr double rounder = 0x1.8p52;
    static constexpr double ln2_high = 0x1.62e42fee00000p-1;
    static constexpr double ln2_low = 0x1.a39ef35793c76p-33;
    static constexpr double lowest = -709.0;
    static constexpr int degree = 13;
};

constexpr double factorial(int n) { return n < 2 ? 1.0 : n * factorial(n - 1); }

// The sum of r^(n - First) / n! from n = First to Degree.
template <int Degree, typename T, int First = 0>
inline T exp_series(T r) {
    if constexpr (First == Degree) {
        return static_cast<T>(1 / factorial(First));
    } else {
        return static_cast<T>(1 / factorial(First)) + r * exp_series<Degree, T, First + 1>(r);
    }
}

/// exp(x) for x <= 0, within about one unit in the last place; 0 below the logarithm of the least normal number
/// (-infinity included). NaN stays NaN.
template <typename T>
inline T exp_nonpositive(T x) {
    using C = ExpConstants<T>;
    // x = k ln 2 + r with |r| <= ln 2 / 2; exp(r) by its series, 2^k by its bits. At the lowest k those are 0.
    x = C::lowest > x ? C::lowest : x;
    const T shifted = x * T(1.4426950408889634) + C::rounder;
    const T k = shifted - C::rounder;
    const T r = (x - k * C::ln2_high) - k * C::ln2_low;
    const T series = exp_series<C::degree>(r);
    const typename C::Bits exponent =
        std::bit_cast<typename C::Bits>(shifted) - std::bit_cast<typename C::Bits>(C::rounder) + C::bias;
    const T power = std::bit_cast<T>(static_cast<typename C::Bits>(exponent << C::fraction_bits));
    return series * power;
}

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
            sum[l] += exp_nonpositive(x[first + l] - shift);
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
            value[l] = exp_nonpositive(x[first + l] - shift);
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
