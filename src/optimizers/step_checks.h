// step_checks.h: the checks that every optimizer step starts with.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "tensor/checks.h"

namespace ornik {

/// Device, dtype, shape and element type of all tensors of a step, in that order; `name` is the step's name
/// inside the messages. Then: nothing that is written may be an expanded view or overlap another tensor.
/// `idle` tensors belong to the step's arguments but are neither read nor written.
void check_step(const Where& at, const std::string& name, const Tensor* param, const Tensor* grad,
                const std::vector<const Tensor*>& states, const std::vector<const Tensor*>& idle = {});

/// Those that are not null.
std::vector<const Tensor*> present(std::initializer_list<const Tensor*> states);

/// Counts a write of each that is not null; comes last before the kernel.
void announce_step(const Where& at, std::initializer_list<const Tensor*> written);

/// Refuses a step count below 1.
void check_step_count(const Where& at, const std::string& name, std::int32_t step);

/// 1 / (1 - beta^step): what a running average that began at zero after `step` values is to be scaled by.
double bias_correction(float beta, std::int32_t step);

/// A tensor as steps over real numbers see it: itself (null stays null), or for a complex tensor a view [.., 2] of its
/// parts on the same storage.
class RealParts {
  public:
    explicit RealParts(Tensor* t);
    Tensor* get() const { return view_ ? view_.get() : tensor_; }

  private:
    Tensor* tensor_;
    std::unique_ptr<Tensor> view_;
};

}  // namespace ornik
