// loss_terms.h: the losses over elements, and how terms become a loss.
#pragma once

namespace ornik::nn {

enum class Reduction { none, sum, mean };

/// Of a prediction x and a target t.
enum class ElementLoss {
    mean_square,  ///< (x - t)^2
    absolute,     ///< |x - t|
    smooth_l1,    ///< d^2 / (2 beta) for d = |x - t| below beta, else d - beta / 2
    huber,        ///< d^2 / 2 for d = |x - t| up to delta, else delta (d - delta / 2)
    /// -(t log x + (1 - t) log(1 - x)); x in [0, 1]. Logarithms below -100 count as -100, divisors of the gradient
    /// below 1e-12 as 1e-12.
    binary_cross_entropy,
    /// The same of sigmoid(x), for any x; t's term times the positive weight.
    binary_cross_entropy_with_logits,
    kl_divergence,             ///< t (log t - x), 0 where t is: x holds logarithms
    kl_divergence_log_target,  ///< exp(t) (t - x)
};

}  // namespace ornik::nn
