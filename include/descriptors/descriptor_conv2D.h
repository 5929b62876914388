// descriptor_conv2D.h: sizes and padding of a two-dimensional convolution.
//
//     padding            output extent of an axis                padding of the axis
//     "same", "zeros"    ceil(in / stride)                       what that takes, which must be even
//     "valid", "none"    ceil((in - (k - 1) dilation) / stride)  none
//     "custom"           floor((in + 2 p - (k - 1) dilation - 1) / stride) + 1    p on either side
//     "same,none"        rows as "same", columns as "none"
//     "none,same"        the other way round
//
// Extents are computed in single precision.
#pragma once

#include "convol_fields.h"

namespace ornik {

class ORNIK_API ConvolDescriptor : public ConvolFields {
  public:
    /// Kernel: output channels, rows, columns. The padding vector (rows, columns) serves "custom" alone.
    ConvolDescriptor(const std::vector<int>& kernel, const std::vector<int>& strides, const std::vector<int>& padding,
                     const std::string& type, const std::vector<int>& dilation, int groups);

    /// Derives all sizes for an input (N, C, H, W) and a weight (output channels, C / groups, rows, columns) of
    /// one floating or complex dtype, and makes the empty output.
    void build_dynamic(const Tensor* input, const Tensor* weight);

  private:
    void compute_output();
    void compute_padding();
};

}  // namespace ornik
