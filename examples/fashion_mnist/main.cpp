// Trains a perceptron on the Fashion-MNIST images and reports its accuracy on the test images.
//
// The same seed gives the same digits on every run, whatever the number of threads or processors.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <numbers>
#include <vector>

#include "idx_file.h"
#include "options.h"
#include "perceptron.h"
#include "progress.h"

namespace {

namespace dtype = ornik::dtype;
using ornik::Tensor;

constexpr int hidden_units = 128;
constexpr const char* class_names[] = {"T-shirt/top", "Trouser", "Pullover", "Dress", "Coat",
                                       "Sandal",      "Shirt",   "Sneaker",  "Bag",   "Ankle boot"};
constexpr int classes = static_cast<int>(std::size(class_names));

// Mean and deviation of the training pixels, scaled to [0, 1].
constexpr float pixel_mean = 0.2860F;
constexpr float pixel_deviation = 0.3530F;

// Images as float32 [count, pixels], centred and scaled.
TensorPtr to_tensor(const ImageSet& set) {
    const TensorPtr bytes(new Tensor({set.count(), set.pixels()}, set.images.items.data(),
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

Batch gather(const Tensor* images, const std::vector<std::uint8_t>& labels, const std::vector<std::int64_t>& order,
             std::int64_t begin, std::int64_t count) {
    const std::int64_t pixels = images->Shape()[1];
    Batch batch{TensorPtr(Tensor::empty({count, pixels}, ornik::device_cpu, dtype::float32)),
                TensorPtr(Tensor::empty({count}, ornik::device_cpu, dtype::int64))};
    const auto* source = static_cast<const float*>(images->getRawData());
    auto* rows = static_cast<float*>(batch.images->getRawData());
    auto* targets = static_cast<std::int64_t*>(batch.labels->getRawData());
    for (std::int64_t i = 0; i < count; ++i) {
        const std::int64_t image = order[static_cast<std::size_t>(begin + i)];
        std::copy_n(source + image * pixels, pixels, rows + i * pixels);
        targets[i] = labels[static_cast<std::size_t>(image)];
    }
    return batch;
}

void train(Perceptron& network, const ImageSet& set, const Options& options, Random& random) {
    const TensorPtr images = to_tensor(set);
    const std::int64_t count = set.count();
    const std::int64_t steps_per_epoch = (count + options.batch - 1) / options.batch;
    Progress progress(options.epochs, count);
    std::int64_t step = 0;
    for (int epoch = 1; epoch <= options.epochs; ++epoch) {
        progress.start_epoch(epoch);
        const std::vector<std::int64_t> order = random.permutation(count);
        double loss_sum = 0;
        for (std::int64_t begin = 0; begin < count; begin += options.batch, ++step) {
            const std::int64_t size = std::min<std::int64_t>(options.batch, count - begin);
            const Batch batch = gather(images.get(), set.labels.items, order, begin, size);
            const double done = static_cast<double>(step) / static_cast<double>(steps_per_epoch * options.epochs);
            const auto decay = static_cast<float>(0.5 * (1.0 + std::cos(std::numbers::pi * done)));
            const float loss = network.train_step(batch.images.get(), batch.labels.get(), options.learning_rate * decay,
                                                  options.momentum);
            loss_sum += loss * static_cast<double>(size);
            progress.update(begin + size, loss_sum / static_cast<double>(begin + size));
        }
        progress.finish_epoch(loss_sum / static_cast<double>(count));
    }
}

void report(Perceptron& network, const ImageSet& set) {
    const TensorPtr images = to_tensor(set);
    const TensorPtr logits = network.forward(images.get());
    const auto* scores = static_cast<const float*>(logits->getRawData());
    int right[classes] = {};
    int all[classes] = {};
    for (std::int64_t i = 0; i < set.count(); ++i) {
        const float* row = scores + i * classes;
        const auto label = static_cast<std::size_t>(set.labels.items[static_cast<std::size_t>(i)]);
        ++all[label];
        right[label] += std::max_element(row, row + classes) - row == static_cast<std::ptrdiff_t>(label) ? 1 : 0;
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
    if (training.pixels() != test.pixels()) {
        throw std::runtime_error("training and test images differ in size");
    }
    std::printf("Training on %lld images: %d epochs, batches of %d, learning rate %g, momentum %g, seed %llu\n",
                static_cast<long long>(training.count()), options.epochs, options.batch,
                static_cast<double>(options.learning_rate), static_cast<double>(options.momentum),
                static_cast<unsigned long long>(options.seed));
    Random random(options.seed);
    Perceptron network(static_cast<int>(training.pixels()), hidden_units, classes, random);
    train(network, training, options, random);
    report(network, test);
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
