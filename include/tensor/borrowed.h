// borrowed.h: "the tensor as it is, or a temporary made from it". Internal.
//
// contiguous() and toDtype(dtype, false) return either the tensor they were called on or a new one that
// the caller deletes. Code of the library goes through this class, which knows the difference.
#pragma once

#include <memory>

#include "../utils/utils.h"
#include "checks.h"
#include "make_tensor.h"
#include "tensor.h"

namespace ornik {

class Borrowed {
  public:
    /// The tensor itself when it is contiguous, else a contiguous copy. Null gives null; what has no elements
    /// to read is refused.
    static Borrowed contiguous(Tensor* t) {
        check_optional(where("ornik::Borrowed::contiguous"), t);
        return {t, t == nullptr ? nullptr : t->contiguous()};
    }
    /// The tensor itself when it has the dtype, else a converted copy, also of no elements. Fails away from the CPU,
    /// where toDtype gives null.
    static Borrowed of_dtype(Tensor* t, std::int64_t dtype) {
        check_operands(where("ornik::Borrowed::of_dtype"), t);
        if (t->Size() == 0 && t->isCPU() && t->Dtype() != dtype) {
            return {t, make_tensor(t->Shape(), dtype).release()};
        }
        Tensor* converted = t->toDtype(dtype, false);
        if (converted == nullptr) {
            refuse_gpu();
        }
        return {t, converted};
    }

    Tensor* get() const { return tensor_; }
    Tensor* operator->() const { return tensor_; }
    /// True when get() is a copy of its own.
    bool is_copy() const { return copy_ != nullptr; }

  private:
    Borrowed(Tensor* original, Tensor* tensor) : tensor_(tensor), copy_(tensor == original ? nullptr : tensor) {}

    Tensor* tensor_;
    std::unique_ptr<Tensor> copy_;
};

}  // namespace ornik
