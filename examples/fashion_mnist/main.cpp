// Trains a small network on the Fashion-MNIST images and reports its accuracy on the test images.
//
// The same seed gives the same digits on every run, whatever the number of threads or processors.
#include <ornik.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <numeric>
#include <stdexcept>

#include "idx_file.h"
#include "network.h"
#include "options.h"
#include "progress.h"

namespace {

namespace dtype = ornik::dtype;
using ornik::KTensor;
using ornik::Slice;

constexpr const char* class_names[] = {"T-shirt/top", "Trouser", "Pullover", "Dress", "Coat",
                                       "Sandal",      "Shirt",   "Sneaker",  "Bag",   "Ankle boot"};
constexpr int classes = static_cast<int>(std::size(class_names));

// Mean and deviation of the training pixels, scaled to [0, 1].
constexpr float pixel_mean = 0.2860F;
constexpr float pixel_deviation = 0.3530F;

// Images as float32 [count, 1, rows, cols], centred and scaled.
KTensor image_tensor(const ImageSet& set) {
    const ornik::Dims& shape = set.images.shape;
    const KTensor bytes = KTensor::from(set.images.items, {shape[0], 1, shape[1], shape[2]});
    return astype(bytes, dtype::float32) * (1 / (255 * pixel_deviation)) - pixel_mean / pixel_deviation;
}

KTensor label_tensor(const ImageSet& set) { return astype(KTensor::from(set.labels.items), dtype::int64); }

void train(ornik::Module& network, const ImageSet& set, const Options& options) {
    const KTensor images = image_tensor(set);
    const KTensor labels = label_tensor(set);
    const std::int64_t steps_per_epoch = (set.count() + options.batch - 1) / options.batch;
    ornik::SGD optimizer(network.parameters(),
                         {.lr = options.learning_rate, .momentum = options.momentum, .nesterov = options.momentum > 0});
    ornik::CosineSchedule schedule(optimizer, steps_per_epoch * options.epochs);
    Progress progress(options.epochs, set.count());
    for (int epoch = 1; epoch <= options.epochs; ++epoch) {
        progress.start_epoch(epoch);
        const KTensor order = KTensor::randperm(set.count());
        for (std::int64_t begin = 0; begin < set.count(); begin += options.batch) {
            const KTensor batch = slice(order, 0, Slice(begin, begin + options.batch));
            optimizer.zero_grad();
            const KTensor loss = cross_entropy(network(index_select(images, 0, batch)), index_select(labels, 0, batch));
            loss.backward();
            optimizer.step();
            schedule.step();
            progress.update(batch.size(), loss.item<double>());
        }
        progress.finish_epoch();
    }
}

void report(ornik::Module& network, const ImageSet& set) {
    const ornik::NoGrad values_alone;
    network.eval();
    const KTensor images = image_tensor(set);
    const KTensor labels = label_tensor(set);
    double right[classes] = {};
    double all[classes] = {};
    constexpr std::int64_t batch = 1000;
    for (std::int64_t begin = 0; begin < set.count(); begin += batch) {
        const KTensor answers = argmax(network(slice(images, 0, Slice(begin, begin + batch))), {1});
        const KTensor truth = slice(labels, 0, Slice(begin, begin + batch));
        for (int c = 0; c < classes; ++c) {
            const KTensor is_class = equal(truth, c);
            all[c] += sum(is_class).item<double>();
            right[c] += sum(logical_and(is_class, equal(answers, c))).item<double>();
        }
    }
    std::printf("\nAccuracy on %lld test images\n", static_cast<long long>(set.count()));
    for (int c = 0; c < classes; ++c) {
        std::printf("  %-12s %6.2f %%\n", class_names[c], 100 * right[c] / std::max(all[c], 1.0));
    }
    const double right_sum = std::accumulate(right, right + classes, 0.0);
    std::printf("  %-12s %6.2f %%\n", "overall", 100 * right_sum / static_cast<double>(set.count()));
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
    const bool convolutional = options.network != "perceptron";
    if (convolutional && (shape[1] < 4 || shape[2] < 4)) {
        throw std::runtime_error("the convolutional network needs images of at least 4 x 4 pixels");
    }
    ornik::Sequential network =
        convolutional ? convolutional_network(shape[1], shape[2], classes) : perceptron(training.pixels(), classes);
    train(network, training, options);
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
