// cpu_conv.h: kernels of two-dimensional convolution and of its adjoint. Internal.
//
// A convolution relates two stacks of planes: the image and the grid. For every sample, group, kernel
// position (i, j) and grid position (y, x), the pair
//
//     grid[o][y][x]  and  image[c][y * row_stride - row_padding + i * row_dilation][the same for columns]
//
// is tied by weight element (o, c, i, j); pairs outside the image do not exist. A convolution sums over the
// image (conv_to_grid); a transposed convolution, and the gradient of a convolution's input, sum over the grid
// (conv_to_image); the gradient of the weight sums over positions and samples (conv_weight).
//
// Tensors are contiguous, on the CPU and of one floating or complex dtype; front ends have checked that and
// that every element the geometry names exists. The bits of a result do not depend on the team size.
#pragma once

#include <cstdint>
#include <memory>

#include "../../../tensor/tensor.h"
#include "../elements/cpu_row_end.h"

namespace ornik::device::cpu {

/// One axis: rows or columns.
struct ConvAxis {
    std::int64_t image;
    std::int64_t grid;
    std::int64_t kernel;
    std::int64_t stride;
    std::int64_t padding;
    std::int64_t dilation;
};

struct ConvGeometry {
    std::int64_t batch;
    std::int64_t groups;
    /// Channels per group.
    std::int64_t image_channels;
    std::int64_t grid_channels;
    ConvAxis rows;
    ConvAxis cols;
    /// Weight is (groups, image channels, grid channels, kernel) instead of (groups, grid channels, image
    /// channels, kernel): that of a transposed convolution, whose output is the image.
    bool image_first;
};

/// grid = sum over the image, plus bias (one value per grid channel, or null). With conjugate, the weight's
/// conjugate is used.
void conv_to_grid(const ConvGeometry& geometry, const Tensor* image, const Tensor* weight, const Tensor* bias,
                  bool conjugate, Tensor* grid);

struct ConvSum;

/// What a sum ends with: a bias (one value per channel of the result), a residual of the result's shape, an activation.
/// Each rounds as it does alone; null ones are left out.
struct ConvTail {
    const Tensor* bias = nullptr;
    const Tensor* residual = nullptr;
    RowEnd activation = RowEnd::none;  // float32 and float64
};

/// A weight of conv_to_grid, laid out once for images of any extents. It is copied, and so is the bias, or null, that
/// blocks are given.
class FixedConvWeight {
  public:
    /// Batch, and extents of image and grid, do not matter here.
    FixedConvWeight(const ConvGeometry& geometry, const Tensor* weight, const Tensor* bias);
    ~FixedConvWeight();
    FixedConvWeight(const FixedConvWeight&) = delete;
    FixedConvWeight& operator=(const FixedConvWeight&) = delete;

    /// The bits are those of conv_to_grid, an addition and an activation.
    void to_grid(const ConvGeometry& geometry, const Tensor* image, const ConvTail& tail, Tensor* grid) const;
    /// True where the kernels of blocked images (cpu_blocks.h) are the quicker ones.
    bool takes_blocks() const;
    /// True where these need an image in blocks; others read planes, too.
    bool keeps_channels_apart() const;
    /// The same with grid and residual, or null, in blocks.
    void to_blocks(const ConvGeometry& geometry, const void* image, bool image_in_planes, const void* residual,
                   RowEnd activation, void* grid) const;
    std::int64_t bytes() const;

  private:
    template <typename T>
    void lay_out_for_blocks(const ConvSum& sum, const Tensor* weight, const Tensor* bias);

    struct Laid;
    struct ForBlocks;
    std::unique_ptr<Laid> laid_;
    bool finite_ = false;            // what is laid out: neither infinite nor NaN
    std::unique_ptr<Tensor> plain_;  // where kernels read it as it is
    std::unique_ptr<ForBlocks> for_blocks_;
};

/// What follows the bias, for a result that has it already.
void conv_finish(const ConvTail& tail, Tensor* result);

/// image = sum over the grid, plus bias (one value per image channel, or null).
void conv_to_image(const ConvGeometry& geometry, const Tensor* grid, const Tensor* weight, const Tensor* bias,
                   bool conjugate, Tensor* image);

/// weight = sum over samples and positions of grid * conj(image), or with conjugate_grid of its conjugate.
void conv_weight(const ConvGeometry& geometry, const Tensor* image, const Tensor* grid, bool conjugate_grid,
                 Tensor* weight);

/// sums[c] = sum over samples and positions of t, which counts as (batch, channels, positions).
void conv_sum_channels(const Tensor* t, std::int64_t batch, std::int64_t channels, std::int64_t positions,
                       Tensor* sums);

}  // namespace ornik::device::cpu
