#include "layers/normalization/layer_batchnorm.h"

#include <iostream>
#include <utility>

#include "../functional/norm_passes.h"

namespace ornik {

LBatchNorm::LBatchNorm(bool affine, float momentum, float eps, std::string name, int first, int second)
    : Layer(std::move(name), first, second), affine_(affine), momentum_(momentum), eps_(eps) {
    const Where at = where("ornik::LBatchNorm::LBatchNorm");
    check_eps(at, eps);
    if (!(momentum >= 0 && momentum <= 1)) {
        fail(at, "The momentum of batchnorm should be in [0, 1]");
    }
}

Tensor* LBatchNorm::forward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, bool training, Tensor* running_mean,
                                Tensor* running_variance) {
    const Where at = where("ornik::LBatchNorm::forward_dyn");
    const NormArguments arguments{"batchnorm", affine_ ? gamma : nullptr, affine_ ? beta : nullptr, input};
    check_batch_norm(at, arguments);
    check_running_statistics(at, arguments, running_mean, running_variance, training);

    const auto eps = static_cast<double>(eps_);
    std::vector<std::unique_ptr<Tensor>> saved;
    saved.reserve(2);
    forward_cache_.reserve(2);
    nn::Normalized result;
    if (training) {
        result = batch_norm_pass(arguments, eps);
        // Nothing but the update fails from here on: the running statistics move once in each successful call.
        if (running_mean != nullptr && input->Size() > 0) {
            update_statistics(at, running_mean, running_variance, result.mean.get(), result.variance.get(),
                              input->Size() / input->Shape()[1], static_cast<double>(momentum_));
        }
    } else {
        result = {batch_norm_pass(arguments, running_mean, running_variance, eps),
                  std::unique_ptr<Tensor>(running_mean->clone()), std::unique_ptr<Tensor>(running_variance->clone())};
    }
    saved.push_back(std::move(result.mean));
    saved.push_back(std::move(result.variance));
    keep_for_backward(std::move(saved));
    training_ = training;
    return result.output.release();
}

Tensor* LBatchNorm::backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient, Tensor* mean,
                                 Tensor* variance, int node) {
    std::vector<Tensor*> saved;
    if (mean != nullptr || variance != nullptr) {
        saved = {mean, variance};
    }
    return backward_dyn(gamma, beta, input, output_gradient, saved, node);
}

Tensor* LBatchNorm::backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                 std::vector<Tensor*>& saved, int node) {
    const Where at = where("ornik::LBatchNorm::backward_dyn");
    if (node < 0 || node > 2) {
        std::cout << "Node should be 0, 1, 2\n";
        return nullptr;
    }
    if (node != 0 && (!affine_ || !_trainable)) {
        return nullptr;
    }
    return compute(at, only_node(node), gamma, beta, input, output_gradient, saved)[static_cast<std::size_t>(node)];
}

std::array<Tensor*, 3> LBatchNorm::gradients(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                             std::vector<Tensor*>& saved) {
    const bool learns = affine_ && _trainable;
    return compute(where("ornik::LBatchNorm::gradients"), {true, learns, learns}, gamma, beta, input, output_gradient,
                   saved);
}

std::array<Tensor*, 3> LBatchNorm::compute(const Where& at, const std::array<bool, 3>& wanted, Tensor* gamma,
                                           Tensor* beta, Tensor* input, Tensor* output_gradient,
                                           const std::vector<Tensor*>& saved) {
    const NormArguments arguments{"batchnorm", affine_ ? gamma : nullptr, affine_ ? beta : nullptr, input};
    check_batch_norm(at, arguments);
    if (forward_cache_.empty()) {
        fail(at, "The backward pass of batchnorm needs a forward pass before.");
    }
    const NormSaved from = norm_saved(at, arguments, output_gradient, saved, forward_cache_, static_cast<double>(eps_));
    return release_by_node(batch_norm_grads(at, arguments, from, !training_, wanted));
}

Tensor* LBatchNorm::get_saved_var() { return forward_cache_.empty() ? nullptr : forward_cache_[1]->clone(); }

Tensor* LBatchNorm::get_saved_opa() { return forward_cache_.empty() ? nullptr : forward_cache_[0]->clone(); }

}  // namespace ornik
