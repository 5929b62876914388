// element_checks.h: what the front ends of element-wise operations share.
#pragma once

#include <memory>
#include <string>

#include "tensor/tensor.h"

namespace ornik {

/// `shape`'s uninitialised tensor on the CPU; extents of 0 are welcome.
std::unique_ptr<Tensor> make_result(const Dims& shape, std::int64_t dtype);

/// "name() is not supported for int32 tensor."
[[noreturn]] void refuse_dtype(const Where& at, const std::string& name, std::int64_t dtype);

/// Fails unless both are on the CPU and of one shape.
void check_pair(const Where& at, const Tensor* a, const Tensor* b);

/// Fails unless `out` is on the CPU, has the shape and dtype, and writes each place once.
void check_output(const Where& at, const Dims& shape, std::int64_t dtype, const Tensor* out);

/// The scalar in a tensor of the dtype that repeats it over the shape. With `saturate`, an integer beyond
/// the range of an integer dtype becomes the nearest number in it.
class Scalar;
std::unique_ptr<Tensor> repeated_scalar(const Scalar& scalar, std::int64_t dtype, const Dims& shape, bool saturate);

}  // namespace ornik
