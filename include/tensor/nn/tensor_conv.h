// tensor_conv.h: convolutions and their gradients, on tensors.
//
// The descriptor has been built for the input and the weight (build_dynamic); it knows every size. Tensors are of
// one floating or complex dtype, with any strides; results are new. Gradients take the gradient of the output
// and, for complex tensors, the conjugate of the other factor.
#pragma once

#include "../../descriptors/descriptor_conv2D.h"
#include "../../descriptors/descriptor_convT2D.h"
#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// The output that the descriptor made, filled; bias may be null, else it holds one value per output channel.
[[nodiscard]] ORNIK_API Tensor* Conv2D_forward(Tensor* weight, Tensor* bias, Tensor* input,
                                               ConvolDescriptor& descriptor);
/// The gradient of the input.
[[nodiscard]] ORNIK_API Tensor* Conv2D_x_grad(Tensor* weight, Tensor* output_gradient,
                                              const ConvolDescriptor& descriptor);
/// The gradient of the weight.
[[nodiscard]] ORNIK_API Tensor* Conv2D_w_grad(Tensor* input, Tensor* output_gradient,
                                              const ConvolDescriptor& descriptor);
/// The gradient of the bias, (output channels).
[[nodiscard]] ORNIK_API Tensor* Conv2D_bias_grad(Tensor* output_gradient, const ConvolDescriptor& descriptor);

/// The transposed convolution: every input element adds its multiple of the kernel to the output. A bias
/// needs use_bias.
[[nodiscard]] ORNIK_API Tensor* ConvT2D_forward(Tensor* weight, Tensor* bias, Tensor* input,
                                                ConvolDescriptorT2D& descriptor, bool use_bias);
[[nodiscard]] ORNIK_API Tensor* ConvT2D_x_grad(Tensor* weight, Tensor* output_gradient,
                                               const ConvolDescriptorT2D& descriptor);
[[nodiscard]] ORNIK_API Tensor* ConvT2D_w_grad(Tensor* input, Tensor* output_gradient,
                                               const ConvolDescriptorT2D& descriptor);
[[nodiscard]] ORNIK_API Tensor* ConvT2D_bias_grad(Tensor* output_gradient, const ConvolDescriptorT2D& descriptor,
                                                  bool use_bias);

}  // namespace ornik
