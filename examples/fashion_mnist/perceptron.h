// perceptron.h: a network of two dense layers with a ReLU between them, trained by SGD with momentum.
//
// Shows how parameters, forward and backward passes and optimizer steps of the library fit together: layers
// compute, the program owns parameters, gradients and optimizer state.
#pragma once

#include <ornik.h>

#include <memory>

#include "random.h"

using TensorPtr = std::unique_ptr<ornik::Tensor>;

class Perceptron {
  public:
    /// Weights are drawn from `random` (uniform, bounded by the square root of 6 / inputs), biases are 0.
    Perceptron(int inputs, int hidden, int outputs, Random& random);

    /// [batch, inputs] to [batch, outputs], without a final softmax.
    TensorPtr forward(ornik::Tensor* images);

    /// One step on a batch of images with int64 labels [batch]; returns the batch's loss.
    float train_step(ornik::Tensor* images, ornik::Tensor* labels, float learning_rate, float momentum);

  private:
    // A dense layer with its parameters and what the optimizer keeps for them.
    struct Dense {
        Dense(int inputs, int outputs, Random& random);
        TensorPtr forward(ornik::Tensor* input);
        TensorPtr input_gradient(ornik::Tensor* input, ornik::Tensor* output_gradient);
        void update(ornik::Tensor* input, ornik::Tensor* output_gradient, float learning_rate, float momentum);

        std::unique_ptr<ornik::Layer> layer;
        TensorPtr weight;
        TensorPtr bias;
        TensorPtr weight_velocity;
        TensorPtr bias_velocity;
    };

    Dense first_;
    Dense second_;
    std::unique_ptr<ornik::Layer> relu_;
    std::unique_ptr<ornik::Loss> loss_;
};
