// row_kernels.h: from a function object on elements to a kernel over whole operands.
#pragma once

#include <algorithm>

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

/// Function objects that are simpler nearer to 0 than a limit specialise this with the limit and a function `value` of
/// the same bits.
template <typename Function, typename T>
struct NearZero {
    static constexpr bool differs = false;
};

/// out[i] = Function()(in[i]), by the simpler function for blocks that lie near 0.
template <typename Function, typename T>
void run_by_nearness(std::int64_t n, T* out, const T* in) {
    constexpr std::int64_t block = 128;
    const Function function{};
    for (std::int64_t first = 0; first < n; first += block, in += block, out += block) {
        const std::int64_t count = std::min(block, n - first);
        int any = 0;
        for (std::int64_t i = 0; i < count; ++i) {
            any |= static_cast<int>(std::fabs(in[i]) >= NearZero<Function, T>::limit);
        }
        if (any != 0) {
            ORNIK_INDEPENDENT_ITERATIONS
            for (std::int64_t i = 0; i < count; ++i) {
                out[i] = function(in[i]);
            }
        } else {
            ORNIK_INDEPENDENT_ITERATIONS
            for (std::int64_t i = 0; i < count; ++i) {
                out[i] = NearZero<Function, T>::value(in[i]);
            }
        }
    }
}

/// out[i] = Function()(in[i]...). Function's call operator has to be ORNIK_IN_PLACE.
template <typename Function, typename Out, typename First, typename... Rest>
void run_function_rows(const MultiTensorIterationHelper& elements) {
    using Beyond = BeyondLimit<Function, First>;
    elements.run_rows<TypeList<Out>, TypeList<First, Rest...>>([](std::int64_t n, Out* out, const First* first,
                                                                  const Rest*... rest) {
        if constexpr (NearZero<Function, First>::differs) {
            run_by_nearness<Function>(n, out, first, rest...);
            return;
        }
        const Function function{};
        if constexpr (Beyond::needed) {
            const auto beyond = [](First x) { return std::fabs(x) > elementary::circular_limit<First>; };
            int any = 0;
            for (std::int64_t i = 0; i < n; ++i) {
                any |= static_cast<int>(beyond(first[i]));
            }
            if (any != 0) {
                for (std::int64_t i = 0; i < n; ++i) {
                    out[i] = beyond(first[i]) ? Beyond::value(first[i], rest[i]...) : function(first[i], rest[i]...);
                }
                return;
            }
        }
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t i = 0; i < n; ++i) {
            out[i] = function(first[i], rest[i]...);
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
