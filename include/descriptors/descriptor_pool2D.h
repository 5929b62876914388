// descriptor_pool2D.h: the sizes of one pooling pass, in one and two dimensions. Internal.
#pragma once

#include <string>
#include <vector>

#include "../tensor/tensor.h"

namespace ornik {

/// One axis: output position o looks at the input positions o * stride - begin ... + kernel - 1. Each window
/// holds at least one position inside the input.
struct PoolAxis {
    std::int64_t in = 1;
    std::int64_t kernel = 1;
    std::int64_t stride = 1;
    std::int64_t begin = 0;
    std::int64_t out = 1;
};

/// `planes` contiguous planes [rows.in, cols.in] become planes [rows.out, cols.out].
struct PoolPlan {
    std::int64_t planes = 1;
    PoolAxis rows;
    PoolAxis cols;
};

/// The axis whose whole windows fit into the padded input; `layer` names it in the message.
PoolAxis padded_axis(const Where& at, const std::string& layer, std::int64_t in, std::int64_t kernel,
                     std::int64_t stride, std::int64_t padding);

/// Refuses planes with more positions than int32 counts.
void check_plane(const Where& at, const std::string& layer, const PoolPlan& plan, const Dims& input);

/// `input` with the extents of the plan's output; of one spatial axis the columns.
Dims pooled_shape(const Dims& input, const PoolPlan& plan);

/// Kernel, strides and padding of a pooling layer, one entry per spatial axis (one or two).
///
///   "same", "zeros"   out = ceil(in / stride); begin gets the larger half of the padding
///   "valid", "none"   no padding; whole windows only
///   "custom"          the given padding on both sides, less than the kernel
///   "same,none", "none,same"   rows and columns apart
class PoolDescriptor2D {
  public:
    /// `layer` names the layer in messages: "MaxPool2d". Padding without a "custom" type is not looked at.
    PoolDescriptor2D(const Where& at, std::string layer, std::size_t axes, const std::vector<int>& kernel,
                     const std::vector<int>& strides, const std::vector<int>& padding, const std::string& padding_type);

    /// The plan for an input [N, C, spatial axes]; a plane without rows has one.
    PoolPlan plan(const Where& at, const Tensor* input) const;

  private:
    PoolAxis axis(const Where& at, std::size_t i, std::int64_t in) const;

    std::string layer_;
    std::vector<int> kernel_, strides_, padding_;
    std::vector<std::string> types_;  // per axis: "same", "none" or "custom"
};

}  // namespace ornik
