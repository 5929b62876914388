// tensor_arithmetic.cpp: arithmetic between two tensors.
#include "tensor/tensor_math/tensor_arithmetic.h"

#include "hardware/cpu/elements/cpu_math.h"
#include "in_place.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/tensor_math/promotion.h"

namespace ornik {

namespace {

// ---- Cores ----

void check_one_device(const Where& at, const Tensor* a, const Tensor* b, const Tensor* out) {
    check_operands(at, a, b, out);
    if (a->Device() != b->Device() || a->Device() != out->Device()) {
        fail(ErrorKind::device, at, "Tensors in different devices");
    }
}

bool same_shapes(const Tensor* a, const Tensor* b, const Tensor* out) {
    return a->Shape() == b->Shape() && a->Shape() == out->Shape();
}

// What the kernels rely on beyond device and shape.
void check_kernel_operands(const Where& at, const Tensor* a, const Tensor* b, const Tensor* out) {
    if (!Tensor::sameDtype(a, b) || !Tensor::sameDtype(a, out)) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    check_not_expanded(at, out);
}

}  // namespace

void add(float alpha, Tensor* a, float beta, Tensor* b, Tensor* out, int accumulate) {
    const Where at = where("ornik::add");
    check_one_device(at, a, b, out);
    if (a->Shape() != b->Shape()) {
        fail(at, "Incompatible shape: lhs has a shape of ", a->Shape(), ", rhs has a shape of ", b->Shape());
    }
    if (a->Shape() != out->Shape()) {
        fail(at, "Incompatible shape: lhs has a shape of ", a->Shape(), ", result has a shape of ", out->Shape());
    }
    check_kernel_operands(at, a, b, out);
    if (a->isCPU()) {
        announce_write(at, out);
        device::cpu::add(alpha, a, beta, b, out, accumulate != 0);
    }
}

void sub(float alpha, Tensor* a, float beta, Tensor* b, Tensor* out, int accumulate) {
    const Where at = where("ornik::sub");
    check_one_device(at, a, b, out);
    if (!same_shapes(a, b, out)) {
        fail(at, "Incompatible shape");
    }
    check_kernel_operands(at, a, b, out);
    if (a->isCPU()) {
        announce_write(at, out);
        device::cpu::sub(alpha, a, beta, b, out, accumulate != 0);
    }
}

void mult(Tensor* a, Tensor* b, Tensor* out, int accumulate) {
    const Where at = where("ornik::mult");
    check_one_device(at, a, b, out);
    if (!same_shapes(a, b, out)) {
        fail(at, "Incompatible shape for mult(),   ");
    }
    check_kernel_operands(at, a, b, out);
    if (a->isCPU()) {
        announce_write(at, out);
        device::cpu::mult(a, b, out, accumulate != 0);
    }
}

void div(Tensor* a, Tensor* b, Tensor* out, int accumulate) {
    const Where at = where("Tensor::div");
    check_one_device(at, a, b, out);
    if (!same_shapes(a, b, out)) {
        fail(at, "Incompatible dims for div(),   ");
    }
    check_kernel_operands(at, a, b, out);
    if (out->isInteger()) {
        fail(ErrorKind::dtype, at, "Not valid dtype for func.");
    }
    if (a->isCPU()) {
        announce_write(at, out);
        device::cpu::div(a, b, out, accumulate != 0);
    }
}

namespace {

// ---- New results ----

using Core = void (*)(Tensor* a, Tensor* b, Tensor* out);

void add_core(Tensor* a, Tensor* b, Tensor* out) { add(1.0F, a, 1.0F, b, out, 0); }
void sub_core(Tensor* a, Tensor* b, Tensor* out) { sub(1.0F, a, 1.0F, b, out, 0); }
void mult_core(Tensor* a, Tensor* b, Tensor* out) { mult(a, b, out, 0); }
void div_core(Tensor* a, Tensor* b, Tensor* out) { div(a, b, out, 0); }

// Devices are compared before conversions, which give null for a tensor that is not on the CPU.
void check_operand_devices(const Where& at, const Tensor* a, const Tensor* b) {
    if (a->Device() != b->Device()) {
        fail(ErrorKind::device, at, "Tensors in different devices");
    }
}

using Promotion = std::int64_t (*)(std::int64_t a, std::int64_t b);

// The dtype that two operands promote to.
std::int64_t promoted(const Where& at, const Tensor* a, const Tensor* b, Promotion promotion) {
    check_operands(at, a, b);
    return promotion(a->Dtype(), b->Dtype());
}

// core(a, b) in a new tensor of dtype r, with the shape and device of `like`.
Tensor* new_result(const Where& at, Tensor* a, Tensor* b, std::int64_t r, const Tensor* like, Core core) {
    check_operand_devices(at, a, b);
    const Borrowed left = Borrowed::of_dtype(a, r);
    const Borrowed right = Borrowed::of_dtype(b, r);
    std::unique_ptr<Tensor> out(Tensor::empty(like->Shape(), like->Device(), r));
    core(left.get(), right.get(), out.get());
    return out.release();
}

// self = core(self, other converted to self's dtype).
void in_place(const Where& at, Tensor* self, Tensor* other, Core core) {
    check_operand_devices(at, self, other);
    check_not_expanded(at, self);
    check_writable(at, self);
    const Borrowed converted = Borrowed::of_dtype(other, self->Dtype());
    if (writes_safely(self, converted.get())) {
        core(self, converted.get(), self);
        return;
    }
    const std::unique_ptr<Tensor> result(Tensor::empty(self->Shape(), self->Device(), self->Dtype()));
    core(self, converted.get(), result.get());
    copy_tensor(result.get(), self);
}

}  // namespace

Tensor* Tensor::add_tensor(Tensor* other) {
    const Where at = where("ornik::Tensor::add_tensor");
    return new_result(at, this, other, promoted(at, this, other, promotion::of_tensors), this, add_core);
}

Tensor* Tensor::sub_tensor(Tensor* other) {
    const Where at = where("ornik::Tensor::sub_tensor");
    const std::int64_t r = promoted(at, this, other, promotion::of_tensors);
    if (isBool() && other->isBool()) {
        fail(ErrorKind::dtype, at, "Subtraction, the `-` operator, with two bool tensors is not supported. ");
    }
    if (isBool() || other->isBool()) {
        fail(ErrorKind::dtype, at, "Subtraction, the `-` operator, with one bool tensor is not supported. ");
    }
    return new_result(at, this, other, r, other, sub_core);
}

Tensor* Tensor::mult_tensor(Tensor* other) {
    const Where at = where("ornik::Tensor::mult_tensor");
    return new_result(at, this, other, promoted(at, this, other, promotion::of_tensors), this, mult_core);
}

Tensor* Tensor::div_tensor(Tensor* other) {
    const Where at = where("ornik::Tensor::div_tensor");
    return new_result(at, this, other, promoted(at, this, other, promotion::of_quotient), this, div_core);
}

// ---- In place ----

void Tensor::add_tensor_inplace(Tensor* other) {
    const Where at = where("ornik::Tensor::add_tensor_inplace");
    if (!keeps_dtype(dtype_, promoted(at, this, other, promotion::of_tensors))) {
        fail(ErrorKind::dtype, at, "Not supported data type casting.");
    }
    in_place(at, this, other, add_core);
}

void Tensor::sub_tensor_inplace(Tensor* other) {
    const Where at = where("ornik::Tensor::sub_tensor_inplace");
    if (!keeps_dtype(dtype_, promoted(at, this, other, promotion::of_tensors))) {
        fail(ErrorKind::dtype, at, "Not supported data type casting.");
    }
    in_place(at, this, other, sub_core);
}

void Tensor::mult_tensor_inplace(Tensor* other) {
    const Where at = where("ornik::Tensor::mult_tensor_inplace");
    const std::int64_t r = promoted(at, this, other, promotion::of_tensors);
    if (!keeps_dtype(dtype_, r)) {
        fail(ErrorKind::dtype, at, "Not supported data type casting. From ", dtype_name(r), " to ", dtype_name(dtype_));
    }
    in_place(at, this, other, mult_core);
}

void Tensor::div_tensor_inplace(Tensor* other) {
    const Where at = where("ornik::Tensor::div_tensor_inplace");
    std::int64_t r = promoted(at, this, other, promotion::of_quotient);
    const bool narrower_float = dtype_ == dtype::float32 && other->dtype_ == dtype::float64;
    const bool narrower_complex =
        dtype_ == dtype::complex64 && (other->dtype_ == dtype::float64 || other->dtype_ == dtype::complex128);
    if (narrower_float || narrower_complex) {
        r = dtype_;
    }
    if (r != dtype_) {
        fail(ErrorKind::dtype, at, "Not supported data type of two operands for divide().");
    }
    in_place(at, this, other, div_core);
}

Tensor* Tensor::add_tensors_list(const std::vector<Tensor*>& tensors) {
    const Where at = where("ornik::Tensor::add_tensors_list");
    if (tensors.empty()) {
        fail(at, "add_tensors_list requires a minimum of one tensor");
    }
    check_operands(at, tensors.front());
    std::unique_ptr<Tensor> sum(tensors.front()->clone());
    for (std::size_t i = 1; i < tensors.size(); ++i) {
        sum->add_tensor_inplace(tensors[i]);
    }
    return sum.release();
}

// ---- Gradients ----

namespace {

std::unique_ptr<Tensor> conjugate(Tensor* t) {
    std::unique_ptr<Tensor> result(Tensor::empty(t->Shape(), t->Device(), t->Dtype()));
    device::cpu::conj(t, result.get());
    return result;
}

}  // namespace

Tensor* mult_grad_impl(Tensor* grad, Tensor* other) {
    check_operands(where("ornik::mult_grad_impl"), grad, other);
    if (!other->isComplexType()) {
        return grad->mult_tensor(other);
    }
    return grad->mult_tensor(conjugate(other).get());
}

Tensor* div_dx_grad_impl(Tensor* grad, Tensor* x, Tensor* y) {
    const Where at = where("ornik::div_dx_grad_impl");
    check_operands(at, grad, x, y);
    if (x->Shape() != y->Shape()) {
        fail(at, "Incompatible dims for div(),   ");
    }
    if (!y->isComplexType()) {
        return grad->div_tensor(y);
    }
    return grad->div_tensor(conjugate(y).get());
}

Tensor* div_dy_grad_impl(Tensor* grad, Tensor* x, Tensor* y) {
    check_operands(where("ornik::div_dy_grad_impl"), grad, x, y);
    const std::unique_ptr<Tensor> quotient(x->div_tensor(y));
    const std::unique_ptr<Tensor> product(mult_grad_impl(grad, quotient.get()));
    const std::unique_ptr<Tensor> gradient(div_dx_grad_impl(product.get(), x, y));
    return gradient->mult_scalar(-1.0F);
}

}  // namespace ornik
