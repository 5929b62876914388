// checks.h: checks that several front ends share. Internal.
#pragma once

#include <string_view>

#include "tensor.h"

namespace ornik {

/// Refuses an output whose elements share places (an expanded, stride-0 view): what it would hold depends
/// on who writes last.
void check_not_expanded(const Where& at, const Tensor* out);

/// Refuses a tensor on another device or of another dtype than `like`; `name` is the operation's in the message.
void check_alike(const Where& at, std::string_view name, const Tensor* t, const Tensor* like);

/// Refuses a null output gradient, another device or dtype than `like`'s, and another shape than the output's.
void check_output_gradient(const Where& at, std::string_view name, const Tensor* gradient, const Tensor* like,
                           const Dims& shape);

}  // namespace ornik
