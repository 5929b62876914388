// tensor_scalar_arithmetic.cpp: arithmetic between a tensor and a scalar.
//
// The templates turn their scalar into an AnyScalar; everything else is written once.
#include "hardware/cpu/elements/cpu_math.h"
#include "in_place.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/tensor_math/promotion.h"

namespace ornik {

namespace {

using ScalarKernel = void (*)(const Tensor* a, const AnyScalar& scalar, Tensor* out);

// A complex tensor never becomes real and a floating one never an integer.
void check_casting(const Where& at, const Tensor* self, std::int64_t r) {
    const bool loses_complex = self->isComplexType() && !is_dtype_class(r, DtypeClass::complex);
    const bool loses_fraction = self->isFloat() && r < dtype::float32;
    if (loses_complex || loses_fraction) {
        fail(at, "Not supported data type casting.");
    }
}

Tensor* compute(const Where& at, Tensor* self, const AnyScalar& scalar, std::int64_t r, ScalarKernel kernel) {
    check_operands(at, self);
    if (!self->isCPU()) {
        fail(at, "Tensors in different devices");
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
        fail(at, "Not supported data type casting.");
    }
    compute_in_place(at, self, scalar, r, kernel);
}

void divide_in_place(const Where& at, Tensor* self, const AnyScalar& scalar) {
    if (self->Dtype() < dtype::float32) {
        fail(at, "Non-Float or Non-Complexdata divide in-place is not supported.");
    }
    if (!self->isComplexType() && is_dtype_class(scalar.dtype(), DtypeClass::complex)) {
        fail(at, "Non Complex  divides non-complex data in-place is not supported.");
    }
    compute_in_place(at, self, scalar, self->Dtype(), device::cpu::div_scalar);
}

template <typename Part>
complex_scalar::complex<Part> own_complex(const std::complex<Part>& value) {
    return {value};
}

}  // namespace

template <typename T>
Tensor* Tensor::add_scalar(T scalar) {
    return new_result(where("ornik::Tensor::add_scalar"), this, AnyScalar(scalar), device::cpu::add_scalar);
}

template <typename T>
Tensor* Tensor::sub_scalar(T scalar) {
    return new_result(where("ornik::Tensor::sub_scalar"), this, AnyScalar(scalar), device::cpu::sub_scalar);
}

template <typename T>
Tensor* Tensor::mult_scalar(T scalar) {
    return new_result(where("ornik::Tensor::mult_scalar"), this, AnyScalar(scalar), device::cpu::mult_scalar);
}

template <typename T>
Tensor* Tensor::div_scalar(T scalar) {
    return compute(where("ornik::Tensor::div_scalar"), this, AnyScalar(scalar), promotion::quotient_with_scalar(dtype_),
                   device::cpu::div_scalar);
}

template <typename T>
void Tensor::add_scalar_inplace(T scalar) {
    in_place(where("ornik::Tensor::add_scalar_inplace"), this, AnyScalar(scalar), device::cpu::add_scalar);
}

template <typename T>
void Tensor::sub_scalar_inplace(T scalar) {
    in_place(where("ornik::Tensor::sub_scalar_inplace"), this, AnyScalar(scalar), device::cpu::sub_scalar);
}

template <typename T>
void Tensor::mult_scalar_inplace(T scalar) {
    in_place(where("ornik::Tensor::mult_scalar_inplace"), this, AnyScalar(scalar), device::cpu::mult_scalar);
}

template <typename T>
void Tensor::div_scalar_inplace(T scalar) {
    divide_in_place(where("ornik::Tensor::div_scalar_inplace"), this, AnyScalar(scalar));
}

template <typename C>
Tensor* Tensor::add_scalar_std_complex_wrapper(C scalar) {
    return add_scalar(own_complex(scalar));
}

template <typename C>
Tensor* Tensor::sub_scalar_std_complex_wrapper(C scalar) {
    return sub_scalar(own_complex(scalar));
}

template <typename C>
Tensor* Tensor::mult_scalar_std_complex_wrapper(C scalar) {
    return mult_scalar(own_complex(scalar));
}

template <typename C>
Tensor* Tensor::div_scalar_std_complex_wrapper(C scalar) {
    return div_scalar(own_complex(scalar));
}

template <typename C>
void Tensor::add_scalar_inplace_std_complex_wrapper(C scalar) {
    add_scalar_inplace(own_complex(scalar));
}

template <typename C>
void Tensor::sub_scalar_inplace_std_complex_wrapper(C scalar) {
    sub_scalar_inplace(own_complex(scalar));
}

template <typename C>
void Tensor::mult_scalar_inplace_std_complex_wrapper(C scalar) {
    mult_scalar_inplace(own_complex(scalar));
}

template <typename C>
void Tensor::div_scalar_inplace_std_complex_wrapper(C scalar) {
    div_scalar_inplace(own_complex(scalar));
}

template <typename C>
Tensor* Tensor::mult_scalar_std_complex_grad_wrapper(C scalar) {
    return mult_scalar(own_complex(std::conj(scalar)));
}

// The scalar types of the interface.

template Tensor* Tensor::add_scalar(std::int32_t);
template Tensor* Tensor::add_scalar(float);
template Tensor* Tensor::add_scalar(bool);
template Tensor* Tensor::add_scalar(std::int8_t);
template Tensor* Tensor::add_scalar(std::uint8_t);
template Tensor* Tensor::add_scalar(std::int16_t);
template Tensor* Tensor::add_scalar(double);
template Tensor* Tensor::add_scalar(std::int64_t);
template Tensor* Tensor::add_scalar(complex_scalar::complex<float>);
template Tensor* Tensor::add_scalar(complex_scalar::complex<double>);
template void Tensor::add_scalar_inplace(std::int32_t);
template void Tensor::add_scalar_inplace(float);
template void Tensor::add_scalar_inplace(bool);
template void Tensor::add_scalar_inplace(std::int8_t);
template void Tensor::add_scalar_inplace(std::uint8_t);
template void Tensor::add_scalar_inplace(std::int16_t);
template void Tensor::add_scalar_inplace(double);
template void Tensor::add_scalar_inplace(std::int64_t);
template void Tensor::add_scalar_inplace(complex_scalar::complex<float>);
template void Tensor::add_scalar_inplace(complex_scalar::complex<double>);
template Tensor* Tensor::add_scalar_std_complex_wrapper(std::complex<float>);
template void Tensor::add_scalar_inplace_std_complex_wrapper(std::complex<float>);
template Tensor* Tensor::add_scalar_std_complex_wrapper(std::complex<double>);
template void Tensor::add_scalar_inplace_std_complex_wrapper(std::complex<double>);
template Tensor* Tensor::sub_scalar(std::int32_t);
template Tensor* Tensor::sub_scalar(float);
template Tensor* Tensor::sub_scalar(bool);
template Tensor* Tensor::sub_scalar(std::int8_t);
template Tensor* Tensor::sub_scalar(std::uint8_t);
template Tensor* Tensor::sub_scalar(std::int16_t);
template Tensor* Tensor::sub_scalar(double);
template Tensor* Tensor::sub_scalar(std::int64_t);
template Tensor* Tensor::sub_scalar(complex_scalar::complex<float>);
template Tensor* Tensor::sub_scalar(complex_scalar::complex<double>);
template void Tensor::sub_scalar_inplace(std::int32_t);
template void Tensor::sub_scalar_inplace(float);
template void Tensor::sub_scalar_inplace(bool);
template void Tensor::sub_scalar_inplace(std::int8_t);
template void Tensor::sub_scalar_inplace(std::uint8_t);
template void Tensor::sub_scalar_inplace(std::int16_t);
template void Tensor::sub_scalar_inplace(double);
template void Tensor::sub_scalar_inplace(std::int64_t);
template void Tensor::sub_scalar_inplace(complex_scalar::complex<float>);
template void Tensor::sub_scalar_inplace(complex_scalar::complex<double>);
template Tensor* Tensor::sub_scalar_std_complex_wrapper(std::complex<float>);
template void Tensor::sub_scalar_inplace_std_complex_wrapper(std::complex<float>);
template Tensor* Tensor::sub_scalar_std_complex_wrapper(std::complex<double>);
template void Tensor::sub_scalar_inplace_std_complex_wrapper(std::complex<double>);
template Tensor* Tensor::mult_scalar(std::int32_t);
template Tensor* Tensor::mult_scalar(float);
template Tensor* Tensor::mult_scalar(bool);
template Tensor* Tensor::mult_scalar(std::int8_t);
template Tensor* Tensor::mult_scalar(std::uint8_t);
template Tensor* Tensor::mult_scalar(std::int16_t);
template Tensor* Tensor::mult_scalar(double);
template Tensor* Tensor::mult_scalar(std::int64_t);
template Tensor* Tensor::mult_scalar(complex_scalar::complex<float>);
template Tensor* Tensor::mult_scalar(complex_scalar::complex<double>);
template void Tensor::mult_scalar_inplace(std::int32_t);
template void Tensor::mult_scalar_inplace(float);
template void Tensor::mult_scalar_inplace(bool);
template void Tensor::mult_scalar_inplace(std::int8_t);
template void Tensor::mult_scalar_inplace(std::uint8_t);
template void Tensor::mult_scalar_inplace(std::int16_t);
template void Tensor::mult_scalar_inplace(double);
template void Tensor::mult_scalar_inplace(std::int64_t);
template void Tensor::mult_scalar_inplace(complex_scalar::complex<float>);
template void Tensor::mult_scalar_inplace(complex_scalar::complex<double>);
template Tensor* Tensor::mult_scalar_std_complex_wrapper(std::complex<float>);
template void Tensor::mult_scalar_inplace_std_complex_wrapper(std::complex<float>);
template Tensor* Tensor::mult_scalar_std_complex_wrapper(std::complex<double>);
template void Tensor::mult_scalar_inplace_std_complex_wrapper(std::complex<double>);
template Tensor* Tensor::div_scalar(std::int32_t);
template Tensor* Tensor::div_scalar(float);
template Tensor* Tensor::div_scalar(bool);
template Tensor* Tensor::div_scalar(std::int8_t);
template Tensor* Tensor::div_scalar(std::uint8_t);
template Tensor* Tensor::div_scalar(std::int16_t);
template Tensor* Tensor::div_scalar(double);
template Tensor* Tensor::div_scalar(std::int64_t);
template Tensor* Tensor::div_scalar(complex_scalar::complex<float>);
template Tensor* Tensor::div_scalar(complex_scalar::complex<double>);
template void Tensor::div_scalar_inplace(std::int32_t);
template void Tensor::div_scalar_inplace(float);
template void Tensor::div_scalar_inplace(bool);
template void Tensor::div_scalar_inplace(std::int8_t);
template void Tensor::div_scalar_inplace(std::uint8_t);
template void Tensor::div_scalar_inplace(std::int16_t);
template void Tensor::div_scalar_inplace(double);
template void Tensor::div_scalar_inplace(std::int64_t);
template void Tensor::div_scalar_inplace(complex_scalar::complex<float>);
template void Tensor::div_scalar_inplace(complex_scalar::complex<double>);
template Tensor* Tensor::div_scalar_std_complex_wrapper(std::complex<float>);
template void Tensor::div_scalar_inplace_std_complex_wrapper(std::complex<float>);
template Tensor* Tensor::div_scalar_std_complex_wrapper(std::complex<double>);
template void Tensor::div_scalar_inplace_std_complex_wrapper(std::complex<double>);
template Tensor* Tensor::mult_scalar_std_complex_grad_wrapper(std::complex<float>);
template Tensor* Tensor::mult_scalar_std_complex_grad_wrapper(std::complex<double>);

}  // namespace ornik
