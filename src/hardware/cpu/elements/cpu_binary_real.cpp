// cpu_binary_real.cpp: binary operations on floating elements.
#include "pair_functions.h"
#include "real_functions.h"
#include "row_kernels.h"

namespace ornik::device::cpu {

namespace functions {
using namespace real_functions;
using namespace pair_functions;
}  // namespace functions

// clang-format off
#define ORNIK_OPERATIONS_HERE(ROW)  \
    ORNIK_ARITHMETIC_PAIR_OPERATIONS(ROW) \
    ORNIK_EQUALITY_OPERATIONS(ROW) \
    ORNIK_ORDER_OPERATIONS(ROW)
#define FUNCTIONS functions
// clang-format on

namespace {
ORNIK_OPERATIONS_HERE(ORNIK_BINARY_FUNCTION)
}  // namespace

template <>
struct Surely<pow_function, float> {
    static constexpr bool known = true;
    ORNIK_IN_PLACE static float value(float x, float y, int& unsure) {
        return real_functions::pow_surely(x, y, unsure);
    }
};

ElementKernel real_kernel(operations::Binary operation) {
    switch (operation) {
#define ORNIK_CASE(name, ...)      \
    case operations::Binary::name: \
        return binary_kernel<name##_function, FloatTypes>;
        ORNIK_OPERATIONS_HERE(ORNIK_CASE)
        default:
            return nullptr;
    }
}

}  // namespace ornik::device::cpu
