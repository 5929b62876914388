#include "layers/functional/linear.h"

#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/nn/linear.h"

namespace ornik::nn {

namespace {

constexpr const char* name = "linear";

void check_present(const Where& at, const Tensor* t) {
    if (t == nullptr) {
        fail(at, name, " needs an input, a weight and, for its gradients, that of the output.");
    }
    check_operands(at, t);
    if (!t->isFloat() && !t->isComplexType()) {
        fail(at, "Not valid dtype for this function.");
    }
    if (!t->isCPU()) {
        refuse_gpu();
    }
}

void check_pair(const Where& at, const Tensor* first, const Tensor* second) {
    check_present(at, first);
    check_present(at, second);
    check_alike(at, name, second, first);
}

// `axis` of the weight is the last extent of the tensor.
void check_weight(const Where& at, const Tensor* t, const Tensor* weight, std::size_t axis) {
    check_pair(at, t, weight);
    const Dims& shape = weight->Shape();
    if (t->ndim() < 1 || shape.size() != 2 || t->Shape().back() != shape[axis]) {
        fail(at, name, axis == 1 ? " needs an input [..., in]" : " needs an output gradient [..., out]",
             " and a weight [out, in], however they are ", t->Shape(), "and ", shape);
    }
}

}  // namespace

std::unique_ptr<Tensor> linear(Tensor* input, Tensor* weight, Tensor* bias) {
    const Where at = where("ornik::nn::linear");
    check_weight(at, input, weight, 1);
    const std::int64_t out = weight->Shape()[0];
    if (bias != nullptr) {
        check_alike(at, name, bias, input);
        if (bias->Shape() != Dims{out}) {
            fail(at, "The bias of linear with ", out, " outputs has the shape ", bias->Shape());
        }
    }
    return ornik::linear(weight, bias, input, true);
}

std::unique_ptr<Tensor> linear_input_grad(Tensor* output_gradient, Tensor* weight) {
    check_weight(where("ornik::nn::linear_input_grad"), output_gradient, weight, 0);
    return ornik::linear_input_grad(weight, output_gradient, true);
}

std::unique_ptr<Tensor> linear_weight_grad(Tensor* output_gradient, Tensor* input) {
    const Where at = where("ornik::nn::linear_weight_grad");
    check_pair(at, output_gradient, input);
    const Dims& g = output_gradient->Shape();
    const Dims& x = input->Shape();
    if (g.empty() || g.size() != x.size() || !std::equal(g.begin(), g.end() - 1, x.begin())) {
        fail(at, name, " needs an output gradient [..., out] and an input [..., in], however they are ", g, "and ", x);
    }
    return ornik::linear_weight_grad(input, output_gradient, true);
}

std::unique_ptr<Tensor> linear_bias_grad(Tensor* output_gradient) {
    const Where at = where("ornik::nn::linear_bias_grad");
    check_present(at, output_gradient);
    if (output_gradient->ndim() < 1) {
        fail(at, name, " needs an output gradient [..., out], however it is ", output_gradient->Shape());
    }
    return ornik::linear_bias_grad(nullptr, output_gradient);
}

LinearGradients linear_grad(Tensor* output_gradient, Tensor* input, Tensor* weight, const std::array<bool, 3>& wanted) {
    check_weight(where("ornik::nn::linear_grad"), input, weight, 1);
    const Borrowed g = Borrowed::contiguous(output_gradient);  // Once for all three.
    LinearGradients result;
    if (wanted[0]) {
        result.input = nn::linear_input_grad(g.get(), weight);
    }
    if (wanted[1]) {
        result.weight = nn::linear_weight_grad(g.get(), input);
    }
    if (wanted[2]) {
        result.bias = nn::linear_bias_grad(g.get());
    }
    return result;
}

}  // namespace ornik::nn
