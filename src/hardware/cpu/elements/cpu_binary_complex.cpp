// cpu_binary_complex.cpp: binary operations on complex elements.
#include "complex_functions.h"
#include "pair_functions.h"
#include "row_kernels.h"

namespace ornik::device::cpu {

namespace functions {
using namespace complex_functions;
using namespace pair_functions;
}  // namespace functions
#define FUNCTIONS functions

namespace {
ORNIK_POWER_OPERATIONS(ORNIK_BINARY_FUNCTION)
ORNIK_EQUALITY_OPERATIONS(ORNIK_BINARY_FUNCTION)
}  // namespace

ElementKernel complex_kernel(operations::Binary operation) {
    switch (operation) {
#define ORNIK_CASE(name, ...)      \
    case operations::Binary::name: \
        return binary_kernel<name##_function, ComplexTypes>;
        ORNIK_POWER_OPERATIONS(ORNIK_CASE)
        ORNIK_EQUALITY_OPERATIONS(ORNIK_CASE)
        default:
            return nullptr;
    }
}

}  // namespace ornik::device::cpu
