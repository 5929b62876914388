// tensor_descriptor.h: what all descriptors share. A descriptor works out, from the shape of an input, the shape
// of an operation's output and what its kernel needs to know.
#pragma once

#include "../export.h"
#include "../utils/error.h"

namespace ornik {

class ORNIK_API TensorDescriptor {
  public:
    /// Empty before the descriptor is built.
    const Dims& input_shape() const { return input_shape_; }
    const Dims& output_shape() const { return output_shape_; }

  protected:
    TensorDescriptor() = default;
    TensorDescriptor(const TensorDescriptor&) = default;
    TensorDescriptor& operator=(const TensorDescriptor&) = default;
    ~TensorDescriptor() = default;

    Dims input_shape_;
    Dims output_shape_;
};

}  // namespace ornik
