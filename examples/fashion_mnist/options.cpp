#include "options.h"

#include <CLI/CLI.hpp>

std::optional<Options> parse_options(int argc, char** argv, int& exit_code) {
    Options options;
    CLI::App app("Trains a classifier on Fashion-MNIST and reports its accuracy.");
    app.add_option("--network", options.network, "convolutional, or perceptron: two dense layers, faster and weaker")
        ->check(CLI::IsMember({"convolutional", "perceptron"}))
        ->capture_default_str();
    app.add_option("--epochs", options.epochs, "Passes over the training images")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    app.add_option("--batch", options.batch, "Images per training step")
        ->check(CLI::Range(1, 60000))
        ->capture_default_str();
    app.add_option("--lr", options.learning_rate, "Learning rate of the first epoch; it falls to zero along a cosine")
        ->check(CLI::Range(0.0F, 100.0F))
        ->capture_default_str();
    app.add_option("--momentum", options.momentum, "Momentum of the optimizer")
        ->check(CLI::Range(0.0F, 1.0F))
        ->capture_default_str();
    app.add_option("--seed", options.seed, "Seed of the initial weights and of the order of the images")
        ->capture_default_str();
    app.add_option("--threads", options.threads, "Size of the thread team; results do not depend on it")
        ->check(CLI::Range(1, 1024));
    app.add_option("--data", options.data, "Folder of the four gzip-compressed IDX files")->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error);
        return std::nullopt;
    }
    return options;
}
