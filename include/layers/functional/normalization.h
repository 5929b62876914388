// normalization.h: normalizations and their gradients as functions, which keep nothing between calls.
//
// y = (x - mean) / sqrt(variance + eps) * gamma + beta, with the biased variance; a null gamma counts as 1, a null
// beta as 0. float32 and float64, one dtype throughout, any strides; eps is positive. An input without elements gives
// empty results, statistics of 0 and gradients of 0 for gamma and beta.
//
// Gradients need the input and the statistics that the forward pass returned. Those that are not `wanted` (in the
// order input, gamma, beta) are null and cost nothing.
#pragma once

#include <array>
#include <memory>

#include "../../export.h"
#include "../../tensor/tensor.h"

namespace ornik::nn {

struct Normalized {
    std::unique_ptr<Tensor> output;
    std::unique_ptr<Tensor> mean;
    std::unique_ptr<Tensor> variance;
};

struct NormGradients {
    std::unique_ptr<Tensor> input;
    std::unique_ptr<Tensor> gamma;
    std::unique_ptr<Tensor> beta;
};

/// By the statistics [C] of every channel of x [N, C, ...]; gamma and beta are [C].
ORNIK_API Normalized batch_norm(Tensor* input, Tensor* gamma, Tensor* beta, double eps = 1e-5);
/// By given statistics [C], as in inference.
ORNIK_API std::unique_ptr<Tensor> batch_norm_by(Tensor* input, Tensor* mean, Tensor* variance, Tensor* gamma,
                                                Tensor* beta, double eps = 1e-5);
/// `fixed_statistics`: they were given (batch_norm_by), and do not depend on the input.
ORNIK_API NormGradients batch_norm_grad(Tensor* output_gradient, Tensor* input, Tensor* gamma, Tensor* mean,
                                        Tensor* variance, double eps, bool fixed_statistics,
                                        const std::array<bool, 3>& wanted = {true, true, true});

/// running = (1 - momentum) running + momentum batch, with the unbiased variance, in place; `count` is the number of
/// values per channel (with none, nothing changes). Apart from batch_norm, so that a pass can be run again without
/// it. The cumulative average of n batches, this one included, has the momentum 1 / n.
ORNIK_API void update_running_statistics(Tensor* running_mean, Tensor* running_variance, Tensor* mean, Tensor* variance,
                                         std::int64_t count, double momentum);

/// By the statistics of the last `axes` axes, which gamma and beta have.
ORNIK_API Normalized layer_norm(Tensor* input, int axes, Tensor* gamma, Tensor* beta, double eps = 1e-5);
ORNIK_API NormGradients layer_norm_grad(Tensor* output_gradient, Tensor* input, int axes, Tensor* gamma, Tensor* mean,
                                        Tensor* variance, double eps,
                                        const std::array<bool, 3>& wanted = {true, true, true});

/// By the statistics [N, groups] of each sample's groups of C / groups adjacent channels; gamma and beta are [C].
ORNIK_API Normalized group_norm(Tensor* input, std::int64_t groups, Tensor* gamma, Tensor* beta, double eps = 1e-5);
ORNIK_API NormGradients group_norm_grad(Tensor* output_gradient, Tensor* input, std::int64_t groups, Tensor* gamma,
                                        Tensor* mean, Tensor* variance, double eps,
                                        const std::array<bool, 3>& wanted = {true, true, true});

}  // namespace ornik::nn
