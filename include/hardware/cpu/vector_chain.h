// vector_chain.h: many chains of fused multiply-adds at once, whose sums stay in registers. Internal.
//
// A kernel is written for a way of taking steps; run_chains() runs it in the ways that there are, quickest first, until
// one vouches for its sums. With the instruction there is one way. Without it, the quick way takes steps in double, is
// right unless a sum lies where a second rounding errs or numbers are huge or tiny, and notices that:
//
//     run_chains<float>([&](auto steps) ORNIK_EXPANDED {
//         auto sum = steps.from(start);                         // a vector
//         for (...) steps.add(steps.weight(*a), steps.factor(load<V>(b)), sum);
//         if (!steps.vouches_for(sum)) return false;
//         store(steps.value(sum), out);
//         return true;
//     });
#pragma once

#include "vector_types.h"

namespace ornik::device::cpu::vec {

/// Every step by fused().
template <typename T>
struct CertainSteps {
    using V = Vector<T>;
    using Sum = V;
    using Factor = V;

    ORNIK_EXPAND static Sum from(const V& v) { return v; }
    ORNIK_EXPAND static V value(const Sum& sum) { return sum; }
    ORNIK_EXPAND static Factor factor(const V& v) { return v; }
    ORNIK_EXPAND static Factor weight(const V& v) { return v; }
    ORNIK_EXPAND static Factor weight(T x) { return broadcast<V>(x); }
    /// The product of a weight and a factor.
    ORNIK_EXPAND static void add(const Factor& a, const Factor& b, Sum& sum) { sum = fused(a, b, sum); }
    ORNIK_EXPAND static void subtract(const Factor& a, const Factor& b, Sum& sum) { sum = fused_minus(a, b, sum); }
    /// Of all sums of a kernel, once.
    template <typename... Sums>
    ORNIK_EXPAND static constexpr bool vouches_for(const Sums&... /*sums*/) {
        return true;
    }
};

#if defined(__SSE2__) && !defined(__AVX__)
#define ORNIK_QUICK_STEPS 1

/// Sums of floats as doubles of the same value, times 2^896: what overflows as a float does so as a double. A double is
/// rounded to a float's digits by adding half a unit of the last one and clearing what is below. That takes the wrong
/// side, or may have rounded twice, where nothing is left below: for one in 2^29 of all sums of random numbers.
struct QuickSteps {
    using V = Vector<float>;
    struct Sum {
        __m128d low, high;
    };
    using Factor = Sum;

    ORNIK_EXPAND static Sum from(const V& v) {
        const __m128d scale = _mm_set1_pd(0x1p896);
        return {_mm_mul_pd(_mm_cvtps_pd((__m128)v), scale), _mm_mul_pd(_mm_cvtps_pd(upper(v)), scale)};
    }
    ORNIK_EXPAND static V value(const Sum& sum) {
        const __m128d scale = _mm_set1_pd(0x1p-896);
        return (V)_mm_movelh_ps(_mm_cvtpd_ps(_mm_mul_pd(sum.low, scale)), _mm_cvtpd_ps(_mm_mul_pd(sum.high, scale)));
    }
    ORNIK_EXPAND Factor factor(const V& v) {
        note((__m128)v, smallest_factor_);
        return {_mm_cvtps_pd((__m128)v), _mm_cvtps_pd(upper(v))};
    }
    ORNIK_EXPAND Factor weight(const V& v) {
        note((__m128)v, smallest_weight_);
        return from(v);
    }
    ORNIK_EXPAND Factor weight(float x) {
        const __m128 v = _mm_set1_ps(x);
        note(v, smallest_weight_);
        const __m128d scaled = _mm_mul_pd(_mm_cvtps_pd(v), _mm_set1_pd(0x1p896));
        return {scaled, scaled};
    }

    ORNIK_EXPAND void add(const Factor& a, const Factor& b, Sum& sum) {
        const __m128i half = _mm_set1_epi64x(0x10000000);
        const __m128i upper_digits = _mm_set1_epi64x(~0x1fffffffLL);
        const __m128i low = _mm_add_epi64((__m128i)_mm_add_pd(_mm_mul_pd(a.low, b.low), sum.low), half);
        const __m128i high = _mm_add_epi64((__m128i)_mm_add_pd(_mm_mul_pd(a.high, b.high), sum.high), half);
        const __m128i below = (__m128i)_mm_shuffle_ps((__m128)low, (__m128)high, 0x88);
        least_rest_ = least(least_rest_, _mm_and_si128(below, _mm_set1_epi32(0x1fffffff)));
        sum = {(__m128d)_mm_and_si128(low, upper_digits), (__m128d)_mm_and_si128(high, upper_digits)};
    }
    ORNIK_EXPAND void subtract(const Factor& a, const Factor& b, Sum& sum) {
        const __m128d sign = _mm_set1_pd(-0.0);
        add({_mm_xor_pd(a.low, sign), _mm_xor_pd(a.high, sign)}, b, sum);
    }

    /// No sum was halfway between floats, none overflowed, and no product had digits below those of the least float.
    template <typename... Sums>
    ORNIK_EXPAND bool vouches_for(const Sums&... sums) const {
        __m128d nothing = _mm_setzero_pd();
        (add_nothing(sums, nothing), ...);
        const __m128i tie = _mm_cmpeq_epi32(least_rest_, _mm_setzero_si128());
        return _mm_movemask_pd(_mm_cmpunord_pd(nothing, nothing)) == 0 && _mm_movemask_ps((__m128)tie) == 0 &&
               exponent_of(smallest_factor_) + exponent_of(smallest_weight_) >= -103;
    }

  private:
    ORNIK_EXPAND static __m128 upper(const V& v) { return _mm_movehl_ps((__m128)v, (__m128)v); }
    ORNIK_EXPAND static __m128i least(__m128i a, __m128i b) {
        using Words = VectorOf<std::uint32_t, 16>::type;
        return (__m128i)((Words)a < (Words)b ? (Words)a : (Words)b);
    }
    /// Keeps the smallest magnitude other than 0, as its bits less 1.
    ORNIK_EXPAND static void note(__m128 v, __m128i& smallest) {
        const __m128i magnitude = _mm_and_si128((__m128i)v, _mm_set1_epi32(0x7fffffff));
        smallest = least(smallest, _mm_add_epi32(magnitude, _mm_set1_epi32(-1)));
    }
    ORNIK_EXPAND static int exponent_of(__m128i smallest) {
        std::uint32_t all[4];
        std::memcpy(all, &smallest, sizeof all);
        std::uint32_t bits = all[0];
        for (int i = 1; i < 4; ++i) {
            bits = all[i] < bits ? all[i] : bits;
        }
        return bits == ~std::uint32_t{0} ? 1000 : static_cast<int>((bits + 1) >> 23) - 127;
    }
    /// Adds 0 for finite sums, NaN for others.
    ORNIK_EXPAND static void add_nothing(const Sum& sum, __m128d& nothing) {
        nothing = _mm_add_pd(nothing, _mm_sub_pd(sum.low, sum.low));
        nothing = _mm_add_pd(nothing, _mm_sub_pd(sum.high, sum.high));
    }
    template <std::size_t Count, typename S>
    ORNIK_EXPAND static void add_nothing(const S (&sums)[Count], __m128d& nothing) {
        ORNIK_UNROLLED for (std::size_t i = 0; i < Count; ++i) { add_nothing(sums[i], nothing); }
    }

    __m128i least_rest_ = _mm_set1_epi32(-1);
    __m128i smallest_factor_ = _mm_set1_epi32(-1);
    __m128i smallest_weight_ = _mm_set1_epi32(-1);
};
#else
#define ORNIK_QUICK_STEPS 0
#endif

/// kernel(steps) returns whether steps vouch for its sums, before it writes any.
template <typename T, typename Kernel>
ORNIK_EXPAND void run_chains(const Kernel& kernel) {
#if ORNIK_QUICK_STEPS
    if constexpr (sizeof(T) == sizeof(float)) {
        if (kernel(QuickSteps())) {
            return;
        }
    }
#endif
    kernel(CertainSteps<T>());
}

}  // namespace ornik::device::cpu::vec
