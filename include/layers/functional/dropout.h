// dropout.h: dropout and its gradient.
//
//     ornik::nn::Dropped d = ornik::nn::dropout(x, 0.5);
//     auto g = ornik::nn::dropout_grad(dy, d.kept.get(), 0.5);
//
// With probability p, a number of [0, 1], an element becomes 0; the others are scaled by 1 / (1 - p). What is kept is
// drawn from the default generator, from the same numbers as Tensor::dropout_mask for x's shape and dtype. Floating
// and complex, any strides, no elements included.
#pragma once

#include <memory>

#include "../../export.h"
#include "../../tensor/tensor.h"

namespace ornik::nn {

struct Dropped {
    std::unique_ptr<Tensor> output;
    std::unique_ptr<Tensor> kept;  ///< bool
};

ORNIK_API Dropped dropout(Tensor* x, double p);
/// Whole channels of x [N, C, ...] are dropped; `kept` is [N, C].
ORNIK_API Dropped dropout_channels(Tensor* x, double p);
/// The gradient of either one: as for the input, `kept` tells elements or, with fewer axes, everything behind them.
ORNIK_API std::unique_ptr<Tensor> dropout_grad(Tensor* output_gradient, Tensor* kept, double p);

}  // namespace ornik::nn
