#include "layers/layer_activation.h"

#include <cmath>

#include "hardware/cpu/elements/cpu_elements.h"
#include "hardware/cpu/nn/cpu_activation.h"
#include "hardware/cpu/nn/cpu_softmax.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"
#include "utils/utils.h"

namespace ornik {

namespace {

using operations::Unary;

// What the kernels of one call get besides tensors: a softmax's axis, or the slope of an activation.
struct Setting {
    int axis = 0;
    double slope = 0;
};

using Forward = void (*)(const Tensor* input, Tensor* output, const Setting& setting);
using Backward = void (*)(const Tensor* input, const Tensor* output, const Tensor* gradient, Tensor* result,
                          const Setting& setting);

enum class Parameter { none, axis, slope };

struct Activation {
    const char* name;
    Parameter parameter;
    double default_parameter;
    bool (*serves)(const Tensor* input);
    Forward forward;
    Backward backward;
};

bool is_real(const Tensor* t) { return !t->isComplexType(); }
bool is_floating(const Tensor* t) { return t->isFloat(); }
bool is_floating_or_complex(const Tensor* t) { return t->Dtype() >= dtype::float32; }

// An operation of the table of element-wise mathematics.
template <Unary operation>
constexpr Activation from_table(const char* name, bool (*serves)(const Tensor*)) {
    return {name,
            Parameter::none,
            0,
            serves,
            [](const Tensor* input, Tensor* output, const Setting& /*setting*/) {
                device::cpu::unary(operation, input, output);
            },
            [](const Tensor* input, const Tensor* output, const Tensor* gradient, Tensor* result,
               const Setting& /*setting*/) { device::cpu::unary_grad(operation, input, output, gradient, result); }};
}

constexpr Activation activations[] = {
    {"relu", Parameter::none, 0, is_real,
     [](const Tensor* input, Tensor* output, const Setting& /*setting*/) { device::cpu::relu(input, output); },
     [](const Tensor* input, const Tensor* /*output*/, const Tensor* gradient, Tensor* result,
        const Setting& /*setting*/) { device::cpu::relu_grad(input, gradient, result); }},
    {"leaky_relu", Parameter::slope, 0.01, is_floating,
     [](const Tensor* input, Tensor* output, const Setting& setting) {
         device::cpu::leaky_relu(input, setting.slope, output);
     },
     [](const Tensor* input, const Tensor* /*output*/, const Tensor* gradient, Tensor* result, const Setting& setting) {
         device::cpu::leaky_relu_grad(input, gradient, setting.slope, result);
     }},
    {"elu", Parameter::slope, 1, is_floating,
     [](const Tensor* input, Tensor* output, const Setting& setting) {
         device::cpu::elu(input, setting.slope, 1, output);
     },
     [](const Tensor* input, const Tensor* output, const Tensor* gradient, Tensor* result, const Setting& setting) {
         device::cpu::elu_grad(input, output, gradient, setting.slope, 1, result);
     }},
    {"selu", Parameter::none, 0, is_floating,
     [](const Tensor* input, Tensor* output, const Setting& /*setting*/) {
         device::cpu::elu(input, device::cpu::selu_slope, device::cpu::selu_scale, output);
     },
     [](const Tensor* input, const Tensor* output, const Tensor* gradient, Tensor* result, const Setting& /*setting*/) {
         device::cpu::elu_grad(input, output, gradient, device::cpu::selu_slope, device::cpu::selu_scale, result);
     }},
    from_table<Unary::gelu>("gelu", is_floating),
    from_table<Unary::silu>("silu", is_floating),
    from_table<Unary::sigmoid>("sigmoid", is_floating_or_complex),
    from_table<Unary::tanh>("tanh", is_floating_or_complex),
    from_table<Unary::softplus>("softplus", is_floating),
    {"softmax", Parameter::axis, -1, is_floating,
     [](const Tensor* input, Tensor* output, const Setting& setting) {
         device::cpu::softmax(input, output, setting.axis);
     },
     [](const Tensor* /*input*/, const Tensor* output, const Tensor* gradient, Tensor* result, const Setting& setting) {
         device::cpu::softmax_grad(output, gradient, result, setting.axis);
     }},
    {"log_softmax", Parameter::axis, -1, is_floating,
     [](const Tensor* input, Tensor* output, const Setting& setting) {
         device::cpu::log_softmax(input, output, setting.axis);
     },
     [](const Tensor* /*input*/, const Tensor* output, const Tensor* gradient, Tensor* result, const Setting& setting) {
         device::cpu::log_softmax_grad(output, gradient, result, setting.axis);
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

Setting setting_for(const Where& at, const Activation& activation, const std::vector<float>& parameters,
                    const Tensor* input) {
    if (!activation.serves(input)) {
        fail(at, "Not valid dtype for this function.");
    }
    const double parameter =
        parameters.empty() ? activation.default_parameter : static_cast<double>(parameters.front());
    if (activation.parameter != Parameter::axis) {
        return {0, parameter};
    }
    if (input->ndim() < 1) {
        fail(at, activation.name, " needs at least one axis");
    }
    return {maybe_wrap_dim(static_cast<int>(parameter), input->ndim()), 0};
}

}  // namespace

LActivation::LActivation(std::string activation, std::vector<float> parameters, std::string name, int first, int second)
    : Layer(std::move(name), first, second), activation_(std::move(activation)), parameters_(std::move(parameters)) {
    const Where at = where("ornik::LActivation::LActivation");
    const Activation* known = find_activation(activation_);
    if (known == nullptr) {
        fail(at, "Unknown activation: ", activation_);
    }
    if (parameters_.size() > (known->parameter == Parameter::none ? 0U : 1U)) {
        fail(at, "Activation ", activation_, " takes fewer parameters than the ", parameters_.size(), " given");
    }
    if (known->parameter == Parameter::axis && !parameters_.empty() &&
        (parameters_.front() != std::floor(parameters_.front()) || std::abs(parameters_.front()) > 1000.0F)) {
        fail(at, "The axis of ", activation_, " should be a whole number");
    }
    if (known->parameter == Parameter::slope && !parameters_.empty() && !std::isfinite(parameters_.front())) {
        fail(at, "The parameter of ", activation_, " should be finite");
    }
    external_ownership_ = true;
}

Tensor* LActivation::forward_dyn(Tensor* input) {
    const Activation& activation = *find_activation(activation_);
    const Where at = where("ornik::LActivation::forward_dyn");
    check_operands(at, input);
    const Setting setting = setting_for(at, activation, parameters_, input);
    const Borrowed x = Borrowed::contiguous(input);
    std::unique_ptr<Tensor> output = make_output(input->Shape(), input);
    if (output->Size() > 0) {
        activation.forward(x.get(), output.get(), setting);
    }
    return output.release();
}

Tensor* LActivation::backward_dyn(Tensor* input, Tensor* output, Tensor* output_gradient) {
    const Where at = where("ornik::LActivation::backward_dyn");
    const Activation& activation = *find_activation(activation_);
    check_operands(at, input, output, output_gradient);
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
    const Setting setting = setting_for(at, activation, parameters_, input);
    const Borrowed x = Borrowed::contiguous(input);
    const Borrowed y = Borrowed::contiguous(output);
    const Borrowed g = Borrowed::contiguous(output_gradient);
    std::unique_ptr<Tensor> result = make_output(input->Shape(), input);
    if (result->Size() > 0) {
        activation.backward(x.get(), y.get(), g.get(), result.get(), setting);
    }
    return result.release();
}

}  // namespace ornik
