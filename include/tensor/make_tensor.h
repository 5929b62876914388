// make_tensor.h: result tensors of the library's own code. Internal.
#pragma once

#include <algorithm>
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

/// A result of `shape` with the device and dtype of `like`: what Tensor::empty makes, extents of 0 included.
inline std::unique_ptr<Tensor> make_output(const Dims& shape, const Tensor* like) {
    const bool is_empty = like->isCPU() && std::find(shape.begin(), shape.end(), 0) != shape.end();
    return is_empty ? make_tensor(shape, like->Dtype())
                    : std::unique_ptr<Tensor>(Tensor::empty(shape, like->Device(), like->Dtype()));
}

}  // namespace ornik
