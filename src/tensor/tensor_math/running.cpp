// running.cpp: running sums and products, softmax.
#include "hardware/cpu/axis/cpu_scan.h"
#include "hardware/cpu/nn/cpu_softmax.h"
#include "results.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

namespace {

using Kernel = void (*)(const Tensor* x, Tensor* out, int axis);
using GradientKernel = void (*)(const Tensor* x, const Tensor* g, Tensor* out, int axis);

Tensor* along_axis(const Tensor* x, int axis, std::int64_t dtype, Kernel kernel) {
    check_cpu(x);
    const int wrapped = maybe_warp_dim(axis, x->ndim());
    TensorResult result = new_result(x->Shape(), dtype);
    kernel(x, result.get(), wrapped);
    return result.release();
}

Tensor* gradient_along_axis(const Where& at, const Tensor* grad, const Tensor* x, int axis, GradientKernel kernel) {
    check_cpu(grad);
    if (!Tensor::sameDtype(grad, x)) {
        fail(at, "Not same data type");
    }
    if (grad->Shape() != x->Shape()) {
        fail(at, "The gradient has a shape of ", grad->Shape(), ", the result has a shape of ", x->Shape());
    }
    check_cpu(x);
    const int wrapped = maybe_warp_dim(axis, x->ndim());
    TensorResult result = new_result(x->Shape(), x->Dtype());
    kernel(x, grad, result.get(), wrapped);
    return result.release();
}

// The same elements, walked from the other end of the axis.
TensorResult reversed(const Tensor* t, int axis) {
    const auto i = static_cast<std::size_t>(axis);
    Dims strides = t->Strides();
    const std::int64_t last = t->Size() > 0 ? (t->Shape()[i] - 1) * strides[i] : 0;
    strides[i] = -strides[i];
    return new_view(t, t->Shape(), strides, last);
}

}  // namespace

Tensor* cumsum(Tensor* x, int axis) { return along_axis(x, axis, total_dtype(x->Dtype()), device::cpu::cumsum); }

Tensor* cumprod(Tensor* x, int axis) { return along_axis(x, axis, total_dtype(x->Dtype()), device::cpu::cumprod); }

Tensor* softmax(Tensor* x, int axis) {
    check_dtype(where("ornik::softmax"), x->isFloat());
    return along_axis(x, axis, x->Dtype(), device::cpu::softmax);
}

Tensor* log_softmax(Tensor* x, int axis) {
    check_dtype(where("ornik::log_softmax"), x->isFloat());
    return along_axis(x, axis, x->Dtype(), device::cpu::log_softmax);
}

Tensor* cumsum_grad(Tensor* grad, int axis) {
    check_dtype(where("ornik::cumsum_grad"), is_float_or_complex(grad));
    return along_axis(grad, axis, grad->Dtype(), [](const Tensor* g, Tensor* out, int wrapped) {
        const TensorResult out_view = reversed(out, wrapped);
        device::cpu::cumsum(reversed(g, wrapped).get(), out_view.get(), wrapped);
    });
}

Tensor* cumprod_grad(Tensor* grad, Tensor* x, int axis) {
    const Where at = where("ornik::cumprod_grad");
    check_dtype(at, is_float_or_complex(x));
    return gradient_along_axis(at, grad, x, axis, device::cpu::cumprod_grad);
}

Tensor* softmax_grad(Tensor* grad, Tensor* y, int axis) {
    const Where at = where("ornik::softmax_grad");
    check_dtype(at, y->isFloat());
    return gradient_along_axis(at, grad, y, axis, device::cpu::softmax_grad);
}

Tensor* log_softmax_grad(Tensor* grad, Tensor* y, int axis) {
    const Where at = where("ornik::log_softmax_grad");
    check_dtype(at, y->isFloat());
    return gradient_along_axis(at, grad, y, axis, device::cpu::log_softmax_grad);
}

}  // namespace ornik
