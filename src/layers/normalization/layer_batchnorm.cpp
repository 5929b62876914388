#include "layers/normalization/layer_batchnorm.h"

#include <iostream>
#include <utility>

#include "norm_arguments.h"
#include "tensor/checks.h"
#include "tensor/overlap.h"

namespace ornik {

namespace {

void check_input(const Where& at, const NormArguments& arguments) {
    if (arguments.input == nullptr) {
        fail(at, "batchnorm needs an input.");
    }
    const Dims& shape = arguments.input->Shape();
    if (shape.size() < 2) {
        fail(at, "batchnorm needs an input [N, C, ...], however it is ", shape);
    }
    arguments.check(at, {shape[1]});
}

// Both or neither, [C]; `written` when they are to be updated.
void check_running(const Where& at, const NormArguments& arguments, Tensor* mean, Tensor* variance, bool written) {
    if ((mean == nullptr) != (variance == nullptr) || (mean == nullptr && !written)) {
        fail(at, "batchnorm needs running statistics for inference, both or neither in training.");
    }
    for (const Tensor* t : {mean, variance}) {
        if (t == nullptr) {
            return;
        }
        arguments.check_like_input(at, t);
        if (t->Shape() != Dims{arguments.input->Shape()[1]}) {
            fail(at, "The running statistics of batchnorm should have one value per channel, however the shape is ",
                 t->Shape());
        }
        if (written) {
            check_not_expanded(at, t);
            check_writable(at, t);
        }
    }
    if (written && memory_overlap(mean, variance) != Overlap::none) {
        fail(at, "The running statistics of batchnorm overlap in memory.");
    }
}

}  // namespace

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
    check_input(at, arguments);
    check_running(at, arguments, running_mean, running_variance, training);

    const Borrowed x = Borrowed::contiguous(input);
    const device::cpu::ChannelNorm norm = channel_norm(input, 0, eps_);
    std::unique_ptr<Tensor> mean = make_output({norm.channels}, input);
    std::unique_ptr<Tensor> variance = make_output({norm.channels}, input);
    std::unique_ptr<Tensor> output = make_output(input->Shape(), input);
    if (training) {
        device::cpu::batch_statistics(x.get(), norm, mean.get(), variance.get());
    } else {
        copy_tensor(running_mean, mean.get());
        copy_tensor(running_variance, variance.get());
    }
    device::cpu::batch_norm(x.get(), norm, mean.get(), variance.get(), Borrowed::contiguous(arguments.gamma).get(),
                            Borrowed::contiguous(arguments.beta).get(), output.get());
    std::vector<std::unique_ptr<Tensor>> saved(2);
    forward_cache_.reserve(saved.size());
    // Nothing fails from here on: the running statistics move once in each successful call.
    if (training && running_mean != nullptr && input->Size() > 0) {
        const auto count = static_cast<double>(norm.samples * norm.inner);
        device::cpu::update_running(mean.get(), 1, static_cast<double>(momentum_), running_mean);
        device::cpu::update_running(variance.get(), count > 1 ? count / (count - 1) : 1, static_cast<double>(momentum_),
                                    running_variance);
    }
    saved[0] = std::move(mean);
    saved[1] = std::move(variance);
    keep_for_backward(std::move(saved));
    training_ = training;
    return output.release();
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
    check_input(at, arguments);
    if (forward_cache_.empty()) {
        fail(at, "The backward pass of batchnorm needs a forward pass before.");
    }
    const device::cpu::ChannelNorm norm = channel_norm(input, 0, eps_);
    const NormBackward from(at, arguments, output_gradient, saved, forward_cache_, {norm.channels});
    NodeGradients results(wanted, input, {norm.channels});
    device::cpu::batch_norm_grads(from.operands(), norm, !training_, results.input(), results.gamma(), results.beta());
    return results.release();
}

Tensor* LBatchNorm::get_saved_var() { return forward_cache_.empty() ? nullptr : forward_cache_[1]->clone(); }

Tensor* LBatchNorm::get_saved_opa() { return forward_cache_.empty() ? nullptr : forward_cache_[0]->clone(); }

}  // namespace ornik
