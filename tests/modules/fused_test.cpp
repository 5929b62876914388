// Layers in inference: weights that are kept laid out, and networks whose layers end with what followed them.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/impl.h"
#include "ktensor/indexing.h"
#include "ktensor/networks.h"
#include "modules/fused_layers.h"
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
        EXPECT_GE(prepared.bytes(), 4 * (24 * 40 + 24));  // as they are
        EXPECT_LE(prepared.bytes(), 4 * (32 * 40 + 24));  // in panels of the widest vectors
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

// Networks of images as they come, by a number: rows of convolutions of all kinds, pools and residuals, with their ends
// and, where asked for, normalizations.
class Grown {
  public:
    Grown(unsigned seed, bool normalized) : random_(seed), is_normalized_(normalized) {}

    std::shared_ptr<Sequential> network(std::int64_t parts) {
        auto result = row();
        for (std::int64_t i = 0; i < parts; ++i) {
            add_part(*result);
        }
        if (pick(2) == 0) {
            result->append(AdaptiveAvgPool2d(pick(3) == 0 ? 2 : 1));
            result->append(Flatten());
        }
        return result;
    }

  private:
    std::int64_t pick(std::int64_t count) {
        return static_cast<std::int64_t>(random_() % static_cast<unsigned>(count));
    }

    std::shared_ptr<Module> activation() {
        using Make = std::shared_ptr<Module> (*)();
        constexpr Make kinds[] = {
            [] { return std::shared_ptr<Module>(); },
            [] { return std::shared_ptr<Module>(std::make_shared<ReLU>()); },
            [] { return std::shared_ptr<Module>(std::make_shared<ReLU6>()); },
            [] { return std::shared_ptr<Module>(std::make_shared<Sigmoid>()); },
            [] { return std::shared_ptr<Module>(std::make_shared<Tanh>()); },
            [] { return std::shared_ptr<Module>(std::make_shared<SiLU>()); },
            [] { return std::shared_ptr<Module>(std::make_shared<GELU>()); },
            [] { return std::shared_ptr<Module>(std::make_shared<Hardsigmoid>()); },
            [] { return std::shared_ptr<Module>(std::make_shared<Hardswish>()); },
            [] { return std::shared_ptr<Module>(std::make_shared<Mish>()); },
        };
        return kinds[pick(std::ssize(kinds))]();
    }
    // Extents become those of the stride.
    void add_convolution(Sequential& to, std::int64_t out, std::int64_t kernel, std::int64_t stride, bool with_end) {
        const std::int64_t groups = out != channels_ || pick(3) > 0 ? 1 : pick(2) == 0 ? channels_ : 2;
        to.append(Conv2d(channels_, out, kernel,
                         {.stride = {stride, stride},
                          .padding = {kernel / 2, kernel / 2},
                          .groups = channels_ % groups == 0 ? groups : 1,
                          .bias = pick(2) == 0}));
        channels_ = out;
        if (is_normalized_ && pick(4) > 0) {
            to.append(BatchNorm2d(out, {.affine = pick(3) > 0}));
        }
        if (std::shared_ptr<Module> end = activation(); end && with_end) {
            to.append(end);
        }
    }
    std::int64_t width() { return std::array{8, 16, 24, 32, 33, 48}.at(static_cast<std::size_t>(pick(6))); }
    std::int64_t kernel() { return 1 + 2 * pick(3); }
    void add_residual(Sequential& to) {
        const std::int64_t before = channels_;
        const std::int64_t out = pick(2) == 0 ? before : width();
        const std::int64_t stride = 1 + pick(2);
        auto body = row();
        if (pick(3) > 0) {
            add_convolution(*body, width(), kernel(), 1, true);
        }
        add_convolution(*body, out, kernel(), stride, pick(4) == 0);
        std::shared_ptr<Sequential> shortcut;
        if (out != before || stride != 1) {
            shortcut = row();
            if (out == before && pick(2) == 0) {
                shortcut->append(MaxPool2d(1, stride));
            } else {
                channels_ = before;
                add_convolution(*shortcut, out, 1, stride, false);
            }
        }
        to.append(std::make_shared<Residual>(body, shortcut, activation()));
    }
    void add_part(Sequential& to) {
        switch (pick(7)) {
            case 0:
                to.append(MaxPool2d(3, 1 + pick(2), 1));
                break;
            case 1:
                to.append(AvgPool2d(2 + pick(2), 1, 1));
                break;
            case 2: {
                auto inner = row();
                add_convolution(*inner, width(), kernel(), 1, true);
                to.append(inner);
                break;
            }
            case 3:
            case 4:
                add_residual(to);
                break;
            default:
                add_convolution(to, width(), kernel(), 1 + pick(2), true);
        }
    }

    std::mt19937 random_;
    bool is_normalized_;
    std::int64_t channels_ = 3;
};

TEST(Fuse, GrownNetworksHaveTheirValuesInBlocksAndInPlanes) {
    set_random_seed(5);
    int in_blocks = 0;
    for (unsigned seed = 0; seed < 60; ++seed) {
        const bool is_normalized = seed % 2 == 1;
        const std::shared_ptr<Sequential> network = Grown(seed, is_normalized).network(2 + seed % 5);
        const std::int64_t type = seed % 8 < 5 ? dtype::float32 : dtype::float64;
        *network = scattered(std::move(*network));
        network->to(type);
        network->eval();
        const std::shared_ptr<Module> fast = fuse(*network);
        SCOPED_TRACE(std::to_string(seed) + network->to_string() + fast->to_string());
        const KTensor x = KTensor::randn({1 + seed / 2 % 5, 3, 22 + seed % 4, 19}, type);
        const KTensor recorded = fast->forward(x.clone().requires_grad());
        const NoGrad inference;
        const KTensor wanted = network->forward(x);
        for (int call = 0; call < 3; ++call) {
            const KTensor found = fast->forward(x);
            EXPECT_EQ(bits(found), bits(recorded));
            if (is_normalized) {
                const double tolerance = type == dtype::float32 ? 2e-5 : 1e-13;
                EXPECT_LE(max(abs(found - wanted)).item<double>(), tolerance * max(abs(wanted)).item<double>());
            } else {
                EXPECT_EQ(bits(found), bits(wanted));
            }
        }
        auto* const part = dynamic_cast<detail::FusedPart*>(fast.get());
        in_blocks += part != nullptr && part->pass(Carried(x), true).is_blocked() ? 1 : 0;
    }
    EXPECT_GT(in_blocks, 20);
}

// One layer that has been fused by itself.
struct Alone : Module {
    Part<Conv2d> inner = add("inner", Conv2d(16, 32, 1));
    std::shared_ptr<Module> made;
    KTensor forward(const KTensor& x) override { return inner(x); }
    std::shared_ptr<Module> fused() override {
        Sequential row;
        row.append(inner.shared());
        return made = fuse(row);
    }
};

TEST(Fuse, WhatIsFusedMayBeFusedAgain) {
    const auto alone = std::make_shared<Alone>();
    Sequential network;
    network.append(alone);
    network.append(ReLU());
    network.append(MaxPool2d(2));
    network.eval();
    const std::shared_ptr<Module> once = fuse(network);
    const std::shared_ptr<Module> twice = fuse(*once);
    EXPECT_EQ(
        once->to_string(),
        "Sequential(\n  (0): Fused(Conv, relu)\n  (1): MaxPool2d(kernel=[2, 2], stride=[2, 2], padding=[0, 0])\n)");
    EXPECT_EQ(twice->to_string(), once->to_string());
    EXPECT_EQ(alone->made->to_string(), "Fused(Conv)");
    const NoGrad inference;
    const KTensor x = KTensor::randn({2, 16, 6, 5});
    EXPECT_EQ(bits(once->forward(x)), bits(network.forward(x)));
    EXPECT_EQ(bits(twice->forward(x)), bits(network.forward(x)));
}

TEST(Fuse, WhatBlocksDoNotTakeIsServedOrRefusedAsBefore) {
    const NoGrad inference;
    const KTensor x = KTensor::randn({2, 16, 6, 5});
    // A sum that repeats the body's one position.
    const std::shared_ptr<Sequential> repeated =
        row(Conv2d(16, 32, 1), Residual(row(AdaptiveAvgPool2d(1), Conv2d(32, 32, 1))), Conv2d(32, 16, 1));
    // Channels, windows and axes that do not fit, behind images in blocks.
    const std::shared_ptr<Sequential> wrong[] = {
        row(Conv2d(16, 32, 1), Conv2d(40, 32, 1)), row(Conv2d(16, 32, 1), MaxPool2d(9), Conv2d(32, 32, 1)),
        row(Conv2d(16, 32, 1), Residual(row(Conv2d(32, 32, 1), Conv2d(32, 40, 1)))),
        row(Conv2d(16, 32, 1), Conv2d(32, 32, 7)), row(Conv2d(17, 32, 1), Conv2d(32, 32, 1))};
    repeated->eval();
    const std::shared_ptr<Module> fast = fuse(*repeated);
    for (int call = 0; call < 3; ++call) {
        EXPECT_EQ(bits(fast->forward(x)), bits(repeated->forward(x)));
    }
    for (const std::shared_ptr<Sequential>& network : wrong) {
        network->eval();
        const std::shared_ptr<Module> fused = fuse(*network);
        const std::string words = message_of([&] { (void)network->forward(x); });
        EXPECT_NE(words, "");
        for (int call = 0; call < 3; ++call) {
            EXPECT_EQ(message_of([&] { (void)fused->forward(x); }), words);
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
