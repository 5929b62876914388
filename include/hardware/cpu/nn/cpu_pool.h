// cpu_pool.h: maximum and average over windows of contiguous planes. Internal.
#pragma once

#include "../../../descriptors/descriptor_pool2D.h"

namespace ornik::device::cpu {

/// The largest element of each window and its position in the plane (int32): the first of equal ones in
/// row-major order; a NaN counts as larger than all. float32 and float64.
void max_pool(const Tensor* in, const PoolPlan& plan, Tensor* positions, Tensor* out);
/// Adds every gradient at its position. False, with an unfinished result, when a position lies outside its
/// plane.
bool max_pool_grad(const Tensor* gradient, const Tensor* positions, const PoolPlan& plan, Tensor* out);

/// The sum of each window, padding counting as zeros, divided by the kernel's element count. Floating and
/// complex.
void average_pool(const Tensor* in, const PoolPlan& plan, Tensor* out);
void average_pool_grad(const Tensor* gradient, const PoolPlan& plan, Tensor* out);

/// Means over windows that cover the planes: window o of an axis reaches from floor(o in / out) up to
/// ceil((o + 1) in / out). Of the plan, the planes and the extents count. Floating and complex.
void adaptive_average_pool(const Tensor* in, const PoolPlan& plan, Tensor* out);
void adaptive_average_pool_grad(const Tensor* gradient, const PoolPlan& plan, Tensor* out);

}  // namespace ornik::device::cpu
