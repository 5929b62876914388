// index_checks.h: what makes an index tensor usable.
#pragma once

#include "hardware/cpu/index/cpu_index.h"
#include "results.h"

namespace ornik {

/// Refuses an index outside [-n, n).
inline void check_positions(const Where& at, const Tensor* index, std::int64_t n) {
    if (const auto outside = device::cpu::first_outside(index, n)) {
        fail(ErrorKind::index, at, "Index ", *outside, " is out of range for an axis of ", n, " elements");
    }
}

/// An index tensor as int64: a view of it, or a converted copy. Integer dtypes except bool.
inline TensorResult as_positions(const Where& at, const Tensor* index) {
    check_cpu(at, index);
    if (!index->isInteger() || index->isBool()) {
        fail(ErrorKind::dtype, at, "Index should be of an integer dtype");
    }
    if (index->Dtype() == dtype::int64) {
        return new_view(index, index->Shape(), index->Strides());
    }
    TensorResult result = new_result(index->Shape(), dtype::int64);
    device::cpu::copy(index, result.get());
    return result;
}

}  // namespace ornik
