// Trains a small network on the Fashion-MNIST images and reports its accuracy on the test images.
//
// The same seed gives the same digits on every run, whatever the number of threads or processors.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "idx_file.h"
#include "network.h"
#include "options.h"
#include "progress.h"
#include "training/optimizer.h"

namespace {

namespace dtype = ornik::dtype;
using ornik::Tensor;

constexpr const char* class_names[] = {"T-shirt/top", "Trouser", "Pullover", "Dress", "Coat",
                                       "Sandal",      "Shirt",   "Sneaker",  "Bag",   "Ankle boot"};
constexpr int classes = static_cast<int>(std::size(class_names));

// Mean and deviation of the training pixels, scaled to [0, 1].
constexpr float pixel_mean = 0.2860F;
constexpr float pixel_deviation = 0.3530F;

// Images as float32 [count, 1, rows, cols], centred and scaled.
TensorPtr to_tensor(const ImageSet& set) {
    const ornik::Dims& shape = set.images.shape;
    const TensorPtr bytes(new Tensor({shape[0], 1, shape[1], shape[2]}, set.images.items.data(),
                                     ornik::pack_dtype_and_device(dtype::uint8, ornik::device_cpu), nullptr));
    TensorPtr images(bytes->astype(dtype::float32));
    images->mult_scalar_inplace(1.0F / (255.0F * pixel_deviation));
    images->sub_scalar_inplace(pixel_mean / pixel_deviation);
    return images;
}

// Rows order[begin .. begin + count) of the images, and their labels as int64.
struct Batch {
    TensorPtr images;
    TensorPtr labels;
};

Batch gather(Tensor* images, const std::vector<std::uint8_t>& labels, const std::int64_t* order, std::int64_t count) {
    const std::int64_t pixels = images->Size() / images->Shape()[0];
    ornik::Dims shape = images->Shape();
    shape[0] = count;
    Batch batch{TensorPtr(Tensor::empty(shape, ornik::device_cpu, dtype::float32)),
                TensorPtr(Tensor::empty({count}, ornik::device_cpu, dtype::int64))};
    const auto* source = static_cast<const float*>(images->getRawData());
    auto* rows = static_cast<float*>(batch.images->getRawData());
    auto* targets = static_cast<std::int64_t*>(batch.labels->getRawData());
    for (std::int64_t i = 0; i < count; ++i) {
        std::copy_n(source + order[i] * pixels, pixels, rows + i * pixels);
        targets[i] = labels[static_cast<std::size_t>(order[i])];
    }
    return batch;
}

// The loss of the batch.
float train_step(Module& network, ornik::Loss& loss, const Batch& batch, float learning_rate, float momentum) {
    const TensorPtr scores = network.forward(batch.images, true);
    const TensorPtr value(loss.loss_forward(scores.get(), batch.labels.get()));
    network.backward(TensorPtr(loss.loss_backward(scores.get(), batch.labels.get())));
    sgd_update(network.parameters(), learning_rate, momentum);
    return *static_cast<const float*>(value->getRawData());
}

void train(Module& network, const ImageSet& set, const Options& options) {
    const TensorPtr images = to_tensor(set);
    const std::unique_ptr<ornik::Loss> loss(ornik::getLoss("softmax_cross_entropy"));
    const std::int64_t count = set.count();
    const std::int64_t steps_per_epoch = (count + options.batch - 1) / options.batch;
    Progress progress(options.epochs, count);
    std::int64_t step = 0;
    for (int epoch = 1; epoch <= options.epochs; ++epoch) {
        progress.start_epoch(epoch);
        const TensorPtr order(Tensor::permutation(count, ornik::device_cpu, dtype::int64));
        const auto* next = static_cast<const std::int64_t*>(order->getRawData());
        double loss_sum = 0;
        for (std::int64_t begin = 0; begin < count; begin += options.batch, ++step) {
            const std::int64_t size = std::min<std::int64_t>(options.batch, count - begin);
            const Batch batch = gather(images.get(), set.labels.items, next + begin, size);
            const double done = static_cast<double>(step) / static_cast<double>(steps_per_epoch * options.epochs);
            const auto decay = static_cast<float>(0.5 * (1.0 + std::cos(std::numbers::pi * done)));
            loss_sum += static_cast<double>(size) *
                        train_step(network, *loss, batch, options.learning_rate * decay, options.momentum);
            progress.update(begin + size, loss_sum / static_cast<double>(begin + size));
        }
        progress.finish_epoch(loss_sum / static_cast<double>(count));
    }
}

void report(Module& network, const ImageSet& set) {
    const TensorPtr images = to_tensor(set);
    int right[classes] = {};
    int all[classes] = {};
    constexpr std::int64_t batch = 1000;
    for (std::int64_t begin = 0; begin < set.count(); begin += batch) {
        const std::int64_t end = std::min(begin + batch, set.count());
        const TensorPtr part(images->select_ndim_without_copy({std::to_string(begin) + ":" + std::to_string(end)}));
        const TensorPtr scores = network.forward(part, false);
        const auto* row = static_cast<const float*>(scores->getRawData());
        for (std::int64_t i = begin; i < end; ++i, row += classes) {
            const auto label = static_cast<std::size_t>(set.labels.items[static_cast<std::size_t>(i)]);
            ++all[label];
            right[label] += std::max_element(row, row + classes) - row == static_cast<std::ptrdiff_t>(label) ? 1 : 0;
        }
    }
    int right_sum = 0;
    std::printf("\nAccuracy on %lld test images\n", static_cast<long long>(set.count()));
    for (int c = 0; c < classes; ++c) {
        std::printf("  %-12s %6.2f %%\n", class_names[c], 100.0 * right[c] / std::max(all[c], 1));
        right_sum += right[c];
    }
    std::printf("  %-12s %6.2f %%\n", "overall", 100.0 * right_sum / static_cast<double>(set.count()));
}

void run(const Options& options) {
    if (options.threads > 0) {
        ornik::ConfigSetNumThreads(options.threads);
    }
    const ImageSet training = read_image_set(options.data, "train", classes);
    const ImageSet test = read_image_set(options.data, "t10k", classes);
    if (training.images.shape[1] != test.images.shape[1] || training.pixels() != test.pixels()) {
        throw std::runtime_error("training and test images differ in size");
    }
    std::printf(
        "Training the %s network on %lld images: %d epochs, batches of %d, learning rate %g, momentum %g, "
        "seed %u\n",
        options.network.c_str(), static_cast<long long>(training.count()), options.epochs, options.batch,
        static_cast<double>(options.learning_rate), static_cast<double>(options.momentum), options.seed);
    ornik::set_random_seed(options.seed);
    const ornik::Dims& shape = training.images.shape;
    const std::unique_ptr<Module> network = options.network == "perceptron"
                                                ? make_perceptron(training.pixels(), classes)
                                                : make_convolutional_network(shape[1], shape[2], classes);
    train(*network, training, options);
    report(*network, test);
}

}  // namespace

int main(int argc, char** argv) {
    int exit_code = 0;
    const std::optional<Options> options = parse_options(argc, argv, exit_code);
    if (!options) {
        return exit_code;
    }
    try {
        run(*options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fashion_mnist: %s\n", error.what());
        return 1;
    }
    return 0;
}
