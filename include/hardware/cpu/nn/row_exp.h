// row_exp.h: the passes of a softmax over one dense row: its highest entry, exponentials and their sum.
// Internal.
//
// Every pass keeps one partial result per lane, lane l having the entries l, l + lanes, l + 2 lanes ..., and
// combines the lanes in halves. Compilers turn the lanes into vector registers; the bits do not depend on how.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>

#include "../elements/elementary.h"
#include "../vector_types.h"

namespace ornik::device::cpu::row {

/// Lanes of one 64-byte line.
template <typename T>
inline constexpr std::int64_t lanes = 64 / static_cast<std::int64_t>(sizeof(T));
/// Entries added in the element type; longer rows add such sums in double.
inline constexpr std::int64_t chunk = 4096;

/// Calls block(first entry, entries) for the blocks of a row: whole ones of `width` entries, a number that the
/// compiler knows, and the rest.
template <std::int64_t width, typename Block>
inline void for_each_block(std::int64_t n, const Block& block) {
    const std::int64_t whole = n - n % width;
    for (std::int64_t i = 0; i < whole; i += width) {
        block(i, std::integral_constant<std::int64_t, width>{});
    }
    if (whole < n) {
        block(whole, n - whole);
    }
}

/// The first `count` results of lanes joined in halves, the upper half to the lower one until one is left:
/// join(a, b) makes a of both, elements or vectors of them.
template <std::int64_t count, typename T, typename Join>
inline T joined(const T* lane, const Join& join) {
    constexpr auto half = count / 2;
    if constexpr (count == 1) {
        return lane[0];
    } else if constexpr (half * sizeof(T) >= 16 && half * sizeof(T) <= vec::vector_bytes) {
        using V = vec::Vector<T, static_cast<int>(half * sizeof(T))>;
        V lower = vec::load<V>(lane);
        join(lower, vec::load<V>(lane + half));
        T rest[half];
        vec::store(lower, rest);
        return joined<half>(rest, join);
    } else {
        T rest[half];
        for (std::int64_t l = 0; l < half; ++l) {
            rest[l] = lane[l];
            join(rest[l], lane[l + half]);
        }
        return joined<half>(rest, join);
    }
}
template <typename T>
inline T sum_of_lanes(const T* sum) {
    return joined<lanes<T>>(sum, [](auto& a, const auto& b) { a += b; });
}
/// A vector's lower half plus the upper one.
template <typename V, std::size_t... I>
inline auto sum_of_halves(V v, std::index_sequence<I...> /*lanes of a half*/) {
    return __builtin_shufflevector(v, v, I...) + __builtin_shufflevector(v, v, (I + sizeof...(I))...);
}
/// The same of lanes in registers.
template <typename T, int Bytes>
inline T sum_of_lanes(vec::Vector<T, Bytes> sum) {
    if constexpr (Bytes > 16) {
        constexpr std::make_index_sequence<Bytes / 2 / sizeof(T)> half{};
        return sum_of_lanes<T, Bytes / 2>(sum_of_halves(sum, half));
    } else {
        T lane[Bytes / sizeof(T)];
        vec::store(sum, lane);
        return joined<Bytes / sizeof(T)>(lane, [](auto& a, const auto& b) { a += b; });
    }
}

/// add(first, count, sums) adds terms of count entries to the lanes; the sum of all of them.
template <typename T, typename Add>
inline T sum_of_blocks(std::int64_t n, const Add& add) {
    const auto part = [&](std::int64_t begin, std::int64_t count) {
        T sum[lanes<T>] = {};
        for_each_block<lanes<T>>(count, [&](std::int64_t first, auto width) { add(begin + first, width, sum); });
        return sum_of_lanes(sum);
    };
    if (n <= chunk) {
        return part(0, n);
    }
    double total = 0;
    for (std::int64_t begin = 0; begin < n; begin += chunk) {
        total += static_cast<double>(part(begin, std::min(chunk, n - begin)));
    }
    return static_cast<T>(total);
}

/// The highest entry; NaNs are passed over. -infinity when nothing is left.
template <typename T>
inline T highest(const T* x, std::int64_t n) {
    // The order of comparisons does not matter: vectors of any width, four to hide what one comparison takes.
    using V = vec::Vector<T>;
    constexpr std::int64_t width = vec::lanes<T>;
    const auto take = [](auto& best, const auto& other) { best = other > best ? other : best; };
    T lane[width];
    std::fill_n(lane, width, -std::numeric_limits<T>::infinity());
    const V start = vec::load<V>(lane);
    V best[4] = {start, start, start, start};
    std::int64_t i = 0;
    for (; i + 4 * width <= n; i += 4 * width) {
        for (std::int64_t v = 0; v < 4; ++v) {
            take(best[v], vec::load<V>(x + i + v * width));
        }
    }
    for (; i + width <= n; i += width) {
        take(best[0], vec::load<V>(x + i));
    }
    take(best[0], best[1]);
    take(best[2], best[3]);
    take(best[0], best[2]);
    vec::store(best[0], lane);
    T result = joined<width>(lane, take);
    for (; i < n; ++i) {
        take(result, x[i]);
    }
    return result;
}

/// The sum of exp(x - shift), where shift is the highest entry, times 2^power_scale.
template <typename T>
inline T sum_powers(const T* x, std::int64_t n, T shift) {
    return sum_of_blocks<T>(n, [&](std::int64_t first, auto count, T* sum) {
        for (std::int64_t l = 0; l < count; ++l) {
            sum[l] += elementary::scaled_power(x[first + l] - shift);
        }
    });
}

/// The logarithm of the sum of exp(x - shift).
template <typename T>
inline T log_sum_exp(const T* x, std::int64_t n, T shift) {
    return elementary::log(sum_powers(x, n, shift) * std::ldexp(T(1), -elementary::power_scale<T>));
}

/// out = 2^power_scale exp(x - shift), where shift is the highest entry; returns the sum. Out may be x.
template <typename T>
inline T powers_into(const T* x, std::int64_t n, T shift, T* out) {
    return sum_of_blocks<T>(n, [&](std::int64_t first, auto count, T* sum) {
        T value[lanes<T>];
        for (std::int64_t l = 0; l < count; ++l) {
            value[l] = elementary::scaled_power(x[first + l] - shift);
            sum[l] += value[l];
        }
        std::copy_n(value, std::int64_t{count}, out + first);
    });
}

/// x becomes exp(factor x - shift), 0 where that is next to nothing; returns the sum.
template <typename T>
inline T weigh(T* x, std::int64_t n, T factor, T shift) {
    return sum_of_blocks<T>(n, [&](std::int64_t first, auto count, T* sum) {
        T value[lanes<T>];
        for (std::int64_t l = 0; l < count; ++l) {
            value[l] = elementary::power_or_nothing(x[first + l] * factor - shift);
            sum[l] += value[l];
        }
        std::copy_n(value, std::int64_t{count}, x + first);
    });
}

/// out = softmax(x); out may be x.
template <typename T>
inline void softmax(const T* x, std::int64_t n, T shift, T* out) {
    const T share = T(1) / powers_into(x, n, shift, out);
    for_each_block<lanes<T>>(n, [&](std::int64_t first, auto count) {
        for (std::int64_t l = 0; l < count; ++l) {
            out[first + l] *= share;
        }
    });
}

/// The sum of term(i, V{}), the terms of a row from i on as a V, an element or several.
template <typename T, typename Term>
inline T sum_of_terms(std::int64_t n, const Term& term) {
    using V = vec::Vector<T>;
    constexpr std::int64_t width = vec::lanes<T>;
    constexpr std::int64_t vectors = lanes<T> / width;
    const auto part = [&](std::int64_t begin, std::int64_t end) {
        V sum[vectors] = {};
        std::int64_t i = begin;
        for (; i + lanes<T> <= end; i += lanes<T>) {
            ORNIK_UNROLLED for (std::int64_t v = 0; v < vectors; ++v) { sum[v] += term(i + v * width, V{}); }
        }
        if (i < end) {
            T lane[lanes<T>];
            ORNIK_UNROLLED for (std::int64_t v = 0; v < vectors; ++v) { vec::store(sum[v], lane + v * width); }
            for (std::int64_t l = 0; l < end - i; ++l) {
                lane[l] += term(i + l, T{});
            }
            return sum_of_lanes(lane);
        }
        ORNIK_UNROLLED for (std::int64_t half = vectors / 2; half > 0; half /= 2) {
            ORNIK_UNROLLED for (std::int64_t v = 0; v < half; ++v) { sum[v] += sum[v + half]; }
        }
        return sum_of_lanes<T, vec::vector_bytes>(sum[0]);
    };
    if (n <= chunk) {
        return part(0, n);
    }
    double total = 0;
    for (std::int64_t begin = 0; begin < n; begin += chunk) {
        total += static_cast<double>(part(begin, std::min(n, begin + chunk)));
    }
    return static_cast<T>(total);
}

/// The sum of a[i] b[i].
template <typename T>
inline T dot(const T* a, const T* b, std::int64_t n) {
    return sum_of_terms<T>(
        n, [=]<typename V>(std::int64_t i, V /*kind*/) { return vec::load<V>(a + i) * vec::load<V>(b + i); });
}

/// The sum of a[i].
template <typename T>
inline T sum(const T* a, std::int64_t n) {
    return sum_of_terms<T>(n, [=]<typename V>(std::int64_t i, V /*kind*/) { return vec::load<V>(a + i); });
}

}  // namespace ornik::device::cpu::row
