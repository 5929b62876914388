// Layers in inference: weights that are kept laid out, and networks whose layers end with what followed them.
#include <gtest/gtest.h>

#include <thread>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/impl.h"
#include "ktensor/indexing.h"
#include "ktensor/networks.h"
#include "modules/layers.h"
#include "random/generator.h"
#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/loan.h"

namespace ornik {
namespace {

using test::bytes_of;
using test::message_of;

std::string bits(const KTensor& t) { return bytes_of(t.tensor()); }

// Weights away from their first values, running statistics too.
template <typename M>
M scattered(M module) {
    const NoGrad values_alone;
    for (auto& [name, tensor] : module.state()) {
        if (tensor.is_floating()) {
            copy_(tensor,
                  KTensor::rand(tensor.shape(), tensor.dtype(), name.find("var") < name.size() ? 0.5 : -0.5, 1));
        }
    }
    return module;
}

// The calls of one module: recorded, and not, the weights kept by then, or changed since.
template <typename M>
void expect_same_in_inference(M module, const KTensor& x) {
    const std::string trained = bits(module.forward(x));
    module.eval();
    EXPECT_EQ(bits(module.forward(x)), trained) << module;
    {
        const NoGrad inference;
        for (int call = 0; call < 3; ++call) {
            EXPECT_EQ(bits(module.forward(x)), trained) << module << call;
        }
        for (KTensor& parameter : module.parameters()) {
            mul_(parameter, Scalar(0.5));
        }
        const std::string changed = bits(module.forward(x));
        EXPECT_NE(changed, trained) << module;
        EXPECT_EQ(bits(module.forward(x)), changed);
        module.train();
        EXPECT_EQ(bits(module.forward(x)), changed) << module;
        module.eval();
        module.to(dtype::float64);
        EXPECT_EQ(module.forward(astype(x, dtype::float64)).dtype(), dtype::float64);
    }
}

TEST(Inference, LayersHaveTheBitsOfTraining) {
    set_random_seed(1);
    const KTensor rows = KTensor::randn({3, 5, 48}), images = KTensor::randn({2, 32, 9, 7}),
                  lines = KTensor::randn({2, 16, 20});
    expect_same_in_inference(Linear(48, 33), rows);
    expect_same_in_inference(Linear(48, 7, false), rows);
    expect_same_in_inference(Conv2d(32, 40, 3, {.stride = {2, 1}, .padding = {1, 1}}), images);
    expect_same_in_inference(Conv2d(32, 32, 3, {.groups = 32, .bias = false}), images);
    expect_same_in_inference(Conv1d(16, 16, 3, {.same = true}), lines);
    expect_same_in_inference(ConvTranspose1d(16, 8, 4, {.stride = {2, 1}}), lines);
    expect_same_in_inference(ConvTranspose2d(32, 8, 3), images);
    expect_same_in_inference(MultiheadAttention(48, 4, {.batch_first = true}), rows);
    expect_same_in_inference(scattered(TransformerEncoderLayer(48, 4, {.feed_forward = 64, .dropout = 0})), rows);
    for (KTensor (*const activation)(const KTensor&) : {gelu, silu, mish}) {
        expect_same_in_inference(
            TransformerEncoderLayer(48, 4,
                                    {.feed_forward = 64, .dropout = 0, .activation = activation, .norm_first = true}),
            rows);
    }
    TransformerDecoderLayer decoder(48, 4, {.feed_forward = 64, .dropout = 0});
    const std::string trained = bits(decoder.forward(rows, rows));
    decoder.eval();
    const NoGrad inference;
    for (int call = 0; call < 3; ++call) {
        EXPECT_EQ(bits(decoder.forward(rows, rows)), trained);
    }
}

TEST(Inference, WeightsAreKeptWhileNobodyWrites) {
    const NoGrad inference;
    const KTensor x = KTensor::randn({4, 40});
    KTensor w = KTensor::randn({24, 40}), b = KTensor::randn({24});
    PreparedWeight prepared;
    const auto kept_after = [&](const KTensor& weight) {
        EXPECT_EQ(bits(prepared.linear(x, weight, b)), bits(linear(x, weight, b)));
        return prepared.bytes() > 0;
    };
    for (int round = 0; round < 3; ++round) {  // Each begins with a change.
        EXPECT_FALSE(kept_after(w));
        EXPECT_TRUE(kept_after(w));
        EXPECT_TRUE(kept_after(w));
        EXPECT_GE(prepared.bytes(), 4 * (24 * 40 + 24));
        KTensor part = narrow(w, 0, 3, 2);
        (void)(round == 0 ? add_(b, Scalar(1.0)) : copy_(part, KTensor::zeros({2, 40})));
    }
    w = KTensor::randn({24, 40});
    EXPECT_FALSE(kept_after(w) && kept_after(w.mutable_span<float>().empty() ? KTensor() : w));
    EXPECT_TRUE(kept_after(w));
    {
        const Loan loan(w.tensor()->getStorage());
        static_cast<float*>(w.tensor()->getRawData())[0] = 5;
        EXPECT_EQ(bits(prepared.linear(x, w, b)), bits(linear(x, w, b)));
        static_cast<float*>(w.tensor()->getRawData())[0] = 6;
        EXPECT_EQ(bits(prepared.linear(x, w, b)), bits(linear(x, w, b)));
    }
    EXPECT_FALSE(kept_after(w));
    EXPECT_TRUE(kept_after(w));
    prepared.drop();
    EXPECT_EQ(prepared.bytes(), 0);
    std::vector<float> outside(24 * 40, 0.5F);
    const KTensor foreign = autograd::make_ktensor(std::unique_ptr<Tensor>(
        share_storage_tensor(tensorT::Tensor_storage::from_foreign(outside.data(), 24 * 40, dtype::float32, nullptr),
                             {24, 40}, {40, 1}, dtype::float32, 0)));
    for (int call = 0; call < 3; ++call) {
        EXPECT_FALSE(kept_after(foreign));
        outside[7] += 1;
    }
    // Refused in the operation's own words, kept or not.
    const KTensor narrow_rows = KTensor::randn({4, 39});
    const std::string words = message_of([&] { (void)linear(narrow_rows, w, b); });
    for (int call = 0; call < 3; ++call) {
        EXPECT_EQ(message_of([&] { (void)prepared.linear(narrow_rows, w, b); }), words);
        (void)kept_after(w);
    }
    EXPECT_EQ(message_of([&] { (void)prepared.linear(x, KTensor()); }),
              message_of([&] { (void)linear(x, KTensor()); }));
}

TEST(Inference, ThreadsShareALayer) {
    Linear layer(64, 64);
    layer.eval();
    const KTensor x = KTensor::randn({8, 64});
    const std::string wanted = bits(linear(x, layer.weight, layer.bias));
    std::vector<int> wrong(4);
    std::vector<std::thread> threads;
    for (int& count : wrong) {
        threads.emplace_back([&] {
            const NoGrad inference;
            for (int call = 0; call < 50; ++call) {
                count += bits(layer.forward(x)) == wanted ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, std::vector<int>(4));
}

// A module that says what it is made of.
struct Block : Module {
    Part<Conv2d> conv1 = add("conv1", Conv2d(32, 32, 3, {.padding = {1, 1}, .bias = false}));
    Part<BatchNorm2d> bn1 = add("bn1", BatchNorm2d(32));
    Part<ReLU> relu = add("relu", ReLU());
    Part<Conv2d> conv2 = add("conv2", Conv2d(32, 32, 3, {.padding = {1, 1}, .groups = 4}));
    Part<BatchNorm2d> bn2 = add("bn2", BatchNorm2d(32, {.affine = false}));
    KTensor forward(const KTensor& x) override { return relu(bn2(conv2(relu(bn1(conv1(x))))) + x); }
    std::shared_ptr<Module> fused() override {
        auto body = std::make_shared<Sequential>();
        for (const auto& [name, part] : parts()) {
            body->append(part);
        }
        return fuse(Residual(body, nullptr, std::make_shared<ReLU>()));
    }
};

struct Unknown : Module {
    Part<Linear> inner = add("inner", Linear(4, 4));
    KTensor forward(const KTensor& x) override { return inner(x); }
};

template <typename... Modules>
std::shared_ptr<Sequential> row(Modules... modules) {
    return std::make_shared<Sequential>(std::move(modules)...);
}

TEST(Fuse, FoldsNormalizationsAndJoinsWhatFollows) {
    set_random_seed(2);
    Sequential network(Conv2d(3, 32, 3, {.stride = {2, 2}, .bias = false}), BatchNorm2d(32), SiLU(), Block(),
                       Residual(row(Conv2d(32, 32, 1), BatchNorm2d(32), ReLU6()),
                                row(Conv2d(32, 32, 1, {.bias = false}), BatchNorm2d(32))),
                       Sequential(ConvTranspose2d(32, 24, 2, {.groups = 2}), Dropout(0.3)), BatchNorm2d(24), GELU(),
                       MaxPool2d(2), Flatten(), Linear(24 * 4 * 4, 16), BatchNorm1d(16), Tanh(), Linear(16, 4));
    network = scattered(std::move(network));
    const KTensor images = KTensor::randn({2, 3, 15, 15});
    for (const auto& [type, tolerance] : {std::pair(dtype::float32, 2e-5), std::pair(dtype::float64, 1e-13)}) {
        network.to(type);
        network.eval();
        const std::shared_ptr<Module> fast = fuse(network);
        const NoGrad inference;
        const KTensor x = astype(images, type);
        const KTensor wanted = network.forward(x);
        for (int call = 0; call < 3; ++call) {
            const KTensor found = fast->forward(x);
            EXPECT_EQ(found.dtype(), type);
            EXPECT_LE(max(abs(found - wanted)).item<double>(), tolerance * max(abs(wanted)).item<double>());
        }
        const std::string text = fast->to_string();
        EXPECT_EQ(text.find("BatchNorm"), std::string::npos) << text;
        EXPECT_EQ(text.find("Dropout"), std::string::npos) << text;
        EXPECT_EQ(text.find("ReLU()"), std::string::npos) << text;
        EXPECT_NE(text.find("(0): Fused(Conv, normalized, silu)"), std::string::npos) << text;
        EXPECT_NE(text.find("(last): Fused(Conv, normalized, relu)"), std::string::npos) << text;
        EXPECT_NE(text.find("Fused(ConvTranspose, normalized, gelu)"), std::string::npos) << text;
        EXPECT_NE(text.find("Fused(Linear, normalized, tanh)"), std::string::npos) << text;
        EXPECT_TRUE(fast->parameters().empty());
        EXPECT_EQ(fast->state().front().first, "0.weight");
        // Gradients reach the operand.
        const KTensor leaf = x.detach().clone().requires_grad();
        const GradMode recorded(true);
        sum(fast->forward(leaf)).backward();
        EXPECT_TRUE(leaf.grad().defined());
    }
}

TEST(Fuse, BitsStayWhereNothingIsFolded) {
    set_random_seed(3);
    Sequential network(Conv2d(16, 32, 3), Hardswish(),
                       Residual(row(Conv2d(32, 32, 1), ReLU(), Conv2d(32, 32, 1)), nullptr, std::make_shared<ReLU>()),
                       Residual(row(ReLU(), Conv2d(32, 32, 1), ReLU()), nullptr, std::make_shared<GELU>(true)),
                       Flatten(), Linear(32 * 9, 24), Sigmoid(), LayerNorm({24}));
    network.eval();
    const std::shared_ptr<Module> fast = fuse(network);
    const KTensor x = KTensor::randn({2, 16, 5, 5});
    const NoGrad inference;
    for (int round = 0; round < 2; ++round) {
        for (int call = 0; call < 3; ++call) {
            EXPECT_EQ(bits(fast->forward(x)), bits(network.forward(x)));
        }
        // The weights are the network's own.
        for (KTensor& parameter : network.parameters()) {
            mul_(parameter, Scalar(0.75));
        }
    }
}

TEST(Fuse, Refusals) {
    Sequential network(Linear(4, 4), BatchNorm1d(4));
    EXPECT_EQ(message_of([&] { (void)fuse(network); }), "fuse(): the module is in training; eval() it first.");
    network.eval();
    const std::shared_ptr<Module> fast = fuse(network);
    EXPECT_EQ(message_of([&] {
                  (void)fast->forward(KTensor::ones({2, 4, 4}));
              }),
              "forward(): a linear map with a batch normalization folded in takes [N, 4], not [2, 4, 4] float32.");
    fast->train();
    EXPECT_EQ(message_of([&] {
                  (void)fast->forward(KTensor::ones({2, 4}));
              }),
              "forward(): a fused module is for inference; train the one that it was made from.");
    Unknown unknown;
    unknown.eval();
    EXPECT_EQ(
        message_of([&] { (void)fuse(unknown); }),
        "fuse(): Unknown does not say what it is made of; Sequential and Residual do, other modules by overriding "
        "fused().");
    Sequential holder;
    holder.append(Unknown());
    holder.eval();
    const KTensor x = KTensor::randn({2, 4});
    EXPECT_EQ(bits(fuse(holder)->forward(x)), bits(holder.forward(x)));
    EXPECT_EQ(message_of([] { (void)Residual(std::shared_ptr<Module>()); }), "Residual(): there is no body.");
}

}  // namespace
}  // namespace ornik
