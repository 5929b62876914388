// prepared_linear.h: a dense layer whose weight is laid out once, as the product reads it.
//
//     const PreparedLinear dense(weight, bias);
//     std::unique_ptr<Tensor> y = dense(x, LinearEnd::relu);
//
// For weights that stay as they are. A product of few rows takes as long to lay the weight out as to multiply.
#pragma once

#include <memory>

#include "../../export.h"
#include "../../tensor/tensor.h"
#include "layer_end.h"

namespace ornik::nn {

/// What a dense layer ends with.
using LinearEnd = LayerEnd;

class ORNIK_API PreparedLinear {
  public:
    /// weight [out, in] of a floating or complex dtype, bias [out] or null; any strides. Both are copied: later changes
    /// of them are not seen.
    explicit PreparedLinear(Tensor* weight, Tensor* bias = nullptr);
    ~PreparedLinear();
    PreparedLinear(PreparedLinear&& other) noexcept;
    PreparedLinear& operator=(PreparedLinear&& other) noexcept;

    /// The end of x W^T + b + residual for x [..., in], the residual [..., out] or null: bit for bit what linear(), an
    /// addition and the activation give.
    std::unique_ptr<Tensor> operator()(Tensor* input, LinearEnd end = LinearEnd::none,
                                       Tensor* residual = nullptr) const;

    /// What weight and bias take.
    [[nodiscard]] std::int64_t bytes() const;

  private:
    struct Parts;
    std::unique_ptr<const Parts> parts_;
};

}  // namespace ornik::nn
