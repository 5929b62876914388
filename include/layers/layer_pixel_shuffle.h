// layer_pixel_shuffle.h: exchange of channels for resolution.
#pragma once

#include "layer.h"

namespace ornik {

/// [N, C r r, H, W] becomes [N, C, H r, W r]: y[n, c, h r + i, w r + j] = x[n, (c r + i) r + j, h, w]. Any dtype
/// and strides; the result is contiguous.
class ORNIK_API LPixelShuffle : public Layer {
  public:
    /// An empty name becomes "pixel_shuffle".
    LPixelShuffle(int upscale_factor, std::string name, int first, int second);

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    [[nodiscard]] Tensor* forward_dyn(Tensor* input) override;
    /// The input's gradient from the output's: the inverse.
    [[nodiscard]] Tensor* backward_dyn(Tensor* output_gradient) override;

  private:
    int factor_;
};

/// The inverse: [N, C, H r, W r] becomes [N, C r r, H, W].
class ORNIK_API LPixelUnshuffle : public Layer {
  public:
    /// An empty name becomes "pixel_unshuffle".
    LPixelUnshuffle(int downscale_factor, std::string name, int first, int second);

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    [[nodiscard]] Tensor* forward_dyn(Tensor* input) override;
    [[nodiscard]] Tensor* backward_dyn(Tensor* output_gradient) override;

  private:
    int factor_;
};

}  // namespace ornik
