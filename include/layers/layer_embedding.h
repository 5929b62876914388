// layer_embedding.h: rows of a table, looked up by index.
#pragma once

#include "layer.h"

namespace ornik {

/// y[..., :] = weight[x[...], :]. The weight is [vocabulary, width], floating or complex; x holds integers (not
/// bool) in [0, vocabulary); any strides. There is no bias: what is passed as one is not looked at.
class ORNIK_API LEmbedding : public Layer {
  public:
    /// An empty name becomes "embedding".
    LEmbedding(int vocabulary, int width, std::string name, int first, int second);

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    [[nodiscard]] Tensor* forward_dyn(Tensor* weight, Tensor* bias, Tensor* input) override;
    /// Node 1: the rows of the output's gradient added up at their indices, shaped as the weight; null when the
    /// layer is not trainable. Null for node 0 (indices have no gradient) and node 2; any other is an error.
    [[nodiscard]] Tensor* backward_dyn(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                       int node) override;

  private:
    int vocabulary_;
    int width_;
};

}  // namespace ornik
