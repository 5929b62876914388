#include "layers/functional/linear.h"

#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"
#include "tensor/nn/linear.h"

namespace ornik::nn {

namespace {

constexpr const char* name = "linear";

void check_present(const Where& at, const Tensor* t) {
    if (t == nullptr) {
        fail(at, name, " needs an input, a weight and, for its gradients, that of the output.");
    }
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
    if (t->ndim() < 1 || shape.size() != 2 || weight->Size() < 1 || t->Shape().back() != shape[axis]) {
        fail(at, name, axis == 1 ? " needs an input [..., in]" : " needs an output gradient [..., out]",
             " and a weight [out, in], however they are ", t->Shape(), "and ", shape);
    }
}

std::unique_ptr<Tensor> zeros(const Dims& shape, const Tensor* like) {
    std::unique_ptr<Tensor> result = make_tensor(shape, like->Dtype());
    result->fill_(0);
    return result;
}

std::unique_ptr<Tensor> no_rows(const Tensor* t, std::int64_t last) {
    Dims shape = t->Shape();
    shape.back() = last;
    return make_tensor(shape, t->Dtype());
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
    return input->Size() == 0 ? no_rows(input, out) : ornik::linear(weight, bias, input, true);
}

std::unique_ptr<Tensor> linear_input_grad(Tensor* output_gradient, Tensor* weight) {
    check_weight(where("ornik::nn::linear_input_grad"), output_gradient, weight, 0);
    return output_gradient->Size() == 0 ? no_rows(output_gradient, weight->Shape()[1])
                                        : ornik::linear_input_grad(weight, output_gradient, true);
}

std::unique_ptr<Tensor> linear_weight_grad(Tensor* output_gradient, Tensor* input) {
    const Where at = where("ornik::nn::linear_weight_grad");
    check_pair(at, output_gradient, input);
    const Dims& g = output_gradient->Shape();
    const Dims& x = input->Shape();
    if (g.empty() || g.size() != x.size() || !std::equal(g.begin(), g.end() - 1, x.begin()) || g.back() < 1 ||
        x.back() < 1) {
        fail(at, name, " needs an output gradient [..., out] and an input [..., in], however they are ", g, "and ", x);
    }
    return input->Size() == 0 ? zeros({g.back(), x.back()}, input)
                              : ornik::linear_weight_grad(input, output_gradient, true);
}

std::unique_ptr<Tensor> linear_bias_grad(Tensor* output_gradient) {
    const Where at = where("ornik::nn::linear_bias_grad");
    check_present(at, output_gradient);
    if (output_gradient->ndim() < 1 || output_gradient->Shape().back() < 1) {
        fail(at, name, " needs an output gradient [..., out], however it is ", output_gradient->Shape());
    }
    return output_gradient->Size() == 0 ? zeros({output_gradient->Shape().back()}, output_gradient)
                                        : ornik::linear_bias_grad(nullptr, output_gradient);
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
