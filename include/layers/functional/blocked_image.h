// blocked_image.h: images as the layers of a convolutional network hand them on in inference.
//
//     BlockedImage x = first.blocked(photo, LayerEnd::relu);      // PreparedConvolution
//     x = max_pool(x, {.kernel = {3, 3}, .stride = {2, 2}, .padding = {1, 1}});
//     x = second.blocked(x, LayerEnd::relu, &shortcut);
//     std::unique_ptr<Tensor> means = global_average(x);
//
// A vector of channels lies side by side, position after position, so that kernels neither copy what they read into
// another order nor turn what they write. Values are those of the operations on planes, bit for bit.
#pragma once

#include <memory>

#include "../../export.h"
#include "../../tensor/tensor.h"
#include "pool.h"

namespace ornik::nn {

struct Blocks;  // The elements. Internal.

/// Images [N, C, H, W] of float32 or float64. Immutable; copies share their elements.
class ORNIK_API BlockedImage {
  public:
    /// The image of a tensor of four axes, any strides.
    explicit BlockedImage(Tensor* planes);
    explicit BlockedImage(std::shared_ptr<const Blocks> blocks);

    [[nodiscard]] std::unique_ptr<Tensor> planes() const;
    [[nodiscard]] const Dims& shape() const;
    [[nodiscard]] std::int64_t dtype() const;
    [[nodiscard]] const Blocks& blocks() const { return *blocks_; }

  private:
    std::shared_ptr<const Blocks> blocks_;
};

/// The values of max_pool() and average_pool() on planes.
ORNIK_API BlockedImage max_pool(const BlockedImage& input, const PoolParameters& parameters);
ORNIK_API BlockedImage average_pool(const BlockedImage& input, const PoolParameters& parameters);
/// [N, C, 1, 1]: adaptive_average_pool() of one window.
ORNIK_API std::unique_ptr<Tensor> global_average(const BlockedImage& input);

}  // namespace ornik::nn
