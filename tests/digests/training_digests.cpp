// A hundred training steps: losses on the way, and the parameters they end with.
#include "bench/ornik/block.h"
#include "digest.h"
#include "examples/character_model/transformer.h"
#include "examples/fashion_mnist/network.h"

namespace ornik::digests {

namespace {

constexpr int steps = 100;

template <typename Loss>
void train(Digest& digest, Module& model, Optimizer& optimizer, const Loss& loss_of) {
    for (int step = 0; step < steps; ++step) {
        optimizer.zero_grad();
        const KTensor loss = loss_of(model);
        loss.backward();
        optimizer.step();
        digest.add(loss);
    }
    for (const auto& [name, tensor] : model.state()) {
        digest.add(name);
        digest.add(tensor);
    }
}

void train_classifier(Digest& digest, Sequential network) {
    const KTensor images = KTensor::randn({8, 1, 28, 28});
    const KTensor labels = KTensor::randint(0, 10, {8});
    SGD optimizer(network.parameters(), {.lr = 1e-2, .momentum = 0.9, .nesterov = true});
    train(digest, network, optimizer, [&](Module& model) { return cross_entropy(model(images), labels); });
}

void train_characters(Digest& digest) {
    Transformer model({.vocabulary = 11, .context = 12, .width = 24, .heads = 3, .layers = 2});
    const KTensor text = KTensor::randint(0, 11, {4, 12});
    const KTensor next = KTensor::randint(0, 11, {48});
    AdamW optimizer(model.parameters(), {.lr = 1e-3});
    train(digest, model, optimizer, [&](Module& m) { return cross_entropy(reshape(m(text), {48, 11}), next); });
}

void train_block(Digest& digest) {
    bench::Block block(24, 3);
    const KTensor x = KTensor::randn({4, 17, 24});
    const KTensor wanted = KTensor::randn(x.shape());
    Adam optimizer(block.parameters(), {.lr = 1e-3});
    train(digest, block, optimizer, [&](Module& model) { return mse_loss(model(x), wanted); });
}

struct Recurrent : Module {
    KTensor forward(const KTensor& x) override { return scores(gru(lstm(x))); }
    Part<LSTM> lstm = add("lstm", LSTM(3, 10, {.layers = 2, .batch_first = true, .bidirectional = true}));
    Part<GRU> gru = add("gru", GRU(20, 7, {.batch_first = true}));
    Part<Linear> scores = add("scores", Linear(7, 2));
};

void train_recurrent(Digest& digest) {
    Recurrent model;
    const KTensor x = KTensor::randn({5, 9, 3});
    const KTensor wanted = KTensor::randn({5, 9, 2});
    RMSprop optimizer(model.parameters(), {.lr = 1e-3});
    train(digest, model, optimizer, [&](Module& m) { return mse_loss(m(x), wanted); });
}

}  // namespace

std::vector<Row> training_rows() {
    const auto row = [](const char* name, const std::function<void(Digest&)>& run) {
        return Row{std::string("training/") + name, [run](Digest& digest) {
                       set_random_seed(1);
                       run(digest);
                   }};
    };
    return {row("perceptron", [](Digest& digest) { train_classifier(digest, perceptron(28 * 28, 10)); }),
            row("convolutional_network",
                [](Digest& digest) { train_classifier(digest, convolutional_network(28, 28, 10)); }),
            row("character_model", train_characters), row("transformer_block", train_block),
            row("recurrent", train_recurrent)};
}

}  // namespace ornik::digests
