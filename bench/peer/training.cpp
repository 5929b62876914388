// training.cpp: operations of one element, recorded, and passes and training steps of the demo's convolutional network
// and of a transformer block through libtorch.
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

template <typename Step>
void chain_row(const std::string& name, const Step& step) {
    at::Tensor leaf = filled({1}, 1).requires_grad_();
    row("one/" + name + "/recorded_and_backward/" + std::to_string(chain_length), [=]() mutable {
        const at::AutoGradMode gradients(true);
        at::Tensor y = leaf;
        for (int i = 0; i < chain_length; ++i) {
            y = step(y);
        }
        y.backward();
        leaf.mutable_grad().reset();
    });
}

// A row inside a recording scope: main() runs all others without.
void recorded_row(const std::string& name, const std::function<void()>& operation) {
    row(name, [=] {
        const at::AutoGradMode gradients(true);
        operation();
    });
}

struct Block : torch::nn::Module {
    at::Tensor forward(const at::Tensor& x) {
        const at::Tensor n = norm1(x);
        const auto in_heads = [&](const at::Tensor& t) {
            return t.reshape({block_batch, block_length, block_heads, block_width / block_heads}).transpose(1, 2);
        };
        const at::Tensor attended =
            at::scaled_dot_product_attention(in_heads(query(n)), in_heads(key(n)), in_heads(value(n)), {}, 0, true);
        const at::Tensor y = x + out(attended.transpose(1, 2).reshape(x.sizes()));
        return y + down(at::gelu(up(norm2(y))));
    }
    torch::nn::Linear linear(const char* name, std::int64_t in, std::int64_t outputs) {
        return register_module(name, torch::nn::Linear(in, outputs));
    }
    torch::nn::LayerNorm norm(const char* name) {
        return register_module(name, torch::nn::LayerNorm(torch::nn::LayerNormOptions({block_width})));
    }

    torch::nn::LayerNorm norm1 = norm("norm1"), norm2 = norm("norm2");
    torch::nn::Linear query = linear("query", block_width, block_width), key = linear("key", block_width, block_width),
                      value = linear("value", block_width, block_width), out = linear("out", block_width, block_width),
                      up = linear("up", block_width, 4 * block_width),
                      down = linear("down", 4 * block_width, block_width);
};

void block_row() {
    const auto block = std::make_shared<Block>();
    at::Tensor x = at::randn({block_batch, block_length, block_width}).requires_grad_();
    const at::Tensor seed = at::randn(x.sizes());
    recorded_row("pass/transformer_block", [=]() mutable {
        block->zero_grad();
        x.mutable_grad().reset();
        block->forward(x).backward(seed);
    });
}

}  // namespace

void recording_rows() {
    const at::Tensor a = filled({1}, 1), b = filled({1}, 1), w = filled({1}, 1).requires_grad_();
    row("one/empty/plain", [] { at::empty({1}); });
    row("one/add", [=] { at::add(a, b); });
    row("one/mul", [=] { at::mul(a, b); });
    row("one/tanh", [=] { at::tanh(a); });
    recorded_row("one/add/recorded", [=] { at::add(w, b); });
    recorded_row("one/mul/recorded", [=] { at::mul(w, b); });
    recorded_row("one/tanh/recorded", [=] { at::tanh(w); });
    chain_row("add", [b](const at::Tensor& y) { return y + b; });
    chain_row("mul", [b](const at::Tensor& y) { return y * b; });
    chain_row("tanh", [](const at::Tensor& y) { return at::tanh(y); });
}

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
    recorded_row("pass/fashion_mnist", [=]() mutable {
        network->zero_grad();
        at::cross_entropy_loss(network->forward(images), labels).backward();
    });
    recorded_row("training_step/fashion_mnist", [=]() mutable {
        optimizer->zero_grad();
        at::cross_entropy_loss(network->forward(images), labels).backward();
        optimizer->step();
    });
    block_row();
}

}  // namespace bench
