#include "layers/layer_dense.h"

#include "tensor/checks.h"
#include "tensor/nn/linear.h"

namespace ornik {

namespace {

std::unique_ptr<Tensor> clone_or_null(const std::unique_ptr<Tensor>& t) {
    return std::unique_ptr<Tensor>(t ? t->clone() : nullptr);
}

std::unique_ptr<Tensor> whole_view(const Tensor* t) {
    return std::unique_ptr<Tensor>(
        view_tensor(t->getStorage(), t->Shape(), t->Strides(), t->Device(), t->Dtype(), t->StorageOffset()));
}

Dims with_last(Dims shape, std::int64_t last) {
    shape.back() = last;
    return shape;
}

void check_arguments(const Where& at, const Tensor* weight, const Tensor* bias, const Tensor* input,
                     std::int64_t out_features) {
    if (weight == nullptr || input == nullptr) {
        fail(at, "Dense layer needs a weight and an input.");
    }
    check_operands(at, weight, input);
    check_optional(at, bias);
    for (const Tensor* t : {weight, bias}) {
        if (t != nullptr && t->Device() != input->Device()) {
            fail(at, "Not same device for inputs of dense layer.");
        }
        if (t != nullptr && t->Dtype() != input->Dtype()) {
            fail(at, "Not same data type for inputs of dense layer.");
        }
    }
    if (input->Dtype() < dtype::float32) {
        fail(at, "Dense layer only supports float or complex.");
    }
    if (input->ndim() < 1 || weight->Shape() != Dims{input->Shape().back(), out_features}) {
        fail(at, "Dense layer with ", out_features, " outputs needs a weight [in, out] and an input [..., in]: weight ",
             weight->Shape(), ", input ", input->Shape());
    }
    if (bias != nullptr && bias->Shape() != Dims{out_features} && bias->Shape() != Dims{1, out_features}) {
        fail(at, "Dense layer with ", out_features, " outputs has a bias of another shape: ", bias->Shape());
    }
}

}  // namespace

LDense::LDense(int out_features, bool use_bias, std::string name, int first, int second)
    : Layer(name.empty() ? "dense" : std::move(name), first, second), out_features_(out_features), use_bias_(use_bias) {
    external_ownership_ = true;
}

LDense::LDense(const LDense& other)
    : Layer(other),
      out_features_(other.out_features_),
      use_bias_(other.use_bias_),
      weight_gradient_(clone_or_null(other.weight_gradient_)),
      bias_gradient_(clone_or_null(other.bias_gradient_)) {}

LDense& LDense::operator=(const LDense& other) {
    if (this != &other) {
        std::unique_ptr<Tensor> weight_copy = clone_or_null(other.weight_gradient_);
        std::unique_ptr<Tensor> bias_copy = clone_or_null(other.bias_gradient_);
        Layer::operator=(other);
        out_features_ = other.out_features_;
        use_bias_ = other.use_bias_;
        weight_gradient_ = std::move(weight_copy);
        bias_gradient_ = std::move(bias_copy);
    }
    return *this;
}

LDense::~LDense() = default;

Tensor* LDense::forward_dyn(Tensor* weight, Tensor* bias, Tensor* input) {
    check_arguments(where("ornik::LDense::forward_dyn"), weight, bias, input, out_features_);
    return linear(weight, use_bias_ ? bias : nullptr, input).release();
}

Tensor* LDense::backward_dyn(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient, int node) {
    const Where at = where("ornik::LDense::backward_dyn");
    if (node < 0 || node > 2) {
        fail(at, "NOT impl grad for this Node");
    }
    if ((node == 2 && !use_bias_) || (node != 0 && !_trainable)) {
        return nullptr;
    }
    check_arguments(at, weight, bias, input, out_features_);
    if (output_gradient == nullptr || output_gradient->Shape() != with_last(input->Shape(), out_features_)) {
        fail(at, "Dense layer needs a gradient of its output's shape.");
    }
    check_operands(at, output_gradient);
    if (output_gradient->Dtype() != input->Dtype()) {
        fail(at, "Not same data type for inputs of dense layer.");
    }
    if (node == 0) {
        return linear_input_grad(weight, output_gradient).release();
    }
    std::unique_ptr<Tensor>& kept = node == 1 ? weight_gradient_ : bias_gradient_;
    std::unique_ptr<Tensor> result =
        node == 1 ? linear_weight_grad(input, output_gradient) : linear_bias_grad(bias, output_gradient);
    kept = whole_view(result.get());
    return result.release();
}

}  // namespace ornik
