#include "layers/normalization/layer_groupnorm.h"

#include <utility>

#include "../functional/norm_passes.h"

namespace ornik {

LGroupNorm::LGroupNorm(int groups, int channels, bool affine, float eps, std::string name, int first, int second)
    : Layer(std::move(name), first, second), groups_(groups), channels_(channels), affine_(affine), eps_(eps) {
    const Where at = where("ornik::LGroupNorm::LGroupNorm");
    if (groups < 1 || channels < 1 || channels % groups != 0) {
        fail(at, "group norm can not divide ", channels, " channels into ", groups, " groups");
    }
    check_eps(at, eps);
}

Tensor* LGroupNorm::forward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, bool /*training*/) {
    const NormArguments arguments{"group norm", affine_ ? gamma : nullptr, affine_ ? beta : nullptr, input};
    check_group_norm(where("ornik::LGroupNorm::forward_dyn"), arguments, channels_);
    nn::Normalized result = group_norm_pass(arguments, groups_, static_cast<double>(eps_));
    std::vector<std::unique_ptr<Tensor>> saved;
    saved.push_back(std::move(result.mean));
    saved.push_back(std::move(result.variance));
    keep_for_backward(std::move(saved));
    return result.output.release();
}

Tensor* LGroupNorm::backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                 std::vector<Tensor*>& saved, int node) {
    const Where at = where("ornik::LGroupNorm::backward_dyn");
    check_norm_node(at, node);
    if (node != 0 && (!affine_ || !_trainable)) {
        return nullptr;
    }
    return compute(at, only_node(node), gamma, beta, input, output_gradient, saved)[static_cast<std::size_t>(node)];
}

std::array<Tensor*, 3> LGroupNorm::gradients(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                             std::vector<Tensor*>& saved) {
    const bool learns = affine_ && _trainable;
    return compute(where("ornik::LGroupNorm::gradients"), {true, learns, learns}, gamma, beta, input, output_gradient,
                   saved);
}

std::array<Tensor*, 3> LGroupNorm::compute(const Where& at, const std::array<bool, 3>& wanted, Tensor* gamma,
                                           Tensor* beta, Tensor* input, Tensor* output_gradient,
                                           const std::vector<Tensor*>& saved) {
    const NormArguments arguments{"group norm", affine_ ? gamma : nullptr, affine_ ? beta : nullptr, input};
    check_group_norm(at, arguments, channels_);
    const NormSaved from = norm_saved(at, arguments, output_gradient, saved, forward_cache_, static_cast<double>(eps_));
    return release_by_node(group_norm_grads(at, arguments, from, groups_, wanted));
}

}  // namespace ornik
