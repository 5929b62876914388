// tensor_select.cpp: choice by a condition, clamping and closeness.
#include "element_checks.h"
#include "hardware/cpu/any_scalar.h"
#include "hardware/cpu/elements/cpu_elements.h"
#include "in_place.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/tensor_math/promotion.h"
#include "tensor/tensor_math/tensor_element_math.h"

namespace ornik {

namespace {

// condition ? a : b in a new tensor of the dtype; the shapes agree.
Tensor* choose(Tensor* condition, Tensor* a, Tensor* b, std::int64_t dtype) {
    std::unique_ptr<Tensor> out = make_result(condition->Shape(), dtype);
    if (out->Size() != 0) {
        const Borrowed left = Borrowed::of_dtype(a, dtype);
        const Borrowed right = Borrowed::of_dtype(b, dtype);
        device::cpu::select(condition, left.get(), right.get(), out.get());
    }
    return out.release();
}

void check_condition(const Where& at, const Tensor* condition, const Tensor* operand) {
    check_operands(at, condition, operand);
    if (!condition->isBool()) {
        fail(ErrorKind::dtype, at, "The condition should be a bool tensor.");
    }
    check_pair(at, condition, operand);
}

// The tensor where `kept` is true of the condition, zeros elsewhere.
Tensor* masked(Tensor* condition, Tensor* grad, bool kept) {
    const auto zeros = repeated_scalar(Scalar(0), grad->Dtype(), grad->Shape(), false);
    return kept ? choose(condition, grad, zeros.get(), grad->Dtype())
                : choose(condition, zeros.get(), grad, grad->Dtype());
}

}  // namespace

Tensor* where(Tensor* condition, Tensor* a, Tensor* b) {
    const Where at = where("ornik::where");
    check_condition(at, condition, a);
    check_pair(at, a, b);
    return choose(condition, a, b, promotion::of_tensors(a->Dtype(), b->Dtype()));
}

Tensor* where_dx_grad(Tensor* condition, Tensor* grad) {
    check_condition(where("ornik::where_dx_grad"), condition, grad);
    return masked(condition, grad, true);
}

Tensor* where_dy_grad(Tensor* condition, Tensor* grad) {
    check_condition(where("ornik::where_dy_grad"), condition, grad);
    return masked(condition, grad, false);
}

Tensor* masked_fill_grad(Tensor* mask, Tensor* grad) {
    check_condition(where("ornik::masked_fill_grad"), mask, grad);
    return masked(mask, grad, false);
}

Tensor* Tensor::masked_fill(Tensor* mask, const Scalar& value) {
    check_condition(where("ornik::Tensor::masked_fill"), mask, this);
    const std::int64_t dtype = promotion::of_kind_with_scalar(dtype_, value.Dtype());
    const auto repeated = repeated_scalar(value, dtype, shape_, false);
    return choose(mask, repeated.get(), this, dtype);
}

void Tensor::masked_fill_inplace(Tensor* mask, const Scalar& value) {
    const Where at = where("ornik::Tensor::masked_fill_inplace");
    check_condition(at, mask, this);
    if (!keeps_dtype(dtype_, promotion::of_kind_with_scalar(dtype_, value.Dtype()))) {
        fail(ErrorKind::dtype, at, "Not supported data type casting.");
    }
    check_not_expanded(at, this);
    check_writable(at, this);
    const auto repeated = repeated_scalar(value, dtype_, shape_, false);
    const std::unique_ptr<Tensor> result(choose(mask, repeated.get(), this, dtype_));
    if (size_ != 0) {
        copy_tensor(result.get(), this);
    }
}

// ---- Clamping ----

Tensor* Tensor::clamp(const Scalar& min, const Scalar& max) {
    const std::unique_ptr<Tensor> above(maximum_scalar(min));
    return above->minimum_scalar(max);
}

Tensor* Tensor::clamp_min(const Scalar& min) { return maximum_scalar(min); }

Tensor* Tensor::clamp_max(const Scalar& max) { return minimum_scalar(max); }

void Tensor::clamp_inplace(const Scalar& min, const Scalar& max) {
    // Checked before the first bound is applied: self changes by both or by none.
    if (!keeps_dtype(dtype_, promotion::of_kind_with_scalar(dtype_, max.Dtype()))) {
        fail(ErrorKind::dtype, where("ornik::Tensor::clamp_inplace"), "Not supported data type casting.");
    }
    maximum_scalar_inplace(min);
    minimum_scalar_inplace(max);
}

void Tensor::clamp_min_inplace(const Scalar& min) { maximum_scalar_inplace(min); }

void Tensor::clamp_max_inplace(const Scalar& max) { minimum_scalar_inplace(max); }

namespace {

// The bound as clamp takes it: a floating one in the precision of a floating input.
Scalar as_taken(const Tensor* input, const Scalar& bound) {
    if (!input->isFloat() || !is_dtype_class(bound.Dtype(), DtypeClass::floating)) {
        return bound;
    }
    return input->Dtype() == dtype::float32 ? Scalar(AnyScalar(bound).as<float>())
                                            : Scalar(AnyScalar(bound).as<double>());
}

}  // namespace

Tensor* clamp_grad(Tensor* input, const Scalar& min, const Scalar& max, Tensor* grad) {
    check_pair(where("ornik::clamp_grad"), input, grad);
    const std::unique_ptr<Tensor> above(input->greater_equal_scalar(as_taken(input, min)));
    const std::unique_ptr<Tensor> below(input->less_equal_scalar(as_taken(input, max)));
    above->bitwise_and_inplace(below.get());
    return masked(above.get(), grad, true);
}

// ---- Closeness ----

Tensor* Tensor::is_close(Tensor* other, double rtol, double atol, bool equal_nan) {
    check_pair(where("ornik::Tensor::is_close"), this, other);
    const std::int64_t dtype = promotion::of_tensors(dtype_, other->dtype_);
    std::unique_ptr<Tensor> out = make_result(shape_, dtype::boolean);
    if (size_ != 0) {
        const Borrowed left = Borrowed::of_dtype(this, dtype);
        const Borrowed right = Borrowed::of_dtype(other, dtype);
        device::cpu::is_close(left.get(), right.get(), rtol, atol, equal_nan, out.get());
    }
    return out.release();
}

bool Tensor::all_close(Tensor* other, double rtol, double atol, bool equal_nan) {
    const std::unique_ptr<Tensor> close(is_close(other, rtol, atol, equal_nan));
    const bool* truths = static_cast<const bool*>(close->getRawData());
    for (std::int64_t i = 0; i < close->Size(); ++i) {
        if (!truths[i]) {
            return false;
        }
    }
    return true;
}

}  // namespace ornik
