// pool_passes.h: the passes that pooling layers and functions share. Internal.
#pragma once

#include "descriptors/descriptor_pool2D.h"
#include "layers/functional/pool.h"

namespace ornik {

/// Refuses a dtype that the pass does not serve.
void check_pool_dtype(const Where& at, const Tensor* t, bool serves_complex);

nn::MaxPool max_pool_forward(const PoolPlan& plan, Tensor* input);
/// `gradient` and `positions` are shaped as the output; the rest of the positions is checked.
std::unique_ptr<Tensor> max_pool_backward(const Where& at, const PoolPlan& plan, Tensor* gradient, Tensor* positions,
                                          const Dims& input_shape);

std::unique_ptr<Tensor> average_pool_forward(const PoolPlan& plan, Tensor* input);
std::unique_ptr<Tensor> average_pool_backward(const PoolPlan& plan, Tensor* gradient, const Dims& input_shape);

}  // namespace ornik
