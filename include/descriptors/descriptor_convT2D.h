// descriptor_convT2D.h: sizes and padding of a transposed two-dimensional convolution.
//
//     padding     output extent of an axis                                     padding of the axis
//     "same"      in * stride                                                  what that leaves, which must be even
//     "valid"     in * stride + (k - stride)                                   none
//     "custom"    (in - 1) * stride + (k - 1) * dilation - 2 p + output padding + 1    p on either side
//
// "same" and "valid" take no account of the dilation. The other names of paddings are accepted, but have no
// sizes here: a build with them fails.
#pragma once

#include "convol_fields.h"

namespace ornik {

class ORNIK_API ConvolDescriptorT2D : public ConvolFields {
  public:
    /// Kernel: rows, columns.
    ConvolDescriptorT2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
                        const std::vector<int>& padding, const std::string& type, const std::vector<int>& dilation,
                        const std::vector<int>& output_padding, int groups);

    /// As in ConvolDescriptor; output channels and C are those of the transposed convolution.
    void build_dynamic(const Tensor* input, const Tensor* weight);

    std::int64_t output_padding_rows = 0;
    std::int64_t output_padding_cols = 0;
};

}  // namespace ornik
