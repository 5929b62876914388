// tensor_real_pairs.cpp: functions of two real numbers.
#include "descriptors/element_operations.h"
#include "element_checks.h"
#include "hardware/cpu/elements/cpu_real_pairs.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/tensor_math/promotion.h"
#include "tensor/tensor_math/real_pairs.h"

namespace ornik {

namespace {

using device::cpu::RealPair;

Tensor* pair(RealPair operation, const char* name, operations::Accepts accepts, Tensor* a, Tensor* b) {
    const std::string function = std::string("ornik::") + name;
    const Where at = where(function.c_str());
    check_operands(at, a, b);
    check_pair(at, a, b);
    const std::int64_t promoted = promotion::of_tensors(a->Dtype(), b->Dtype());
    if (!operations::accepts({name, accepts, operations::Result::same, 0, 0}, promoted)) {
        refuse_dtype(at, name, promoted);
    }
    const std::int64_t dtype = operation == RealPair::floor_divide ? promoted : operations::floating_dtype(promoted);
    std::unique_ptr<Tensor> out = make_result(a->Shape(), dtype);
    if (out->Size() != 0) {
        const Borrowed left = Borrowed::of_dtype(a, dtype);
        const Borrowed right = Borrowed::of_dtype(b, dtype);
        device::cpu::real_pair(operation, left.get(), right.get(), out.get());
    }
    return out.release();
}

}  // namespace

Tensor* floor_divide(Tensor* a, Tensor* b) {
    return pair(RealPair::floor_divide, "floor_divide", operations::real_number, a, b);
}

#define ORNIK_FLOATING_PAIR(name) \
    Tensor* name(Tensor* a, Tensor* b) { return pair(RealPair::name, #name, operations::real_values, a, b); }
ORNIK_FLOATING_PAIR(copysign)
ORNIK_FLOATING_PAIR(hypot)
ORNIK_FLOATING_PAIR(logaddexp)
ORNIK_FLOATING_PAIR(nextafter)
#undef ORNIK_FLOATING_PAIR

Tensor* signbit(Tensor* x) {
    const Where at = where("ornik::signbit");
    check_operands(at, x);
    if (!x->isCPU()) {
        fail(at, "Tensors in different devices");
    }
    if (!operations::accepts({"signbit", operations::real_number, operations::Result::boolean, 0, 0}, x->Dtype())) {
        refuse_dtype(at, "signbit", x->Dtype());
    }
    std::unique_ptr<Tensor> out = make_result(x->Shape(), dtype::boolean);
    if (out->Size() != 0) {
        device::cpu::signbit(x, out.get());
    }
    return out.release();
}

}  // namespace ornik
