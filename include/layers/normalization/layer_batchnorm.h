// layer_batchnorm.h: batch normalization.
#pragma once

#include <array>

#include "../layer.h"

namespace ornik {

struct Where;

/// y = (x - mean) / sqrt(variance + eps) * gamma + beta for every channel of x [N, C, ...], at least two axes,
/// any strides. gamma, beta and the running statistics are [C]. One dtype throughout: float32 or float64.
///
/// In training, mean and (biased) variance are those of the batch, and the running statistics, unless null,
/// move towards them: running = (1 - momentum) running + momentum batch, in double, with the unbiased variance;
/// a batch without elements leaves them. In inference the running statistics are used.
class ORNIK_API LBatchNorm : public Layer {
  public:
    /// Without `affine`, gamma and beta are not used. eps must be positive and finite, momentum in [0, 1].
    LBatchNorm(bool affine, float momentum, float eps, std::string name, int first, int second);

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    /// A null gamma counts as 1, a null beta as 0. The result is contiguous.
    [[nodiscard]] Tensor* forward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, bool training, Tensor* running_mean,
                                      Tensor* running_variance) override;
    /// The gradient for one node, after the latest forward_dyn: 0 the input's, 1 gamma's, 2 beta's. Nodes 1 and
    /// 2 give null without `affine` and when the layer is not trainable. Another node prints "Node should be
    /// 0, 1, 2" and gives null. Saved statistics that are null (both) are those of the latest forward_dyn.
    [[nodiscard]] Tensor* backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                       Tensor* mean, Tensor* variance, int node) override;
    /// The same with the statistics as get_fwd_cache gives them; an empty list: those of the layer.
    [[nodiscard]] Tensor* backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                       std::vector<Tensor*>& saved, int node) override;
    /// The gradients for all three nodes, by node, each for the caller to delete; null where backward_dyn gives null.
    /// The same bits as from three calls of it, in fewer passes over memory.
    [[nodiscard]] std::array<Tensor*, 3> gradients(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                                   std::vector<Tensor*>& saved);
    /// Mean and variance [C] that the latest forward_dyn used; empty before.
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }
    /// A copy of that variance, for the caller to delete; null before any forward_dyn.
    [[nodiscard]] Tensor* get_saved_var() override;
    /// A copy of that mean.
    [[nodiscard]] Tensor* get_saved_opa() override;

  private:
    [[nodiscard]] std::array<Tensor*, 3> compute(const Where& at, const std::array<bool, 3>& wanted, Tensor* gamma,
                                                 Tensor* beta, Tensor* input, Tensor* output_gradient,
                                                 const std::vector<Tensor*>& saved);

    bool affine_;
    float momentum_;
    float eps_;
    bool training_ = false;  // of the latest forward_dyn
};

}  // namespace ornik
