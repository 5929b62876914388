// cpu_product_real_vector.cpp: products of real matrices.
#include "product_run.h"

namespace ornik::device::cpu {

ORNIK_INSTANTIATE_PRODUCTS(float);
ORNIK_INSTANTIATE_PRODUCTS(double);

}  // namespace ornik::device::cpu
