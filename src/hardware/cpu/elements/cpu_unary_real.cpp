// cpu_unary_real.cpp: unary operations on floating elements.
#include "real_functions.h"
#include "row_kernels.h"

namespace ornik::device::cpu {

// clang-format off
#define ORNIK_OPERATIONS_HERE(ROW) \
    ORNIK_FLOATING_OPERATIONS(ROW) \
    ORNIK_NETWORK_OPERATIONS(ROW)  \
    ORNIK_SIGN_OPERATIONS(ROW)     \
    ORNIK_PART_OPERATIONS(ROW)     \
    ORNIK_ANGLE_OPERATIONS(ROW)    \
    ORNIK_STEP_OPERATIONS(ROW)     \
    ORNIK_ROUNDING_OPERATIONS(ROW) \
    ORNIK_TEST_OPERATIONS(ROW)
#define FUNCTIONS real_functions
// clang-format on

namespace {
ORNIK_OPERATIONS_HERE(ORNIK_UNARY_FUNCTION)
}  // namespace

#define ORNIK_BEYOND_LIMIT(name)                                                    \
    template <std::floating_point T>                                                \
    struct BeyondLimit<name##_function, T> {                                        \
        static constexpr bool needed = true;                                        \
        static T value(T x) { return static_cast<T>(elementary::name(double{x})); } \
    };
ORNIK_BEYOND_LIMIT(sin)
ORNIK_BEYOND_LIMIT(cos)
ORNIK_BEYOND_LIMIT(tan)

ORNIK_IN_VECTORS(exp_function)
ORNIK_IN_VECTORS(sigmoid_function)
ORNIK_IN_VECTORS(silu_function)
ORNIK_IN_VECTORS(gelu_function)
template <>
struct NearZero<gelu_function, float> : real_functions::GeluNear {};

ElementKernel real_kernel(operations::Unary operation) {
    switch (operation) {
#define ORNIK_CASE(name, ...)     \
    case operations::Unary::name: \
        return unary_kernel<name##_function, FloatTypes>;
        ORNIK_OPERATIONS_HERE(ORNIK_CASE)
        default:
            return nullptr;
    }
}

}  // namespace ornik::device::cpu
