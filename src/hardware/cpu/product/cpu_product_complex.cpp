// cpu_product_complex.cpp: products of complex matrices.
#include "cpu_product_eigen.h"

namespace ornik::device::cpu {

template void product_piece(const ProductPlan&, const ProductPiece&, const std::complex<float>*,
                            const std::complex<float>*, std::complex<float>*);
template void product_piece(const ProductPlan&, const ProductPiece&, const std::complex<double>*,
                            const std::complex<double>*, std::complex<double>*);

}  // namespace ornik::device::cpu
