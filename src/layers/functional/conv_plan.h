// conv_plan.h: what a convolution's operands amount to. Internal.
#pragma once

#include "layers/functional/conv.h"
#include "tensor/checks.h"
#include "tensor/nn/conv_passes.h"

namespace ornik::nn {

struct ConvPlan {
    device::cpu::ConvGeometry geometry;
    Dims output;
    std::int64_t channels;  // of the output
};

/// Refuses what does not fit.
ConvPlan conv_plan(const Where& at, const Dims& input, const Dims& weight, const ConvParameters& p);

/// A floating or complex tensor on the CPU.
void check_conv_dtype(const Where& at, const Tensor* t);
void check_conv_bias(const Where& at, const Tensor* bias, const Tensor* like, std::int64_t channels);

}  // namespace ornik::nn
