// losses.h: losses. float32 and float64; first derivatives, of targets too where they are no indices.
//
// Reductions: none keeps the terms, sum adds them, mean divides (for class indices by the sum of their weights).
// Formulas and bounds: losses/functions.h.
#pragma once

#include "../losses/functions.h"
#include "ktensor.h"

namespace ornik {

using nn::Reduction;

/// Prediction [..., classes]; target: class indices of the leading axes, or probabilities of the prediction's shape.
struct ClassLossArguments {
    Reduction reduction = Reduction::mean;
    KTensor weight{};                  ///< [classes]
    std::int64_t ignore_index = -100;  ///< members of this class do not count
    double label_smoothing = 0;        ///< of cross_entropy alone
};
[[nodiscard]] ORNIK_API KTensor cross_entropy(const KTensor& prediction, const KTensor& target,
                                              const ClassLossArguments& arguments = {});
/// Of log-probabilities.
[[nodiscard]] ORNIK_API KTensor nll_loss(const KTensor& prediction, const KTensor& target,
                                         const ClassLossArguments& arguments = {});

// Prediction and target broadcast to one shape.

[[nodiscard]] ORNIK_API KTensor mse_loss(const KTensor& prediction, const KTensor& target,
                                         Reduction reduction = Reduction::mean);
[[nodiscard]] ORNIK_API KTensor l1_loss(const KTensor& prediction, const KTensor& target,
                                        Reduction reduction = Reduction::mean);
[[nodiscard]] ORNIK_API KTensor smooth_l1_loss(const KTensor& prediction, const KTensor& target, double beta = 1,
                                               Reduction reduction = Reduction::mean);
[[nodiscard]] ORNIK_API KTensor huber_loss(const KTensor& prediction, const KTensor& target, double delta = 1,
                                           Reduction reduction = Reduction::mean);
/// Of probabilities; `weight`, if defined, broadcasts to the terms.
[[nodiscard]] ORNIK_API KTensor binary_cross_entropy(const KTensor& prediction, const KTensor& target,
                                                     const KTensor& weight = KTensor(),
                                                     Reduction reduction = Reduction::mean);
/// Of logits; `positive_weight` scales the targets' terms.
[[nodiscard]] ORNIK_API KTensor binary_cross_entropy_with_logits(const KTensor& prediction, const KTensor& target,
                                                                 const KTensor& weight = KTensor(),
                                                                 const KTensor& positive_weight = KTensor(),
                                                                 Reduction reduction = Reduction::mean);
/// Of log-probabilities; the target is of probabilities, or of logarithms with `log_target`.
[[nodiscard]] ORNIK_API KTensor kl_div(const KTensor& prediction, const KTensor& target, bool log_target = false,
                                       Reduction reduction = Reduction::mean);

}  // namespace ornik
