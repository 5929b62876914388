// modules_test.cpp: networks of modules, their state, their training.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <numbers>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/losses.h"
#include "modules/layers.h"
#include "modules/optimizers.h"
#include "random/generator.h"
#include "utils/error.h"

namespace ornik {
namespace {

struct Block : Module {
    Part<Conv2d> conv = add("conv", Conv2d(2, 4, 3, {.padding = {1, 1}}));
    Part<BatchNorm2d> norm = add("norm", BatchNorm2d(4));
    KTensor forward(const KTensor& x) override { return relu(norm(conv(x))); }
};

struct Network : Module {
    Part<Block> first = add("first", Block());
    Part<Sequential> rest = add("rest", Sequential(MaxPool2d(2), Flatten(), Dropout(0.5), Linear(16, 3, false)));
    KTensor forward(const KTensor& x) override { return rest(first(x)); }
};

std::vector<std::string> names_of(const NamedTensors& tensors) {
    std::vector<std::string> names;
    for (const auto& [name, tensor] : tensors) {
        names.push_back(name);
    }
    return names;
}

std::string message_of(const std::function<void()>& call) {
    try {
        call();
    } catch (const Error& error) {
        return std::string(error.message());
    }
    return "(no error)";
}

TEST(Modules, NamesLayoutsAndCounts) {
    const Network network;
    EXPECT_EQ(names_of(network.state()),
              std::vector<std::string>({"first.conv.weight", "first.conv.bias", "first.norm.weight", "first.norm.bias",
                                        "rest.3.weight", "first.norm.running_mean", "first.norm.running_var",
                                        "first.norm.num_batches_tracked"}));
    EXPECT_EQ(network.parameters()[0].shape(), Dims({4, 2, 3, 3}));
    EXPECT_EQ(network.parameters()[4].shape(), Dims({3, 16}));
    EXPECT_EQ(network.parameter_count(), 72 + 4 + 8 + 48);
    for (const KTensor& parameter : network.parameters()) {
        EXPECT_TRUE(parameter.wants_grad() && parameter.is_leaf());
    }
}

TEST(Modules, TrainingAndInferenceDiffer) {
    set_random_seed(1);
    Network network;
    const KTensor x = KTensor::randn({8, 2, 4, 4});
    (void)network(x);
    const NamedTensors state = network.state();
    EXPECT_EQ(state[7].second.item<std::int64_t>(), 1);
    EXPECT_NE(state[5].second.to_vector<float>(), std::vector<float>(4, 0.0F));
    network.eval();
    EXPECT_EQ(network(x).to_vector<float>(), network(x).to_vector<float>());
    EXPECT_EQ(state[7].second.item<std::int64_t>(), 1);
}

TEST(Modules, StateGoesThroughFiles) {
    const std::filesystem::path path = std::filesystem::temp_directory_path() / "ornik_modules_test.safetensors";
    Network from;
    (void)from(KTensor::randn({4, 2, 4, 4}));
    save(path, from.state());
    Network to;
    to.load_state(load(path));
    std::filesystem::remove(path);
    from.eval();
    to.eval();
    const KTensor x = KTensor::randn({3, 2, 4, 4});
    EXPECT_EQ(from(x).to_vector<float>(), to(x).to_vector<float>());
    EXPECT_EQ(message_of([&] { save("a.txt", {}); }), "save(): \"a.txt\" does not end in .safetensors, .npz or .npy.");
}

TEST(Modules, FaultyStatesChangeNothingAndAreListed) {
    Linear linear(2, 2);
    const std::vector<float> before = linear.weight.to_vector<float>();
    EXPECT_EQ(message_of([&] {
                  linear.load_state({{"weight", KTensor::ones({2, 3})}, {"scale", KTensor::ones({})}});
              }),
              "load_state(): weight is [2, 2] float32, not [2, 3] float32; bias is missing; scale is unknown.");
    EXPECT_EQ(linear.weight.to_vector<float>(), before);
    linear.load_state({{"weight", KTensor::ones({2, 2}, dtype::float64)}, {"bias", KTensor::zeros({2})}});
    EXPECT_EQ(linear.weight.to_vector<float>(), std::vector<float>(4, 1.0F));
}

TEST(Modules, OtherPrecision) {
    Linear linear(3, 2);
    const std::vector<float> before = linear.weight.to_vector<float>();
    linear.to(dtype::float64);
    EXPECT_EQ(linear(KTensor::ones({1, 3}, dtype::float64)).dtype(), dtype::float64);
    EXPECT_EQ(astype(linear.weight.detach(), dtype::float32).to_vector<float>(), before);
}

// ---- Optimizers ----

// The loss after 60 steps at a linear problem, from 1.
template <typename Method, typename Options>
double trained(const Options& options) {
    KTensor w = KTensor({1.0, -1.0, 0.5}).requires_grad();
    Method method({w}, options);
    const KTensor x({{1.0, 0.2, -0.3}, {0.1, 0.8, 0.4}, {-0.5, 0.3, 1.1}, {0.7, -0.6, 0.2}});
    const std::function<KTensor()> loss = [&] { return mean(sqr(sum(x * w, {1}))); };
    const double first = loss().item<double>();
    for (int i = 0; i < 60; ++i) {
        method.zero_grad();
        loss().backward();
        method.step();
    }
    return loss().item<double>() / first;
}

TEST(Optimizers, AllOfThemTrain) {
    EXPECT_LT(trained<SGD>(SgdOptions{.lr = 0.3}), 0.01);
    EXPECT_LT(trained<SGD>(SgdOptions{.lr = 0.1, .momentum = 0.9, .weight_decay = 1e-4, .nesterov = true}), 0.01);
    EXPECT_LT(trained<Adam>(AdamOptions{.lr = 0.1}), 0.01);
    EXPECT_LT(trained<Adam>(AdamOptions{.lr = 0.1, .weight_decay = 1e-3, .amsgrad = true}), 0.01);
    EXPECT_LT(trained<AdamW>(AdamOptions{.lr = 0.1, .weight_decay = 1e-2}), 0.01);
    EXPECT_LT(trained<Adamax>(AdamaxOptions{.lr = 0.1}), 0.01);
    EXPECT_LT(trained<Adagrad>(AdagradOptions{.lr = 0.5}), 0.01);
    EXPECT_LT(trained<Adadelta>(AdadeltaOptions{.lr = 10}), 0.5);
    EXPECT_LT(trained<RMSprop>(RmspropOptions{.lr = 0.03, .momentum = 0.5, .centered = true}), 0.01);
}

TEST(Optimizers, ContinueFromTheirState) {
    const auto run = [](bool interrupted) {
        KTensor w = KTensor({1.0, 2.0}).requires_grad();
        const auto steps = [&](Adam& adam, int count) {
            for (int i = 0; i < count; ++i) {
                adam.zero_grad();
                sum(sqr(w) * w).backward();
                adam.step();
            }
        };
        Adam adam({w}, {.lr = 0.1});
        steps(adam, 3);
        if (!interrupted) {
            steps(adam, 2);
            return w.detach().to_vector<double>();
        }
        Adam next({w}, {.lr = 0.1});
        next.load_state(adam.state());
        steps(next, 2);
        return w.detach().to_vector<double>();
    };
    EXPECT_EQ(run(true), run(false));
    KTensor w = KTensor({1.0}).requires_grad();
    Adam adam({w});
    EXPECT_EQ(message_of([&] {
                  adam.load_state({{"1.step", KTensor::scalar(1)}, {"0.exp_avg", KTensor::ones({2})}});
              }),
              "load_state(): 1.step belongs to no parameter; 0.exp_avg is [2] float32 for [1] float64.");
    EXPECT_EQ(message_of([&] { const Adam twice({w, w}); }), "Optimizer(): parameter 1, [1] float64, is listed twice.");
}

TEST(Optimizers, ClippingKeepsTheDirection) {
    KTensor a = KTensor({3.0}).requires_grad();
    KTensor b = KTensor({4.0}).requires_grad();
    sum(sqr(a) * 0.5 + sqr(b) * 0.5).backward();
    EXPECT_DOUBLE_EQ(clip_grad_norm({a, b}, 1), 5);
    EXPECT_NEAR(a.grad().item<double>(), 0.6, 1e-6);
    EXPECT_DOUBLE_EQ(clip_grad_norm({a, b}, 10, true), b.grad().item<double>());
    clip_grad_value({a, b}, 0.7);
    EXPECT_DOUBLE_EQ(b.grad().item<double>(), 0.7);
}

TEST(Schedules, FollowTheirFormulas) {
    KTensor w = KTensor({1.0}).requires_grad();
    const auto rates = [&](auto&& make, int count) {
        SGD method({w}, {.lr = 1, .momentum = 0.5});
        auto schedule = make(method);
        std::vector<double> result{method.learning_rate()};
        for (int i = 1; i < count; ++i) {
            schedule.step();
            result.push_back(method.learning_rate());
        }
        return result;
    };
    EXPECT_EQ(rates([](Optimizer& o) { return StepSchedule(o, 2, 0.5); }, 5),
              std::vector<double>({1, 1, 0.5, 0.5, 0.25}));
    const std::vector<double> cosine = rates([](Optimizer& o) { return CosineSchedule(o, 4, 0.2); }, 5);
    EXPECT_NEAR(cosine[1], 0.2 + 0.4 * (1 + std::cos(std::numbers::pi / 4)), 1e-12);
    EXPECT_NEAR(cosine[4], 0.2, 1e-12);
    const std::vector<double> warm = rates([](Optimizer& o) { return WarmupSchedule(o, 0.5, 1, 2); }, 4);
    EXPECT_EQ(warm, std::vector<double>({0.5, 0.75, 1, 1}));
    const std::vector<double> cycle = rates([](Optimizer& o) { return OneCycleSchedule(o, 2, 10); }, 10);
    EXPECT_NEAR(cycle[0], 2.0 / 25, 1e-12);
    EXPECT_NEAR(cycle[2], 2, 1e-12);
    EXPECT_NEAR(cycle[9], 2.0 / 25 / 1e4, 1e-12);
    SGD method({w}, {.lr = 1});
    PlateauSchedule plateau(method, {.factor = 0.5, .patience = 1});
    for (const double measure : {1.0, 0.5, 0.5, 0.5}) {
        plateau.step(measure);
    }
    EXPECT_EQ(method.learning_rate(), 0.5);
}

}  // namespace
}  // namespace ornik
