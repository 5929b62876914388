// conv_passes.h: the four passes of a convolution over tensors of any strides, without checks. Internal.
//
// The sizes are those of the geometry; operands have as many elements as it says, in row-major order, whatever
// their rank. A transposed convolution reads the grid and writes the image.
#pragma once

#include "../../hardware/cpu/nn/cpu_conv.h"

namespace ornik {

/// `bias` may be null.
void convolve(const device::cpu::ConvGeometry& geometry, bool transposed, Tensor* input, Tensor* weight, Tensor* bias,
              Tensor* output);
void convolve_input_grad(const device::cpu::ConvGeometry& geometry, bool transposed, Tensor* gradient, Tensor* weight,
                         Tensor* result);
void convolve_weight_grad(const device::cpu::ConvGeometry& geometry, bool transposed, Tensor* input, Tensor* gradient,
                          Tensor* result);
void convolve_bias_grad(const device::cpu::ConvGeometry& geometry, bool transposed, Tensor* gradient, Tensor* result);

}  // namespace ornik
