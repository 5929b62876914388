// cpu_normalization.h: batch, group and layer normalization of contiguous float32 and float64 tensors.
// Internal.
//
// Statistics are means and (biased) variances, in the elements' dtype; gamma and beta may be null, for 1
// and 0. Bits do not depend on the team size. Of an input without elements, statistics and the gradients of gamma
// and beta are 0.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// Elements [samples, channels, inner]. A batch normalization has one pair of statistics per channel; a
/// group normalization one per sample and group of adjacent channels.
struct ChannelNorm {
    std::int64_t samples = 1;
    std::int64_t channels = 1;
    std::int64_t inner = 1;
    std::int64_t groups = 0;  ///< 0 for a batch normalization
    double eps = 0;
};

/// What gradients are formed from.
struct NormGradient {
    const Tensor* input;
    const Tensor* gradient;  ///< of the output
    const Tensor* mean;
    const Tensor* variance;
    const Tensor* gamma;
};

/// Mean and variance of every channel over samples and inner positions.
void batch_statistics(const Tensor* input, const ChannelNorm& norm, Tensor* mean, Tensor* variance);
/// running = (1 - momentum) running + momentum factor batch, in double; what has arrived stays. Any strides.
void update_running(const Tensor* batch, double factor, double momentum, Tensor* running);
/// out = (input - mean) / sqrt(variance + eps) * gamma + beta
void batch_norm(const Tensor* input, const ChannelNorm& norm, const Tensor* mean, const Tensor* variance,
                const Tensor* gamma, const Tensor* beta, Tensor* out);
/// The gradients that are asked for, in as few passes as they need; null: not asked for. Statistics are those of the
/// input itself, or fixed numbers.
void batch_norm_grads(const NormGradient& from, const ChannelNorm& norm, bool fixed_statistics, Tensor* input_gradient,
                      Tensor* gamma_gradient, Tensor* beta_gradient);

/// Statistics and output in one pass.
void group_norm(const Tensor* input, const ChannelNorm& norm, const Tensor* gamma, const Tensor* beta, Tensor* mean,
                Tensor* variance, Tensor* out);
void group_norm_grads(const NormGradient& from, const ChannelNorm& norm, Tensor* input_gradient, Tensor* gamma_gradient,
                      Tensor* beta_gradient);

/// Elements [rows, cols]; every row has its statistics, every column its gamma and beta.
void layer_norm(const Tensor* input, std::int64_t cols, double eps, const Tensor* gamma, const Tensor* beta,
                Tensor* mean, Tensor* variance, Tensor* out);
void layer_norm_grads(const NormGradient& from, std::int64_t cols, double eps, Tensor* input_gradient,
                      Tensor* gamma_gradient, Tensor* beta_gradient);

}  // namespace ornik::device::cpu
