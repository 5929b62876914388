#include "descriptors/element_load.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/cpu_row_end.h"
#include "hardware/cpu/elements/elementary.h"
#include "real_functions.h"
#include "row_kernels.h"

namespace ornik::device::cpu {

namespace {

template <typename T>
ORNIK_IN_PLACE T cut(T x, T low, T high) {
    const T above = x < low ? low : x;
    return above > high ? high : above;
}

#define ORNIK_ROW_END(name, value)               \
    struct name##_end {                          \
        template <typename T>                    \
        ORNIK_IN_PLACE T operator()(T x) const { \
            return value;                        \
        }                                        \
    };
ORNIK_ROW_END(relu, x <= T(0) ? T(0) : x)
ORNIK_ROW_END(relu6, cut(x, T(0), T(6)))
ORNIK_ROW_END(sigmoid, real_functions::sigmoid(x))
ORNIK_ROW_END(tanh, real_functions::tanh(x))
ORNIK_ROW_END(silu, real_functions::silu(x))
ORNIK_ROW_END(gelu, real_functions::gelu(x))
ORNIK_ROW_END(hardsigmoid, cut(x + T(3), T(0), T(6)) / T(6))
ORNIK_ROW_END(hardswish, x* cut(x + T(3), T(0), T(6)) / T(6))

}  // namespace

ORNIK_IN_VECTORS(sigmoid_end)
ORNIK_IN_VECTORS(silu_end)
ORNIK_IN_VECTORS(gelu_end)
template <>
struct NearZero<gelu_end, float> : real_functions::GeluNear {};

namespace {

template <typename End, typename T>
void run_row(void* elements, std::int64_t count) {
    T* const x = static_cast<T*>(elements);
    if constexpr (InVectors<End, T>::better) {
        run_in_vectors<End>(count, x, x);
        return;
    }
    const End end{};
    ORNIK_INDEPENDENT_ITERATIONS
    for (std::int64_t i = 0; i < count; ++i) {
        x[i] = end(x[i]);
    }
}

template <typename T>
RowFunction function_of(RowEnd end) {
    switch (end) {
        case RowEnd::relu:
            return run_row<relu_end, T>;
        case RowEnd::relu6:
            return run_row<relu6_end, T>;
        case RowEnd::sigmoid:
            return run_row<sigmoid_end, T>;
        case RowEnd::tanh:
            return run_row<tanh_end, T>;
        case RowEnd::silu:
            return run_row<silu_end, T>;
        case RowEnd::gelu:
            return run_row<gelu_end, T>;
        case RowEnd::hardsigmoid:
            return run_row<hardsigmoid_end, T>;
        case RowEnd::hardswish:
            return run_row<hardswish_end, T>;
        default:
            return nullptr;
    }
}

}  // namespace

RowFunction row_end(std::int64_t dtype, RowEnd end) {
    RowFunction result = nullptr;
    dispatch(FloatTypes{}, dtype, [&]<typename T>() { result = function_of<T>(end); });
    return result;
}

}  // namespace ornik::device::cpu
