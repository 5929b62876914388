// network.h: the two classifiers that the demo can train, from images [N, 1, rows, cols] to scores [N, classes].
#pragma once

#include <ornik.h>

/// Two linear maps with a ReLU between them.
inline ornik::Sequential perceptron(std::int64_t pixels, std::int64_t classes) {
    using namespace ornik;
    return Sequential{Flatten(), Linear(pixels, 128), ReLU(), Linear(128, classes)};
}

/// Two convolutions, each with batch normalization, which has the bias, and pooling; then the same as above. Images of
/// at least 4 x 4 pixels.
inline ornik::Sequential convolutional_network(std::int64_t rows, std::int64_t cols, std::int64_t classes) {
    using namespace ornik;
    const ConvOptions same{.padding = {1, 1}, .bias = false};
    return Sequential{Conv2d(1, 16, 3, same),
                      BatchNorm2d(16),
                      ReLU(),
                      MaxPool2d(2),  //
                      Conv2d(16, 32, 3, same),
                      BatchNorm2d(32),
                      ReLU(),
                      MaxPool2d(2),  //
                      Flatten(),
                      Linear(32 * (rows / 4) * (cols / 4), 128),
                      ReLU(),
                      Linear(128, classes)};
}
