// row_kernels.h: from a function object on elements to a kernel over whole operands.
#pragma once

#include <algorithm>
#include <bit>
#include <cstring>

#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/cpu_elements.h"
#include "hardware/cpu/elements/elementary.h"

namespace ornik::device::cpu {

/// Function objects whose vectorised code is good up to elementary::circular_limit only specialise this with
/// a function `value` for the elements beyond.
template <typename Function, typename T>
struct BeyondLimit {
    static constexpr bool needed = false;
};

/// Function objects that do better with vectors written out than with those that compilers make of loops specialise
/// this.
template <typename Function, typename T>
struct InVectors {
    static constexpr bool better = false;
};
/// Those that are simpler nearer to 0 than a limit specialise this, too, with the limit and a function `value` of the
/// same bits.
template <typename Function, typename T>
struct NearZero {
    static constexpr bool differs = false;
};

/// out[i] = Function()(first[i], rest[i]...), in vectors.
template <typename Function, typename... Rest>
void run_in_vectors(std::int64_t n, float* out, const float* first, const Rest*... rest) {
    using V = vec::Vector<float>;
    constexpr std::int64_t width = vec::lanes<float>;
    const Function function{};
    std::int64_t i = 0;
    if constexpr (NearZero<Function, float>::differs) {
        using Near = NearZero<Function, float>;
        constexpr int together = vec::has_forms ? 4 : 1;
        for (; i + together * width <= n; i += together * width) {
            vec::Bits<V> most{};
            ORNIK_UNROLLED
            for (int v = 0; v < together; ++v) {
                const auto size = vec::bits_of(elementary::magnitude(vec::load<V>(first + i + v * width)));
                most = most > size ? most : size;
            }
            if (vec::any_from(most, std::bit_cast<std::uint32_t>(Near::limit))) {
                ORNIK_UNROLLED
                for (std::int64_t at = i; at < i + together * width; at += width) {
                    vec::store(function(vec::load<V>(first + at), vec::load<V>(rest + at)...), out + at);
                }
            } else {
                ORNIK_UNROLLED
                for (std::int64_t at = i; at < i + together * width; at += width) {
                    vec::store(Near::value(vec::load<V>(first + at), vec::load<V>(rest + at)...), out + at);
                }
            }
        }
    }
    for (; i + width <= n; i += width) {
        vec::store(function(vec::load<V>(first + i), vec::load<V>(rest + i)...), out + i);
    }
    if (i < n) {
        const auto bytes = static_cast<std::size_t>(n - i) * sizeof(float);
        const auto last = [&](const float* from) {
            V x{};
            std::memcpy(&x, from + i, bytes);
            return x;
        };
        const V values = function(last(first), last(rest)...);
        std::memcpy(out + i, &values, bytes);
    }
}

/// out[i] = Function()(in[i]...), in a loop that compilers make vectors of.
template <typename Function, typename Out, typename... In>
void run_plainly(std::int64_t n, Out* out, const In*... in) {
    const Function function{};
    ORNIK_INDEPENDENT_ITERATIONS
    for (std::int64_t i = 0; i < n; ++i) {
        out[i] = function(in[i]...);
    }
}

/// Function objects that mostly have a shorter way to the same bits specialise this with a function `value`, which sets
/// its last argument where that can not tell.
template <typename Function, typename T>
struct Surely {
    static constexpr bool known = false;
};

/// out[i] = Function()(in[i]...), the shorter way.
template <typename Function, typename Out, typename... In>
void run_surely(std::int64_t n, Out* out, const In*... in) {
    constexpr std::int64_t block = 128;
    Out values[block];
    for (std::int64_t first = 0; first < n; first += block) {
        const std::int64_t count = std::min(block, n - first);
        int unsure = 0;
        for (std::int64_t i = 0; i < count; ++i) {
            values[i] = Surely<Function, Out>::value(in[first + i]..., unsure);
        }
        if (unsure == 0) {
            std::copy_n(values, count, out + first);
            continue;
        }
        run_plainly<Function>(count, out + first, in + first...);
    }
}

/// out[i] = Function()(first[i], rest[i]...), where elements beyond the limit take another way. Blocks stay in the
/// first cache while they are looked through.
template <typename Function, typename Out, typename First, typename... Rest>
void run_up_to_limit(std::int64_t n, Out* out, const First* first, const Rest*... rest) {
    using Beyond = BeyondLimit<Function, First>;
    constexpr std::int64_t block = 1024;
    const auto beyond = [](First x) { return std::fabs(x) > elementary::circular_limit<First>; };
    const Function function{};
    for (std::int64_t begin = 0; begin < n; begin += block) {
        const std::int64_t end = std::min(begin + block, n);
        int any = 0;
        for (std::int64_t i = begin; i < end; ++i) {
            any |= static_cast<int>(beyond(first[i]));
        }
        if (any == 0) {
            run_plainly<Function>(end - begin, out + begin, first + begin, rest + begin...);
            continue;
        }
        for (std::int64_t i = begin; i < end; ++i) {
            out[i] = beyond(first[i]) ? Beyond::value(first[i], rest[i]...) : function(first[i], rest[i]...);
        }
    }
}

/// out[i] = Function()(in[i]...). Function's call operator has to be ORNIK_IN_PLACE.
template <typename Function, typename Out, typename First, typename... Rest>
void run_function_rows(const MultiTensorIterationHelper& elements) {
    elements.run_rows<TypeList<Out>, TypeList<First, Rest...>>(
        [](std::int64_t n, Out* out, const First* first, const Rest*... rest) {
            if constexpr (InVectors<Function, First>::better) {
                run_in_vectors<Function>(n, out, first, rest...);
            } else if constexpr (Surely<Function, First>::known) {
                run_surely<Function>(n, out, first, rest...);
            } else if constexpr (BeyondLimit<Function, First>::needed) {
                run_up_to_limit<Function>(n, out, first, rest...);
            } else {
                run_plainly<Function>(n, out, first, rest...);
            }
        });
}

template <typename Function, typename Types>
void unary_kernel(const MultiTensorIterationHelper& elements, std::int64_t dtype) {
    dispatch(Types{}, dtype,
             [&]<typename T>() { run_function_rows<Function, decltype(Function{}(T{})), T>(elements); });
}

template <typename Function, typename Types>
void binary_kernel(const MultiTensorIterationHelper& elements, std::int64_t dtype) {
    dispatch(Types{}, dtype,
             [&]<typename T>() { run_function_rows<Function, decltype(Function{}(T{}, T{})), T, T>(elements); });
}

}  // namespace ornik::device::cpu

#define ORNIK_IN_VECTORS(function)           \
    template <>                              \
    struct InVectors<function, float> {      \
        static constexpr bool better = true; \
    };

// Function objects and table rows of the operations in a list: functions stand in FUNCTIONS.
#define ORNIK_UNARY_FUNCTION(name, ...)             \
    struct name##_function {                        \
        template <typename T>                       \
        ORNIK_IN_PLACE auto operator()(T x) const { \
            return FUNCTIONS::name(x);              \
        }                                           \
    };
#define ORNIK_BINARY_FUNCTION(name, ...)                 \
    struct name##_function {                             \
        template <typename T>                            \
        ORNIK_IN_PLACE auto operator()(T a, T b) const { \
            return FUNCTIONS::name(a, b);                \
        }                                                \
    };
