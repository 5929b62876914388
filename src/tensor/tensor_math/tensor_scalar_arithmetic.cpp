// tensor_scalar_arithmetic.cpp: arithmetic between a tensor and a scalar.
#include "hardware/cpu/elements/cpu_math.h"
#include "in_place.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/tensor_math/promotion.h"

namespace ornik {

namespace {

// Arithmetic with tensors and with scalars reports under one file name.
constexpr const char* family = "src/tensor/tensor_math/tensor_arithmetic.cpp";

using ScalarKernel = void (*)(const Tensor* a, const AnyScalar& scalar, Tensor* out);

// A complex tensor never becomes real and a floating one never an integer.
void check_casting(const Where& at, const Tensor* self, std::int64_t r) {
    const bool loses_complex = self->isComplexType() && !is_dtype_class(r, DtypeClass::complex);
    const bool loses_fraction = self->isFloat() && r < dtype::float32;
    if (loses_complex || loses_fraction) {
        fail(ErrorKind::dtype, at, "Not supported data type casting.");
    }
}

Tensor* compute(const Where& at, Tensor* self, const AnyScalar& scalar, std::int64_t r, ScalarKernel kernel) {
    check_operands(at, self);
    if (!self->isCPU()) {
        fail(ErrorKind::device, at, "Tensors in different devices");
    }
    std::unique_ptr<Tensor> out(Tensor::empty(self->Shape(), self->Device(), r));
    const Borrowed converted = Borrowed::of_dtype(self, r);
    kernel(converted.get(), scalar, out.get());
    return out.release();
}

// Computes in dtype r, then converts into self.
void compute_in_place(const Where& at, Tensor* self, const AnyScalar& scalar, std::int64_t r, ScalarKernel kernel) {
    check_writable(at, self);
    check_not_expanded(at, self);
    if (r == self->Dtype() && self->isCPU() && writes_safely(self, self)) {
        announce_write(at, self);
        kernel(self, scalar, self);
        return;
    }
    const std::unique_ptr<Tensor> result(compute(at, self, scalar, r, kernel));
    self->copy_from_(result.get());
}

Tensor* new_result(const Where& at, Tensor* self, const AnyScalar& scalar, ScalarKernel kernel) {
    const std::int64_t r = promotion::with_scalar(self->Dtype(), scalar.dtype());
    check_casting(at, self, r);
    return compute(at, self, scalar, r, kernel);
}

void in_place(const Where& at, Tensor* self, const AnyScalar& scalar, ScalarKernel kernel) {
    const std::int64_t r = promotion::with_scalar(self->Dtype(), scalar.dtype());
    check_casting(at, self, r);
    if (!keeps_dtype(self->Dtype(), r)) {
        fail(ErrorKind::dtype, at, "Not supported data type casting.");
    }
    compute_in_place(at, self, scalar, r, kernel);
}

void divide_in_place(const Where& at, Tensor* self, const AnyScalar& scalar) {
    if (self->Dtype() < dtype::float32) {
        fail(ErrorKind::dtype, at, "Non-Float or Non-Complexdata divide in-place is not supported.");
    }
    if (!self->isComplexType() && is_dtype_class(scalar.dtype(), DtypeClass::complex)) {
        fail(ErrorKind::dtype, at, "Non Complex  divides non-complex data in-place is not supported.");
    }
    compute_in_place(at, self, scalar, self->Dtype(), device::cpu::div_scalar);
}

}  // namespace

Tensor* Tensor::add_scalar(const Scalar& scalar) {
    return new_result(where("ornik::Tensor::add_scalar", family), this, AnyScalar(scalar), device::cpu::add_scalar);
}

Tensor* Tensor::sub_scalar(const Scalar& scalar) {
    return new_result(where("ornik::Tensor::sub_scalar", family), this, AnyScalar(scalar), device::cpu::sub_scalar);
}

Tensor* Tensor::mult_scalar(const Scalar& scalar) {
    return new_result(where("ornik::Tensor::mult_scalar", family), this, AnyScalar(scalar), device::cpu::mult_scalar);
}

Tensor* Tensor::div_scalar(const Scalar& scalar) {
    return compute(where("ornik::Tensor::div_scalar", family), this, AnyScalar(scalar),
                   promotion::quotient_with_scalar(dtype_), device::cpu::div_scalar);
}

void Tensor::add_scalar_inplace(const Scalar& scalar) {
    in_place(where("ornik::Tensor::add_scalar_inplace", family), this, AnyScalar(scalar), device::cpu::add_scalar);
}

void Tensor::sub_scalar_inplace(const Scalar& scalar) {
    in_place(where("ornik::Tensor::sub_scalar_inplace", family), this, AnyScalar(scalar), device::cpu::sub_scalar);
}

void Tensor::mult_scalar_inplace(const Scalar& scalar) {
    in_place(where("ornik::Tensor::mult_scalar_inplace", family), this, AnyScalar(scalar), device::cpu::mult_scalar);
}

void Tensor::div_scalar_inplace(const Scalar& scalar) {
    divide_in_place(where("ornik::Tensor::div_scalar_inplace", family), this, AnyScalar(scalar));
}

}  // namespace ornik
