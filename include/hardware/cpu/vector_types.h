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

/// a b + c, rounded once.
ORNIK_EXPAND double fused(double a, double b, double c) { return std::fma(a, b, c); }
ORNIK_EXPAND float fused(float a, float b, float c) {
#if defined(__FMA__) || defined(__aarch64__)
    return std::fma(a, b, c);
#else
    // The product is exact in double. A sum that is not is rounded to an odd last digit, which the second rounding
    // never takes for a tie.
    const double product = double{a} * double{b};
    const double sum = product + double{c};
    const double part = sum - product;
    const double rest = (product - (sum - part)) + (double{c} - part);
    auto bits = std::bit_cast<std::uint64_t>(sum);
    if ((rest < 0 || rest > 0) && (bits & 1) == 0) {
        bits += (rest < 0) == (sum < 0) ? 1 : -1;
    }
    return static_cast<float>(std::bit_cast<double>(bits));
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
