// pool_passes.h: the passes that pooling layers of one and two dimensions share. Internal.
#pragma once

#include "descriptors/descriptor_pool2D.h"

namespace ornik {

struct PoolResult {
    std::unique_ptr<Tensor> output;
    std::unique_ptr<Tensor> positions;  // of a maximum
};

PoolResult max_pool_forward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input);
Tensor* max_pool_backward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input, Tensor* output_gradient,
                          const std::vector<Tensor*>& saved, const std::vector<Tensor*>& cache);

Tensor* average_pool_forward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input);
Tensor* average_pool_backward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input,
                              Tensor* output_gradient);

}  // namespace ornik
