// modules_test.cpp: networks of modules, their state, their training.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <numbers>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/losses.h"
#include "modules/layers.h"
#include "modules/optimizers.h"
#include "random/generator.h"
#include "support/expect_error.h"
#include "utils/error.h"

namespace ornik {
namespace {

using test::message_of;

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
    EXPECT_REFUSAL(save("a.txt", {}), "save(): \"a.txt\" does not end in .safetensors, .npz or .npy.");
}

TEST(Modules, FaultyStatesChangeNothingAndAreListed) {
    Linear linear(2, 2);
    const std::vector<float> before = linear.weight.to_vector<float>();
    EXPECT_REFUSAL(linear.load_state({{"weight", KTensor::ones({2, 3})}, {"scale", KTensor::ones({})}}),
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

TEST(Modules, OneNameIsEnoughForASharedTensorAndCountsMayBeMissing) {
    struct Tied : Module {
        KTensor table = add_parameter("table", KTensor::ones({2}));
        KTensor again = add_parameter("again", table);
        Part<BatchNorm1d> norm = add("norm", BatchNorm1d(1));
    };
    Tied tied;
    EXPECT_EQ(tied.parameters().size(), 3U);
    EXPECT_EQ(tied.state().size(), 7U);
    const KTensor one = KTensor::ones({1});
    tied.norm->num_batches_tracked.mutable_span<std::int64_t>()[0] = 9;
    tied.load_state({{"again", KTensor({4.0F, 5.0F})},
                     {"norm.weight", one},
                     {"norm.bias", one},
                     {"norm.running_mean", one},
                     {"norm.running_var", one}});
    EXPECT_EQ(tied.table.to_vector<float>(), std::vector<float>({4, 5}));
    EXPECT_EQ(tied.norm->num_batches_tracked.item<std::int64_t>(), 0);
}

TEST(Modules, TreesAsText) {
    ModuleDict<> heads;
    heads.insert("a", Sequential(Embedding(3, 2, -1), ReLU()));
    heads.insert("b", LSTM(3, 5, {.layers = 2, .bidirectional = true}));
    EXPECT_EQ(heads.to_string(),
              "ModuleDict(\n"
              "  (a): Sequential(\n"
              "    (0): Embedding(count=3, width=2, padding_index=2)\n"
              "    (1): ReLU()\n"
              "  )\n"
              "  (b): LSTM(in=3, hidden=5, layers=2, bidirectional=true)\n"
              ")");
    EXPECT_EQ(Network().rest->to_string(),
              "Sequential(\n"
              "  (0): MaxPool2d(kernel=[2, 2], stride=[2, 2], padding=[0, 0])\n"
              "  (1): Flatten()\n"
              "  (2): Dropout(p=0.5)\n"
              "  (3): Linear(in=16, out=3, bias=false)\n"
              ")");
    EXPECT_EQ(Block().to_string().substr(0, 8), "Block(\n ");
    EXPECT_EQ(heads.find("b")->named_parameters().size(), 16U);
    EXPECT_EQ(heads.find("c"), nullptr);
}

// First values are uniform within these bounds, and reach them nearly.
TEST(Modules, FirstValues) {
    const auto check = [](const Module& module, const std::map<std::string, double>& bounds) {
        for (const auto& [name, parameter] : module.named_parameters()) {
            SCOPED_TRACE(name);
            const double bound = bounds.contains(name) ? bounds.at(name) : bounds.at("");
            const double largest = max(abs(parameter)).item<float>();
            EXPECT_LE(largest, bound);
            EXPECT_GE(largest, bound * 0.8);
        }
    };
    set_random_seed(3);
    check(Linear(25, 40), {{"", 0.2}});
    check(Conv2d(8, 40, {5, 2}, {.groups = 2}), {{"", 1 / std::sqrt(40.0)}});
    check(ConvTranspose2d(40, 8, {5, 2}, {.groups = 2}), {{"weight", 1 / std::sqrt(40.0)}, {"bias", 0.16}});
    check(GRU(9, 16, {.bidirectional = true}), {{"", 0.25}});
    check(MultiheadAttention(24, 2), {{"in_proj_weight", 0.25}, {"out_proj.weight", 1 / std::sqrt(24.0)}, {"", 0}});
    check(MultiheadAttention(24, 2, {.bias = false, .key_width = 30, .value_width = 72}),
          {{"q_proj_weight", std::sqrt(6.0 / 48)},
           {"k_proj_weight", 1 / 3.0},
           {"v_proj_weight", 0.25},
           {"out_proj.weight", 1 / std::sqrt(24.0)}});
}

TEST(Modules, DropoutsActInTrainingAlone) {
    set_random_seed(4);
    const KTensor x = KTensor::randn({5, 2, 6});
    const auto check = [&](Module& module) {
        SCOPED_TRACE(module.to_string());
        EXPECT_NE(module(x).to_vector<float>(), module(x).to_vector<float>());
        module.eval();
        EXPECT_EQ(module(x).to_vector<float>(), module(x).to_vector<float>());
    };
    Dropout elements;
    Dropout2d channels;
    LSTM recurrent(6, 3, {.layers = 2, .dropout = 0.5});
    MultiheadAttention attention(6, 2, {.dropout = 0.5});
    TransformerEncoder encoder(1, 6, 2, {.feed_forward = 8, .dropout = 0.3});
    for (Module* module : std::initializer_list<Module*>{&elements, &channels, &recurrent, &attention, &encoder}) {
        check(*module);
    }
}

TEST(Modules, SequencesArePackedAndPadded) {
    const std::vector<KTensor> sequences{KTensor({1.0F}), KTensor({2.0F, 3.0F, 4.0F}), KTensor({5.0F, 6.0F})};
    const PackedSequence packed = pack_sequence(sequences);
    EXPECT_EQ(packed.data.to_vector<float>(), std::vector<float>({2, 5, 1, 3, 6, 4}));
    EXPECT_EQ(packed.packing.batch_sizes(), Dims({3, 2, 1}));
    EXPECT_EQ(pad_sequence(sequences, true, -1).to_vector<float>(), std::vector<float>({1, -1, -1, 2, 3, 4, 5, 6, -1}));
    EXPECT_EQ(pad_packed(packed, false, 0, 4).shape(), Dims({4, 3}));
}

TEST(Modules, FaultyArguments) {
    const KTensor x = KTensor::zeros({4, 2, 6});
    const KTensor no_mask = KTensor::zeros({4, 4}, dtype::int32);
    MultiheadAttention attention(6, 2);
    LSTM lstm(6, 3);
    GRU gru(6, 3, {.batch_first = true});
    KTensor w = KTensor({1.0}).requires_grad();
    Adam adam({w});
    PlateauSchedule plateau(adam);
    EXPECT_REFUSAL(Linear(0, 3), "Linear(): sizes are 1 and above, not 0.");
    EXPECT_REFUSAL(Embedding(3, 2, 3), "Embedding(): there is no row 3 of 3.");
    EXPECT_REFUSAL(Dropout(1.5), "Dropout(): a probability is in [0, 1], not 1.500000.");
    EXPECT_REFUSAL(Conv2d(4, 6, 3, {.groups = 4}), "Conv2d(): 4 and 6 channels do not fall into 4 groups.");
    EXPECT_REFUSAL(Conv1d(4, 6, 3, {.padding = {-1}}), "Conv1d(): sizes are 0 and above, not -1.");
    EXPECT_REFUSAL(Conv2d(4, 6, 3, {.stride = {1, 2}, .same = true}),
                   "Conv2d(): the same extents need stride 1, no other padding, and no transposed convolution.");
    EXPECT_REFUSAL(MaxPool2d(2, 2, 2), "MaxPool2d(): the padding is less than the kernel.");
    EXPECT_REFUSAL(GroupNorm(4, 6), "GroupNorm(): 6 and 6 channels do not fall into 4 groups.");
    EXPECT_REFUSAL(LayerNorm({}), "LayerNorm(): there are no axes to normalize over.");
    EXPECT_REFUSAL(Softplus(-1), "Softplus(): beta is above 0, not -1.000000.");
    EXPECT_REFUSAL(Hardtanh(1, 0), "Hardtanh(): the bounds are in order, not 1.000000 and 0.000000.");
    EXPECT_REFUSAL(Upsample(-0.5), "Upsample(): a factor is above 0, not -0.500000.");
    EXPECT_REFUSAL(Unflatten(1, {3, -1})(x), "Unflatten(): 2 elements do not fall into ( 3, -1 ) .");
    EXPECT_REFUSAL(RMSNorm({5})(x), "RMSNorm(): the last axes of ( 4, 2, 6 ) are not ( 5 ) .");
    EXPECT_REFUSAL(PReLU(3)(x), "PReLU(): wants [N, 3, ...], not ( 4, 2, 6 ) ");
    EXPECT_REFUSAL(MultiheadAttention(10, 3), "MultiheadAttention(): a width of 10 does not fall into 3 heads.");
    EXPECT_REFUSAL(TransformerEncoderLayer(8, 2, {.dropout = 2}),
                   "TransformerEncoderLayer(): a probability is in [0, 1], not 2.000000.");
    EXPECT_REFUSAL(TransformerEncoder(0, 8, 2), "TransformerEncoder(): sizes are 1 and above, not 0.");
    EXPECT_REFUSAL(attention.forward(x, x, KTensor::zeros({3, 2, 6})),
                   "MultiheadAttention(): query, key and value are [4, 2, 6] float32, [4, 2, 6] float32 and [3, 2, 6] "
                   "float32; wanted are [targets, N, 6], [sources, N, 6] and [sources, N, 6].");
    EXPECT_REFUSAL(attention.forward(x, x, x, {.mask = KTensor::zeros({4, 3})}),
                   "MultiheadAttention(): the mask is [4, 3] float32, not [4, 4] float32 or [4, 4, 4] float32.");
    EXPECT_REFUSAL(attention.forward(x, x, x, {.mask = no_mask}),
                   "MultiheadAttention(): the mask is [4, 4] int32, neither bool nor floating.");
    EXPECT_REFUSAL(attention.forward(x, x, x, {.key_padding_mask = no_mask}),
                   "MultiheadAttention(): the key padding mask is [4, 4] int32, not [2, 4] int32.");
    EXPECT_REFUSAL(LSTM(3, 4, {.layers = 0}), "LSTM(): sizes are 1 and above, not 0.");
    EXPECT_REFUSAL(lstm(KTensor::zeros({4, 2, 5})), "LSTM(): [4, 2, 5] float32 is no [steps, N, 6] or [steps, 6].");
    EXPECT_REFUSAL(gru.with_states(x, KTensor::zeros({1, 2, 3})),
                   "GRU(): a state is [1, 2, 3] float32, not [1, 4, 3] float32.");
    EXPECT_REFUSAL(lstm.parameters_of(0, true), "LSTM::parameters_of(): there is no reverse layer 0.");
    EXPECT_REFUSAL(lstm.with_states({x, Packing({2, 1})}), "LSTM(): [4, 2, 6] float32 is no packed [3, 6].");
    EXPECT_REFUSAL(pack_padded(x, {4, 5}),
                   "pack_padded(): [4, 2, 6] float32 does not hold 2 sequences of up to 5 steps.");
    EXPECT_REFUSAL(pack_padded(x, {4, 0}), "pack_padded(): lengths are 1 and above, not 0.");
    EXPECT_REFUSAL(LSTMCell(2, 3).step(KTensor::zeros({2, 3})), "LSTMCell(): [2, 3] float32 is no [N, 2].");
    EXPECT_REFUSAL(TransformerDecoder(1, 6, 2)(x), "forward(): this module does not lead from one tensor to one.");
    EXPECT_REFUSAL(Adam({w, w}), "Optimizer(): parameter 1, [1] float64, is listed twice.");
    EXPECT_REFUSAL(SGD({w}, {.lr = -1}),
                   "Optimizer(): learning rate and weight decay are 0 and above, not -1.000000 and 0.000000.");
    EXPECT_REFUSAL(adam.options(2), "Optimizer: there is no group 2 of 1.");
    EXPECT_REFUSAL(Adadelta({w}).set_momentum(0, 1), "momentum(): this optimizer does not have one.");
    EXPECT_REFUSAL(adam.load_state({{"1.step", KTensor::scalar(1)},
                                    {"0.exp_avg", KTensor::ones({2})},
                                    {"groups.0.rho", KTensor::scalar(1)},
                                    {"groups.0.lr", KTensor::ones({2})}}),
                   "load_state(): 1.step belongs to no parameter; 0.exp_avg is [2] float32 for [1] float64; "
                   "groups.0.rho belongs to no group; groups.0.lr is [2] float32 for a number.");
    EXPECT_REFUSAL(plateau.load_state({{"best", KTensor::scalar(1.0)}}), "load_state(): bad is not there as a number.");
}

// ---- Optimizers ----

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
    const std::vector<double> cycle = rates([](Optimizer& o) { return OneCycleSchedule(o, 2, 10); }, 11);
    EXPECT_NEAR(cycle[0], 2.0 / 25, 1e-12);
    EXPECT_NEAR(cycle[2], 2, 1e-12);
    EXPECT_NEAR(cycle[9], 2.0 / 25 / 1e4, 1e-12);
    EXPECT_EQ(cycle[10], cycle[9]);
    EXPECT_EQ(message_of([&] { rates([](Optimizer& o) { return OneCycleSchedule(o, 2, 10); }, 12); }),
              "step(): the cycle ends after 10 steps.");
    EXPECT_EQ(rates([](Optimizer& o) { return LambdaSchedule(o, [](std::int64_t t) { return 1.0 / (1 << t); }); }, 3),
              std::vector<double>({1, 0.5, 0.25}));
    SGD method({w}, {.lr = 1});
    const PlateauOptions options{.factor = 0.5, .patience = 1};
    PlateauSchedule plateau(method, options);
    for (const double measure : {1.0, 0.5, 0.5}) {
        plateau.step(measure);
    }
    PlateauSchedule next(method, options);  // Counts on from the state of the other.
    next.load_state(plateau.state());
    EXPECT_EQ(method.learning_rate(), 1);
    next.step(0.5);
    EXPECT_EQ(method.learning_rate(), 0.5);
}

}  // namespace
}  // namespace ornik
