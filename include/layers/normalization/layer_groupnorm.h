// layer_groupnorm.h: group normalization.
#pragma once

#include <array>

#include "../layer.h"

namespace ornik {

struct Where;

/// y = (x - mean) / sqrt(variance + eps) * gamma + beta, for x [N, C, ...] with at least two axes and any
/// strides; mean and (biased) variance are those of each sample's group of C / groups adjacent channels. gamma
/// and beta are [C]. One dtype throughout: float32 or float64.
class ORNIK_API LGroupNorm : public Layer {
  public:
    /// `groups` must divide `channels`; without `affine`, gamma and beta are not used. eps must be positive.
    LGroupNorm(int groups, int channels, bool affine, float eps, std::string name, int first, int second);

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    /// A null gamma counts as 1, a null beta as 0; training and inference do the same.
    [[nodiscard]] Tensor* forward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, bool training) override;
    /// The gradient for one node: 0 the input's, 1 gamma's, 2 beta's. Nodes 1 and 2 give null without `affine`
    /// and when the layer is not trainable; any other node is an error. `saved` is what get_fwd_cache gave;
    /// when empty, what the latest forward_dyn kept.
    [[nodiscard]] Tensor* backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                       std::vector<Tensor*>& saved, int node) override;
    /// The gradients for all three nodes, by node, each for the caller to delete; null where backward_dyn gives null.
    /// The same bits as from three calls of it, in fewer passes over memory.
    [[nodiscard]] std::array<Tensor*, 3> gradients(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                                   std::vector<Tensor*>& saved);
    /// Mean and variance [N, groups] of the latest forward_dyn; empty before.
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }

  private:
    [[nodiscard]] std::array<Tensor*, 3> compute(const Where& at, const std::array<bool, 3>& wanted, Tensor* gamma,
                                                 Tensor* beta, Tensor* input, Tensor* output_gradient,
                                                 const std::vector<Tensor*>& saved);

    int groups_;
    int channels_;
    bool affine_;
    float eps_;
};

}  // namespace ornik
