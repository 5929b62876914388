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
#include <type_traits>

#if defined(__SSE2__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

#if defined(__GNUC__)
#define ORNIK_EXPAND [[gnu::always_inline]] inline
#define ORNIK_EXPANDED __attribute__((always_inline))  // of lambdas
#else
#define ORNIK_EXPAND inline
#define ORNIK_EXPANDED
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

/// Are there kernels for special cases? Where a fused step takes many instructions, code for each case is large, and
/// what it spares is little.
inline constexpr bool has_forms = ORNIK_FUSES != 0;

// Without the instruction, loops that GCC vectorises call functions on whole vectors (cpu_fused_vector.cpp).
#if defined(__GNUC__) && !defined(__clang__) && defined(__SSE2__) && !defined(__AVX__) && defined(__ELF__)
#define ORNIK_VECTOR_CALLS 1
#else
#define ORNIK_VECTOR_CALLS 0
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
    // Towards zero, then to an odd digit.
    const std::int64_t inexact = std::fabs(rest) > 0 ? 1 : 0;
    const auto opposite =
        static_cast<std::int64_t>((std::bit_cast<std::uint64_t>(sum) ^ std::bit_cast<std::uint64_t>(rest)) >> 63);
    return std::bit_cast<double>((std::bit_cast<std::int64_t>(sum) - (inexact & opposite)) | inexact);
}

/// The half of the digits that are worth most.
ORNIK_EXPAND double upper_half(double x) {
    const double scaled = x * 0x1.0000002p27;
    return scaled - (scaled - x);
}

#if !ORNIK_FUSES
/// With whole numbers: standard libraries are not to be trusted with std::fma everywhere.
[[gnu::noinline]] inline double fused_by_digits(double a, double b, double c) {
    if (!(std::fabs(a) < HUGE_VAL && std::fabs(b) < HUGE_VAL) || a == 0 || b == 0) {
        return a * b + c;
    }
    if (!(std::fabs(c) < HUGE_VAL)) {
        return c;
    }
    __extension__ using Wide = unsigned __int128;
    struct Number {
        Wide digits;  // of 53 bits, or 0
        int exponent;
    };
    const auto taken_apart = [](double x) {
        int exponent = 0;
        const double digits = std::ldexp(std::frexp(std::fabs(x), &exponent), 53);
        return Number{static_cast<Wide>(digits), exponent - 53};
    };
    const Number x = taken_apart(a);
    const Number y = taken_apart(b);
    const Number z = taken_apart(c);
    // From bit 124 of a product, or bit 125 of a c far above it, down: what is shifted out lies below all that counts.
    Wide product = (x.digits * y.digits) << 20;
    Wide added = z.digits;
    int exponent = x.exponent + y.exponent - 20;
    const int distance = c == 0 ? 0 : z.exponent - exponent;
    bool more = false;
    const auto shifted_right = [&more](Wide digits, int count) {
        more = count > 127 ? digits != 0 : (digits & ((Wide{1} << count) - 1)) != 0;
        return count > 127 ? Wide{0} : digits >> count;
    };
    if (distance > 73) {
        added <<= 73;
        product = shifted_right(product, distance - 73);
        exponent = z.exponent - 73;
    } else if (distance >= 0) {
        added <<= distance;
    } else {
        added = shifted_right(added, -distance);
    }
    const bool product_negative = std::signbit(a) != std::signbit(b);
    const bool apart = product_negative != std::signbit(c);
    const bool smaller = product < added;
    Wide sum = !apart ? product + added : (smaller ? added - product : product - added);
    bool negative = apart && smaller ? std::signbit(c) : product_negative;
    if (apart && more) {
        --sum;
    }
    if (sum == 0 && !more) {
        return 0;
    }
    int length = 0;
    for (Wide rest = sum; rest != 0; rest >>= 1) {
        ++length;
    }
    const int last = length - 53 + exponent < -1074 ? -1074 : length - 53 + exponent;
    if (last > exponent) {
        const int count = last - exponent;
        const Wide kept = count > 127 ? 0 : sum >> count;
        const Wide half = count > 127 ? 0 : Wide{1} << (count - 1);
        const Wide rest = count > 127 ? 0 : sum & ((half << 1) - 1);
        const bool up = rest > half || (rest == half && half != 0 && (more || (kept & 1) != 0));
        sum = kept + (up ? 1 : 0);
        exponent = last;
    }
    const double size = std::ldexp(static_cast<double>(static_cast<std::uint64_t>(sum)), exponent);
    return negative ? -size : size;
}
#endif

}  // namespace detail

/// a b + c, rounded once.
ORNIK_EXPAND float fused(float a, float b, float c) {
#if ORNIK_FUSES
    return std::fma(a, b, c);
#else
    return static_cast<float>(detail::odd_sum(double{a} * double{b}, double{c}));  // The product is exact.
#endif
}

#if defined(__SSE2__) && !ORNIK_FUSES
namespace detail {

[[gnu::noinline]] inline __m128 fused_carefully(__m128 a, __m128 b, __m128 c) {
    using Lanes = VectorOf<float, 16>::type;
    for (int i = 0; i < 4; ++i) {
        ((Lanes&)c)[i] = fused(((Lanes)a)[i], ((Lanes)b)[i], ((Lanes)c)[i]);
    }
    return c;
}
[[gnu::noinline]] inline __m128d fused_carefully(__m128d a, __m128d b, __m128d c) {
    using Lanes = VectorOf<double, 16>::type;
    return (__m128d)Lanes{fused_by_digits(((Lanes)a)[0], ((Lanes)b)[0], ((Lanes)c)[0]),
                          fused_by_digits(((Lanes)a)[1], ((Lanes)b)[1], ((Lanes)c)[1])};
}

/// Sums in double are rounded twice: for the worse where the first rounding leaves nothing or half of a last digit, or
/// where the result has fewer digits.
ORNIK_EXPAND __m128 fused_in_double(__m128 a, __m128 b, __m128 c) {
    const auto low = [](__m128 v) { return _mm_cvtps_pd(v); };
    const auto high = [](__m128 v) { return _mm_cvtps_pd(_mm_movehl_ps(v, v)); };
    const __m128d sum_low = _mm_add_pd(_mm_mul_pd(low(a), low(b)), low(c));
    const __m128d sum_high = _mm_add_pd(_mm_mul_pd(high(a), high(b)), high(c));
    const __m128 sum = _mm_movelh_ps(_mm_cvtpd_ps(sum_low), _mm_cvtpd_ps(sum_high));
    const __m128i digits = (__m128i)_mm_shuffle_ps((__m128)sum_low, (__m128)sum_high, 0x88);
    const __m128i half = _mm_set1_epi32(0x10000000);
    const __m128i tie = _mm_cmpeq_epi32(_mm_and_si128(digits, _mm_set1_epi32(0x1fffffff)), half);
    const __m128i magnitude = _mm_and_si128((__m128i)sum, _mm_set1_epi32(0x7fffffff));
    const __m128i small = _mm_and_si128(_mm_cmpgt_epi32(_mm_set1_epi32(0x00800001), magnitude),
                                        _mm_cmpgt_epi32(magnitude, _mm_setzero_si128()));
    if (_mm_movemask_ps((__m128)_mm_or_si128(tie, small)) != 0) [[unlikely]] {
        return fused_carefully(a, b, c);
    }
    return sum;
}

/// By parts of which all products and sums are exact but for the last two. The first of these errs only if the second
/// rounds a tie.
ORNIK_EXPAND __m128d fused_in_double(__m128d a, __m128d b, __m128d c) {
    const auto upper = [](__m128d x) {
        const __m128d scaled = _mm_mul_pd(x, _mm_set1_pd(0x1.0000002p27));
        return _mm_sub_pd(scaled, _mm_sub_pd(scaled, x));
    };
    const __m128d a_high = upper(a);
    const __m128d a_low = _mm_sub_pd(a, a_high);
    const __m128d b_high = upper(b);
    const __m128d b_low = _mm_sub_pd(b, b_high);
    const __m128d product = _mm_mul_pd(a, b);
    const __m128d lost =
        _mm_add_pd(_mm_mul_pd(a_low, b_low),
                   _mm_add_pd(_mm_mul_pd(a_high, b_low),
                              _mm_add_pd(_mm_mul_pd(a_low, b_high), _mm_sub_pd(_mm_mul_pd(a_high, b_high), product))));
    const __m128d sum = _mm_add_pd(product, c);
    const __m128d part = _mm_sub_pd(sum, product);
    const __m128d rest = _mm_add_pd(_mm_add_pd(_mm_sub_pd(product, _mm_sub_pd(sum, part)), _mm_sub_pd(c, part)), lost);
    const __m128d result = _mm_add_pd(sum, rest);
    // A little more than what is left makes no difference but beside a tie.
    const __m128d left = _mm_sub_pd(rest, _mm_sub_pd(result, sum));
    const __m128d more = _mm_add_pd(result, _mm_mul_pd(left, _mm_set1_pd(1 + 0x1p-40)));
    const __m128d magnitude = _mm_andnot_pd(_mm_set1_pd(-0.0), product);
    const __m128d sized =
        _mm_and_pd(_mm_cmpgt_pd(magnitude, _mm_set1_pd(0x1p-900)), _mm_cmplt_pd(magnitude, _mm_set1_pd(0x1p900)));
    if (_mm_movemask_pd(_mm_and_pd(sized, _mm_cmpeq_pd(result, more))) != 3) [[unlikely]] {
        // Of no product, only the sign counts.
        const __m128d zero = _mm_setzero_pd();
        const __m128d none = _mm_or_pd(_mm_cmpeq_pd(a, zero), _mm_cmpeq_pd(b, zero));
        const __m128d sure = _mm_and_pd(_mm_or_pd(sized, none), _mm_cmpeq_pd(result, more));
        return _mm_movemask_pd(sure) == 3 ? _mm_or_pd(_mm_and_pd(none, sum), _mm_andnot_pd(none, result))
                                          : fused_carefully(a, b, c);
    }
    return result;
}

}  // namespace detail
#endif

ORNIK_EXPAND double fused(double a, double b, double c) {
#if ORNIK_FUSES
    return std::fma(a, b, c);
#elif defined(__SSE2__)
    return _mm_cvtsd_f64(detail::fused_in_double(_mm_set1_pd(a), _mm_set1_pd(b), _mm_set1_pd(c)));
#else
    return detail::fused_by_digits(a, b, c);
#endif
}

// The instruction of x86-64 for vectors a, b and c of any width; nothing where there is none.
#define ORNIK_FUSED_OF(bytes, prefix, type, instruction)                               \
    if constexpr (sizeof(V) == (bytes)) {                                              \
        if constexpr (sizeof(a[0]) == sizeof(float)) {                                 \
            return (V)prefix##_##instruction##_ps((type)a, (type)b, (type)c);          \
        } else {                                                                       \
            return (V)prefix##_##instruction##_pd((type##d)a, (type##d)b, (type##d)c); \
        }                                                                              \
    }
#if defined(__AVX512F__)
#define ORNIK_FUSED_BY(instruction)                 \
    ORNIK_FUSED_OF(64, _mm512, __m512, instruction) \
    ORNIK_FUSED_OF(32, _mm256, __m256, instruction) \
    ORNIK_FUSED_OF(16, _mm, __m128, instruction)
#elif defined(__FMA__)
#define ORNIK_FUSED_BY(instruction)                 \
    ORNIK_FUSED_OF(32, _mm256, __m256, instruction) \
    ORNIK_FUSED_OF(16, _mm, __m128, instruction)
#else
#define ORNIK_FUSED_BY(instruction)
#endif

#if defined(__GNUC__)
template <typename V>
ORNIK_EXPAND V fused(V a, V b, V c) requires(sizeof(V) > sizeof(double)) {
    [[maybe_unused]] constexpr bool single = sizeof(a[0]) == sizeof(float);
    ORNIK_FUSED_BY(fmadd)
#if ORNIK_FUSES && !defined(__FMA__)
    if constexpr (sizeof(V) == 16) {
        if constexpr (single) {
            return (V)vfmaq_f32((float32x4_t)c, (float32x4_t)a, (float32x4_t)b);
        } else {
            return (V)vfmaq_f64((float64x2_t)c, (float64x2_t)a, (float64x2_t)b);
        }
    }
#elif defined(__SSE2__) && !ORNIK_FUSES
    if constexpr (sizeof(V) == 16) {
        if constexpr (single) {
            return (V)detail::fused_in_double((__m128)a, (__m128)b, (__m128)c);
        } else {
            return (V)detail::fused_in_double((__m128d)a, (__m128d)b, (__m128d)c);
        }
    }
#endif
    for (unsigned i = 0; i < sizeof(V) / sizeof(a[0]); ++i) {
        c[i] = fused(a[i], b[i], c[i]);
    }
    return c;
}
#endif

/// c - a b, rounded once. Left to itself, the compiler would rather negate an operand.
template <typename V>
ORNIK_EXPAND V fused_minus(V a, V b, V c) {
    ORNIK_FUSED_BY(fnmadd)
    return fused(-a, b, c);
}
/// a b - c, rounded once.
template <typename V>
ORNIK_EXPAND V fused_less(V a, V b, V c) {
    ORNIK_FUSED_BY(fmsub)
    return fused(a, b, -c);
}

#undef ORNIK_FUSED_BY
#undef ORNIK_FUSED_OF

// ---- Functions of elements: one number or many side by side, with the same bits ----

/// One float, or as many as the processor takes together.
template <typename V>
concept Singles = std::is_same_v<V, float> || std::is_same_v<V, Vector<float>>;

/// The bits of floats. Comparisons of vectors give all of them or none.
template <typename V>
using Bits = std::conditional_t<sizeof(V) == sizeof(float), std::uint32_t, Vector<std::uint32_t, sizeof(V)>>;
template <Singles V>
ORNIK_EXPAND Bits<V> bits_of(V v) {
    return std::bit_cast<Bits<V>>(v);
}
template <Singles V>
ORNIK_EXPAND V from_bits(Bits<V> bits) {
    return std::bit_cast<V>(bits);
}

// Intrinsics of 512 bits are the masked ones: GCC 12 takes what the others leave open for a mistake of their caller.

/// a > b ? a : b, for each.
template <Singles V>
ORNIK_EXPAND V larger(V a, V b) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64) {
        return (V)_mm512_maskz_max_ps(0xffff, (__m512)a, (__m512)b);
    }
#endif
#if defined(__AVX__)
    if constexpr (sizeof(V) == 32) {
        return (V)_mm256_max_ps((__m256)a, (__m256)b);
    }
#endif
#if defined(__SSE2__)
    if constexpr (sizeof(V) == 16) {
        return (V)_mm_max_ps((__m128)a, (__m128)b);
    }
#endif
    return a > b ? a : b;
}
/// a < b ? a : b, for each.
template <Singles V>
ORNIK_EXPAND V smaller(V a, V b) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64) {
        return (V)_mm512_maskz_min_ps(0xffff, (__m512)a, (__m512)b);
    }
#endif
#if defined(__AVX__)
    if constexpr (sizeof(V) == 32) {
        return (V)_mm256_min_ps((__m256)a, (__m256)b);
    }
#endif
#if defined(__SSE2__)
    if constexpr (sizeof(V) == 16) {
        return (V)_mm_min_ps((__m128)a, (__m128)b);
    }
#endif
    return a < b ? a : b;
}

/// x 2^k, rounded once, for a whole k from -254 to 254; the low bits of `biased` are k + 254.
template <Singles V>
ORNIK_EXPAND V scaled(V x, [[maybe_unused]] V k, [[maybe_unused]] Bits<V> biased) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64) {
        return (V)_mm512_maskz_scalef_ps(0xffff, (__m512)x, (__m512)k);
    }
#endif
    // Two factors, the exponents of which are the halves.
    const Bits<V> half = biased >> 1;
    return x * from_bits<V>(half << 23) * from_bits<V>((biased - half) << 23);
}

/// table[i] of eight, where the low three bits are i.
template <Singles V>
ORNIK_EXPAND V looked_up(const float (&table)[8], Bits<V> bits) {
#if defined(__AVX512DQ__)
    if constexpr (sizeof(V) == 64) {
        const __m512 twice = _mm512_maskz_broadcast_f32x8(0xffff, _mm256_loadu_ps(table));
        return (V)_mm512_maskz_permutexvar_ps(0xffff, (__m512i)bits, twice);
    }
#endif
#if defined(__AVX2__)
    if constexpr (sizeof(V) == 32) {
        return (V)_mm256_permutevar8x32_ps(_mm256_loadu_ps(table), (__m256i)bits);
    }
#endif
    if constexpr (sizeof(V) == sizeof(float)) {
        return table[bits & 7];
    } else {
        V values;
        for (unsigned i = 0; i < sizeof(V) / sizeof(float); ++i) {
            values[i] = table[bits[i] & 7];
        }
        return values;
    }
}

/// Whether one of them is at least as large.
template <typename B>
ORNIK_EXPAND bool any_from(B numbers, std::uint32_t least) {
    if constexpr (sizeof(B) == sizeof(least)) {
        return numbers >= least;
    } else {
#if defined(__AVX512F__)
        if constexpr (sizeof(B) == 64) {
            return _mm512_cmpge_epu32_mask((__m512i)numbers, _mm512_set1_epi32(static_cast<int>(least))) != 0;
        }
#endif
        const auto found = numbers >= least;
#if defined(__AVX__)
        if constexpr (sizeof(B) == 32) {
            return _mm256_movemask_ps((__m256)found) != 0;
        }
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(B) == 16) {
            return _mm_movemask_ps((__m128)found) != 0;
        }
#endif
        std::uint32_t any = 0;
        for (unsigned i = 0; i < sizeof(B) / sizeof(least); ++i) {
            any |= static_cast<std::uint32_t>(found[i]);
        }
        return any != 0;
    }
}

}  // namespace ornik::device::cpu::vec
