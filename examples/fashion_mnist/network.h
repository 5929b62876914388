// network.h: the two classifiers that the demo can train.
#pragma once

#include "training/module.h"

/// Two dense layers with a ReLU between them.
std::unique_ptr<Module> make_perceptron(std::int64_t pixels, int classes);

/// Two 3x3 convolutions, each with batch normalization, ReLU and 2x2 max pooling, then two dense layers. Takes images
/// [N, 1, rows, cols] of at least 4 x 4 pixels.
std::unique_ptr<Module> make_convolutional_network(std::int64_t rows, std::int64_t cols, int classes);
