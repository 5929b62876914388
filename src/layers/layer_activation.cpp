#include "layers/layer_activation.h"

#include <cmath>

#include "hardware/cpu/nn/cpu_activation.h"
#include "hardware/cpu/nn/cpu_softmax.h"
#include "tensor/borrowed.h"
#include "utils/utils.h"

namespace ornik {

namespace {

// What an activation is: its kernels, and what it takes. A softmax runs along an axis; a relu has none.
using Forward = void (*)(const Tensor* input, Tensor* output, int axis);
using Backward = void (*)(const Tensor* input, const Tensor* output, const Tensor* gradient, Tensor* result, int axis);

struct Activation {
    const char* name;
    bool has_axis;
    bool (*serves)(const Tensor* input);
    Forward forward;
    Backward backward;
};

constexpr Activation activations[] = {
    {"relu", false, [](const Tensor* t) { return !t->isComplexType(); },
     [](const Tensor* input, Tensor* output, int /*axis*/) { device::cpu::relu(input, output); },
     [](const Tensor* input, const Tensor* /*output*/, const Tensor* gradient, Tensor* result, int /*axis*/) {
         device::cpu::relu_grad(input, gradient, result);
     }},
    {"softmax", true, [](const Tensor* t) { return t->isFloat(); }, device::cpu::softmax,
     [](const Tensor* /*input*/, const Tensor* output, const Tensor* gradient, Tensor* result, int axis) {
         device::cpu::softmax_grad(output, gradient, result, axis);
     }},
};

const Activation* find_activation(const std::string& name) {
    for (const Activation& activation : activations) {
        if (name == activation.name) {
            return &activation;
        }
    }
    return nullptr;
}

// The axis of a softmax over `input`; 0 for activations without one.
int run_axis(const Where& at, const Activation& activation, const std::vector<float>& parameters, const Tensor* input) {
    if (!activation.serves(input)) {
        fail(at, "Not valid dtype for this function.");
    }
    if (!activation.has_axis) {
        return 0;
    }
    if (input->ndim() < 1) {
        fail(at, "softmax needs at least one axis");
    }
    return maybe_wrap_dim(parameters.empty() ? -1 : static_cast<int>(parameters.front()), input->ndim());
}

}  // namespace

LActivation::LActivation(std::string activation, std::vector<float> parameters, std::string name, int first, int second)
    : Layer(std::move(name), first, second), activation_(std::move(activation)), parameters_(std::move(parameters)) {
    const Where at = where("ornik::LActivation::LActivation");
    const Activation* known = find_activation(activation_);
    if (known == nullptr) {
        fail(at, "Unknown activation: ", activation_);
    }
    if (parameters_.size() > (known->has_axis ? 1U : 0U)) {
        fail(at, "Activation ", activation_, " takes fewer parameters than the ", parameters_.size(), " given");
    }
    if (known->has_axis && !parameters_.empty() &&
        (parameters_.front() != std::floor(parameters_.front()) || std::abs(parameters_.front()) > 1000.0F)) {
        fail(at, "The axis of softmax should be a whole number");
    }
    external_ownership_ = true;
}

Tensor* LActivation::forward_dyn(Tensor* input) {
    const Activation& activation = *find_activation(activation_);
    const int axis = run_axis(where("ornik::LActivation::forward_dyn"), activation, parameters_, input);
    const Borrowed x = Borrowed::contiguous(input);
    std::unique_ptr<Tensor> output(Tensor::empty_like(input));
    activation.forward(x.get(), output.get(), axis);
    return output.release();
}

Tensor* LActivation::backward_dyn(Tensor* input, Tensor* output, Tensor* output_gradient) {
    const Where at = where("ornik::LActivation::backward_dyn");
    const Activation& activation = *find_activation(activation_);
    for (const Tensor* t : {output, output_gradient}) {
        if (t->Device() != input->Device()) {
            fail(at, "Not same device for inputs of activation.");
        }
        if (t->Dtype() != input->Dtype()) {
            fail(at, "Not same data type for inputs of activation.");
        }
        if (t->Shape() != input->Shape()) {
            fail(at, "Not same shape for inputs of activation.");
        }
    }
    const int axis = run_axis(at, activation, parameters_, input);
    const Borrowed x = Borrowed::contiguous(input);
    const Borrowed y = Borrowed::contiguous(output);
    const Borrowed g = Borrowed::contiguous(output_gradient);
    std::unique_ptr<Tensor> result(Tensor::empty_like(input));
    activation.backward(x.get(), y.get(), g.get(), result.get(), axis);
    return result.release();
}

}  // namespace ornik
