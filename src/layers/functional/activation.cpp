#include "layers/functional/activation.h"

#include <cmath>

#include "hardware/cpu/nn/cpu_activation.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"

namespace ornik::nn {

namespace {

namespace kernels = device::cpu;

bool is_real(const Tensor* t) { return !t->isComplexType(); }
bool is_number(const Tensor* t) { return !t->isComplexType() && !t->isBool(); }
bool is_floating(const Tensor* t) { return t->isFloat(); }
using Serves = bool (*)(const Tensor*);

void check(const Where& at, const Tensor* t, Serves serves) {
    if (t == nullptr) {
        fail(at, "An activation needs its input.");
    }
    check_operands(at, t);
    if (!serves(t)) {
        fail(at, "Not valid dtype for this function.");
    }
    if (!t->isCPU()) {
        refuse_gpu();
    }
}

template <typename Run>
std::unique_ptr<Tensor> forward(const Where& at, const Tensor* x, Serves serves, const Run& run) {
    check(at, x, serves);
    std::unique_ptr<Tensor> output = make_tensor(x->Shape(), x->Dtype());
    if (x->Size() > 0) {
        run(x, output.get());
    }
    return output;
}

// run(input, output), both being x.
template <typename Run>
void inplace(const Where& at, Tensor* x, Serves serves, const Run& run) {
    check(at, x, serves);
    check_not_expanded(at, x);
    announce_write(at, x);
    if (x->Size() > 0) {
        run(x, x);
    }
}

// run(saved tensor, second saved tensor, gradient, result)
template <typename Run>
std::unique_ptr<Tensor> backward(const Where& at, Tensor* saved, Tensor* second, Tensor* gradient, Serves serves,
                                 const Run& run) {
    check(at, saved, serves);
    check(at, second, serves);
    check_alike(at, "activation", second, saved);
    if (second->Shape() != saved->Shape()) {
        fail(at, "Not same shape for inputs of activation.");
    }
    check_output_gradient(at, "activation", gradient, saved, saved->Shape());
    std::unique_ptr<Tensor> result = make_tensor(saved->Shape(), saved->Dtype());
    if (saved->Size() > 0) {
        run(saved, second, gradient, result.get());
    }
    return result;
}

template <typename Run>
std::unique_ptr<Tensor> backward(const Where& at, Tensor* saved, Tensor* gradient, Serves serves, const Run& run) {
    return backward(at, saved, saved, gradient, serves,
                    [&](const Tensor* x, const Tensor* /*same*/, const Tensor* g, Tensor* out) { run(x, g, out); });
}

// The exponential kernel writes what it still reads, so that in place it needs a second tensor.
void elu_over(Tensor* x, double slope, double scale) {
    const std::unique_ptr<Tensor> old(x->clone());
    kernels::elu(old.get(), slope, scale, x);
}

void check_finite(const Where& at, double parameter) {
    if (!std::isfinite(parameter)) {
        fail(at, "The parameter of an activation should be finite");
    }
}

void check_bounds(const Where& at, double low, double high) {
    if (!(low < high)) {
        fail(at, "The bounds of hardtanh should be low < high");
    }
}

}  // namespace

std::unique_ptr<Tensor> relu(Tensor* x) { return forward(where("ornik::nn::relu"), x, is_real, kernels::relu); }
void relu_inplace(Tensor* x) { inplace(where("ornik::nn::relu_inplace"), x, is_real, kernels::relu); }
std::unique_ptr<Tensor> relu_grad(Tensor* saved, Tensor* output_gradient) {
    return backward(where("ornik::nn::relu_grad"), saved, output_gradient, is_real, kernels::relu_grad);
}

std::unique_ptr<Tensor> leaky_relu(Tensor* x, double slope) {
    const Where at = where("ornik::nn::leaky_relu");
    check_finite(at, slope);
    return forward(at, x, is_floating, [=](const Tensor* in, Tensor* out) { kernels::leaky_relu(in, slope, out); });
}
void leaky_relu_inplace(Tensor* x, double slope) {
    const Where at = where("ornik::nn::leaky_relu_inplace");
    check_finite(at, slope);
    inplace(at, x, is_floating, [=](const Tensor* in, Tensor* out) { kernels::leaky_relu(in, slope, out); });
}
std::unique_ptr<Tensor> leaky_relu_grad(Tensor* saved, Tensor* output_gradient, double slope) {
    const Where at = where("ornik::nn::leaky_relu_grad");
    check_finite(at, slope);
    return backward(at, saved, output_gradient, is_floating, [=](const Tensor* in, const Tensor* g, Tensor* out) {
        kernels::leaky_relu_grad(in, g, slope, out);
    });
}

std::unique_ptr<Tensor> elu(Tensor* x, double alpha) {
    const Where at = where("ornik::nn::elu");
    check_finite(at, alpha);
    return forward(at, x, is_floating, [=](const Tensor* in, Tensor* out) { kernels::elu(in, alpha, 1, out); });
}
void elu_inplace(Tensor* x, double alpha) {
    const Where at = where("ornik::nn::elu_inplace");
    check_finite(at, alpha);
    inplace(at, x, is_floating, [=](const Tensor* /*in*/, Tensor* out) { elu_over(out, alpha, 1); });
}
std::unique_ptr<Tensor> elu_grad(Tensor* input, Tensor* output, Tensor* output_gradient, double alpha) {
    const Where at = where("ornik::nn::elu_grad");
    check_finite(at, alpha);
    return backward(at, input, output, output_gradient, is_floating,
                    [=](const Tensor* x, const Tensor* y, const Tensor* g, Tensor* out) {
                        kernels::elu_grad(x, y, g, alpha, 1, out);
                    });
}

std::unique_ptr<Tensor> selu(Tensor* x) {
    return forward(where("ornik::nn::selu"), x, is_floating, [](const Tensor* in, Tensor* out) {
        kernels::elu(in, kernels::selu_slope, kernels::selu_scale, out);
    });
}
void selu_inplace(Tensor* x) {
    inplace(where("ornik::nn::selu_inplace"), x, is_floating,
            [](const Tensor* /*in*/, Tensor* out) { elu_over(out, kernels::selu_slope, kernels::selu_scale); });
}
std::unique_ptr<Tensor> selu_grad(Tensor* saved, Tensor* output_gradient) {
    return backward(where("ornik::nn::selu_grad"), saved, output_gradient, is_floating,
                    [](const Tensor* y, const Tensor* g, Tensor* out) {
                        kernels::elu_grad(y, y, g, kernels::selu_slope, kernels::selu_scale, out);
                    });
}

std::unique_ptr<Tensor> hardtanh(Tensor* x, double low, double high) {
    const Where at = where("ornik::nn::hardtanh");
    check_bounds(at, low, high);
    return forward(at, x, is_number, [=](const Tensor* in, Tensor* out) { kernels::hardtanh(in, low, high, out); });
}
void hardtanh_inplace(Tensor* x, double low, double high) {
    const Where at = where("ornik::nn::hardtanh_inplace");
    check_bounds(at, low, high);
    inplace(at, x, is_number, [=](const Tensor* in, Tensor* out) { kernels::hardtanh(in, low, high, out); });
}
std::unique_ptr<Tensor> hardtanh_grad(Tensor* saved, Tensor* output_gradient, double low, double high) {
    const Where at = where("ornik::nn::hardtanh_grad");
    check_bounds(at, low, high);
    return backward(at, saved, output_gradient, is_number, [=](const Tensor* x, const Tensor* g, Tensor* out) {
        kernels::hardtanh_grad(x, g, low, high, out);
    });
}

std::unique_ptr<Tensor> hardsigmoid(Tensor* x) {
    return forward(where("ornik::nn::hardsigmoid"), x, is_floating, kernels::hardsigmoid);
}
void hardsigmoid_inplace(Tensor* x) {
    inplace(where("ornik::nn::hardsigmoid_inplace"), x, is_floating, kernels::hardsigmoid);
}
std::unique_ptr<Tensor> hardsigmoid_grad(Tensor* saved, Tensor* output_gradient) {
    return backward(where("ornik::nn::hardsigmoid_grad"), saved, output_gradient, is_floating,
                    kernels::hardsigmoid_grad);
}

std::unique_ptr<Tensor> hardswish(Tensor* x) {
    return forward(where("ornik::nn::hardswish"), x, is_floating, kernels::hardswish);
}
void hardswish_inplace(Tensor* x) {
    inplace(where("ornik::nn::hardswish_inplace"), x, is_floating, kernels::hardswish);
}
std::unique_ptr<Tensor> hardswish_grad(Tensor* saved, Tensor* output_gradient) {
    return backward(where("ornik::nn::hardswish_grad"), saved, output_gradient, is_floating, kernels::hardswish_grad);
}

std::unique_ptr<Tensor> mish(Tensor* x) { return forward(where("ornik::nn::mish"), x, is_floating, kernels::mish); }
void mish_inplace(Tensor* x) { inplace(where("ornik::nn::mish_inplace"), x, is_floating, kernels::mish); }
std::unique_ptr<Tensor> mish_grad(Tensor* saved, Tensor* output_gradient) {
    return backward(where("ornik::nn::mish_grad"), saved, output_gradient, is_floating, kernels::mish_grad);
}

}  // namespace ornik::nn
