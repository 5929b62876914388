// training.cpp: the training step of the demo's convolutional network through libtorch.
#include "tensors.h"

namespace bench {

namespace {

void add_block(torch::nn::Sequential& network, int inputs, int outputs) {
    using namespace torch::nn;
    network->push_back(Conv2d(Conv2dOptions(inputs, outputs, 3).padding(1).bias(false)));
    network->push_back(BatchNorm2d(outputs));
    network->push_back(ReLU());
    network->push_back(MaxPool2d(MaxPool2dOptions(2)));
}

}  // namespace

void training_rows() {
    using namespace torch::nn;
    Sequential network;
    add_block(network, 1, 16);
    add_block(network, 16, 32);
    network->push_back(Flatten());
    network->push_back(Linear(32 * 7 * 7, 128));
    network->push_back(ReLU());
    network->push_back(Linear(128, 10));
    const auto optimizer = std::make_shared<torch::optim::SGD>(
        network->parameters(), torch::optim::SGDOptions(1e-3).momentum(0.9).nesterov(true));
    const at::Tensor images = at::randn({training_batch, 1, 28, 28});
    const at::Tensor labels = at::randint(0, 10, {training_batch}, at::kLong);
    row("training_step/fashion_mnist", [=]() mutable {
        const at::AutoGradMode gradients(true);
        optimizer->zero_grad();
        at::cross_entropy_loss(network->forward(images), labels).backward();
        optimizer->step();
    });
}

}  // namespace bench
