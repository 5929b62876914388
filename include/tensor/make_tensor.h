// make_tensor.h: result tensors of the library's own code. Internal.
#pragma once

#include <memory>

#include "../utils/utils.h"
#include "tensor.h"

namespace ornik {

/// An uninitialised dense tensor on the CPU. Other than Tensor::empty, this accepts extents of 0, as results
/// without elements have them.
inline std::unique_ptr<Tensor> make_tensor(const Dims& shape, std::int64_t dtype) {
    auto result = std::make_unique<Tensor>();
    result->initialize_none_tensor(shape, dtype, device_cpu, layout::dense);
    return result;
}

}  // namespace ornik
