// cpu_product_complex_vector.cpp: products of complex matrices.
#include "product_run.h"

namespace ornik::device::cpu {

ORNIK_INSTANTIATE_PRODUCTS(std::complex<float>);
ORNIK_INSTANTIATE_PRODUCTS(std::complex<double>);

}  // namespace ornik::device::cpu
