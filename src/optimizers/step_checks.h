// step_checks.h: the checks that every optimizer step starts with.
#pragma once

#include <string>
#include <vector>

#include "tensor/tensor.h"

namespace ornik {

/// Device, dtype, shape and element type of all tensors of a step, in that order; `name` is the step's name
/// inside the messages. Then: nothing that is written may be an expanded view or overlap another tensor.
void check_step(const Where& at, const std::string& name, const Tensor* param, const Tensor* grad,
                const std::vector<const Tensor*>& states);

}  // namespace ornik
