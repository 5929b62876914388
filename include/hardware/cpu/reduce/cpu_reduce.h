// cpu_reduce.h: kernels of reductions. Internal.
//
// `plan` describes `in`; it reduces at least one element. `out` is contiguous, of the plan's result shape and
// of the dtype that the front end has chosen.
#pragma once

#include "../../../descriptors/reduce_descriptor.h"
#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out: int64 for bool and integers, else in's dtype.
void reduce_sum(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);
void reduce_prod(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);
/// out: float32 for bool and integers, else in's dtype.
void reduce_mean(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);
/// Square root of the sum of squared magnitudes, added up in double. out: float32 for bool and integers, the
/// type of the parts for complex.
void reduce_l2_norm(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);

/// Real dtypes; NaN when there is one.
void reduce_max(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);
void reduce_min(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);
/// int64 positions among the reduced elements, the first of equal ones; the plan is in row-major order. NaN
/// counts as beyond everything.
void reduce_argmax(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);
void reduce_argmin(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);

/// out: bool. NaN is true.
void reduce_any(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);
void reduce_all(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);

/// Squared deviations over (count - correction), or the square root of that; NaN when the divisor is not
/// above 0. Real dtypes; out: float32 for bool and integers.
void reduce_variance(const ReduceDescriptor& plan, const Tensor* in, Tensor* out, double correction, bool root);
/// log(sum(exp(in))) without overflow. float32 and float64.
void reduce_log_sum_exp(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);

}  // namespace ornik::device::cpu
