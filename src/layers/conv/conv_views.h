// conv_views.h: what the convolution layers make of their arguments and results.
#pragma once

#include <memory>
#include <vector>

#include "tensor/tensor.h"

namespace ornik {

/// (a, b, c) as (a, b, c, 1), anything else as it is; null stays null.
inline std::unique_ptr<Tensor> with_last_axis(const Tensor* t) {
    if (t == nullptr) {
        return nullptr;
    }
    Dims shape = t->Shape();
    if (shape.size() == 3) {
        shape.push_back(1);
    }
    return std::unique_ptr<Tensor>(view_tensor(t, shape));
}

/// A gradient as a view of its argument's shape; as it is when there is no argument.
inline Tensor* shaped_as(const Tensor* argument, std::unique_ptr<Tensor> gradient) {
    return argument == nullptr || argument->Shape() == gradient->Shape()
               ? gradient.release()
               : view_tensor(gradient.get(), argument->Shape());
}

/// The kernel vector of ConvolDescriptor.
inline std::vector<int> with_output_channels(int output_channels, std::vector<int> kernel) {
    kernel.insert(kernel.begin(), output_channels);
    return kernel;
}

}  // namespace ornik
