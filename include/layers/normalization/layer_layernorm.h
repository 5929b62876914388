// layer_layernorm.h: layer normalization.
#pragma once

#include <array>

#include "../layer.h"

namespace ornik {

struct Where;

/// y = (x - mean) / sqrt(variance + eps) * gamma + beta, with mean and (biased) variance of the trailing axes:
/// those that gamma (or, when it is null, beta) has, the last one when both are null. x has any strides. One
/// dtype throughout: float32 or float64.
class ORNIK_API LLayerNorm : public Layer {
  public:
    /// Without `affine`, gamma and beta only tell the axes. eps must be positive.
    LLayerNorm(bool affine, float eps, std::string name, int first, int second);

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    /// A null gamma counts as 1, a null beta as 0; training and inference do the same.
    [[nodiscard]] Tensor* forward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, bool training) override;
    /// As LGroupNorm::backward_dyn.
    [[nodiscard]] Tensor* backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                       std::vector<Tensor*>& saved, int node) override;
    /// The gradients for all three nodes, by node, each for the caller to delete; null where backward_dyn gives null.
    /// The same bits as from three calls of it, in fewer passes over memory.
    [[nodiscard]] std::array<Tensor*, 3> gradients(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                                   std::vector<Tensor*>& saved);
    /// Mean and variance of the latest forward_dyn, shaped as the leading axes; empty before.
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }

  private:
    [[nodiscard]] std::array<Tensor*, 3> compute(const Where& at, const std::array<bool, 3>& wanted, Tensor* gamma,
                                                 Tensor* beta, Tensor* input, Tensor* output_gradient,
                                                 const std::vector<Tensor*>& saved);

    bool affine_;
    float eps_;
};

}  // namespace ornik
