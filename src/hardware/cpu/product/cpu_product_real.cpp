// cpu_product_real.cpp: products of real matrices.
#include "cpu_product_eigen.h"

namespace ornik::device::cpu {

template void product_piece(const ProductPlan&, const ProductPiece&, const float*, const float*, float*);
template void product_piece(const ProductPlan&, const ProductPiece&, const double*, const double*, double*);

}  // namespace ornik::device::cpu
