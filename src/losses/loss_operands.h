// loss_operands.h: what every loss checks before it runs a kernel. Internal.
#pragma once

#include <optional>
#include <string_view>

#include "tensor/borrowed.h"
#include "tensor/tensor.h"

namespace ornik {

/// Prediction and target as the kernels take them: contiguous, class indices as int64.
struct LossOperands {
    Borrowed prediction;
    Borrowed target;
    bool has_indices;
};

/// Prediction and target [...] of one shape and one dtype, float32 or float64, at least one element.
/// `name` is the loss's in messages; `title` the same at the start of a sentence.
void check_loss_pair(const Where& at, std::string_view name, std::string_view title, const Tensor* prediction,
                     const Tensor* target, bool may_be_empty = false);

/// A prediction [..., classes], and class indices in range. With `weights_too` the target may instead hold
/// weights of the prediction's shape and dtype. With `may_be_empty` the batch may have no members.
LossOperands check_class_loss(const Where& at, std::string_view name, std::string_view title, Tensor* prediction,
                              Tensor* target, bool weights_too, std::optional<std::int64_t> ignored = std::nullopt,
                              bool may_be_empty = false);

/// Refuses probabilities (contiguous) outside [0, 1].
void check_probabilities(const Where& at, const Tensor* prediction);

/// A new element for a loss of `prediction`.
std::unique_ptr<Tensor> loss_value(const Tensor* prediction);

}  // namespace ornik
