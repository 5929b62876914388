// cpu_binary_integer.cpp: binary operations on bool and integer elements.
#include "integer_functions.h"
#include "pair_functions.h"
#include "row_kernels.h"

namespace ornik::device::cpu {

namespace functions {
using namespace integer_functions;
using namespace pair_functions;
}  // namespace functions
// clang-format off
#define ORNIK_OPERATIONS_HERE(ROW)  \
    ORNIK_POWER_OPERATIONS(ROW)     \
    ORNIK_REAL_PAIR_OPERATIONS(ROW) \
    ORNIK_EQUALITY_OPERATIONS(ROW)  \
    ORNIK_ORDER_OPERATIONS(ROW)     \
    ORNIK_BIT_PAIR_OPERATIONS(ROW)
#define FUNCTIONS functions
// clang-format on

namespace {

ORNIK_OPERATIONS_HERE(ORNIK_BINARY_FUNCTION)

using BitTypes = TypeList<bool, std::uint8_t, std::int8_t, std::int16_t, std::int32_t, std::int64_t>;

// The types of an operation: bool only where the table lets it in.
template <unsigned Accepts>
using TypesOf =
    std::conditional_t<(Accepts & (1U << static_cast<unsigned>(DtypeClass::boolean))) != 0, BitTypes, IntegerTypes>;

}  // namespace

ElementKernel integer_kernel(operations::Binary operation) {
    using namespace operations;
    switch (operation) {
#define ORNIK_CASE(name, accepts, ...) \
    case operations::Binary::name:     \
        return binary_kernel<name##_function, TypesOf<accepts>>;
        ORNIK_OPERATIONS_HERE(ORNIK_CASE)
        default:
            return nullptr;
    }
}

}  // namespace ornik::device::cpu
