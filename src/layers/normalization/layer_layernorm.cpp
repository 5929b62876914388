#include "layers/normalization/layer_layernorm.h"

#include <utility>

#include "../functional/norm_passes.h"

namespace ornik {

namespace {

// The axes that the statistics stand for are those of the parameters.
NormSplit check_input(const Where& at, const NormArguments& arguments) {
    const Tensor* parameter = arguments.gamma != nullptr ? arguments.gamma : arguments.beta;
    return check_layer_norm(at, arguments, parameter == nullptr ? 1 : parameter->Shape().size());
}

}  // namespace

LLayerNorm::LLayerNorm(bool affine, float eps, std::string name, int first, int second)
    : Layer(std::move(name), first, second), affine_(affine), eps_(eps) {
    check_eps(where("ornik::LLayerNorm::LLayerNorm"), eps);
}

Tensor* LLayerNorm::forward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, bool /*training*/) {
    NormArguments arguments{"layer norm", gamma, beta, input};
    const NormSplit split = check_input(where("ornik::LLayerNorm::forward_dyn"), arguments);
    arguments.gamma = affine_ ? gamma : nullptr;
    arguments.beta = affine_ ? beta : nullptr;
    nn::Normalized result = layer_norm_pass(arguments, split, static_cast<double>(eps_));
    std::vector<std::unique_ptr<Tensor>> saved;
    saved.push_back(std::move(result.mean));
    saved.push_back(std::move(result.variance));
    keep_for_backward(std::move(saved));
    return result.output.release();
}

Tensor* LLayerNorm::backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                 std::vector<Tensor*>& saved, int node) {
    const Where at = where("ornik::LLayerNorm::backward_dyn");
    check_norm_node(at, node);
    if (node != 0 && (!affine_ || !_trainable)) {
        return nullptr;
    }
    return compute(at, only_node(node), gamma, beta, input, output_gradient, saved)[static_cast<std::size_t>(node)];
}

std::array<Tensor*, 3> LLayerNorm::gradients(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                             std::vector<Tensor*>& saved) {
    const bool learns = affine_ && _trainable;
    return compute(where("ornik::LLayerNorm::gradients"), {true, learns, learns}, gamma, beta, input, output_gradient,
                   saved);
}

std::array<Tensor*, 3> LLayerNorm::compute(const Where& at, const std::array<bool, 3>& wanted, Tensor* gamma,
                                           Tensor* beta, Tensor* input, Tensor* output_gradient,
                                           const std::vector<Tensor*>& saved) {
    NormArguments arguments{"layer norm", gamma, beta, input};
    const NormSplit split = check_input(at, arguments);
    arguments.gamma = affine_ ? gamma : nullptr;
    const NormSaved from = norm_saved(at, arguments, output_gradient, saved, forward_cache_, static_cast<double>(eps_));
    return release_by_node(layer_norm_grads(at, arguments, from, split, wanted));
}

}  // namespace ornik
