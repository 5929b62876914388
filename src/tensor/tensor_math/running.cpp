// running.cpp: running sums and products, softmax.
#include "hardware/cpu/axis/cpu_scan.h"
#include "hardware/cpu/nn/cpu_softmax.h"
#include "results.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

namespace {

using Kernel = void (*)(const Tensor* x, Tensor* out, int axis);
using GradientKernel = void (*)(const Tensor* x, const Tensor* g, Tensor* out, int axis);

bool any_dtype(const Tensor* /*t*/) { return true; }
bool is_floating(const Tensor* t) { return t->isFloat(); }

Tensor* along_axis(const Where& at, const Tensor* x, int axis, DtypeRule dtype, bool (*serves)(const Tensor*),
                   Kernel kernel) {
    check_cpu(at, x);
    check_dtype(at, serves(x));
    const int wrapped = maybe_warp_dim(axis, x->ndim());
    TensorResult result = new_result(x->Shape(), dtype(x->Dtype()));
    kernel(x, result.get(), wrapped);
    return result.release();
}

Tensor* gradient_along_axis(const Where& at, const Tensor* grad, const Tensor* x, int axis,
                            bool (*serves)(const Tensor*), GradientKernel kernel) {
    check_cpu(at, grad, x);
    check_dtype(at, serves(x));
    if (!Tensor::sameDtype(grad, x)) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    if (grad->Shape() != x->Shape()) {
        fail(at, "The gradient has a shape of ", grad->Shape(), ", the result has a shape of ", x->Shape());
    }
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

Tensor* cumsum(Tensor* x, int axis) {
    return along_axis(where("ornik::cumsum"), x, axis, total_dtype, any_dtype, device::cpu::cumsum);
}

Tensor* cumprod(Tensor* x, int axis) {
    return along_axis(where("ornik::cumprod"), x, axis, total_dtype, any_dtype, device::cpu::cumprod);
}

Tensor* softmax(Tensor* x, int axis) {
    return along_axis(where("ornik::softmax"), x, axis, same_dtype, is_floating, device::cpu::softmax);
}

Tensor* log_softmax(Tensor* x, int axis) {
    return along_axis(where("ornik::log_softmax"), x, axis, same_dtype, is_floating, device::cpu::log_softmax);
}

Tensor* cumsum_grad(Tensor* grad, int axis) {
    return along_axis(where("ornik::cumsum_grad"), grad, axis, same_dtype, is_float_or_complex,
                      [](const Tensor* g, Tensor* out, int wrapped) {
                          const TensorResult out_view = reversed(out, wrapped);
                          device::cpu::cumsum(reversed(g, wrapped).get(), out_view.get(), wrapped);
                      });
}

Tensor* cumprod_grad(Tensor* grad, Tensor* x, int axis) {
    return gradient_along_axis(where("ornik::cumprod_grad"), grad, x, axis, is_float_or_complex,
                               device::cpu::cumprod_grad);
}

Tensor* softmax_grad(Tensor* grad, Tensor* y, int axis) {
    return gradient_along_axis(where("ornik::softmax_grad"), grad, y, axis, is_floating, device::cpu::softmax_grad);
}

Tensor* log_softmax_grad(Tensor* grad, Tensor* y, int axis) {
    return gradient_along_axis(where("ornik::log_softmax_grad"), grad, y, axis, is_floating,
                               device::cpu::log_softmax_grad);
}

}  // namespace ornik
