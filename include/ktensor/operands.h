// operands.h: what element-wise operations do with their operands: common shapes, stride-0 views, scalars. Internal.
#pragma once

#include <memory>
#include <vector>

#include "../tensor/tensor.h"
#include "ktensor.h"

namespace ornik::autograd {

/// The common shape; the refusal names the operation and both tensors.
Dims broadcast_shape(const char* operation, const KTensor& a, const KTensor& b);

/// One tensor or more in the dtype that all promote to. Recorded.
std::vector<KTensor> promoted(const char* operation, const std::vector<KTensor>& tensors);

/// A tensor under another shape for the length of a call: itself, or a stride-0 view.
class Shown {
  public:
    Shown(const KTensor& t, const Dims& shape);
    Tensor* get() const { return tensor_; }

  private:
    std::unique_ptr<Tensor> view_;
    Tensor* tensor_;
};

/// The scalar as arithmetic with a tensor of this dtype sees it: it takes the dtype of a tensor of its own kind or
/// of a wider one, and a complex number meets a real tensor in that tensor's precision.
Scalar weak_scalar(const Scalar& scalar, std::int64_t tensor_dtype);
/// The same number of another dtype.
Scalar convert_scalar(const Scalar& scalar, std::int64_t dtype);
Scalar conj_scalar(const Scalar& scalar);

/// A tensor without axes that holds the scalar.
KTensor scalar_tensor(const Scalar& scalar, std::int64_t dtype);

/// conj(t) of a complex tensor, t itself of a real one.
KTensor conj_of(const KTensor& t);
/// 1 / t, and 0 where t is 0. Recorded.
KTensor inverse_or_zero(const KTensor& t);

/// Refuses results in place that the target's dtype can not hold: complex in real, floating in integers, numbers in
/// bool. And results of another shape.
void check_holds(const char* operation, const KTensor& target, const Dims& shape, std::int64_t dtype);

}  // namespace ornik::autograd
