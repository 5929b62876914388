// results.h: new results and checks that reductions, sorting and indexing share.
#pragma once

#include <concepts>
#include <memory>
#include <vector>

#include "hardware/cpu/copy/cpu_core.h"
#include "tensor/checks.h"
#include "tensor/geometry.h"
#include "tensor/tensor.h"
#include "utils/utils.h"

namespace ornik {

using TensorResult = std::unique_ptr<Tensor>;

/// An uninitialised row-major CPU tensor; extents may be 0.
inline TensorResult new_result(const Dims& shape, std::int64_t dtype) {
    TensorResult result = std::make_unique<Tensor>();
    result->initialize_none_tensor(shape, dtype, device_cpu, layout::dense);
    return result;
}

/// The results as their caller owns them. The list is made first: it may fail.
std::vector<Tensor*> released(std::same_as<TensorResult> auto&... results) {
    std::vector<Tensor*> list;
    list.reserve(sizeof...(results));
    (list.push_back(results.release()), ...);
    return list;
}

template <typename T>
TensorResult filled_result(const Dims& shape, std::int64_t dtype, T value) {
    TensorResult result = new_result(shape, dtype);
    device::cpu::fill(result.get(), value);
    return result;
}

/// A row-major copy; extents may be 0.
inline TensorResult row_major_copy(const Tensor* t) {
    TensorResult result = new_result(t->Shape(), t->Dtype());
    device::cpu::copy(t, result.get());
    return result;
}

/// The same elements under other shape and strides, `offset` elements further on.
inline TensorResult new_view(const Tensor* t, const Dims& shape, const Dims& strides, std::int64_t offset = 0) {
    return TensorResult(share_storage_tensor(t->getStorage(), shape, strides, t->Dtype(), t->StorageOffset() + offset));
}

/// The tensor itself, or a copy of it in another dtype; extents may be 0.
class Converted {
  public:
    Converted(const Tensor* t, std::int64_t dtype) : tensor_(t) {
        if (t->Dtype() != dtype) {
            copy_ = new_result(t->Shape(), dtype);
            device::cpu::copy(t, copy_.get());
            tensor_ = copy_.get();
        }
    }
    const Tensor* get() const { return tensor_; }

  private:
    const Tensor* tensor_;
    TensorResult copy_;
};

/// Refuses an operand that the kernels of the CPU can not walk. Views of a tensor without axes may have negative
/// extents, which no walk over axes makes sense of.
template <typename... Tensors>
void check_cpu(const Where& at, const Tensors*... tensors) {
    check_operands(at, tensors...);
    ((tensors->isCPU() ? void() : refuse_gpu()), ...);
    (check_extents(at, tensors->Shape()), ...);
}

inline void check_dtype(const Where& at, bool served) {
    if (!served) {
        fail(ErrorKind::dtype, at, "Not valid dtype for this function.");
    }
}

inline bool is_real(const Tensor* t) { return !t->isComplexType(); }
inline bool is_float_or_complex(const Tensor* t) { return t->isFloat() || t->isComplexType(); }

/// The dtype of a result, by that of the operand.
using DtypeRule = std::int64_t (*)(std::int64_t dtype);
constexpr std::int64_t same_dtype(std::int64_t dtype) { return dtype; }
constexpr std::int64_t bool_dtype(std::int64_t /*dtype*/) { return dtype::boolean; }
constexpr std::int64_t position_dtype(std::int64_t /*dtype*/) { return dtype::int64; }
/// What sums of a dtype are: int64 for bool and integers.
constexpr std::int64_t total_dtype(std::int64_t dtype) { return dtype < dtype::float32 ? dtype::int64 : dtype; }
/// What means of a dtype are: float32 for bool and integers.
constexpr std::int64_t mean_dtype(std::int64_t dtype) { return dtype < dtype::float32 ? dtype::float32 : dtype; }
/// The dtype of the parts of complex elements.
constexpr std::int64_t part_dtype(std::int64_t dtype) {
    return dtype == dtype::complex64 ? dtype::float32 : (dtype == dtype::complex128 ? dtype::float64 : dtype);
}

}  // namespace ornik
