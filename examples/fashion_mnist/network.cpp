#include "network.h"

#include <cmath>
#include <stdexcept>

namespace dtype = ornik::dtype;
using ornik::Tensor;

namespace {

constexpr int hidden_units = 128;
constexpr int first_channels = 16;
constexpr int second_channels = 32;

// Uniform, bounded by the square root of 6 / inputs: what keeps the scale of activations through a ReLU.
TensorPtr random_weight(const ornik::Dims& shape, std::int64_t inputs) {
    const double bound = std::sqrt(6.0 / static_cast<double>(inputs));
    return TensorPtr(Tensor::randu(shape, -bound, bound, ornik::device_cpu, dtype::float32));
}

TensorPtr zeros(std::int64_t size) { return TensorPtr(Tensor::zeros({size}, ornik::device_cpu, dtype::float32)); }

std::unique_ptr<Module> dense(std::int64_t inputs, int outputs, bool needs_input_gradient = true) {
    return std::make_unique<Weighted>(ornik::_Dense(outputs, true, ""), random_weight({inputs, outputs}, inputs),
                                      zeros(outputs), needs_input_gradient);
}

// The bias is left to the batch normalization behind it.
std::unique_ptr<Module> convolution(int inputs, int outputs, bool needs_input_gradient) {
    return std::make_unique<Weighted>(ornik::_Conv2D(outputs, {3, 3}, {1, 1}, "same", false, 1, {1, 1}, ""),
                                      random_weight({outputs, inputs, 3, 3}, std::int64_t{9} * inputs), nullptr,
                                      needs_input_gradient);
}

}  // namespace

std::unique_ptr<Module> make_perceptron(std::int64_t pixels, int classes) {
    std::vector<std::unique_ptr<Module>> modules;
    modules.push_back(std::make_unique<Flatten>());
    modules.push_back(dense(pixels, hidden_units, false));
    modules.push_back(std::make_unique<Activation>("relu"));
    modules.push_back(dense(hidden_units, classes));
    return std::make_unique<Sequential>(std::move(modules));
}

std::unique_ptr<Module> make_convolutional_network(std::int64_t rows, std::int64_t cols, int classes) {
    if (rows < 4 || cols < 4) {
        throw std::runtime_error("the convolutional network needs images of at least 4 x 4 pixels");
    }
    std::vector<std::unique_ptr<Module>> modules;
    for (const auto& [inputs, outputs] : {std::pair{1, first_channels}, {first_channels, second_channels}}) {
        modules.push_back(convolution(inputs, outputs, inputs > 1));
        modules.push_back(std::make_unique<BatchNormalization>(outputs));
        modules.push_back(std::make_unique<Activation>("relu"));
        modules.push_back(std::make_unique<MaxPool>());
    }
    modules.push_back(std::make_unique<Flatten>());
    modules.push_back(dense(second_channels * (rows / 4) * (cols / 4), hidden_units));
    modules.push_back(std::make_unique<Activation>("relu"));
    modules.push_back(dense(hidden_units, classes));
    return std::make_unique<Sequential>(std::move(modules));
}
