// cpu_unary_integer.cpp: unary operations on bool and integer elements.
#include "integer_functions.h"
#include "row_kernels.h"

namespace ornik::device::cpu {

// clang-format off
#define ORNIK_OPERATIONS_HERE(ROW) \
    ORNIK_SIGN_OPERATIONS(ROW)     \
    ORNIK_PART_OPERATIONS(ROW)     \
    ORNIK_STEP_OPERATIONS(ROW)     \
    ORNIK_ROUNDING_OPERATIONS(ROW) \
    ORNIK_TEST_OPERATIONS(ROW)     \
    ORNIK_BIT_OPERATIONS(ROW)
#define FUNCTIONS integer_functions
// clang-format on

namespace {

ORNIK_OPERATIONS_HERE(ORNIK_UNARY_FUNCTION)

using Types = TypeList<bool, std::uint8_t, std::int8_t, std::int16_t, std::int32_t, std::int64_t>;

}  // namespace

ElementKernel integer_kernel(operations::Unary operation) {
    switch (operation) {
#define ORNIK_CASE(name, ...)     \
    case operations::Unary::name: \
        return unary_kernel<name##_function, Types>;
        ORNIK_OPERATIONS_HERE(ORNIK_CASE)
        default:
            return nullptr;
    }
}

}  // namespace ornik::device::cpu
