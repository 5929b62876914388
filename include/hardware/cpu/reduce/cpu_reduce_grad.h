// cpu_reduce_grad.h: element-wise parts of the gradients of reductions. Internal.
//
// Operands have the shape of x: what belongs to a result is expanded over the reduced axes. One floating dtype,
// complex where said; any strides.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out = factor g. Complex too.
void scaled(const Tensor* g, double factor, Tensor* out);
/// out = g x / norm, 0 where the norm is 0. x and out may be complex, g and norm are of their parts' type.
void l2_norm_grad(const Tensor* g, const Tensor* x, const Tensor* norm, Tensor* out);
/// out = factor g (x - mean)
void var_grad(const Tensor* g, const Tensor* x, const Tensor* mean, double factor, Tensor* out);
/// out = factor g (x - mean) / deviation, 0 where the deviation is 0.
void std_dev_grad(const Tensor* g, const Tensor* x, const Tensor* mean, const Tensor* deviation, double factor,
                  Tensor* out);
/// out = g exp(x - y), y the log of the sum; 0 where y is -infinity.
void log_sum_exp_grad(const Tensor* g, const Tensor* x, const Tensor* y, Tensor* out);

/// out = 1 where x equals y or both are NaN, else 0.
void mark_equal(const Tensor* x, const Tensor* y, Tensor* out);
/// out = g mark / count
void shared_grad(const Tensor* g, const Tensor* mark, const Tensor* count, Tensor* out);

}  // namespace ornik::device::cpu
