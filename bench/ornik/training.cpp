// training.cpp: one whole training step of the demo's convolutional network.
#include "fashion_mnist/network.h"
#include "tensors.h"
#include "training/optimizer.h"

namespace bench {

void training_rows() {
    ornik::set_random_seed(1);
    const std::shared_ptr<Module> network = make_convolutional_network(28, 28, 10);
    const std::shared_ptr<ornik::Loss> loss(ornik::getLoss("softmax_cross_entropy"));
    const TensorPtr images(Tensor::randn({training_batch, 1, 28, 28}, 0, 1, ornik::device_cpu, dtype::float32));
    const TensorPtr labels(Tensor::randint({training_batch}, 0, 10, ornik::device_cpu, dtype::int64));
    row("training_step/fashion_mnist", [=] {
        const TensorPtr scores = network->forward(images, true);
        const TensorPtr value(loss->loss_forward(scores.get(), labels.get()));
        network->backward(TensorPtr(loss->loss_backward(scores.get(), labels.get())));
        sgd_update(network->parameters(), 1e-3F, 0.9F);
    });
}

}  // namespace bench
