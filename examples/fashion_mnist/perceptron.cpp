#include "perceptron.h"

#include <cmath>

namespace dtype = ornik::dtype;
using ornik::Tensor;

namespace {

enum Node { input_node = 0, weight_node = 1, bias_node = 2 };

TensorPtr random_matrix(int rows, int cols, float bound, Random& random) {
    TensorPtr result(Tensor::empty({rows, cols}, ornik::device_cpu, dtype::float32));
    auto* values = static_cast<float*>(result->getRawData());
    for (std::int64_t i = 0; i < result->Size(); ++i) {
        values[i] = random.uniform(bound);
    }
    return result;
}

}  // namespace

Perceptron::Dense::Dense(int inputs, int outputs, Random& random)
    : layer(ornik::_Dense(outputs, true, "")),
      weight(random_matrix(inputs, outputs, std::sqrt(6.0F / static_cast<float>(inputs)), random)),
      bias(Tensor::zeros({outputs}, ornik::device_cpu, dtype::float32)),
      weight_velocity(Tensor::zeros_like(weight.get())),
      bias_velocity(Tensor::zeros_like(bias.get())) {}

TensorPtr Perceptron::Dense::forward(Tensor* input) {
    return TensorPtr(layer->forward_dyn(weight.get(), bias.get(), input));
}

TensorPtr Perceptron::Dense::input_gradient(Tensor* input, Tensor* output_gradient) {
    return TensorPtr(layer->backward_dyn(weight.get(), bias.get(), input, output_gradient, input_node));
}

void Perceptron::Dense::update(Tensor* input, Tensor* output_gradient, float learning_rate, float momentum) {
    const TensorPtr weight_grad(layer->backward_dyn(weight.get(), bias.get(), input, output_gradient, weight_node));
    const TensorPtr bias_grad(layer->backward_dyn(weight.get(), bias.get(), input, output_gradient, bias_node));
    ornik::sgd_step(weight.get(), weight_grad.get(), learning_rate, weight_velocity.get(), momentum, true);
    ornik::sgd_step(bias.get(), bias_grad.get(), learning_rate, bias_velocity.get(), momentum, true);
}

Perceptron::Perceptron(int inputs, int hidden, int outputs, Random& random)
    : first_(inputs, hidden, random),
      second_(hidden, outputs, random),
      relu_(ornik::_Activation("relu", {}, "relu")),
      loss_(ornik::getLoss("softmax_cross_entropy")) {}

TensorPtr Perceptron::forward(Tensor* images) {
    const TensorPtr hidden = first_.forward(images);
    const TensorPtr active(relu_->forward_dyn(hidden.get()));
    return second_.forward(active.get());
}

float Perceptron::train_step(Tensor* images, Tensor* labels, float learning_rate, float momentum) {
    const TensorPtr hidden = first_.forward(images);
    const TensorPtr active(relu_->forward_dyn(hidden.get()));
    const TensorPtr logits = second_.forward(active.get());
    const TensorPtr loss(loss_->loss_forward(logits.get(), labels));

    const TensorPtr logits_grad(loss_->loss_backward(logits.get(), labels));
    const TensorPtr active_grad = second_.input_gradient(active.get(), logits_grad.get());
    const TensorPtr hidden_grad(relu_->backward_dyn(hidden.get(), active.get(), active_grad.get()));
    second_.update(active.get(), logits_grad.get(), learning_rate, momentum);
    first_.update(images, hidden_grad.get(), learning_rate, momentum);
    return *static_cast<const float*>(loss->getRawData());
}
