#include "layers/functional/normalization.h"

#include "norm_passes.h"
#include "tensor/checks.h"

namespace ornik::nn {

namespace {

NormArguments checked_batch(const Where& at, Tensor* input, Tensor* gamma, Tensor* beta, double eps) {
    check_eps(at, eps);
    const NormArguments arguments{"batchnorm", gamma, beta, input};
    check_batch_norm(at, arguments);
    return arguments;
}

NormArguments checked_group(const Where& at, Tensor* input, std::int64_t groups, Tensor* gamma, Tensor* beta,
                            double eps) {
    check_eps(at, eps);
    const NormArguments arguments{"group norm", gamma, beta, input};
    const std::int64_t channels = input == nullptr || input->ndim() < 2 ? groups : input->Shape()[1];
    if (groups < 1 || channels < 1 || channels % groups != 0) {
        fail(at, "group norm can not divide ", channels, " channels into ", groups, " groups");
    }
    check_group_norm(at, arguments, channels);
    return arguments;
}

}  // namespace

Normalized batch_norm(Tensor* input, Tensor* gamma, Tensor* beta, double eps) {
    return batch_norm_pass(checked_batch(where("ornik::nn::batch_norm"), input, gamma, beta, eps), eps);
}

std::unique_ptr<Tensor> batch_norm_by(Tensor* input, Tensor* mean, Tensor* variance, Tensor* gamma, Tensor* beta,
                                      double eps) {
    const Where at = where("ornik::nn::batch_norm_by");
    const NormArguments arguments = checked_batch(at, input, gamma, beta, eps);
    check_running_statistics(at, arguments, mean, variance, false);
    return batch_norm_pass(arguments, mean, variance, eps);
}

NormGradients batch_norm_grad(Tensor* output_gradient, Tensor* input, Tensor* gamma, Tensor* mean, Tensor* variance,
                              double eps, bool fixed_statistics, const std::array<bool, 3>& wanted) {
    const Where at = where("ornik::nn::batch_norm_grad");
    const NormArguments arguments = checked_batch(at, input, gamma, nullptr, eps);
    return batch_norm_grads(at, arguments, {output_gradient, mean, variance, eps}, fixed_statistics, wanted);
}

void update_running_statistics(Tensor* running_mean, Tensor* running_variance, Tensor* mean, Tensor* variance,
                               std::int64_t count, double momentum) {
    const Where at = where("ornik::nn::update_running_statistics");
    for (const Tensor* t : {running_mean, running_variance, mean, variance}) {
        if (t == nullptr) {
            fail(at, "batchnorm needs running statistics and those of a batch.");
        }
        check_alike(at, "batchnorm", t, running_mean);
        if (!t->isFloat() || t->ndim() != 1 || t->Shape() != running_mean->Shape()) {
            fail(at, "The statistics of batchnorm should be floating and of one shape [C], however one is ",
                 t->Shape());
        }
    }
    if (!(momentum >= 0 && momentum <= 1)) {
        fail(at, "The momentum of batchnorm should be in [0, 1]");
    }
    check_written_statistics(at, running_mean, running_variance);
    if (count > 0) {
        update_statistics(at, running_mean, running_variance, mean, variance, count, momentum);
    }
}

Normalized layer_norm(Tensor* input, int axes, Tensor* gamma, Tensor* beta, double eps) {
    const Where at = where("ornik::nn::layer_norm");
    check_eps(at, eps);
    const NormArguments arguments{"layer norm", gamma, beta, input};
    return layer_norm_pass(arguments, check_layer_norm(at, arguments, static_cast<std::size_t>(std::max(axes, 0))),
                           eps);
}

NormGradients layer_norm_grad(Tensor* output_gradient, Tensor* input, int axes, Tensor* gamma, Tensor* mean,
                              Tensor* variance, double eps, const std::array<bool, 3>& wanted) {
    const Where at = where("ornik::nn::layer_norm_grad");
    check_eps(at, eps);
    const NormArguments arguments{"layer norm", gamma, nullptr, input};
    const NormSplit split = check_layer_norm(at, arguments, static_cast<std::size_t>(std::max(axes, 0)));
    return layer_norm_grads(at, arguments, {output_gradient, mean, variance, eps}, split, wanted);
}

Normalized group_norm(Tensor* input, std::int64_t groups, Tensor* gamma, Tensor* beta, double eps) {
    return group_norm_pass(checked_group(where("ornik::nn::group_norm"), input, groups, gamma, beta, eps), groups, eps);
}

NormGradients group_norm_grad(Tensor* output_gradient, Tensor* input, std::int64_t groups, Tensor* gamma, Tensor* mean,
                              Tensor* variance, double eps, const std::array<bool, 3>& wanted) {
    const Where at = where("ornik::nn::group_norm_grad");
    const NormArguments arguments = checked_group(at, input, groups, gamma, nullptr, eps);
    return group_norm_grads(at, arguments, {output_gradient, mean, variance, eps}, groups, wanted);
}

}  // namespace ornik::nn
