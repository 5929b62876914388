// vector_types.h: vectors as the processor takes them, and the one fused multiply-add. Internal.
//
// The width follows from what a file is compiled for. Kernels are written for any width, and no result may depend on
// it: an element's sum is a chain in one lane. Where the processor has no fused multiply-add, fused() computes the same
// value another way. Files that fuse in earnest are named *_vector.cpp (cmake/SourceOptions.cmake): everywhere else
// GCC is denied the instructions. All functions are expanded in place, since files of other widths call them, too.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) && defined(__FMA__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

#if defined(__GNUC__)
#define ORNIK_EXPAND [[gnu::always_inline]] inline
#else
#define ORNIK_EXPAND inline
#endif

// Arrays of vectors are in registers only where every loop over them is gone.
#if defined(__clang__)
#define ORNIK_UNROLLED _Pragma("unroll")
#elif defined(__GNUC__)
#define ORNIK_UNROLLED _Pragma("GCC unroll 16")
#else
#define ORNIK_UNROLLED
#endif

namespace ornik::device::cpu::vec {

#if defined(__GNUC__) && defined(__AVX512F__)
inline constexpr int vector_bytes = 64;
#elif defined(__GNUC__) && defined(__AVX__)
inline constexpr int vector_bytes = 32;
#else
inline constexpr int vector_bytes = 16;
#endif
/// Registers that hold vectors.
#if defined(__AVX512F__) || defined(__aarch64__)
inline constexpr int vector_registers = 32;
#else
inline constexpr int vector_registers = 16;
#endif

template <typename T, int Bytes>
struct VectorOf {
#if defined(__GNUC__)
    typedef T type __attribute__((vector_size(Bytes)));
#else
    using type = T;
#endif
};
/// Elements side by side; operators apply to each. One element where the compiler has no vectors.
template <typename T, int Bytes = vector_bytes>
using Vector = typename VectorOf<T, Bytes>::type;
template <typename T, int Bytes = vector_bytes>
inline constexpr int lanes = static_cast<int>(sizeof(Vector<T, Bytes>) / sizeof(T));

/// From any address.
template <typename V, typename T>
ORNIK_EXPAND V load(const T* from) {
    V v;
    std::memcpy(&v, from, sizeof(V));
    return v;
}

template <typename V, typename T>
ORNIK_EXPAND void store(const V& v, T* to) {
    std::memcpy(to, &v, sizeof(V));
}

template <typename V, typename T>
ORNIK_EXPAND V broadcast(T x) {
    return x - V{};  // -0 stays -0.
}

/// The processor is to have the line at `at` near, to be read or to be written.
template <typename T>
ORNIK_EXPAND void prefetch([[maybe_unused]] const T* at) {
#if defined(__GNUC__)
    __builtin_prefetch(at, 0);
#endif
}
/// In the second level of cache.
template <typename T>
ORNIK_EXPAND void prefetch_near([[maybe_unused]] const T* at) {
#if defined(__GNUC__)
    __builtin_prefetch(at, 0, 2);
#endif
}
template <typename T>
ORNIK_EXPAND void prefetch_for_writing([[maybe_unused]] const T* at) {
#if defined(__GNUC__)
    __builtin_prefetch(at, 1);
#endif
}

#if defined(__FMA__) || defined(__aarch64__)
#define ORNIK_FUSES 1
#else
#define ORNIK_FUSES 0
#endif

namespace detail {

/// A sum and what its rounding lost (D. Knuth, The Art of Computer Programming, volume 2, 4.2.2).
struct ExactSum {
    double sum, rest;
};
ORNIK_EXPAND ExactSum exact_sum(double a, double b) {
    const double sum = a + b;
    const double part = sum - a;
    return {sum, (a - (sum - part)) + (b - part)};
}

/// A sum that is not exact is rounded to an odd last digit, which a second rounding never takes for a tie (S. Boldo, G.
/// Melquiond, Emulation of a FMA and correctly rounded sums, 2008).
ORNIK_EXPAND double odd_sum(double a, double b) {
    const auto [sum, rest] = exact_sum(a, b);
    const auto bits = std::bit_cast<std::int64_t>(sum);
    const std::int64_t outwards = (rest < 0) == (sum < 0) ? 1 : -1;
    return std::bit_cast<double>(bits + ((rest < 0 || rest > 0) && (bits & 1) == 0 ? outwards : 0));
}

/// The half of the digits that are worth most.
ORNIK_EXPAND double upper_half(double x) {
    const double scaled = x * 0x1.0000002p27;
    return scaled - (scaled - x);
}

}  // namespace detail

/// a b + c, rounded once.
ORNIK_EXPAND float fused(float a, float b, float c) {
#if ORNIK_FUSES
    return std::fma(a, b, c);
#else
    return static_cast<float>(detail::odd_sum(double{a} * double{b}, double{c}));  // The product is exact.
#endif
}
ORNIK_EXPAND double fused(double a, double b, double c) { return std::fma(a, b, c); }

/// The same without a call, which loops need to become vector code: of factors below 2^900 whose product is no
/// infinity, and is 0, above 2^-900, or of no account beside c.
ORNIK_EXPAND float fused_in_range(float a, float b, float c) { return fused(a, b, c); }
ORNIK_EXPAND double fused_in_range(double a, double b, double c) {
#if ORNIK_FUSES
    return std::fma(a, b, c);
#else
    const double a_high = detail::upper_half(a);
    const double a_low = a - a_high;
    const double b_high = detail::upper_half(b);
    const double b_low = b - b_high;
    const double product = a * b;
    const double lost = a_low * b_low - (((product - a_high * b_high) - a_low * b_high) - a_high * b_low);
    const auto [low, lowest] = detail::exact_sum(c, lost);
    const auto [high, middle] = detail::exact_sum(product, low);
    return high + detail::odd_sum(middle, lowest);
#endif
}

#if defined(__GNUC__)
template <typename V>
ORNIK_EXPAND V fused(V a, V b, V c) requires(sizeof(V) > sizeof(double)) {
    [[maybe_unused]] constexpr bool single = sizeof(a[0]) == sizeof(float);
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64) {
        if constexpr (single) {
            return (V)_mm512_fmadd_ps((__m512)a, (__m512)b, (__m512)c);
        } else {
            return (V)_mm512_fmadd_pd((__m512d)a, (__m512d)b, (__m512d)c);
        }
    }
#endif
#if defined(__x86_64__) && defined(__FMA__)
    if constexpr (sizeof(V) == 32) {
        if constexpr (single) {
            return (V)_mm256_fmadd_ps((__m256)a, (__m256)b, (__m256)c);
        } else {
            return (V)_mm256_fmadd_pd((__m256d)a, (__m256d)b, (__m256d)c);
        }
    }
    if constexpr (sizeof(V) == 16) {
        if constexpr (single) {
            return (V)_mm_fmadd_ps((__m128)a, (__m128)b, (__m128)c);
        } else {
            return (V)_mm_fmadd_pd((__m128d)a, (__m128d)b, (__m128d)c);
        }
    }
#elif defined(__aarch64__)
    if constexpr (sizeof(V) == 16) {
        if constexpr (single) {
            return (V)vfmaq_f32((float32x4_t)c, (float32x4_t)a, (float32x4_t)b);
        } else {
            return (V)vfmaq_f64((float64x2_t)c, (float64x2_t)a, (float64x2_t)b);
        }
    }
#endif
    for (unsigned i = 0; i < sizeof(V) / sizeof(a[0]); ++i) {
        c[i] = fused(a[i], b[i], c[i]);
    }
    return c;
}
#endif

/// c - a b, rounded once.
template <typename V>
ORNIK_EXPAND V fused_minus(V a, V b, V c) {
#if defined(__x86_64__) && defined(__FMA__)
    // The compiler would rather negate an operand.
    if constexpr (sizeof(V) == 64) {
#if defined(__AVX512F__)
        if constexpr (sizeof(a[0]) == sizeof(float)) {
            return (V)_mm512_fnmadd_ps((__m512)a, (__m512)b, (__m512)c);
        } else {
            return (V)_mm512_fnmadd_pd((__m512d)a, (__m512d)b, (__m512d)c);
        }
#endif
    } else if constexpr (sizeof(V) == 32) {
        if constexpr (sizeof(a[0]) == sizeof(float)) {
            return (V)_mm256_fnmadd_ps((__m256)a, (__m256)b, (__m256)c);
        } else {
            return (V)_mm256_fnmadd_pd((__m256d)a, (__m256d)b, (__m256d)c);
        }
    }
#endif
    return fused(-a, b, c);
}

}  // namespace ornik::device::cpu::vec
