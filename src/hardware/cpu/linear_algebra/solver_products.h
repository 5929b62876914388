// solver_products.h: products of parts of matrices, as solvers write them.
#pragma once

#include <cstdint>

#include "../product/cpu_product_kernels.h"

namespace ornik::device::cpu {

/// A part of a row-major matrix whose rows are `step` elements apart; transposed, where said.
template <typename T>
struct Part {
    T* data;
    std::int64_t step;
    bool transposed = false;
};

/// c = a b, or c + a b; c is rows x cols, a is rows x depth.
template <typename T>
void multiply(const Part<const T>& a, const Part<const T>& b, const Part<T>& c, std::int64_t rows, std::int64_t depth,
              std::int64_t cols, bool accumulate = false) {
    if (rows > 0 && cols > 0) {
        ProductPlan plan{1, rows, cols, depth, a.transposed, b.transposed, accumulate};
        plan.place_a.row_step = a.step;
        plan.place_b.row_step = b.step;
        plan.place_c.row_step = c.step;
        float_product(plan, a.data, b.data, c.data);
    }
}

}  // namespace ornik::device::cpu
